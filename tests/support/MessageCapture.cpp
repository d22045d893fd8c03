#include "MessageCapture.h"

#include <mutex>

namespace {
// Guards the current capture and its list. A worker thread may be inside the
// handler while the test's thread destroys the capture; with one lock for
// both, the destructor waits for that message, and a message that comes later
// finds no capture.
std::mutex s_lock;
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
    {
        const std::lock_guard<std::mutex> lock(s_lock);
        s_current = this;
    }
    m_previous = qInstallMessageHandler(&MessageCapture::handler);
}

MessageCapture::~MessageCapture()
{
    qInstallMessageHandler(m_previous);
    const std::lock_guard<std::mutex> lock(s_lock);
    if (s_current == this) {
        s_current = nullptr;
    }
}

void MessageCapture::handler(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    const std::lock_guard<std::mutex> lock(s_lock);
    if (s_current) {
        s_current->m_messages.append({type, text});
    }
}

QList<MessageCapture::Message> MessageCapture::messages() const
{
    const std::lock_guard<std::mutex> lock(s_lock);
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
    const std::lock_guard<std::mutex> lock(s_lock);
    m_messages.clear();
}
