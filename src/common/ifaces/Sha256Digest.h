#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace Orvanta {
namespace Ifaces {

/**
 * A running SHA-256 computation.
 *
 * The platform's cryptographic library does the work: installers of a few
 * hundred megabytes are verified while they stream in, and a portable C
 * implementation would be the slowest part of the download.
 */
class Sha256Digest
{
public:
    virtual ~Sha256Digest() = default;

    virtual void addData(const char* data, std::size_t size) = 0;
    /// The 32 bytes of the digest of everything added so far; empty if the library failed.
    virtual std::string result() = 0;
};

} // namespace Ifaces

/// A fresh computation from the platform's library.
std::unique_ptr<Ifaces::Sha256Digest> createSha256Digest();

} // namespace Orvanta
