// The installer check's SHA-256 through Windows CNG (bcrypt.dll) under Wine,
// against the standard's test vectors.

#include "bcrypt/BCryptSha256Digest.h"
#include "ifaces/Sha256Digest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

using namespace Orvanta;

namespace {

std::string hex(const std::string& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

std::string digestOf(const std::string& data)
{
    const std::unique_ptr<Ifaces::Sha256Digest> digest = createSha256Digest();
    digest->addData(data.data(), data.size());
    return hex(digest->result());
}

} // namespace

TEST(BCryptSha256Digest, PlatformDigestIsCng)
{
    const std::unique_ptr<Ifaces::Sha256Digest> digest = createSha256Digest();
    ASSERT_TRUE(digest);
    EXPECT_NE(dynamic_cast<BCrypt::BCryptSha256Digest*>(digest.get()), nullptr);
}

TEST(BCryptSha256Digest, StandardVectors)
{
    EXPECT_EQ(digestOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digestOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digestOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
        "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST(BCryptSha256Digest, DataInChunksGivesTheSameDigest)
{
    // One million times "a", fed in uneven pieces as a download delivers them.
    const std::string block(1000, 'a');
    const std::unique_ptr<Ifaces::Sha256Digest> digest = createSha256Digest();
    std::size_t fed = 0;
    std::size_t piece = 1;
    while (fed < 1000000) {
        const std::size_t size = std::min<std::size_t>({piece, block.size(), 1000000 - fed});
        digest->addData(block.data(), size);
        fed += size;
        piece = piece * 7 % 997 + 1;
    }
    EXPECT_EQ(hex(digest->result()), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(BCryptSha256Digest, EmptyPiecesChangeNothing)
{
    const std::unique_ptr<Ifaces::Sha256Digest> digest = createSha256Digest();
    digest->addData("ab", 2);
    digest->addData("", 0);
    digest->addData("c", 1);
    EXPECT_EQ(hex(digest->result()), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(BCryptSha256Digest, ResultLeavesTheComputationOpen)
{
    const std::unique_ptr<Ifaces::Sha256Digest> digest = createSha256Digest();
    digest->addData("ab", 2);
    EXPECT_EQ(hex(digest->result()), "fb8e20fc2e4c3f248c60c39bd652f3c1347298bb977b8b4d5903b85055620603");
    digest->addData("c", 1);
    EXPECT_EQ(hex(digest->result()), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}
