#pragma once

// The Windows Runtime gives each instance of a parameterised interface
// (IIterable<String>, IAsyncOperation<...>) an IID of its own, derived from
// the instance's type signature: a name-based UUID, SHA-1 over a fixed
// namespace followed by the signature in UTF-8, with the version and variant
// bits set as for RFC 4122 version 5. Only tests use it, to check the values
// that the adapter declares by hand.

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>

namespace TypeSignatureIid {

using Sha1Digest = std::array<std::uint8_t, 20>;

Sha1Digest sha1(const std::string& bytes);

/// A digest as 40 lower-case hexadecimal digits.
std::string hex(const Sha1Digest& digest);

/// The IID of the type with @p signature, e.g. "pinterface({...};string)",
/// in the registry form without braces: "e2fcc7c1-3bfc-5a0b-b2b0-72e769d1cb7e".
std::string iidOf(const std::string& signature);

/// The signature of the instance of the generic @p genericIid (registry form,
/// lower case) with @p arguments, each a signature already.
std::string pinterface(const std::string& genericIid, std::initializer_list<std::string> arguments);

} // namespace TypeSignatureIid
