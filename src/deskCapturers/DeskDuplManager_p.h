#pragma once

#include "DeskCaptureContext.h"
#include "IDeskCapture.h"

#include <QtCore/QMap>
#include <QtCore/QSet>
#include <QtCore/QSharedPointer>
#include <QtCore/QVector>
#include <mutex>

#include <functional>
#include <memory>

class DeskCaptureOption;

namespace Orvanta {
namespace Ifaces {
class DisplaySystem;
}
} // namespace Orvanta

/// One row of the registry's table.
struct CapturerRecord
{
    DeskCaptureContext context;
    /// Null until the first acquire, and again once the count reached 0.
    QSharedPointer<IDeskCapture> capturer;
    qint32 refCount = 0;
    /// Set while the registry's thread builds the row's front outside the lock.
    bool making = false;
};

class WinDeskCapture;

/**
 * The fronts a registry made and that still exist, shared with the deleters
 * of their shared pointers, which may outlive the registry.
 */
struct FrontTracker
{
    std::mutex mutex;
    /// Every front made and not yet deleted.
    QSet<WinDeskCapture*> living;
    /// Fronts whose last copy went on another thread, waiting for their own thread to delete them.
    QSet<WinDeskCapture*> dropped;
    /// Set at the registry's end: from then on the last copy deletes its (stopped) front at once.
    bool registryGone = false;
};

class DeskDuplManagerPrivate
{
public:
    /// Adapters in the order they were enumerated successfully; the index is the one in identifiers.
    QVector<DeskAdapterHandle> adapters;
    std::shared_ptr<Orvanta::Ifaces::DisplaySystem> factory;
    QMap<QString, CapturerRecord> capturers;
    DeskCaptureOption* option = nullptr;
    std::mutex mutex;
    std::function<IDeskCapture*(int mode)> backends;
    std::shared_ptr<FrontTracker> fronts = std::make_shared<FrontTracker>();
};
