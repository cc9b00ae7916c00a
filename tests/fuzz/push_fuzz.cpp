// Any bytes, cut into one to four pieces of equal size, through gate, queue, parser and decoder, up to the callback,
// which reads every frame.
#include "StreamBuildSplice.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace Quorvis::VelStream;

namespace {

constexpr const char* kId = "fuzz";

/// Reads all that an application may read.
int8_t read_frame(const Image& image)
{
    uint64_t sum = 0;
    for (uint64_t i = 0; i < image.size; ++i)
        sum += image.data[i];
    volatile uint64_t kept = sum;
    (void)kept;
    const bool is_well_formed = image.width > 0 && image.height > 0 && image.planeStride >= image.width &&
                                image.planeHeight == image.height && image.extra == "NV12" && image.streamId == kId;
    if (!is_well_formed) std::abort();
    return 0;
}

/// The first byte says into how many pieces the rest is cut, so that a unit may be one's half.
std::vector<std::pair<const uint8_t*, std::size_t>> cut(const uint8_t* data, std::size_t size)
{
    std::vector<std::pair<const uint8_t*, std::size_t>> units;
    const std::size_t pieces = 1 + data[0] % 4U;
    const std::size_t piece = (size - 1) / pieces + 1;
    for (std::size_t at = 1; at < size; at += piece)
        units.emplace_back(data + at, std::min(piece, size - at));
    return units;
}

void check_code(int code)
{
    // -5 and -7: the decoder's error has ended the stream.
    if (code != 0 && code != -5 && code != -6 && code != -7) std::abort();
}

/// A stop does not wait for what is queued; the end of stream comes behind it, or an error before.
void decode_all()
{
    const auto context = find_splice_stream(kId);
    if (const ElementPtr source = appsrc_of(*context)) gst_app_src_end_of_stream(GST_APP_SRC(source.get()));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (context->running) {
        if (std::chrono::steady_clock::now() > deadline) std::abort();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    gst_init(nullptr, nullptr);            // reads every plug-in at first: not the first unit's time
    std::cout.setstate(std::ios::failbit); // a line for every state of every stream
    std::cerr.setstate(std::ios::failbit);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    if (size < 2) return 0;
    FrameCallback callback = read_frame;
    if (start_splice_stream(kId, callback) != 0) std::abort();
    long pts = 0;
    for (const auto& [unit, bytes] : cut(data, size))
        check_code(decode_put_frame_splice(unit, bytes, kId, pts += 40000000, data[0] & 4U));
    check_code(decode_put_frame_splice(data + 1, size - 1, kId, -1, true));
    decode_all();
    if (stop_splice_stream(kId) != 0) std::abort();
    return 0;
}
