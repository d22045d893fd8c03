#include "DeskDuplManager.h"

#include "ConfigurationManager.h"
#include "DeskCaptureBackends.h"
#include "DeskCaptureOption.h"
#include "DeskCapturerId.h"
#include "DeskDuplManager_p.h"
#include "Helpers.h"
#include "ResultCodes.h"
#include "WinDeskCapture.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/DisplaySystem.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QThread>

namespace {

const char* const kOptionProperty = "runtime.options.deskCaptureOption";

/// Adapter numbers that fail one after another before the enumeration gives up.
constexpr int kMaxFailedAdapters = 16;

QString fromWide(const std::wstring& text)
{
    return QString::fromStdWString(text);
}

} // namespace

DeskDuplManager::DeskDuplManager(QObject* parent)
    : DeskDuplManager(Orvanta::Ifaces::createPlatformDisplaySystem(), &Orvanta::createDeskCaptureBackend, parent)
{
}

DeskDuplManager::DeskDuplManager(std::shared_ptr<Orvanta::Ifaces::DisplaySystem> displaySystem,
    std::function<IDeskCapture*(int mode)> backends, QObject* parent)
    : IDeskDuplManager(parent)
    , d(new DeskDuplManagerPrivate)
{
    // Contexts travel in queued calls.
    qRegisterMetaType<DeskCaptureContext>("DeskCaptureContext");
    d->factory = std::move(displaySystem);
    d->backends = std::move(backends);

    auto* option = new DeskCaptureOption(this);
    option->setTotalOfMode(3);
    option->setModeNames({QStringLiteral("DXGI"), QStringLiteral("WinRT"), QStringLiteral("GDI")});

    const int configured = ConfigurationManager::instance()->globalValue(QStringLiteral("screenCaptureMode")).toInt(0);
    option->setCurMode(qBound(0, configured, 2));

    if (QCoreApplication* application = QCoreApplication::instance())
        application->setProperty(kOptionProperty, QVariant::fromValue(qlonglong(reinterpret_cast<quintptr>(option))));

    d->option = option;
    // Connected after the start-up value is set, so that it is not written back.
    connect(option, &DeskCaptureOption::curModeChanged, this, [this] {
        ConfigurationManager* configuration = ConfigurationManager::instance();
        configuration->setGlobalValue(QStringLiteral("screenCaptureMode"), d->option->curMode());
        configuration->saveGlobalValues();
    });

    load();
}

DeskDuplManager::~DeskDuplManager()
{
    // The option dies with the registry: the application must not find its address any more.
    if (QCoreApplication* application = QCoreApplication::instance()) {
        const QVariant published = application->property(kOptionProperty);
        if (published.toLongLong() == qlonglong(reinterpret_cast<quintptr>(d->option)))
            application->setProperty(kOptionProperty, QVariant());
    }

    // Fronts end here, whether or not an event loop still runs: those whose
    // last copy went on another thread are deleted now, and those that
    // consumers still hold are stopped, so that their last copy may delete
    // them on any thread.
    QSet<WinDeskCapture*> dropped;
    QSet<WinDeskCapture*> held;
    {
        std::lock_guard<std::mutex> locker(d->fronts->mutex);
        d->fronts->registryGone = true;
        dropped.swap(d->fronts->dropped);
        held = d->fronts->living - dropped;
        d->fronts->living = held;
    }
    qDeleteAll(dropped);
    for (WinDeskCapture* front : qAsConst(held))
        front->shutdown();
    d->capturers.clear();
}

