// Teaches ThreadSanitizer the hand-overs of Qt's thread primitives.
//
// Qt is not built with the sanitizer, and QMutex, QReadWriteLock and
// QSemaphore block on futexes of their own, which the sanitizer cannot see:
// without help every access that a Qt lock orders between two threads is
// reported as a race, and a suppression wide enough to silence them all
// hides real races too. Linked into the test programs of a ThreadSanitizer
// build, these definitions take the place of Qt's own for every call made
// from instrumented code: each forwards to Qt's function and tells the
// sanitizer what ordering that call establishes. Calls that Qt makes to
// itself are not affected; both halves of each lock and unlock pair run
// through the same path.

#include <QtCore/QCoreApplication>
#include <QtCore/QDeadlineTimer>
#include <QtCore/QMutex>
#include <QtCore/QReadWriteLock>
#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtCore/QThreadPool>
#include <QtCore/QVariant>
#include <QtCore/QWaitCondition>
#include <QtCore/private/qobject_p.h>

#include <sanitizer/tsan_interface.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <utility>
#include <vector>

namespace {

// Qt's own definition of a function that this file replaces.
template <typename Function> Function qtDefinition(const char* mangledName)
{
    void* symbol = dlvsym(RTLD_NEXT, mangledName, "Qt_5");
    if (!symbol) {
        symbol = dlsym(RTLD_NEXT, mangledName);
    }
    if (!symbol) {
        std::fprintf(stderr, "QtSyncAnnotations: Qt does not define %s\n", mangledName);
        std::abort();
    }
    return reinterpret_cast<Function>(symbol);
}

void acquire(const void* address)
{
    __tsan_acquire(const_cast<void*>(address));
}

void release(const void* address)
{
    __tsan_release(const_cast<void*>(address));
}

// A read-write lock orders writers after everyone, readers only after writers:
// writers release on the lock's address, readers on the byte after it.
const void* writersKey(const QReadWriteLock* lock)
{
    return lock;
}

const void* readersKey(const QReadWriteLock* lock)
{
    return reinterpret_cast<const char*>(lock) + 1;
}

// The read-write locks the current thread holds, and how: unlock() doesn't say.
std::vector<std::pair<const QReadWriteLock*, bool>>& heldLocks()
{
    thread_local std::vector<std::pair<const QReadWriteLock*, bool>> held;
    return held;
}

void lockedForRead(const QReadWriteLock* lock)
{
    acquire(writersKey(lock));
    heldLocks().emplace_back(lock, false);
}

void lockedForWrite(const QReadWriteLock* lock)
{
    acquire(writersKey(lock));
    acquire(readersKey(lock));
    heldLocks().emplace_back(lock, true);
}

const char finishedAnnotated[] = "_orvanta_tsan_finished";

} // namespace

// --- QMutex, QBasicMutex -------------------------------------------------------
// QBasicMutex's uncontended paths are inline atomics on its address, which the
// sanitizer sees; its contended paths and all of QMutex are Qt's.

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto next = qtDefinition<void (*)(QMutex*)>("_ZN6QMutex4lockEv");
    next(this);
    acquire(this);
}

bool QMutex::tryLock(int timeout) QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto next = qtDefinition<bool (*)(QMutex*, int)>("_ZN6QMutex7tryLockEi");
    const bool locked = next(this, timeout);
    if (locked) {
        acquire(this);
    }
    return locked;
}

void QMutex::unlock() noexcept
{
    static const auto next = qtDefinition<void (*)(QMutex*)>("_ZN6QMutex6unlockEv");
    release(this);
    next(this);
}

void QBasicMutex::lockInternal() QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto next = qtDefinition<void (*)(QBasicMutex*)>("_ZN11QBasicMutex12lockInternalEv");
    next(this);
    acquire(this);
}

bool QBasicMutex::lockInternal(int timeout) QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto next = qtDefinition<bool (*)(QBasicMutex*, int)>("_ZN11QBasicMutex12lockInternalEi");
    const bool locked = next(this, timeout);
    if (locked) {
        acquire(this);
    }
    return locked;
}

void QBasicMutex::unlockInternal() noexcept
{
    static const auto next = qtDefinition<void (*)(QBasicMutex*)>("_ZN11QBasicMutex14unlockInternalEv");
    release(this);
    next(this);
}

// --- QReadWriteLock ------------------------------------------------------------

void QReadWriteLock::lockForRead()
{
    static const auto next = qtDefinition<void (*)(QReadWriteLock*)>("_ZN14QReadWriteLock11lockForReadEv");
    next(this);
    lockedForRead(this);
}

bool QReadWriteLock::tryLockForRead()
{
    static const auto next = qtDefinition<bool (*)(QReadWriteLock*)>("_ZN14QReadWriteLock14tryLockForReadEv");
    const bool locked = next(this);
    if (locked) {
        lockedForRead(this);
    }
    return locked;
}

