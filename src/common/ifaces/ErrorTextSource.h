#pragma once

#include <string>

namespace Orvanta {
namespace Ifaces {

/**
 * Where the text of a failed result code comes from.
 *
 * The Windows back-end asks the system's message tables; other platforms
 * answer from the library's own table of the codes it produces or maps to.
 * An empty answer means the code is unknown.
 */
class ErrorTextSource
{
public:
    virtual ~ErrorTextSource() = default;

    virtual std::wstring systemMessage(long code) const = 0;
};

} // namespace Ifaces

/// The platform's source, chosen at build time. It lives as long as the process.
const Ifaces::ErrorTextSource& platformErrorTextSource();

} // namespace Orvanta
