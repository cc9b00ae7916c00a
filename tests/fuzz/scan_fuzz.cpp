// Any bytes into the scan, beside a scan that goes one byte at a time.
#include "velstream.h"

#include <cstdlib>

using namespace Quorvis::VelStream;

namespace {

HevcAuInfo plain_scan(const unsigned char* data, std::size_t size)
{
    HevcAuInfo info{};
    if (size <= 5) return info;
    for (std::size_t i = 0;;) {
        std::size_t header = 0;
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            header = i + 3;
        } else if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 0 && i + 4 < size && data[i + 3] == 1) {
            header = i + 4;
        } else {
            if (i + 4 >= size) return info;
            ++i;
            continue;
        }
        if (header + 2 > size) return info;
        const unsigned type = (data[header] >> 1U) & 0x3FU;
        info.has_vps |= type == 32;
        info.has_sps |= type == 33;
        info.has_pps |= type == 34;
        info.has_vcl |= type < 32;
        info.is_irap |= type >= 16 && type <= 21;
        if (size <= header + 7) return info;
        i = header + 2;
    }
}

bool equal(const HevcAuInfo& a, const HevcAuInfo& b)
{
    return a.has_vps == b.has_vps && a.has_sps == b.has_sps && a.has_pps == b.has_pps && a.is_irap == b.is_irap &&
           a.has_vcl == b.has_vcl;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    if (!equal(parse_hevc_au_info_splice(data, size), plain_scan(data, size))) std::abort();
    return 0;
}
