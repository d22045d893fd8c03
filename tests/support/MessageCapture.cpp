#include "MessageCapture.h"

#include <QtCore/QMutexLocker>

namespace {
MessageCapture* s_current = nullptr;

QString levelName(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return QStringLiteral("debug");
    case QtInfoMsg:
        return QStringLiteral("info");
    case QtWarningMsg:
        return QStringLiteral("warning");
    case QtCriticalMsg:
        return QStringLiteral("critical");
    case QtFatalMsg:
        return QStringLiteral("fatal");
    }
    return QString();
}
} // namespace

MessageCapture::MessageCapture()
{
    s_current = this;
    m_previous = qInstallMessageHandler(&MessageCapture::handler);
}

MessageCapture::~MessageCapture()
{
    qInstallMessageHandler(m_previous);
    s_current = nullptr;
}

void MessageCapture::handler(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (MessageCapture* capture = s_current) {
        QMutexLocker locker(&capture->m_mutex);
        capture->m_messages.append({type, text});
    }
}

QList<MessageCapture::Message> MessageCapture::messages() const
{
    QMutexLocker locker(&m_mutex);
    return m_messages;
}

QStringList MessageCapture::texts(QtMsgType type) const
{
    QStringList result;
    for (const Message& message : messages()) {
        if (message.type == type) {
            result.append(message.text);
        }
    }
    return result;
}

QStringList MessageCapture::all() const
{
    QStringList result;
    for (const Message& message : messages()) {
        result.append(levelName(message.type) + QStringLiteral(": ") + message.text);
    }
    return result;
}

bool MessageCapture::contains(QtMsgType type, const QString& text) const
{
    return count(type, text) > 0;
}

int MessageCapture::count(QtMsgType type, const QString& text) const
{
    return texts(type).count(text);
}

void MessageCapture::clear()
{
    QMutexLocker locker(&m_mutex);
    m_messages.clear();
}
