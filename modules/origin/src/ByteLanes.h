// Sixteen bytes at a time, by the compilers' vectors: SSE2 or NEON, with no code of one processor.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Quorvis::VelStream {

using ByteLanes = std::uint8_t __attribute__((vector_size(16)));
constexpr std::size_t kByteLanes = sizeof(ByteLanes);

inline ByteLanes load_lanes(const std::uint8_t* bytes)
{
    ByteLanes lanes;
    std::memcpy(&lanes, bytes, kByteLanes);
    return lanes;
}

inline void store_lanes(std::uint8_t* bytes, ByteLanes lanes)
{
    std::memcpy(bytes, &lanes, kByteLanes);
}

/// `value` in every byte.
inline ByteLanes all_lanes(std::uint8_t value)
{
    return ByteLanes{} + value;
}

inline ByteLanes larger_lanes(ByteLanes a, ByteLanes b)
{
    return a > b ? a : b;
}

/// 255 where the byte of `a` is the larger one, else 0.
inline ByteLanes above_lanes(ByteLanes a, ByteLanes b)
{
    return std::bit_cast<ByteLanes>(a > b);
}

/// 255 where the byte is 0, else 0.
inline ByteLanes zero_lanes(ByteLanes lanes)
{
    return std::bit_cast<ByteLanes>(lanes == ByteLanes{});
}

inline bool any_lane(ByteLanes lanes)
{
    const auto halves = std::bit_cast<std::array<std::uint64_t, 2>>(lanes);
    return (halves[0] | halves[1]) != 0;
}

/// Number of the first byte that is not 0; there is one.
inline std::size_t first_lane(ByteLanes lanes)
{
    static_assert(std::endian::native == std::endian::little);
    const auto halves = std::bit_cast<std::array<std::uint64_t, 2>>(lanes);
    const std::size_t half = halves[0] != 0 ? 0 : 1;
    return 8 * half + static_cast<std::size_t>(std::countr_zero(halves[half])) / 8;
}

} // namespace Quorvis::VelStream