void DeskDuplManager::load()
{
    if (!d->factory->hasAdministratorRights())
        qWarning() << "The current process does not have administrator rights,             which may cause the "
                      "Capturer to not work properly";

    long result = d->factory->open();
    if (result < 0) {
        qCritical() << "Failed to create DXGIFactory1, reason: " << win32ErrorMsg(result);
        return;
    }

    int failedInARow = 0;
    for (unsigned int number = 0;; ++number) {
        DeskAdapterHandle adapter;
        result = d->factory->enumAdapter(number, adapter);
        if (result == DXGI_ERROR_NOT_FOUND)
            break;
        if (result < 0 || !adapter) {
            qCritical() << "Failed to enum DXGIAdapter1, reason: " << win32ErrorMsg(result < 0 ? result : E_POINTER);
            // A platform that fails every number would otherwise keep this loop going for ever.
            if (++failedInARow >= kMaxFailedAdapters)
                break;
            continue;
        }
        failedInARow = 0;
        qInfo() << "GPU: " << fromWide(adapter->description());
        qInfo() << "DXGIAdapter index: " << number;
        d->adapters.append(adapter);
    }

    blockSignals(true);
    for (int index = 0; index < d->adapters.size(); ++index) {
        const int count = enumOutputs(d->adapters.at(index), unsigned(index));
        qInfo() << "A total of " << count << " Capturer are enumerated from GPU " << index;
    }
    blockSignals(false);

    if (d->capturers.isEmpty())
        qCritical() << "Failed to initialize any desktop replication interfaces";
    else
        qInfo() << "A total of" << d->capturers.size() << "desktop replication interfaces were built";
}

int DeskDuplManager::enumOutputs(DeskAdapterHandle adapter, unsigned int adapterIndex)
{
    const int sizeBefore = d->capturers.size();
    long result = S_OK;
    // A failure left over from describing an output or making its device
    // ends the loop as well when it happens to be "not found".
    for (unsigned int outputIndex = 0; result != DXGI_ERROR_NOT_FOUND; ++outputIndex) {
        std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
        result = adapter->enumOutput(outputIndex, output);
        // Any other failure has no output to go on with, and retrying the
        // same index would not end.
        if (result < 0 || !output)
            break;

        Orvanta::Ifaces::OutputDescription description;
        result = output->describe(description);
        if (result < 0) {
            qCritical() << "Failed to get IDXGIOutput desc" << int(outputIndex) - 1 << win32ErrorMsg(result);
            continue;
        }

        const QString deviceName = fromWide(description.deviceName);
        const QRect position(int(description.left), int(description.top), int(description.right - description.left),
            int(description.bottom - description.top));
        const QString baseId = Orvanta::DeskCapturerId::baseId(deviceName);
        const QString id = Orvanta::DeskCapturerId::identifier(baseId, int(adapterIndex), outputIndex);
        if (d->capturers.contains(id))
            continue;

        DeskDeviceHandle device;
        result = adapter->createDevice(output, device);
        if (result < 0) {
            qCritical() << "Failed to create D3DDevice for output " << outputIndex
                        << ", reason: " << win32ErrorMsg(result);
            // Where the blit back-end can work without a device, the output keeps its row.
            if (!d->factory->devicesOptional())
                continue;
            device.reset();
        }

        DeskCaptureContext context;
        context.adapter = adapter;
        context.device = device;
        context.output = output;
        context.outputIndex = outputIndex;
        context.monitor = description.monitor;
        context.deviceName = deviceName;
        context.position = position;
        context.width = position.width();
        context.height = position.height();
        context.desc = Orvanta::DeskCapturerId::description(baseId, context.width, context.height, outputIndex);

        qInfo() << "Succeeded to build capture context:";
        qInfo() << "  ID:" << id;
        qInfo() << "  BaseId:" << baseId;
        qInfo() << "  DeviceName:" << deviceName;
        qInfo() << "  Resolution:" << context.width << "x" << context.height;
        qInfo() << "  Position:" << position;
        qInfo() << "  HMONITOR:" << Qt::hex << context.monitor;
        qInfo() << "  Output Index:" << outputIndex;

        CapturerRecord record;
        record.context = context;
        record.refCount = 1;
        d->capturers.insert(id, record);
        emit capturerReady(id);
    }
    return d->capturers.size() - sizeBefore;
}

QList<QString> DeskDuplManager::allCapturer()
{
    return d->capturers.keys();
}

QString DeskDuplManager::defaultCapturer()
{
    return d->capturers.isEmpty() ? QString() : d->capturers.firstKey();
}

