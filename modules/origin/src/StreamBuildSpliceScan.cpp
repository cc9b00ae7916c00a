#include "velstream.h"

#include <cstring>

namespace Quorvis::VelStream {

namespace {

constexpr unsigned kVps = 32;
constexpr unsigned kSps = 33;
constexpr unsigned kPps = 34;
constexpr unsigned kFirstIrap = 16;
constexpr unsigned kLastIrap = 21;
constexpr unsigned kFirstNonVcl = 32;

/// Where the NAL header behind the next start code at or after `from` begins; `size` when there is none. The four-byte
/// start code ends in the three-byte one. The C library looks for the 1 many bytes at a time, and a 1 that ends no
/// start code cannot be one of the next one's zeros either.
unsigned long next_nal_header(const unsigned char* data, unsigned long size, unsigned long from)
{
    for (unsigned long one = from + 2; one < size; one += 3) {
        const void* found = std::memchr(data + one, 1, size - one);
        if (!found) return size;
        one = static_cast<unsigned long>(static_cast<const unsigned char*>(found) - data);
        if (data[one - 1] == 0 && data[one - 2] == 0) return one + 1;
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
