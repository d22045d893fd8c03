#pragma once

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QtGlobal>

/**
 * Records every Qt message emitted while it is alive, with its level, and
 * passes nothing on. Installs itself as the message handler; the previous
 * handler is restored at destruction. Thread-safe: capturers and pool tasks
 * log from their own threads.
 */
class MessageCapture
{
public:
    struct Message
    {
        QtMsgType type;
        QString text;
    };

    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    QList<Message> messages() const;
    /// Texts of the messages of one level, in order.
    QStringList texts(QtMsgType type) const;
    /// All texts, each prefixed with its level ("debug: ", "info: ", ...).
    QStringList all() const;
    bool contains(QtMsgType type, const QString& text) const;
    int count(QtMsgType type, const QString& text) const;
    void clear();

private:
    static void handler(QtMsgType type, const QMessageLogContext& context, const QString& text);

    QList<Message> m_messages;
    QtMessageHandler m_previous = nullptr;
};