QSharedPointer<IDeskCapture> DeskDuplManager::acquireCapturer(QString id)
{
    std::unique_lock<std::mutex> locker(d->mutex);
    auto row = d->capturers.find(id);
    if (row == d->capturers.end())
        return {};

    if (!row->capturer) {
        qInfo() << "[DeskDuplManager]: Making capturer " << id << ", current thread: " << QThread::currentThreadId()
                << ", thread: " << quintptr(thread());
        if (QThread::currentThread() == thread()) {
            makeCapturer(id, locker);
        } else {
            // The capturer's timer must live on the registry's thread. The
            // posted call takes the lock, since other threads may be reading
            // the row meanwhile, and looks at the row again: another acquire
            // may have made the capturer since, or releases brought the
            // count to 0.
            QMetaObject::invokeMethod(
                this,
                [this, id] {
                    std::unique_lock<std::mutex> postedLocker(d->mutex);
                    const auto posted = d->capturers.constFind(id);
                    if (posted != d->capturers.constEnd() && !posted->capturer && posted->refCount > 0)
                        makeCapturer(id, postedLocker);
                },
                Qt::QueuedConnection);
        }
    }

    row->refCount += 1;
    qInfo() << "[DeskDuplManager]: The capturer " << id << " references has already changed to " << row->refCount;
    return row->capturer;
}

void DeskDuplManager::makeCapturer(QString id, std::unique_lock<std::mutex>& locker)
{
    auto row = d->capturers.find(id);
    if (row == d->capturers.end()) {
        qCritical() << "[DeskDuplManager]: Not found capturer context to make capturer" << id;
        return;
    }
    if (row->making)
        return;
    // Building the front may wait long: a back-end may ask the user for
    // consent. The table stays open to other threads meanwhile; its shape
    // never changes after enumeration, so the row is still there afterwards.
    row->making = true;
    const DeskCaptureContext context = row->context;
    locker.unlock();
    QSharedPointer<IDeskCapture> made = makeFront(context);
    locker.lock();
    row = d->capturers.find(id);
    row->making = false;
    if (!row->capturer)
        row->capturer = made;
}

QSharedPointer<IDeskCapture> DeskDuplManager::makeFront(const DeskCaptureContext& context)
{
    auto* capture = new WinDeskCapture(d->option, d->backends, nullptr);
    capture->setCaptureContext(context);
    {
        std::lock_guard<std::mutex> locker(d->fronts->mutex);
        d->fronts->living.insert(capture);
    }
    return QSharedPointer<IDeskCapture>(capture, [fronts = d->fronts](IDeskCapture* object) {
        auto* front = static_cast<WinDeskCapture*>(object);
        std::unique_lock<std::mutex> locker(fronts->mutex);
        // A consumer may drop the last copy on its own thread; the capturer's
        // timer can only be stopped on the thread it lives on, so the
        // deletion goes there, and the registry's end takes over what that
        // thread never got to.
        if (!fronts->registryGone && front->QObject::thread() != QThread::currentThread()) {
            fronts->dropped.insert(front);
            QMetaObject::invokeMethod(
                front,
                [fronts, front] {
                    {
                        std::lock_guard<std::mutex> postedLocker(fronts->mutex);
                        if (!fronts->dropped.remove(front))
                            return;
                        fronts->living.remove(front);
                    }
                    delete front;
                },
                Qt::QueuedConnection);
            return;
        }
        fronts->living.remove(front);
        locker.unlock();
        delete front;
    });
}

void DeskDuplManager::releaseCapturer(QString id)
{
    std::lock_guard<std::mutex> locker(d->mutex);
    auto row = d->capturers.find(id);
    if (row == d->capturers.end()) {
        qCritical() << "[DeskDuplManager]: Not found capturer to release capturer reference count :" << id;
        return;
    }
    row->refCount = qMax(row->refCount - 1, 0);
    qInfo() << "[DeskDuplManager]: The capturer " << id << " references has already changed to " << row->refCount;
    if (row->refCount == 0) {
        row->capturer.clear();
        qInfo() << "[DeskDuplManager]: The capturer " << id << "does not have any renferences and has been released.";
    }
}

QString DeskDuplManager::capturerDesc(QString id)
{
    std::lock_guard<std::mutex> locker(d->mutex);
    const auto row = d->capturers.constFind(id);
    return row == d->capturers.constEnd() ? QString() : row->context.desc;
}

QJsonObject DeskDuplManager::capturerMetadata(QString id)
{
    std::lock_guard<std::mutex> locker(d->mutex);
    const auto row = d->capturers.constFind(id);
    if (row == d->capturers.constEnd())
        return {};
    return Orvanta::DeskCapturerId::metadata(id, row->context);
}
