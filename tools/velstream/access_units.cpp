#include "access_units.h"

#include <cstring>

namespace velstream::tool {

namespace {

constexpr std::size_t kStartCode = 3;

/// Where the NAL header behind the next start code at or after `from` begins; the stream's size when there is none.
std::size_t find_header(std::span<const uint8_t> stream, std::size_t from)
{
    for (std::size_t one = from + 2; one < stream.size(); ++one) {
        const void* found = std::memchr(stream.data() + one, 1, stream.size() - one);
        if (!found) break;
        one = static_cast<std::size_t>(static_cast<const uint8_t*>(found) - stream.data());
        if (stream[one - 1] == 0 && stream[one - 2] == 0) return one + 1;
    }
    return stream.size();
}

/// A zero before the three-byte start code belongs to it.
std::size_t start_code_of(std::span<const uint8_t> stream, std::size_t header, std::size_t earliest)
{
    const std::size_t begin = header - kStartCode;
    return begin > earliest && stream[begin - 1] == 0 ? begin - 1 : begin;
}

struct NalUnit {
    unsigned type = 0;
    bool is_base_layer = false;
    bool is_first_slice = false; ///< of a picture; for slices alone

    bool is_slice() const { return type < 32; }
    /// Parameter sets, delimiter, prefix SEI and the reserved types that stand before a picture's first slice.
    bool precedes_slices() const
    {
        return (type >= 32 && type <= 35) || type == 39 || (type >= 41 && type <= 44) || (type >= 48 && type <= 55);
    }
    bool starts_unit() const { return is_base_layer && (is_slice() ? is_first_slice : precedes_slices()); }
};

NalUnit read_nal_unit(std::span<const uint8_t> stream, std::size_t header)
{
    NalUnit unit;
    if (header + 2 >= stream.size()) return unit;
    unit.type = (stream[header] >> 1U) & 0x3FU;
    unit.is_base_layer = (stream[header] & 1U) == 0 && (stream[header + 1] >> 3U) == 0;
    unit.is_first_slice = (stream[header + 2] & 0x80U) != 0;
    return unit;
}

} // namespace

AccessUnitCutter::AccessUnitCutter(std::span<const uint8_t> stream)
    : stream_(stream), begin_(stream.size()), header_(find_header(stream, 0))
{
    if (header_ < stream_.size()) begin_ = start_code_of(stream_, header_, 0);
}

std::span<const uint8_t> AccessUnitCutter::next()
{
    const std::size_t begin = begin_;
    bool has_slice = false;
    for (; header_ < stream_.size(); header_ = find_header(stream_, header_)) {
        const NalUnit unit = read_nal_unit(stream_, header_);
        if (has_slice && unit.starts_unit()) {
            begin_ = start_code_of(stream_, header_, begin);
            return stream_.subspan(begin, begin_ - begin);
        }
        has_slice = has_slice || unit.is_slice();
    }
    begin_ = stream_.size();
    return stream_.subspan(begin);
}

std::vector<uint8_t> as_broken_link(std::span<const uint8_t> unit)
{
    constexpr unsigned kCleanRandomAccess = 21; // H.265, table 7-1
    constexpr unsigned kBrokenLink = 16;
    std::vector<uint8_t> copy(unit.begin(), unit.end());
    for (std::size_t header = find_header(copy, 0); header < copy.size(); header = find_header(copy, header)) {
        if (read_nal_unit(copy, header).type == kCleanRandomAccess)
            copy[header] = static_cast<uint8_t>((copy[header] & 0x81U) | kBrokenLink << 1U);
    }
    return copy;
}

} // namespace velstream::tool
