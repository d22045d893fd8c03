#include "HardwareInfo.h"
#include "HardwareInfo_p.h"
#include "procfs/CpuInfoProcessorSource.h"
#include "procfs/MemInfoSource.h"
#include "procfs/MountDiskSource.h"
#include "sysfs/DrmAdapterSource.h"

#include "MessageCapture.h"
#include "fakes/FakeMachineSources.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

using Fakes::FakeMachine;
using Fakes::ScopedFakeMachine;

namespace {

constexpr std::uint64_t kGiB = 1024ull * 1024ull * 1024ull;

void writeFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly | QIODevice::Truncate), qPrintable(path));
    file.write(content);
}

} // namespace

class HardwareInfoTest : public QObject
{
    Q_OBJECT

private slots:
    // network address
    void loopbackOnlyGivesEmptyAddressAndWarning();
    void zeroFilterTakesFirstNonLoopback();
    void unknownFilterGivesLastNonLoopback();
    void filterWithColonsNeverMatches();
    void exactFilterStopsAtItsInterface();
    void firstInterfaceWithoutAddressEndsZeroWalkEmpty();

    // formats
    void memoryHasTwoDecimals();
    void diskHasOneDecimalWithGAndSevenBlanks();
    void failingDriveLeavesNoTrace();
    void oneScreenHasCountOneAndNoSeparator();
    void screensAreGroupedBySizeWithSeparatorBytes();
    void noScreenGivesEmpty();
    void cpuIdIsUpperCaseEdxThenEaxWithoutLeadingZeros();
    void cpuIdIsEmptyWithoutTheInstruction();
    void getcpuidStoresTheFourRegisters();
    void cpuTypeIsNotTrimmed();
    void adaptersAreOnePerLineInEnumerationOrder();
    void softwareAdapterOnlyGivesEmpty();
    void failingAdapterIndexIsSkipped();
    void noFactoryGivesEmpty();
    void endlessFailingAdapterListEnds();
    void osVersionEndsInBlank();
    void audioOutIsEmpty();

    // the platform's sources
    void memInfoReadsKernelFigures();
    void mountsListRealFileSystemsOnce();
    void cpuInfoGivesModelName();
    void drmCardsAreNamedThroughPciIds();
    void thisMachineGivesResultsOfTheRightForm();
};

void HardwareInfoTest::loopbackOnlyGivesEmptyAddressAndWarning()
{
    FakeMachine machine;
    machine.networkInterfaces.entries = {{true, "00:00:00:00:00:00"}};
    ScopedFakeMachine scope(machine);
    MessageCapture capture;
    QCOMPARE(HardwareInfo::getMacStr(QStringLiteral("0")), QString());
    QVERIFY(capture.contains(QtDebugMsg, QStringLiteral("QNetworkInterface::allInterfaces() count: 1")));
    QVERIFY(capture.contains(QtWarningMsg, QStringLiteral("******Local hardware address acquisition failed!")));
    QVERIFY(capture.contains(QtDebugMsg, QStringLiteral("HardwareInfo::getMacStr: \"\"")));
}

void HardwareInfoTest::zeroFilterTakesFirstNonLoopback()
{
    FakeMachine machine;
    machine.networkInterfaces.entries
        = {{true, "00:00:00:00:00:00"}, {false, "52:54:00:AB:CD:01"}, {false, "52:54:00:AB:CD:02"}};
    ScopedFakeMachine scope(machine);
    MessageCapture capture;
    QCOMPARE(HardwareInfo::getMacStr(QStringLiteral("0")), QStringLiteral("525400ABCD01"));
    QVERIFY(capture.contains(QtDebugMsg, QStringLiteral("HardwareInfo::getMacStr: \"525400ABCD01\"")));
    QCOMPARE(capture.texts(QtWarningMsg), QStringList());
}

void HardwareInfoTest::unknownFilterGivesLastNonLoopback()
{
    FakeMachine machine;
    machine.networkInterfaces.entries
        = {{false, "52:54:00:AB:CD:01"}, {false, "52:54:00:AB:CD:02"}, {true, "00:00:00:00:00:00"}};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::getMacStr(QStringLiteral("112233445566")), QStringLiteral("525400ABCD02"));
}

void HardwareInfoTest::filterWithColonsNeverMatches()
{
    FakeMachine machine;
    machine.networkInterfaces.entries
        = {{false, "52:54:00:AB:CD:01"}, {false, "52:54:00:AB:CD:02"}, {false, "52:54:00:AB:CD:03"}};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::getMacStr(QStringLiteral("52:54:00:AB:CD:01")), QStringLiteral("525400ABCD03"));
}

