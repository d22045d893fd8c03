#include "openssl/OpenSslSha256Digest.h"

namespace Orvanta {
namespace OpenSsl {

OpenSslSha256Digest::OpenSslSha256Digest()
    : m_context(EVP_MD_CTX_new())
{
    m_failed = !m_context || EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) != 1;
}

void OpenSslSha256Digest::addData(const char* data, std::size_t size)
{
    if (!m_failed && size > 0) {
        m_failed = EVP_DigestUpdate(m_context.get(), data, size) != 1;
    }
}

std::string OpenSslSha256Digest::result()
{
    if (m_failed) {
        return {};
    }
    // Finalising ends a context; a copy keeps this one open for more data.
    std::unique_ptr<EVP_MD_CTX, ContextDeleter> copy(EVP_MD_CTX_new());
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!copy || EVP_MD_CTX_copy_ex(copy.get(), m_context.get()) != 1
        || EVP_DigestFinal_ex(copy.get(), digest, &length) != 1) {
        return {};
    }
    return std::string(reinterpret_cast<const char*>(digest), length);
}

} // namespace OpenSsl

std::unique_ptr<Ifaces::Sha256Digest> createSha256Digest()
{
    return std::make_unique<OpenSsl::OpenSslSha256Digest>();
}

} // namespace Orvanta
