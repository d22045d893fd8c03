#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Orvanta {
namespace Cpu {

/// Swaps the first and third byte of each little-endian word; with @p alpha
/// 0xFF000000 the fourth byte becomes 255 as well.
inline std::uint32_t swapRedAndBlue(std::uint32_t word, std::uint32_t alpha)
{
    return (word & 0xFF00FF00u) | ((word >> 16) & 0xFFu) | ((word & 0xFFu) << 16) | alpha;
}

/// B, G, R, A becomes R, G, B, A in place; with @p opaque the fourth byte becomes 255.
inline void swapRedAndBlue(std::uint8_t* pixels, std::size_t count, bool opaque)
{
    // Eight pixels a step: a loop of fixed length, which the compiler
    // vectorises even where it leaves loops of unknown length alone.
    const std::uint32_t alpha = opaque ? 0xFF000000u : 0u;
    std::size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        std::uint32_t words[8];
        std::memcpy(words, pixels + i * 4, sizeof words);
        for (std::uint32_t& word : words) {
            word = swapRedAndBlue(word, alpha);
        }
        std::memcpy(pixels + i * 4, words, sizeof words);
    }
    for (; i < count; ++i) {
        std::uint32_t word;
        std::memcpy(&word, pixels + i * 4, sizeof word);
        word = swapRedAndBlue(word, alpha);
        std::memcpy(pixels + i * 4, &word, sizeof word);
    }
}

} // namespace Cpu
} // namespace Orvanta