bool QReadWriteLock::tryLockForRead(int timeout)
{
    static const auto next = qtDefinition<bool (*)(QReadWriteLock*, int)>("_ZN14QReadWriteLock14tryLockForReadEi");
    const bool locked = next(this, timeout);
    if (locked) {
        lockedForRead(this);
    }
    return locked;
}

void QReadWriteLock::lockForWrite()
{
    static const auto next = qtDefinition<void (*)(QReadWriteLock*)>("_ZN14QReadWriteLock12lockForWriteEv");
    next(this);
    lockedForWrite(this);
}

bool QReadWriteLock::tryLockForWrite()
{
    static const auto next = qtDefinition<bool (*)(QReadWriteLock*)>("_ZN14QReadWriteLock15tryLockForWriteEv");
    const bool locked = next(this);
    if (locked) {
        lockedForWrite(this);
    }
    return locked;
}

bool QReadWriteLock::tryLockForWrite(int timeout)
{
    static const auto next = qtDefinition<bool (*)(QReadWriteLock*, int)>("_ZN14QReadWriteLock15tryLockForWriteEi");
    const bool locked = next(this, timeout);
    if (locked) {
        lockedForWrite(this);
    }
    return locked;
}

void QReadWriteLock::unlock()
{
    static const auto next = qtDefinition<void (*)(QReadWriteLock*)>("_ZN14QReadWriteLock6unlockEv");
    auto& held = heldLocks();
    bool forWrite = true;
    for (auto it = held.rbegin(); it != held.rend(); ++it) {
        if (it->first == this) {
            forWrite = it->second;
            held.erase(std::next(it).base());
            break;
        }
    }
    release(forWrite ? writersKey(this) : readersKey(this));
    next(this);
}

// --- QWaitCondition ------------------------------------------------------------
// Waiting gives the mutex up and takes it back inside Qt.

bool QWaitCondition::wait(QMutex* lockedMutex, QDeadlineTimer deadline)
{
    static const auto next = qtDefinition<bool (*)(QWaitCondition*, QMutex*, QDeadlineTimer)>(
        "_ZN14QWaitCondition4waitEP6QMutex14QDeadlineTimer");
    release(lockedMutex);
    const bool woken = next(this, lockedMutex, deadline);
    acquire(lockedMutex);
    return woken;
}

bool QWaitCondition::wait(QMutex* lockedMutex, unsigned long time)
{
    static const auto next
        = qtDefinition<bool (*)(QWaitCondition*, QMutex*, unsigned long)>("_ZN14QWaitCondition4waitEP6QMutexm");
    release(lockedMutex);
    const bool woken = next(this, lockedMutex, time);
    acquire(lockedMutex);
    return woken;
}

// --- QSemaphore ----------------------------------------------------------------

void QSemaphore::acquire(int n)
{
    static const auto next = qtDefinition<void (*)(QSemaphore*, int)>("_ZN10QSemaphore7acquireEi");
    next(this, n);
    ::acquire(this);
}

bool QSemaphore::tryAcquire(int n)
{
    static const auto next = qtDefinition<bool (*)(QSemaphore*, int)>("_ZN10QSemaphore10tryAcquireEi");
    const bool acquired = next(this, n);
    if (acquired) {
        ::acquire(this);
    }
    return acquired;
}

bool QSemaphore::tryAcquire(int n, int timeout)
{
    static const auto next = qtDefinition<bool (*)(QSemaphore*, int, int)>("_ZN10QSemaphore10tryAcquireEii");
    const bool acquired = next(this, n, timeout);
    if (acquired) {
        ::acquire(this);
    }
    return acquired;
}

void QSemaphore::release(int n)
{
    static const auto next = qtDefinition<void (*)(QSemaphore*, int)>("_ZN10QSemaphore7releaseEi");
    ::release(this);
    next(this, n);
}

// --- QThread -------------------------------------------------------------------
// Qt's threads are detached and their end is signalled under Qt's own mutex:
// the thread releases on its object as it finishes, and whoever learns that it
// has finished acquires there.

void QThread::start(Priority priority)
{
    static const auto next = qtDefinition<void (*)(QThread*, Priority)>("_ZN7QThread5startENS_8PriorityE");
    if (!property(finishedAnnotated).toBool()) {
        setProperty(finishedAnnotated, true);
        connect(
            this, &QThread::finished, this, [this] { ::release(this); }, Qt::DirectConnection);
    }
    // What the starter wrote before start() is ordered before the thread by
    // pthread_create, which the sanitizer sees.
    next(this, priority);
}

bool QThread::wait(QDeadlineTimer deadline)
{
    static const auto next = qtDefinition<bool (*)(QThread*, QDeadlineTimer)>("_ZN7QThread4waitE14QDeadlineTimer");
    const bool finished = next(this, deadline);
    if (finished) {
        ::acquire(this);
    }
    return finished;
}

