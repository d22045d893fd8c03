#include "HardwareInfo.h"
#include "HardwareInfo_p.h"

#include "ResultCodes.h"
#include "ifaces/DiskSource.h"
#include "ifaces/GraphicsAdapterSource.h"
#include "ifaces/MemorySource.h"
#include "ifaces/NetworkInterfaceSource.h"
#include "ifaces/ProcessorSource.h"
#include "ifaces/ScreenSource.h"
#include "qtgui/GuiScreenSource.h"
#include "qtnetwork/NetworkInterfaceListSource.h"

#include <QtCore/QDebug>
#include <QtCore/QList>
#include <QtCore/QSize>
#include <QtCore/QStringList>
#include <QtCore/QSysInfo>

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace Orvanta {

namespace {

std::mutex& sourcesMutex()
{
    static std::mutex mutex;
    return mutex;
}

MachineSources& installedSources()
{
    static MachineSources sources = platformMachineSources();
    return sources;
}

MachineSources currentSources()
{
    std::lock_guard<std::mutex> lock(sourcesMutex());
    return installedSources();
}

} // namespace

MachineSources platformMachineSources()
{
    static const QtGui::GuiScreenSource screens;
    static const QtNetwork::NetworkInterfaceListSource networkInterfaces;
    MachineSources sources;
    sources.memory = &platformMemorySource();
    sources.disks = &platformDiskSource();
    sources.processor = &platformProcessorSource();
    sources.graphicsAdapters = &platformGraphicsAdapterSource();
    sources.screens = &screens;
    sources.networkInterfaces = &networkInterfaces;
    return sources;
}

MachineSources setMachineSources(const MachineSources& sources)
{
    std::lock_guard<std::mutex> lock(sourcesMutex());
    return std::exchange(installedSources(), sources);
}

} // namespace Orvanta

namespace {

constexpr double kBytesPerGibibyte = 1073741824.0;

// A DXGI factory ends its adapter list with DXGI_ERROR_NOT_FOUND. A list that
// never does, failing every index with another code, must not hold the
// caller forever; no machine has this many adapters.
constexpr unsigned int kMaxAdapterIndex = 1024;

double gibibytes(std::uint64_t bytes)
{
    return static_cast<double>(bytes) * (1.0 / kBytesPerGibibyte);
}

} // namespace

HardwareInfo::HardwareInfo(QObject* parent)
    : QObject(parent)
{
}

QString HardwareInfo::getMacStr(QString filter)
{
    const Orvanta::MachineSources sources = Orvanta::currentSources();
    qDebug() << "QNetworkInterface::allInterfaces() count:"
             << static_cast<int>(sources.networkInterfaces->interfaces().size());

    QString result;
    const std::vector<Orvanta::Ifaces::NetworkInterfaceEntry> interfaces = sources.networkInterfaces->interfaces();
    for (const Orvanta::Ifaces::NetworkInterfaceEntry& entry : interfaces) {
        if (entry.loopback) {
            continue;
        }
        result
            = QString::fromStdString(entry.hardwareAddress).split(QLatin1Char(':'), Qt::KeepEmptyParts).join(QString());
        if (filter == QLatin1String("0") || filter == result) {
            break;
        }
    }
    if (result.isEmpty()) {
        qWarning() << "******Local hardware address acquisition failed!";
    }
    qDebug() << "HardwareInfo::getMacStr:" << result;
    return result;
}

QString HardwareInfo::cpuType()
{
    return QString::fromStdString(Orvanta::currentSources().processor->processorName());
}

QString HardwareInfo::get_cpuId()
{
    Orvanta::Ifaces::CpuidRegisters registers = {};
    if (!Orvanta::currentSources().processor->cpuid(1, registers)) {
        return QString();
    }
    return QString::number(registers[3], 16).toUpper() + QString::number(registers[0], 16).toUpper();
}

void HardwareInfo::getcpuid(unsigned int* const registers, unsigned int leaf)
{
    if (!registers) {
        return;
    }
    Orvanta::Ifaces::CpuidRegisters values = {};
    Orvanta::currentSources().processor->cpuid(leaf, values);
    std::copy(values.begin(), values.end(), registers);
}

QString HardwareInfo::osVersion()
{
    return QSysInfo::productType() + QLatin1Char(' ') + QSysInfo::productVersion() + QLatin1Char(' ');
}

QString HardwareInfo::memory()
{
    const Orvanta::Ifaces::PhysicalMemory memory = Orvanta::currentSources().memory->physicalMemory();
    return QStringLiteral("Available %1 GB / Total %2 GB")
        .arg(
            QString::asprintf("%.2f", gibibytes(memory.available)), QString::asprintf("%.2f", gibibytes(memory.total)));
}

QString HardwareInfo::disk()
{
    const Orvanta::Ifaces::DiskSource& disks = *Orvanta::currentSources().disks;
    QString result;
    for (const std::string& drive : disks.drives()) {
        Orvanta::Ifaces::DiskSpace space;
        if (!disks.space(drive, space)) {
            continue;
        }
        result += QStringLiteral("%1 %2/%3       ")
                      .arg(QString::fromStdString(drive),
                          QString::number(gibibytes(space.free), 'f', 1) + QLatin1Char('G'),
                          QString::number(gibibytes(space.total), 'f', 1) + QLatin1Char('G'));
    }
    return result;
}

QString HardwareInfo::dCard()
{
    QString result;
    const std::unique_ptr<Orvanta::Ifaces::GraphicsAdapterList> adapters
        = Orvanta::currentSources().graphicsAdapters->open();
    if (!adapters) {
        return result;
    }
    for (unsigned int index = 0; index < kMaxAdapterIndex; ++index) {
        Orvanta::Ifaces::GraphicsAdapterDescription description;
        const long code = adapters->describe(index, description);
        if (code == DXGI_ERROR_NOT_FOUND) {
            break;
        }
        if (code < 0 || description.software) {
            continue;
        }
        const QString name = QString::fromStdString(description.description).trimmed();
        if (name.isEmpty()) {
            continue;
        }
        if (!result.isEmpty()) {
            result += QLatin1Char('\n');
        }
        result += name;
    }
    return result.trimmed();
}

QString HardwareInfo::screen()
{
    QList<QSize> sizes;
    QList<int> counts;
    for (const Orvanta::Ifaces::ScreenSize& screen : Orvanta::currentSources().screens->screenSizes()) {
        const QSize size(screen.width, screen.height);
        const int known = sizes.indexOf(size);
        if (known >= 0) {
            ++counts[known];
        } else {
            sizes.append(size);
            counts.append(1);
        }
    }

    QString result;
    for (int index = 0; index < sizes.size(); ++index) {
        result += QStringLiteral("(%1 X %2) X %3")
                      .arg(sizes.at(index).width(), 0, 10)
                      .arg(sizes.at(index).height(), 0, 10)
                      .arg(counts.at(index), 0, 10);
        if (index + 1 < sizes.size()) {
            // The separator is a fixed four-byte literal of the report format:
            // U+9286 followed by a question mark.
            result += QString::fromUtf8("\xE9\x8A\x86"
                                        "?");
        }
    }
    return result;
}

QString HardwareInfo::audioOut()
{
    return QString();
}
