#include "MessageCapture.h"

#include <QtCore/QMutexLocker>

#include <atomic>

namespace {
// Read by whichever thread logs. A capture thread may be set off by another
// process (a sound server) rather than by the test's own thread, so the
// pointer itself must carry the ordering.
std::atomic<MessageCapture*> s_current {nullptr};

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
    s_current.store(this, std::memory_order_release);
    m_previous = qInstallMessageHandler(&MessageCapture::handler);
}

MessageCapture::~MessageCapture()
{
    qInstallMessageHandler(m_previous);
    s_current.store(nullptr, std::memory_order_release);
}

void MessageCapture::handler(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (MessageCapture* capture = s_current.load(std::memory_order_acquire)) {
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
