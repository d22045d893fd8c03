#pragma once

#include "ifaces/Sha256Digest.h"

#include <openssl/evp.h>

namespace Orvanta {
namespace OpenSsl {

/// SHA-256 through OpenSSL's EVP interface, which uses the processor's SHA instructions where present.
class OpenSslSha256Digest final : public Ifaces::Sha256Digest
{
public:
    OpenSslSha256Digest();

    void addData(const char* data, std::size_t size) override;
    std::string result() override;

private:
    struct ContextDeleter
    {
        void operator()(EVP_MD_CTX* context) const
        {
            EVP_MD_CTX_free(context);
        }
    };

    std::unique_ptr<EVP_MD_CTX, ContextDeleter> m_context;
    bool m_failed = false;
};

} // namespace OpenSsl
} // namespace Orvanta
