// The scan for NAL units as one would write it first: what the fast one is compared with, for its result and its speed.
#pragma once

#include "velstream.h"

#include <cstddef>

namespace velstream::testing {

/// One byte after the other, both start codes by name.
inline Quorvis::VelStream::HevcAuInfo plain_scan(const unsigned char* data, std::size_t size)
{
    Quorvis::VelStream::HevcAuInfo info{};
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

} // namespace velstream::testing
