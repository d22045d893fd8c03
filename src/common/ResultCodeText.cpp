#include "ResultCodeText.h"

#include <cstdint>

namespace Orvanta {

std::wstring resultCodeNumberText(long code)
{
    // Widen first, so that a 32-bit long is sign-extended as Qt does it.
    std::uint64_t bits = static_cast<std::uint64_t>(static_cast<std::int64_t>(code));
    static const wchar_t digits[] = L"0123456789ABCDEF";
    wchar_t reversed[16];
    int count = 0;
    do {
        reversed[count++] = digits[bits & 0xF];
        bits >>= 4;
    } while (bits != 0);

    std::wstring text = L"0x";
    while (count > 0) {
        text += reversed[--count];
    }
    return text;
}

std::wstring resultCodeText(long code, const Ifaces::ErrorTextSource& source)
{
    if (code >= 0) {
        return L"No error";
    }
    const std::wstring message = source.systemMessage(code);
    if (message.empty()) {
        return resultCodeNumberText(code) + L": Unknown expect";
    }
    return resultCodeNumberText(code) + L": " + message;
}

} // namespace Orvanta