void HardwareInfoTest::exactFilterStopsAtItsInterface()
{
    FakeMachine machine;
    machine.networkInterfaces.entries
        = {{false, "52:54:00:AB:CD:01"}, {false, "52:54:00:AB:CD:02"}, {false, "52:54:00:AB:CD:03"}};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::getMacStr(QStringLiteral("525400ABCD02")), QStringLiteral("525400ABCD02"));
}

void HardwareInfoTest::firstInterfaceWithoutAddressEndsZeroWalkEmpty()
{
    FakeMachine machine;
    machine.networkInterfaces.entries = {{true, ""}, {false, ""}, {false, "52:54:00:AB:CD:02"}};
    ScopedFakeMachine scope(machine);
    MessageCapture capture;
    QCOMPARE(HardwareInfo::getMacStr(QStringLiteral("0")), QString());
    QCOMPARE(capture.count(QtWarningMsg, QStringLiteral("******Local hardware address acquisition failed!")), 1);
}

void HardwareInfoTest::memoryHasTwoDecimals()
{
    FakeMachine machine;
    machine.memory.memory = {3 * kGiB + kGiB / 2, 16 * kGiB};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::memory(), QStringLiteral("Available 3.50 GB / Total 16.00 GB"));

    machine.memory.memory = {kGiB / 3, 0};
    QCOMPARE(HardwareInfo::memory(), QStringLiteral("Available 0.33 GB / Total 0.00 GB"));
}

void HardwareInfoTest::diskHasOneDecimalWithGAndSevenBlanks()
{
    FakeMachine machine;
    machine.disks.driveList = {"C:", "D:"};
    machine.disks.spaces["C:"] = {kGiB * 25 / 2, 100 * kGiB};
    machine.disks.spaces["D:"] = {kGiB / 10, kGiB * 3 / 4};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::disk(), QStringLiteral("C: 12.5G/100.0G       D: 0.1G/0.8G       "));
}

void HardwareInfoTest::failingDriveLeavesNoTrace()
{
    FakeMachine machine;
    machine.disks.driveList = {"C:", "E:", "F:"};
    machine.disks.spaces["C:"] = {kGiB, 2 * kGiB};
    machine.disks.spaces["F:"] = {0, 4 * kGiB};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::disk(), QStringLiteral("C: 1.0G/2.0G       F: 0.0G/4.0G       "));
    QCOMPARE(machine.disks.asked, (std::vector<std::string> {"C:", "E:", "F:"}));

    machine.disks.spaces.clear();
    QCOMPARE(HardwareInfo::disk(), QString());
}

void HardwareInfoTest::oneScreenHasCountOneAndNoSeparator()
{
    FakeMachine machine;
    machine.screens.sizes = {{1920, 1080}};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::screen(), QStringLiteral("(1920 X 1080) X 1"));
}

void HardwareInfoTest::screensAreGroupedBySizeWithSeparatorBytes()
{
    FakeMachine machine;
    machine.screens.sizes = {{1920, 1080}, {2560, 1440}, {1920, 1080}, {1080, 1920}};
    ScopedFakeMachine scope(machine);
    const QByteArray separator("\xE9\x8A\x86\x3F", 4);
    QCOMPARE(HardwareInfo::screen().toUtf8(),
        QByteArray("(1920 X 1080) X 2") + separator + "(2560 X 1440) X 1" + separator + "(1080 X 1920) X 1");
    QCOMPARE(HardwareInfo::screen().count(QChar(0x9286)), 2);
}

void HardwareInfoTest::noScreenGivesEmpty()
{
    FakeMachine machine;
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::screen(), QString());
}

void HardwareInfoTest::cpuIdIsUpperCaseEdxThenEaxWithoutLeadingZeros()
{
    FakeMachine machine;
    machine.processor.registers = {0x000306C3u, 0x01020800u, 0x7FFAFBFFu, 0x0F8BFBFFu};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::get_cpuId(), QStringLiteral("F8BFBFF306C3"));
    QCOMPARE(machine.processor.leaves, std::vector<unsigned int> {1u});

    machine.processor.registers = {0xA0u, 0, 0, 0xBFEBFBFFu};
    QCOMPARE(HardwareInfo::get_cpuId(), QStringLiteral("BFEBFBFFA0"));
}

