// convertDateMacro on arbitrary text. A date it accepts must be a real one,
// and writing it back in the compiler's form must give the same date.

#include "Helpers.h"

#include <QtCore/QDate>
#include <QtCore/QLocale>
#include <QtCore/QString>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QDate date = convertDateMacro(text);
    if (!date.isValid()) {
        return 0;
    }
    if (date.month() < 1 || date.month() > 12 || date.day() < 1 || date.day() > 31) {
        __builtin_trap();
    }
    const QString written = QLocale::c().toString(date, QStringLiteral("MMM dd yyyy"));
    if (date.year() >= 1000 && date.year() <= 9999 && convertDateMacro(written) != date) {
        __builtin_trap();
    }
    return 0;
}