bool QThread::wait(unsigned long time)
{
    static const auto next = qtDefinition<bool (*)(QThread*, unsigned long)>("_ZN7QThread4waitEm");
    const bool finished = next(this, time);
    if (finished) {
        ::acquire(this);
    }
    return finished;
}

bool QThread::isFinished() const
{
    static const auto next = qtDefinition<bool (*)(const QThread*)>("_ZNK7QThread10isFinishedEv");
    const bool finished = next(this);
    if (finished) {
        ::acquire(this);
    }
    return finished;
}

// --- QThreadPool ---------------------------------------------------------------
// A task is handed to a pool thread through Qt's queue: order it after its
// start() call, and order waitForDone() after every finished task.

namespace {

// A task that the pool only holds by pointer: Qt copies nothing of it after
// the release below, so everything the task carries is ordered before it runs.
class AnnotatedTask : public QRunnable
{
public:
    AnnotatedTask(QThreadPool* pool, std::function<void()> task)
        : pool(pool)
        , task(std::move(task))
    {
    }

    void run() override
    {
        acquire(this);
        task();
        release(pool);
    }

private:
    QThreadPool* const pool;
    std::function<void()> task;
};

} // namespace

void QThreadPool::start(std::function<void()> functionToRun, int priority)
{
    if (!functionToRun) {
        return;
    }
    auto* runnable = new AnnotatedTask(this, std::move(functionToRun));
    ::release(runnable);
    // Qt's own overload, which this file leaves alone.
    start(runnable, priority);
}

bool QThreadPool::waitForDone(int msecs)
{
    static const auto next = qtDefinition<bool (*)(QThreadPool*, int)>("_ZN11QThreadPool11waitForDoneEi");
    const bool done = next(this, msecs);
    if (done) {
        ::acquire(this);
    }
    return done;
}

// --- Events posted to another thread ------------------------------------------
// Queued signals, queued calls and deferred deletions travel through Qt's
// event queue under its internal lock. The sender releases on itself, the
// caller on the target object; the target's thread acquires both as the
// event is delivered, and releases on the target afterwards, which a caller
// blocked on the delivery acquires when it resumes.

void QMetaObject::activate(QObject* sender, const QMetaObject* meta, int localSignalIndex, void** argv)
{
    static const auto next = qtDefinition<void (*)(QObject*, const QMetaObject*, int, void**)>(
        "_ZN11QMetaObject8activateEP7QObjectPKS_iPPv");
    ::release(sender);
    next(sender, meta, localSignalIndex, argv);
    // A queued connection copies the arguments inside the call; a receiver
    // that delivers after this point sees those copies ordered too.
    ::release(sender);
}

bool QMetaObject::invokeMethodImpl(
    QObject* object, QtPrivate::QSlotObjectBase* slot, Qt::ConnectionType type, void* ret)
{
    static const auto next = qtDefinition<bool (*)(QObject*, QtPrivate::QSlotObjectBase*, Qt::ConnectionType, void*)>(
        "_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv");
    ::release(object);
    const bool invoked = next(object, slot, type, ret);
    if (type == Qt::BlockingQueuedConnection) {
        ::acquire(object);
    }
    return invoked;
}

void QObject::deleteLater()
{
    static const auto next = qtDefinition<void (*)(QObject*)>("_ZN7QObject11deleteLaterEv");
    ::release(this);
    next(this);
}

namespace {

// Called by Qt before it delivers any event. Delivers a posted call or
// deletion itself, between the acquire and the release, and tells Qt that it
// has; the nested delivery comes back here and is let through.
bool deliverAnnotated(void** data)
{
    thread_local QEvent* delivering = nullptr;
    QObject* const receiver = static_cast<QObject*>(data[0]);
    QEvent* const event = static_cast<QEvent*>(data[1]);
    if (event == delivering || !receiver
        || (event->type() != QEvent::MetaCall && event->type() != QEvent::DeferredDelete)) {
        return false;
    }
    ::acquire(receiver);
    if (event->type() == QEvent::MetaCall) {
        if (const QObject* sender = static_cast<QAbstractMetaCallEvent*>(event)->sender()) {
            ::acquire(sender);
        }
    }
    const bool deletion = event->type() == QEvent::DeferredDelete;
    QEvent* const outer = delivering;
    delivering = event;
    const bool result = QCoreApplication::sendEvent(receiver, event);
    delivering = outer;
    if (!deletion) {
        ::release(receiver);
    }
    *static_cast<bool*>(data[2]) = result;
    return true;
}

const bool deliveryHooked = QInternal::registerCallback(QInternal::EventNotifyCallback, &deliverAnnotated);

} // namespace
