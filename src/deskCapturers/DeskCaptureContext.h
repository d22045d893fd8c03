#pragma once

#include <QtCore/QMetaType>
#include <QtCore/QRect>
#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <memory>

namespace Orvanta {
namespace Ifaces {
class DisplayAdapter;
class DisplayOutput;
class GraphicsDevice;
} // namespace Ifaces
} // namespace Orvanta

/// The graphics adapter that drives an output; shared by all its outputs.
using DeskAdapterHandle = std::shared_ptr<Orvanta::Ifaces::DisplayAdapter>;
/// A GPU device made for one output alone; may be null where none could be made.
using DeskDeviceHandle = std::shared_ptr<Orvanta::Ifaces::GraphicsDevice>;
/// The display output itself.
using DeskOutputHandle = std::shared_ptr<Orvanta::Ifaces::DisplayOutput>;
/// A pointer-sized value naming the output's monitor to the platform.
using DeskMonitorHandle = quintptr;

/**
 * One display output, as the registry found it.
 *
 * A plain value: copies share the three handles (reference counted) and the
 * strings. Nothing in the record changes after enumeration, so a capturer may
 * keep its copy for as long as it runs.
 */
struct DeskCaptureContext
{
    DeskAdapterHandle adapter; ///< The adapter that drives the output.
    DeskDeviceHandle device; ///< The output's own GPU device; may be null.
    DeskOutputHandle output; ///< The output itself.
    /// Index of the output on its adapter, counted from 0.
    quint32 outputIndex = 0;
    DeskMonitorHandle monitor = 0; ///< The output's monitor as the platform names it.
    /// Display text, such as "DISPLAY1 1920x1080 (OUT1)".
    QString desc;
    /// The platform's name of the output, whole.
    QString deviceName;
    /// The output on the virtual desktop.
    QRect position;
    qint32 width = 0; ///< Width of `position` when it was enumerated.
    qint32 height = 0; ///< Height of `position` when it was enumerated.
};

Q_DECLARE_METATYPE(DeskCaptureContext)