void HardwareInfoTest::cpuIdIsEmptyWithoutTheInstruction()
{
    FakeMachine machine;
    machine.processor.hasCpuid = false;
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::get_cpuId(), QString());
}

void HardwareInfoTest::getcpuidStoresTheFourRegisters()
{
    FakeMachine machine;
    machine.processor.registers = {1u, 2u, 3u, 4u};
    ScopedFakeMachine scope(machine);
    unsigned int registers[4] = {9, 9, 9, 9};
    HardwareInfo::getcpuid(registers, 7);
    QCOMPARE(registers[0], 1u);
    QCOMPARE(registers[1], 2u);
    QCOMPARE(registers[2], 3u);
    QCOMPARE(registers[3], 4u);
    QCOMPARE(machine.processor.leaves, std::vector<unsigned int> {7u});
    HardwareInfo::getcpuid(nullptr, 1); // a null buffer is ignored, not written through
}

void HardwareInfoTest::cpuTypeIsNotTrimmed()
{
    FakeMachine machine;
    machine.processor.name = "Intel(R) Core(TM) i7-4770 CPU @ 3.40GHz   ";
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::cpuType(), QStringLiteral("Intel(R) Core(TM) i7-4770 CPU @ 3.40GHz   "));
}

void HardwareInfoTest::adaptersAreOnePerLineInEnumerationOrder()
{
    FakeMachine machine;
    machine.graphicsAdapters.script
        = {{S_OK, {"  NVIDIA GeForce GTX 1080  ", false}}, {S_OK, {"Intel(R) UHD Graphics 630", false}},
            {S_OK, {"NVIDIA GeForce GTX 1080", false}}, {S_OK, {"   ", false}}};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::dCard(),
        QStringLiteral("NVIDIA GeForce GTX 1080\nIntel(R) UHD Graphics 630\nNVIDIA GeForce GTX 1080"));
}

void HardwareInfoTest::softwareAdapterOnlyGivesEmpty()
{
    FakeMachine machine;
    machine.graphicsAdapters.script = {{S_OK, {"Microsoft Basic Render Driver", true}}};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::dCard(), QString());
}

void HardwareInfoTest::failingAdapterIndexIsSkipped()
{
    FakeMachine machine;
    machine.graphicsAdapters.script
        = {{E_FAIL, {}}, {S_OK, {"Radeon RX 580", false}}, {S_OK, {"Microsoft Basic Render Driver", true}}};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::dCard(), QStringLiteral("Radeon RX 580"));
}

void HardwareInfoTest::noFactoryGivesEmpty()
{
    FakeMachine machine;
    machine.graphicsAdapters.hasFactory = false;
    machine.graphicsAdapters.script = {{S_OK, {"Radeon RX 580", false}}};
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::dCard(), QString());
}

void HardwareInfoTest::endlessFailingAdapterListEnds()
{
    FakeMachine machine;
    machine.graphicsAdapters.script = {{S_OK, {"Radeon RX 580", false}}};
    machine.graphicsAdapters.pastEnd = E_FAIL;
    ScopedFakeMachine scope(machine);
    QCOMPARE(HardwareInfo::dCard(), QStringLiteral("Radeon RX 580"));
    QVERIFY(machine.graphicsAdapters.describeCalls >= 2u);
}

void HardwareInfoTest::osVersionEndsInBlank()
{
    const QString version = HardwareInfo::osVersion();
    QVERIFY(version.endsWith(QLatin1Char(' ')));
    QCOMPARE(version, QSysInfo::productType() + QLatin1Char(' ') + QSysInfo::productVersion() + QLatin1Char(' '));
}

void HardwareInfoTest::audioOutIsEmpty()
{
    QCOMPARE(HardwareInfo::audioOut(), QString());
    HardwareInfo instance(this);
    QCOMPARE(instance.parent(), this);
}

void HardwareInfoTest::memInfoReadsKernelFigures()
{
    QTemporaryDir dir;
    writeFile(dir.filePath(QStringLiteral("meminfo")),
        "MemTotal:       16384000 kB\nMemFree:         1000000 kB\nMemAvailable:    8192000 kB\n");
    const Orvanta::Procfs::MemInfoSource source(dir.filePath(QStringLiteral("meminfo")).toStdString());
    const Orvanta::Ifaces::PhysicalMemory memory = source.physicalMemory();
    QCOMPARE(memory.total, 16384000ull * 1024ull);
    QCOMPARE(memory.available, 8192000ull * 1024ull);

    const Orvanta::Procfs::MemInfoSource missing(dir.filePath(QStringLiteral("absent")).toStdString());
    QCOMPARE(missing.physicalMemory().total, 0ull);
}

