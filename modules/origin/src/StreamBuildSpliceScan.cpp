#include "velstream.h"

#include "ByteLanes.h"

namespace Quorvis::VelStream {

namespace {

constexpr unsigned kVps = 32;
constexpr unsigned kSps = 33;
constexpr unsigned kPps = 34;
constexpr unsigned kFirstIrap = 16;
constexpr unsigned kLastIrap = 21;
constexpr unsigned kFirstNonVcl = 32;
constexpr unsigned long kShortUnit = 8; // bytes behind the header

/// Where 00 00 01 begins in the 16 bytes from `data`: 255 there. Reads two bytes behind them.
ByteLanes start_codes(const unsigned char* data)
{
    return zero_lanes(load_lanes(data) | load_lanes(data + 1) | (load_lanes(data + 2) ^ all_lanes(1)));
}

bool is_start_code(const unsigned char* data)
{
    return data[0] == 0 && data[1] == 0 && data[2] == 1;
}

/// Where the NAL header behind the next start code at or after `from` begins; `size` when there is none. The four-byte
/// start code ends in the three-byte one. A byte costs the same whatever the unit holds; only where units are a few
/// bytes long is it faster to look at those one by one.
unsigned long next_nal_header(const unsigned char* data, unsigned long size, unsigned long from)
{
    unsigned long at = from;
    for (; at + 3 <= size && at < from + kShortUnit; ++at) {
        if (is_start_code(data + at)) return at + 3;
    }
    for (; at + 2 * kByteLanes + 2 <= size; at += 2 * kByteLanes) {
        const ByteLanes first = start_codes(data + at);
        const ByteLanes second = start_codes(data + at + kByteLanes);
        if (!any_lane(first | second)) continue;
        return at + 3 + (any_lane(first) ? first_lane(first) : kByteLanes + first_lane(second));
    }
    for (; at + 3 <= size; ++at) {
        if (is_start_code(data + at)) return at + 3;
    }
    return size;
}

void note_nal_unit(HevcAuInfo& info, unsigned type)
{
    if (type == kVps) info.has_vps = true;
    if (type == kSps) info.has_sps = true;
    if (type == kPps) info.has_pps = true;
    if (type < kFirstNonVcl) info.has_vcl = true;
    if (type >= kFirstIrap && type <= kLastIrap) info.is_irap = true;
}

/// Flags are never cleared, so there is nothing left to look for.
bool is_full(const HevcAuInfo& info)
{
    return info.has_vps && info.has_sps && info.has_pps && info.is_irap && info.has_vcl;
}

} // namespace

HevcAuInfo parse_hevc_au_info_splice(const unsigned char* data, unsigned long size)
{
    HevcAuInfo info{};
    // Kept: five bytes could hold a start code and a NAL header, and are refused.
    if (!data || size <= 5) return info;
    for (unsigned long from = 0; !is_full(info);) {
        const unsigned long header = next_nal_header(data, size, from);
        if (header + 2 > size) break;
        note_nal_unit(info, (data[header] >> 1) & 0x3FU);
        if (size <= header + 7) break; // a short last unit is counted and ends the scan
        from = header + 2;
    }
    return info;
}

} // namespace Quorvis::VelStream
