#pragma once

#include "ifaces/ErrorTextSource.h"

namespace Orvanta {
namespace Win32 {

/// Result-code texts from the system's message tables, through FormatMessageW.
class ErrorTextSource final : public Ifaces::ErrorTextSource
{
public:
    std::wstring systemMessage(long code) const override;
};

} // namespace Win32
} // namespace Orvanta
