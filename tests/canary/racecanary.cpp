// A program with one planted data race, run by tst_racecanary under
// ThreadSanitizer. Each mode lets library threads call a port method that
// writes a counter nothing guards, so that the race report's stacks pass
// through the library and through Qt's start of the thread. The program
// itself reports nothing: ThreadSanitizer's report on stderr is the result.
//
//     orvanta-race-canary qthread|pool|stdthread

#include "AudioCapManager.h"
#include "AudioCapturer.h"
#include "ConfigurationManager.h"
#include "RacyEndpoint.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

namespace {

// Written without a lock or an atomic: every write from a second thread is a
// data race. The functions must stay out of line, so that each report names them.
int pollCount = 0;
int lookupCount = 0;
int touchCount = 0;

// Lets the main thread learn that a library thread has been there without
// ordering anything: a relaxed load makes no happens-before edge.
std::atomic<bool> reached {false};

__attribute__((noinline)) void plantedRaceOnCaptureThreads()
{
    ++pollCount;
    reached.store(true, std::memory_order_relaxed);
}

__attribute__((noinline)) void plantedRaceOnPoolTask()
{
    ++lookupCount;
    reached.store(true, std::memory_order_relaxed);
}

__attribute__((noinline)) void plantedRaceBesideCaptureThread()
{
    ++touchCount;
    reached.store(true, std::memory_order_relaxed);
}

bool waitUntilReached()
{
    QElapsedTimer timer;
    timer.start();
    while (!reached.load(std::memory_order_relaxed)) {
        if (timer.hasExpired(10000)) {
            std::fprintf(stderr, "racecanary: no library thread reached the port\n");
            return false;
        }
        QThread::msleep(5);
    }
    return true;
}

void stop(AudioCapturer& capturer)
{
    capturer.requestInterruption();
    capturer.wait();
}

// Two AudioCapturer threads poll two endpoints whose captures share the counter.
int raceOnCaptureThreads()
{
    auto first = std::make_shared<Canary::HookedEndpoint>("first", plantedRaceOnCaptureThreads);
    auto second = std::make_shared<Canary::HookedEndpoint>("second", plantedRaceOnCaptureThreads);
    AudioCapturer one(0, 16000);
    AudioCapturer two(0, 16000);
    if (one.load(first) < 0 || two.load(second) < 0) {
        std::fprintf(stderr, "racecanary: the fake endpoints did not load\n");
        return 2;
    }
    one.start();
    two.start();
    const bool ok = waitUntilReached();
    // Both loops poll every 150 ms: let each one do so a few times.
    QThread::msleep(700);
    stop(one);
    stop(two);
    return ok ? 0 : 2;
}

// A state task of the device enumerator, on the global QThreadPool, looks the
// endpoint up while the main thread writes the same counter.
int raceOnPoolTask()
{
    auto watcher = std::make_shared<Canary::HookedWatcher>(plantedRaceOnPoolTask);
    AudioCapManager manager(watcher);
    // Rounds, each with a task of its own: one report is enough. Whether a
    // round's task shares an ordering with the main thread depends on which
    // pooled thread takes it and when, so several rounds make the report sure.
    for (int round = 0; round < 40; ++round) {
        reached.store(false, std::memory_order_relaxed);
        manager.OnDeviceStateChanged(QStringLiteral("arriving-%1").arg(round), Orvanta::Ifaces::DeviceStateActive);
        if (!waitUntilReached()) {
            return 2;
        }
        plantedRaceOnPoolTask();
    }
    return 0;
}

// A plain std::thread asks the registry for an endpoint's name while that
// endpoint's capture thread polls; both reach the same counter.
int raceBesideCaptureThread()
{
    auto watcher = std::make_shared<Canary::HookedWatcher>();
    watcher->add(std::make_shared<Canary::HookedEndpoint>(
        "speakers", plantedRaceBesideCaptureThread, plantedRaceBesideCaptureThread));
    AudioCapManager manager(watcher);
    if (!manager.acquireCapturer(QStringLiteral("speakers"))) {
        std::fprintf(stderr, "racecanary: the registry started no capturer\n");
        return 2;
    }
    if (!waitUntilReached()) {
        return 2;
    }
    std::thread application([&manager] {
        for (int i = 0; i < 5; ++i) {
            manager.capturerDesc(QStringLiteral("speakers"));
            QThread::msleep(100);
        }
    });
    application.join();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir configDir;
    ConfigurationManager::setConfigPath(configDir.path());

    const char* mode = argc > 1 ? argv[1] : "";
    if (std::strcmp(mode, "qthread") == 0) {
        return raceOnCaptureThreads();
    }
    if (std::strcmp(mode, "pool") == 0) {
        return raceOnPoolTask();
    }
    if (std::strcmp(mode, "stdthread") == 0) {
        return raceBesideCaptureThread();
    }
    std::fprintf(stderr, "usage: orvanta-race-canary qthread|pool|stdthread\n");
    return 2;
}
