#include "Win32ErrorTextSource.h"

#include <windows.h>

namespace Orvanta {
namespace Win32 {

std::wstring ErrorTextSource::systemMessage(long code) const
{
    LPWSTR buffer = nullptr;
    const DWORD length
        = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM,
            nullptr, static_cast<DWORD>(code), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
            reinterpret_cast<LPWSTR>(&buffer), 0, nullptr);
    if (length == 0 || buffer == nullptr) {
        return {};
    }
    // The system's line end stays: callers log the text as the system gives it.
    std::wstring text(buffer, length);
    LocalFree(buffer);
    return text;
}

} // namespace Win32

const Ifaces::ErrorTextSource& platformErrorTextSource()
{
    static const Win32::ErrorTextSource source;
    return source;
}

} // namespace Orvanta
