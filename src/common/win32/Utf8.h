#pragma once

#include <string>

namespace Orvanta {
namespace Win32 {

/// Conversions between the system's UTF-16 and the UTF-8 that ports carry.
std::string toUtf8(const std::wstring& text);
std::wstring fromUtf8(const std::string& text);

} // namespace Win32
} // namespace Orvanta
