// compareVersion on two arbitrary texts: the input up to the first newline
// is the first version, the rest the second. Besides crashing, the order
// must be strict: never both a > b and b > a, and never a > a.

#include "Helpers.h"

#include <QtCore/QString>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const int split = input.indexOf('\n');
    const QString first = QString::fromUtf8(split < 0 ? input : input.left(split));
    const QString second = split < 0 ? QString() : QString::fromUtf8(input.mid(split + 1));
    const bool greater = compareVersion(first, second);
    const bool less = compareVersion(second, first);
    if ((greater && less) || compareVersion(first, first)) {
        __builtin_trap();
    }
    return 0;
}