void HardwareInfoTest::mountsListRealFileSystemsOnce()
{
    QTemporaryDir dir;
    const QString realPoint = dir.filePath(QStringLiteral("with space"));
    QVERIFY(QDir().mkpath(realPoint));
    writeFile(
        dir.filePath(QStringLiteral("filesystems")), "nodev\tsysfs\nnodev\ttmpfs\n\text4\n\txfs\nnodev\toverlay\n");
    QByteArray escapedPoint = realPoint.toUtf8();
    escapedPoint.replace(" ", "\\040");
    writeFile(dir.filePath(QStringLiteral("mounts")),
        "sysfs /sys sysfs rw 0 0\n/dev/vda / ext4 rw 0 0\ntmpfs /tmp tmpfs rw 0 0\n/dev/vdb " + escapedPoint
            + " xfs rw 0 0\n/dev/vda / ext4 rw 0 0\n/dev/vdc /nowhere/at/all ext4 rw 0 0\n");
    const Orvanta::Procfs::MountDiskSource source(dir.filePath(QStringLiteral("mounts")).toStdString(),
        dir.filePath(QStringLiteral("filesystems")).toStdString());
    const std::vector<std::string> drives = source.drives();
    QCOMPARE(drives, (std::vector<std::string> {"/", realPoint.toStdString(), "/nowhere/at/all"}));

    Orvanta::Ifaces::DiskSpace space;
    QVERIFY(source.space(realPoint.toStdString(), space));
    QVERIFY(space.total > 0);
    QVERIFY(space.free <= space.total);
    QVERIFY(!source.space("/nowhere/at/all", space));
}

void HardwareInfoTest::cpuInfoGivesModelName()
{
    QTemporaryDir dir;
    writeFile(dir.filePath(QStringLiteral("cpuinfo")),
        "processor\t: 0\nvendor_id\t: GenuineIntel\nmodel name\t: Intel(R) Xeon(R) CPU  \nflags\t\t: fpu\n\n"
        "processor\t: 1\nmodel name\t: Other\n");
    const Orvanta::Procfs::CpuInfoProcessorSource source(dir.filePath(QStringLiteral("cpuinfo")).toStdString());
    QCOMPARE(source.processorName(), std::string("Intel(R) Xeon(R) CPU  "));
}

void HardwareInfoTest::drmCardsAreNamedThroughPciIds()
{
    // A DRM class folder laid out as the kernel does: cardN/device links to
    // the device, whose subsystem link names its bus.
    QTemporaryDir dir;
    const QString root = dir.path();
    const QString pciDevice = root + QStringLiteral("/devices/pci0000:00/0000:00:02.0");
    const QString platformDevice = root + QStringLiteral("/devices/platform/vkms");
    writeFile(pciDevice + QStringLiteral("/vendor"), "0x8086\n");
    writeFile(pciDevice + QStringLiteral("/device"), "0x3e92\n");
    QVERIFY(QDir().mkpath(root + QStringLiteral("/bus/pci")));
    QVERIFY(QDir().mkpath(root + QStringLiteral("/bus/platform")));
    QVERIFY(QDir().mkpath(root + QStringLiteral("/drivers/vkms")));
    QVERIFY(QFile::link(root + QStringLiteral("/bus/pci"), pciDevice + QStringLiteral("/subsystem")));
    QVERIFY(QDir().mkpath(platformDevice));
    QVERIFY(QFile::link(root + QStringLiteral("/bus/platform"), platformDevice + QStringLiteral("/subsystem")));
    QVERIFY(QFile::link(root + QStringLiteral("/drivers/vkms"), platformDevice + QStringLiteral("/driver")));
    const QString drm = root + QStringLiteral("/class/drm");
    for (const QString& card : {QStringLiteral("card0"), QStringLiteral("card10"), QStringLiteral("card2")}) {
        QVERIFY(QDir().mkpath(drm + QLatin1Char('/') + card));
    }
    QVERIFY(QDir().mkpath(drm + QStringLiteral("/card0-HDMI-A-1")));
    QVERIFY(QDir().mkpath(drm + QStringLiteral("/renderD128")));
    QVERIFY(QFile::link(pciDevice, drm + QStringLiteral("/card0/device")));
    QVERIFY(QFile::link(platformDevice, drm + QStringLiteral("/card2/device")));
    QVERIFY(QFile::link(pciDevice, drm + QStringLiteral("/card10/device")));

    const Orvanta::Sysfs::DrmAdapterSource source(drm.toStdString());
    const std::unique_ptr<Orvanta::Ifaces::GraphicsAdapterList> list = source.open();
    QVERIFY(list);
    Orvanta::Ifaces::GraphicsAdapterDescription first;
    Orvanta::Ifaces::GraphicsAdapterDescription second;
    Orvanta::Ifaces::GraphicsAdapterDescription third;
    Orvanta::Ifaces::GraphicsAdapterDescription none;
    QCOMPARE(list->describe(0, first), S_OK);
    QCOMPARE(list->describe(1, second), S_OK);
    QCOMPARE(list->describe(2, third), S_OK);
    QCOMPARE(list->describe(3, none), DXGI_ERROR_NOT_FOUND);
    // Names from Debian's PCI ID database: vendor, then device.
    QCOMPARE(QString::fromStdString(first.description),
        QStringLiteral("Intel Corporation CoffeeLake-S GT2 [UHD Graphics 630]"));
    QVERIFY(!first.software);
    QCOMPARE(QString::fromStdString(second.description), QStringLiteral("vkms"));
    QVERIFY(second.software);
    QCOMPARE(third.description, first.description);

    FakeMachine machine;
    Orvanta::MachineSources sources = machine.sources();
    sources.graphicsAdapters = &source;
    Orvanta::ScopedMachineSources scope(sources);
    QCOMPARE(HardwareInfo::dCard(), QString::fromStdString(first.description + "\n" + first.description));

    const Orvanta::Sysfs::DrmAdapterSource absent((root + QStringLiteral("/absent")).toStdString());
    QVERIFY(!absent.open());
}

