#include "bcrypt/BCryptSha256Digest.h"

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <climits>

namespace Orvanta {
namespace BCrypt {

namespace {

bool succeeded(NTSTATUS status)
{
    return status >= 0;
}

} // namespace

BCryptSha256Digest::BCryptSha256Digest()
{
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    m_failed = !succeeded(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0));
    m_algorithm = algorithm;
    if (!m_failed) {
        m_failed = !succeeded(BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0));
        m_hash = hash;
    }
}

BCryptSha256Digest::~BCryptSha256Digest()
{
    if (m_hash) {
        BCryptDestroyHash(static_cast<BCRYPT_HASH_HANDLE>(m_hash));
    }
    if (m_algorithm) {
        BCryptCloseAlgorithmProvider(static_cast<BCRYPT_ALG_HANDLE>(m_algorithm), 0);
    }
}

void BCryptSha256Digest::addData(const char* data, std::size_t size)
{
    while (!m_failed && size > 0) {
        const ULONG piece = static_cast<ULONG>(std::min<std::size_t>(size, ULONG_MAX));
        m_failed = !succeeded(BCryptHashData(
            static_cast<BCRYPT_HASH_HANDLE>(m_hash), reinterpret_cast<PUCHAR>(const_cast<char*>(data)), piece, 0));
        data += piece;
        size -= piece;
    }
}

std::string BCryptSha256Digest::result()
{
    if (m_failed) {
        return {};
    }
    // Finishing ends a hash object; a duplicate keeps this one open for more data.
    BCRYPT_HASH_HANDLE copy = nullptr;
    if (!succeeded(BCryptDuplicateHash(static_cast<BCRYPT_HASH_HANDLE>(m_hash), &copy, nullptr, 0, 0))) {
        return {};
    }
    UCHAR digest[32] = {};
    const bool finished = succeeded(BCryptFinishHash(copy, digest, sizeof(digest), 0));
    BCryptDestroyHash(copy);
    return finished ? std::string(reinterpret_cast<const char*>(digest), sizeof(digest)) : std::string();
}

} // namespace BCrypt

std::unique_ptr<Ifaces::Sha256Digest> createSha256Digest()
{
    return std::make_unique<BCrypt::BCryptSha256Digest>();
}

} // namespace Orvanta
