#pragma once

#include "ResultCodes.h"
#include "cpu/SoftwareScaler.h"
#include "ifaces/DesktopDuplicator.h"
#include "ifaces/RetryClock.h"

#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/QStringList>

#include <opencv2/core.hpp>

#include <functional>
#include <memory>
#include <vector>

/**
 * The script shared by a fake duplicator, its sessions and the test: results
 * are taken from the front of each list, a default when it is empty, and
 * every platform call is recorded by name.
 */
struct DuplicationScript
{
    QStringList calls;
    QList<long> enumResults;
    QList<long> queryResults;
    QList<long> duplicateResults;
    /// Description of each new session; the last one repeats.
    QList<Orvanta::Ifaces::DuplicationDescription> descriptions;
    /// Results of acquireNextFrame; DXGI_ERROR_WAIT_TIMEOUT when empty.
    QList<long> acquireResults;
    /// When set, every acquire succeeds (a desktop that keeps changing).
    bool alwaysChanging = false;
    long frameSourceResult = S_OK;
    std::vector<int> offeredFormats;
    /// The desktop, B, G, R, A; its size need not match the description.
    cv::Mat picture;
    int framesHeld = 0;
    int framesReleased = 0;
    int sessionsAlive = 0;
    int sessionsMade = 0;
    std::shared_ptr<Orvanta::Ifaces::GpuScaler> scaler = std::make_shared<Orvanta::Cpu::SoftwareScaler>();
    QMutex mutex;

    static long take(QList<long>& list, long fallback)
    {
        return list.isEmpty() ? fallback : list.takeFirst();
    }
    void record(const QString& call)
    {
        QMutexLocker lock(&mutex);
        calls << call;
    }
    QStringList recorded()
    {
        QMutexLocker lock(&mutex);
        return calls;
    }
    int count(const QString& call)
    {
        return recorded().count(call);
    }
};

inline Orvanta::Ifaces::DuplicationDescription duplicationDescription(
    unsigned width, unsigned height, int format = 87, int rotation = 1)
{
    Orvanta::Ifaces::DuplicationDescription description;
    description.width = width;
    description.height = height;
    description.format = format;
    description.rotation = rotation;
    return description;
}

class FakeOutputDuplication : public Orvanta::Ifaces::OutputDuplication
{
public:
    FakeOutputDuplication(
        std::shared_ptr<DuplicationScript> script, Orvanta::Ifaces::DuplicationDescription description)
        : m_script(std::move(script))
        , m_description(description)
    {
        ++m_script->sessionsAlive;
    }
    ~FakeOutputDuplication() override
    {
        --m_script->sessionsAlive;
    }

    Orvanta::Ifaces::DuplicationDescription description() const override
    {
        m_script->record(QStringLiteral("describe"));
        return m_description;
    }
    long acquireNextFrame(unsigned timeoutMilliseconds) override
    {
        m_script->record(QStringLiteral("acquire %1").arg(timeoutMilliseconds));
        long result = DXGI_ERROR_WAIT_TIMEOUT;
        {
            QMutexLocker lock(&m_script->mutex);
            result = m_script->alwaysChanging ? S_OK : DuplicationScript::take(m_script->acquireResults, result);
        }
        if (result >= 0) {
            ++m_script->framesHeld;
        }
        return result;
    }
    long frameSource(Orvanta::Ifaces::ScalerSource& source) override
    {
        m_script->record(QStringLiteral("frameSource"));
        if (m_script->frameSourceResult < 0) {
            return m_script->frameSourceResult;
        }
        source.pixels = m_script->picture.data;
        source.bytesPerLine = m_script->picture.step[0];
        source.width = m_script->picture.cols;
        source.height = m_script->picture.rows;
        source.format = Orvanta::Ifaces::PixelFormat::B8G8R8A8Unorm;
        return S_OK;
    }
    long releaseFrame() override
    {
        m_script->record(QStringLiteral("releaseFrame"));
        ++m_script->framesReleased;
        return S_OK;
    }

private:
    std::shared_ptr<DuplicationScript> m_script;
    Orvanta::Ifaces::DuplicationDescription m_description;
};

class FakeDesktopDuplicator : public Orvanta::Ifaces::DesktopDuplicator
{
public:
    explicit FakeDesktopDuplicator(std::shared_ptr<DuplicationScript> script)
        : m_script(std::move(script))
    {
    }

    long enumOutput(unsigned outputIndex) override
    {
        m_script->record(QStringLiteral("enumOutput %1").arg(outputIndex));
        return DuplicationScript::take(m_script->enumResults, S_OK);
    }
    long queryDuplicationOutput() override
    {
        m_script->record(QStringLiteral("queryDuplicationOutput"));
        return DuplicationScript::take(m_script->queryResults, S_OK);
    }
    long duplicateOutput(
        const std::vector<int>& formats, std::unique_ptr<Orvanta::Ifaces::OutputDuplication>& duplication) override
    {
        m_script->record(QStringLiteral("duplicateOutput"));
        m_script->offeredFormats = formats;
        const long result = DuplicationScript::take(m_script->duplicateResults, S_OK);
        if (result < 0) {
            return result;
        }
        Orvanta::Ifaces::DuplicationDescription description = duplicationDescription(1920, 1080);
        if (!m_script->descriptions.isEmpty()) {
            description = m_script->descriptions.size() > 1 ? m_script->descriptions.takeFirst()
                                                            : m_script->descriptions.first();
        }
        ++m_script->sessionsMade;
        duplication = std::make_unique<FakeOutputDuplication>(m_script, description);
        return result;
    }
    std::shared_ptr<Orvanta::Ifaces::GpuScaler> deviceScaler() override
    {
        m_script->record(QStringLiteral("deviceScaler"));
        return m_script->scaler;
    }

private:
    std::shared_ptr<DuplicationScript> m_script;
};

/// Counts waits instead of waiting; a hook may change the script between tries.
/// A clock that stands still until the test moves it.
class FakeRetryClock : public Orvanta::Ifaces::RetryClock
{
public:
    std::int64_t now = 0;

    std::int64_t milliseconds() override
    {
        return now;
    }

    void advance(std::int64_t milliseconds)
    {
        now += milliseconds;
    }
};
