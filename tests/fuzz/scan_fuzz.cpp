// Any bytes into the scan, beside a scan that goes one byte at a time.
#include "plain_scan.h"

#include <cstdlib>

using namespace Quorvis::VelStream;
using velstream::testing::plain_scan;

namespace {

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
