// The scan for NAL units against one that goes byte by byte: bytes a second on one long unit.
#include "plain_scan.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

using namespace Quorvis::VelStream;
using velstream::testing::plain_scan;

namespace {

using Bytes = std::vector<std::uint8_t>;

/// A picture's slice as an encoder writes it: no start code inside.
Bytes long_unit(std::size_t size)
{
    std::mt19937 random(1);
    Bytes bytes{0, 0, 0, 1, 0x02, 0x01};
    while (bytes.size() < size) {
        const auto byte = static_cast<std::uint8_t>(random());
        const bool would_start = bytes[bytes.size() - 1] == 0 && bytes[bytes.size() - 2] == 0 && byte <= 3;
        bytes.push_back(would_start ? 3 : byte);
    }
    return bytes;
}

/// The worst for a search for the byte 1.
Bytes ones(std::size_t size)
{
    Bytes bytes(size, 1);
    bytes[0] = bytes[1] = 0;
    return bytes;
}

/// Start codes wherever they can be, of units that set but one flag: the scan has to look at all of them.
Bytes start_codes_only(std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = Bytes{0, 0, 1, 2, 1}[i % 5];
    return bytes;
}

template <HevcAuInfo (*Scan)(const unsigned char*, unsigned long), Bytes (*Make)(std::size_t)>
void scan(benchmark::State& state)
{
    const Bytes bytes = Make(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(Scan(bytes.data(), bytes.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

BENCHMARK(scan<parse_hevc_au_info_splice, long_unit>)->Name("scan/long_unit")->Arg(10000)->Arg(200000)->Arg(4000000);
BENCHMARK(scan<plain_scan, long_unit>)->Name("plain/long_unit")->Arg(10000)->Arg(200000)->Arg(4000000);
BENCHMARK(scan<parse_hevc_au_info_splice, ones>)->Name("scan/ones")->Arg(200000);
BENCHMARK(scan<plain_scan, ones>)->Name("plain/ones")->Arg(200000);
BENCHMARK(scan<parse_hevc_au_info_splice, start_codes_only>)->Name("scan/start_codes")->Arg(200000);
BENCHMARK(scan<plain_scan, start_codes_only>)->Name("plain/start_codes")->Arg(200000);

} // namespace

BENCHMARK_MAIN();
