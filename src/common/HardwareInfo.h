#pragma once

#include "orvanta_global.h"

#include <QtCore/QObject>
#include <QtCore/QString>

/**
 * Short text descriptions of the machine, for problem reports and the usage
 * report.
 *
 * Every operation is static, asks the system afresh at each call and keeps
 * its result's form on every platform: a fact that cannot be found leaves
 * its piece out or gives the empty string. Nothing is cached and nothing
 * throws. screen() reads the GUI application's screen list, so call it from
 * the application's thread.
 */
class LIBORVANTA_EXPORT HardwareInfo : public QObject
{
    Q_OBJECT

public:
    /// An object with nothing in it; every operation is static.
    explicit HardwareInfo(QObject* parent = nullptr);

    /**
     * The hardware address, hexadecimal digits without colons, of the first
     * interface that is not a loopback when @p filter is "0", of the interface
     * whose colon-free address equals @p filter, or otherwise of the last
     * interface that is not a loopback. Logs a warning when it is empty.
     */
    static QString getMacStr(QString filter);
    /// The processor's name as the system describes it, untrimmed.
    static QString cpuType();
    /// EDX and EAX of CPUID leaf 1 in upper-case hexadecimal, without leading zeros.
    static QString get_cpuId();
    /// Runs CPUID with @p leaf in EAX and 0 in ECX; stores EAX, EBX, ECX, EDX in registers[0..3].
    static void getcpuid(unsigned int* const registers, unsigned int leaf);
    /// Product type, a blank, product version, a blank.
    static QString osVersion();
    /// "Available <a> GB / Total <t> GB", two decimals each.
    static QString memory();
    /// "<drive> <free>G/<total>G" and seven blanks per drive, one decimal each.
    static QString disk();
    /// The names of the hardware graphics adapters, one per line.
    static QString dCard();
    /// "(<width> X <height>) X <count>" per distinct screen size.
    static QString screen();
    /// Always empty.
    static QString audioOut();
};
