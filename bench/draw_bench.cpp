// What it costs to lay a picture over a 1080p frame, beside the plain loop over its pixels.
#include "velstream.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

using Bytes = std::vector<unsigned char>;

/// A picture whose pixels are clear (white) to this many percent, in runs as a logo or a text has them.
Bytes make_picture(int clear_percent)
{
    std::mt19937 random(1);
    Bytes picture(static_cast<std::size_t>(kWidth) * kHeight * 3);
    for (std::size_t at = 0; at < picture.size();) {
        const bool is_clear = static_cast<int>(random() % 100) < clear_percent;
        for (std::size_t run = 3 * (1 + random() % 40); run > 0 && at < picture.size(); --run, ++at)
            picture[at] = is_clear ? 255 : static_cast<unsigned char>(random() % 200);
    }
    return picture;
}

void plain_loop(unsigned char* frame, const unsigned char* picture)
{
    for (std::size_t i = 0; i < static_cast<std::size_t>(kWidth) * kHeight * 3; i += 3) {
        if (picture[i] > 240 || picture[i + 1] > 240 || picture[i + 2] > 240) continue;
        for (std::size_t channel = 0; channel < 3; ++channel)
            frame[i + channel] = picture[i + channel];
    }
}

void draw_picture_1080p(benchmark::State& state)
{
    Bytes picture = make_picture(static_cast<int>(state.range(0)));
    Bytes frame(picture.size(), 99);
    for ([[maybe_unused]] auto _ : state)
        draw_picture(frame.data(), picture.data(), kWidth, kHeight);
}

void plain_loop_1080p(benchmark::State& state)
{
    const Bytes picture = make_picture(static_cast<int>(state.range(0)));
    Bytes frame(picture.size(), 99);
    for ([[maybe_unused]] auto _ : state) {
        plain_loop(frame.data(), picture.data());
        benchmark::ClobberMemory();
    }
}

BENCHMARK(draw_picture_1080p)->Arg(0)->Arg(50)->Arg(95)->Arg(100)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(plain_loop_1080p)->Arg(0)->Arg(50)->Arg(95)->Arg(100)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
