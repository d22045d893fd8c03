#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QString>
#include <QtCore/QUrl>
#include <QtNetwork/QSslSocket>
#include <QtNetwork/QTcpSocket>

/**
 * The test's side channel to the recording HTTP server (server/http_test_server.py).
 *
 * It talks plain blocking HTTP/1.0 over its own socket, so it can be used
 * from inside a nested event loop without running that loop. For an https
 * server it speaks TLS, trusting what the process's default TLS
 * configuration trusts.
 */
class ServerControl
{
public:
    explicit ServerControl(const QUrl& base)
        : m_base(base)
    {
    }

    QByteArray call(const QByteArray& method, const QString& path, const QByteArray& body = QByteArray()) const
    {
        QSslSocket socket;
        if (m_base.scheme() == QLatin1String("https")) {
            socket.connectToHostEncrypted(m_base.host(), static_cast<quint16>(m_base.port()));
            if (!socket.waitForEncrypted(10000)) {
                return QByteArray();
            }
        } else {
            socket.connectToHost(m_base.host(), static_cast<quint16>(m_base.port()));
            if (!socket.waitForConnected(10000)) {
                return QByteArray();
            }
        }
        socket.write(method + ' ' + path.toUtf8() + " HTTP/1.0\r\nHost: " + m_base.host().toUtf8()
            + "\r\nContent-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size())
            + "\r\nConnection: close\r\n\r\n" + body);
        QByteArray response;
        while (socket.state() == QAbstractSocket::ConnectedState && socket.waitForReadyRead(60000)) {
            response += socket.readAll();
        }
        response += socket.readAll();
        const int headerEnd = response.indexOf("\r\n\r\n");
        return headerEnd < 0 ? QByteArray() : response.mid(headerEnd + 4);
    }

    void reset() const
    {
        call("POST", QStringLiteral("/control/reset"));
    }
    void release() const
    {
        call("POST", QStringLiteral("/control/release"));
    }

    /// Scripts the server's answer on @p path: mode "reply" (status, body, contentType), "hang",
    /// "close", "stall" (status, sent) or "endless" (status, contentType).
    void script(QJsonObject behaviour) const
    {
        call("POST", QStringLiteral("/control/script"), QJsonDocument(behaviour).toJson(QJsonDocument::Compact));
    }
    void scriptReply(const QString& path, const QByteArray& body, int status = 200,
        const QString& contentType = QStringLiteral("application/json")) const
    {
        script({{QStringLiteral("path"), path}, {QStringLiteral("mode"), QStringLiteral("reply")},
            {QStringLiteral("status"), status}, {QStringLiteral("body"), QString::fromUtf8(body)},
            {QStringLiteral("contentType"), contentType}});
    }
    void scriptMode(const QString& path, const QString& mode) const
    {
        script({{QStringLiteral("path"), path}, {QStringLiteral("mode"), mode}});
    }

    QJsonArray requests() const
    {
        return QJsonDocument::fromJson(call("GET", QStringLiteral("/control/requests"))).array();
    }

    QJsonArray requestsTo(const QString& path) const
    {
        QJsonArray matching;
        for (const QJsonValue& request : requests()) {
            if (request.toObject().value(QStringLiteral("path")).toString() == path) {
                matching.append(request);
            }
        }
        return matching;
    }

    /// The SHA-256, lower-case hexadecimal, of the server's blob of that size and seed.
    QString blobDigest(qint64 size, int seed) const
    {
        const QJsonObject answer = QJsonDocument::fromJson(
            call("GET", QStringLiteral("/control/digest?size=%1&seed=%2").arg(size).arg(seed)))
                                       .object();
        return answer.value(QStringLiteral("sha256")).toString();
    }

    void scriptStall(const QString& path, int sentBytes) const
    {
        script({{QStringLiteral("path"), path}, {QStringLiteral("mode"), QStringLiteral("stall")},
            {QStringLiteral("sent"), sentBytes}});
    }

    QString blobUrl(qint64 size, int seed) const
    {
        return m_base.toString() + QStringLiteral("/blob?size=%1&seed=%2").arg(size).arg(seed);
    }

    static QString header(const QJsonObject& request, const QString& name)
    {
        for (const QJsonValue& pair : request.value(QStringLiteral("headers")).toArray()) {
            if (pair.toArray().at(0).toString().compare(name, Qt::CaseInsensitive) == 0) {
                return pair.toArray().at(1).toString();
            }
        }
        return QString();
    }

private:
    QUrl m_base;
};
