#pragma once

#include "IDeskCapture.h"

#include <QtCore/QList>
#include <QtCore/QSize>
#include <QtCore/QThread>
#include <mutex>

#include <functional>
#include <memory>

namespace Fakes {

/// What the tests see of the fake back-ends, shared by all that one factory made.
struct CaptureJournal
{
    std::mutex mutex;
    int made = 0;
    int destroyed = 0;
    QList<int> modes;
    QList<QSize> sizesSet;
    QList<DeskCaptureContext> contexts;
    /// The thread of each setCaptureContext call.
    QList<QThread*> contextThreads;
    /// Runs at the start of each setCaptureContext, outside the lock: a back-end that waits for the user.
    std::function<void()> onContext;
    /// Result of setCaptureContext for the back-ends to come.
    long contextResult = 0;
    /// Frames handed out, in turn; once used up, empty matrices.
    QList<cv::Mat> frames;
    int nextFrameCalls = 0;
    QSize defaultSize = QSize(1920, 1080);
};

/// A back-end that delivers scripted frames and records what the front asks of it.
class FakeCapture : public IDeskCapture
{
public:
    FakeCapture(std::shared_ptr<CaptureJournal> journal, int mode)
        : journal(std::move(journal))
        , mode(mode)
    {
        std::lock_guard<std::mutex> locker(this->journal->mutex);
        ++this->journal->made;
        this->journal->modes.append(mode);
        size = this->journal->defaultSize;
    }

    ~FakeCapture() override
    {
        std::lock_guard<std::mutex> locker(journal->mutex);
        ++journal->destroyed;
    }

    QSize outputSize() override
    {
        std::lock_guard<std::mutex> locker(journal->mutex);
        return size;
    }

    QSize originSize() override
    {
        std::lock_guard<std::mutex> locker(journal->mutex);
        return journal->defaultSize;
    }

    cv::Mat nextFrame() override
    {
        std::lock_guard<std::mutex> locker(journal->mutex);
        ++journal->nextFrameCalls;
        return journal->frames.isEmpty() ? cv::Mat() : journal->frames.takeFirst();
    }

    long setCaptureContext(DeskCaptureContext context) override
    {
        if (journal->onContext)
            journal->onContext();
        std::lock_guard<std::mutex> locker(journal->mutex);
        journal->contexts.append(context);
        journal->contextThreads.append(QThread::currentThread());
        return journal->contextResult;
    }

    void setOutputSize(QSize newSize) override
    {
        std::lock_guard<std::mutex> locker(journal->mutex);
        journal->sizesSet.append(newSize);
        size = newSize;
    }

    std::shared_ptr<CaptureJournal> journal;
    int mode;
    QSize size;
};

/// A back-end factory that knows the three modes and nothing else.
inline std::function<IDeskCapture*(int)> fakeBackends(std::shared_ptr<CaptureJournal> journal)
{
    return [journal](int mode) -> IDeskCapture* {
        if (mode < 0 || mode > 2)
            return nullptr;
        return new FakeCapture(journal, mode);
    };
}

} // namespace Fakes
