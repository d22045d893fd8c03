#pragma once

#include "ifaces/Sha256Digest.h"

namespace Orvanta {
namespace BCrypt {

/// SHA-256 through the Windows Cryptography API: Next Generation.
class BCryptSha256Digest final : public Ifaces::Sha256Digest
{
public:
    BCryptSha256Digest();
    ~BCryptSha256Digest() override;
    BCryptSha256Digest(const BCryptSha256Digest&) = delete;
    BCryptSha256Digest& operator=(const BCryptSha256Digest&) = delete;

    void addData(const char* data, std::size_t size) override;
    std::string result() override;

private:
    void* m_algorithm = nullptr; ///< BCRYPT_ALG_HANDLE
    void* m_hash = nullptr; ///< BCRYPT_HASH_HANDLE
    bool m_failed = false;
};

} // namespace BCrypt
} // namespace Orvanta
