#include "TypeSignatureIid.h"

#include <cstdio>
#include <vector>

namespace TypeSignatureIid {

namespace {

std::uint32_t rotateLeft(std::uint32_t value, int bits)
{
    return (value << bits) | (value >> (32 - bits));
}

// The namespace of the runtime's parameterised-interface IIDs,
// 11f47ad5-7b73-42c0-abae-878b1e16adee, in network byte order.
const std::uint8_t SignatureNamespace[16]
    = {0x11, 0xf4, 0x7a, 0xd5, 0x7b, 0x73, 0x42, 0xc0, 0xab, 0xae, 0x87, 0x8b, 0x1e, 0x16, 0xad, 0xee};

} // namespace

Sha1Digest sha1(const std::string& bytes)
{
    std::uint32_t h[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};

    // Padding: a one bit, zeros up to 56 bytes modulo 64, the bit length big-endian.
    std::vector<std::uint8_t> message(bytes.begin(), bytes.end());
    const std::uint64_t bitLength = std::uint64_t(bytes.size()) * 8;
    message.push_back(0x80);
    while (message.size() % 64 != 56)
        message.push_back(0);
    for (int shift = 56; shift >= 0; shift -= 8)
        message.push_back(std::uint8_t(bitLength >> shift));

    for (std::size_t block = 0; block < message.size(); block += 64) {
        std::uint32_t w[80];
        for (int i = 0; i < 16; ++i) {
            const std::uint8_t* p = &message[block + std::size_t(i) * 4];
            w[i] = std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3];
        }
        for (int i = 16; i < 80; ++i)
            w[i] = rotateLeft(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);

        std::uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
        for (int i = 0; i < 80; ++i) {
            std::uint32_t f, k;
            if (i < 20) {
                f = (b & c) | (~b & d);
                k = 0x5A827999;
            } else if (i < 40) {
                f = b ^ c ^ d;
                k = 0x6ED9EBA1;
            } else if (i < 60) {
                f = (b & c) | (b & d) | (c & d);
                k = 0x8F1BBCDC;
            } else {
                f = b ^ c ^ d;
                k = 0xCA62C1D6;
            }
            const std::uint32_t next = rotateLeft(a, 5) + f + e + k + w[i];
            e = d;
            d = c;
            c = rotateLeft(b, 30);
            b = a;
            a = next;
        }
        h[0] += a;
        h[1] += b;
        h[2] += c;
        h[3] += d;
        h[4] += e;
    }

    Sha1Digest digest {};
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 4; ++j)
            digest[std::size_t(i * 4 + j)] = std::uint8_t(h[i] >> (24 - 8 * j));
    return digest;
}

std::string hex(const Sha1Digest& digest)
{
    std::string text;
    char pair[3];
    for (std::uint8_t byte : digest) {
        std::snprintf(pair, sizeof pair, "%02x", byte);
        text += pair;
    }
    return text;
}

std::string iidOf(const std::string& signature)
{
    const std::string input = std::string(reinterpret_cast<const char*>(SignatureNamespace), 16) + signature;
    const Sha1Digest digest = sha1(input);

    std::uint8_t uuid[16];
    for (int i = 0; i < 16; ++i)
        uuid[i] = digest[std::size_t(i)];
    uuid[6] = std::uint8_t((uuid[6] & 0x0f) | 0x50); // version 5: name-based, SHA-1
    uuid[8] = std::uint8_t((uuid[8] & 0x3f) | 0x80); // the RFC 4122 variant

    std::string text;
    char pair[3];
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text += '-';
        std::snprintf(pair, sizeof pair, "%02x", uuid[i]);
        text += pair;
    }
    return text;
}

std::string pinterface(const std::string& genericIid, std::initializer_list<std::string> arguments)
{
    std::string signature = "pinterface({" + genericIid + "}";
    for (const std::string& argument : arguments)
        signature += ";" + argument;
    return signature + ")";
}

} // namespace TypeSignatureIid
