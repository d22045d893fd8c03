#pragma once

#include "ifaces/ErrorTextSource.h"

#include <string>

namespace Orvanta {

/**
 * The log text of a result code in the HRESULT convention, without Qt:
 * "No error" for a code that is not negative; otherwise the number text
 * "0x" and the upper-case hexadecimal digits of the code sign-extended to
 * 64 bits, then ": " and the text from @p source, or ": Unknown expect" when
 * the source has none. The source's text is taken as it is, line end included.
 *
 * The number text matches QString::number(long, 16), which prints negative
 * values as their 64-bit two's complement on every platform, so a Windows
 * E_FAIL reads "0xFFFFFFFF80004005" even though its long has 32 bits.
 */
std::wstring resultCodeText(long code, const Ifaces::ErrorTextSource& source);

/// The number text alone: "0x" and the digits described above.
std::wstring resultCodeNumberText(long code);

} // namespace Orvanta
