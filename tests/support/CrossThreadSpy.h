// A signal spy for signals emitted on another thread.
//
// QSignalSpy appends each emission, on the emitting thread, to a list that
// the test reads on its own thread without a lock: a data race whenever the
// signal comes from a worker. CrossThreadSpy records on the emitting thread
// too, as the emission happens, but under a lock that the readers take as
// well, so the order of emission and reading is one that a thread sanitizer
// can see.
#pragma once

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QVariant>
#include <QtTest/QTest>

#include <mutex>

class CrossThreadSpy : public QObject
{
public:
    template <typename Sender, typename Signal> CrossThreadSpy(const Sender* sender, Signal signal)
    {
        QObject::connect(
            sender, signal, this,
            [this](const auto&... arguments) {
                QVariantList emission {QVariant::fromValue(arguments)...};
                const std::lock_guard<std::mutex> lock(m_lock);
                m_emissions.append(std::move(emission));
            },
            Qt::DirectConnection);
    }

    int count() const
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        return m_emissions.size();
    }
    int size() const
    {
        return count();
    }
    bool isEmpty() const
    {
        return count() == 0;
    }

    QVariantList at(int index) const
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        return m_emissions.at(index);
    }
    QVariantList first() const
    {
        return at(0);
    }
    QVariantList last() const
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        return m_emissions.last();
    }

    /// Waits, running the event loop, until another emission arrives.
    bool wait(int timeoutMs = 5000)
    {
        const int before = count();
        return QTest::qWaitFor([&] { return count() > before; }, timeoutMs);
    }

private:
    mutable std::mutex m_lock;
    QList<QVariantList> m_emissions;
};