void HardwareInfoTest::thisMachineGivesResultsOfTheRightForm()
{
    QVERIFY(QRegularExpression(QStringLiteral("^Available \\d+\\.\\d\\d GB / Total \\d+\\.\\d\\d GB$"))
                .match(HardwareInfo::memory())
                .hasMatch());
    QVERIFY(!HardwareInfo::memory().endsWith(QStringLiteral("Total 0.00 GB")));

    const QString disks = HardwareInfo::disk();
    QVERIFY2(QRegularExpression(QStringLiteral("^(/\\S* \\d+\\.\\dG/\\d+\\.\\dG {7})+$")).match(disks).hasMatch(),
        qPrintable(disks));
    QVERIFY(disks.startsWith(QStringLiteral("/ ")) || disks.contains(QStringLiteral("       / ")));

    QFile cpuinfo(QStringLiteral("/proc/cpuinfo"));
    QVERIFY(cpuinfo.open(QIODevice::ReadOnly));
    const QString cpuText = QString::fromUtf8(cpuinfo.readAll());
    const QRegularExpressionMatch model = QRegularExpression(QStringLiteral("model name\\s*: ([^\n]*)")).match(cpuText);
    QCOMPARE(HardwareInfo::cpuType(), model.hasMatch() ? model.captured(1) : QString());

#if defined(__x86_64__) || defined(__i386__)
    QVERIFY(QRegularExpression(QStringLiteral("^[1-9A-F][0-9A-F]*[1-9A-F][0-9A-F]*$"))
                .match(HardwareInfo::get_cpuId())
                .hasMatch());
#else
    QCOMPARE(HardwareInfo::get_cpuId(), QString());
#endif

    // This machine's DRM devices decide the adapter lines; without any the list is empty.
    const QStringList cards = QDir(QStringLiteral("/sys/class/drm"))
                                  .entryList(QStringList {QStringLiteral("card*")}, QDir::AllEntries | QDir::System)
                                  .filter(QRegularExpression(QStringLiteral("^card\\d+$")));
    const QString adapters = HardwareInfo::dCard();
    QVERIFY(adapters.split(QLatin1Char('\n'), Qt::SkipEmptyParts).size() <= cards.size());
    QCOMPARE(adapters, adapters.trimmed());

    // The offscreen platform offers one screen.
    QVERIFY2(QRegularExpression(QStringLiteral("^\\(\\d+ X \\d+\\) X 1$")).match(HardwareInfo::screen()).hasMatch(),
        qPrintable(HardwareInfo::screen()));

    QVERIFY(QRegularExpression(QStringLiteral("^[0-9A-Fa-f]*$"))
                .match(HardwareInfo::getMacStr(QStringLiteral("0")))
                .hasMatch());
}

QTEST_MAIN(HardwareInfoTest)
#include "tst_hardwareinfo.moc"
