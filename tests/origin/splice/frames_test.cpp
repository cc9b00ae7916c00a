// Real H.265 in; every frame out once, in order, with its time stamp, as ffmpeg decodes it.
#include "ConfigFile.h"
#include "SpliceStream.h"
#include "StreamBuildSplice.h"
#include "VideoFiles.h"

#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

std::string decode_nv12(const std::string& path)
{
    const CommandResult decoded = run_command({"ffmpeg", "-v", "error", "-i", path, "-map", "0:v:0", "-vsync",
                                               "passthrough", "-pix_fmt", "nv12", "-f", "rawvideo", "-"});
    EXPECT_EQ(decoded.status, 0) << path;
    return decoded.output;
}

std::vector<long> sorted_pts(const std::vector<AccessUnit>& units)
{
    std::vector<long> all;
    for (const AccessUnit& unit : units)
        all.push_back(unit.pts);
    std::sort(all.begin(), all.end());
    return all;
}

constexpr long kHour = 3600L * 1000000000L;

/// A decoder that reorders holds its last frames until key frames push them out: pushes the first unit again, often
/// enough for any depth of reordering, behind all others.
void flush(const SpliceStream& stream, const AccessUnit& first)
{
    for (long i = 0; i < 8; ++i)
        EXPECT_EQ(stream.push(first.bytes, kHour + i), 0);
}

void expect_frames(const ClipSpec& spec)
{
    TemporaryFolder folder;
    const std::string path = folder.file("clip.mp4");
    const auto units = make_access_units(spec, path);
    ASSERT_FALSE(units.empty());
    FrameLog log;
    const SpliceStream stream("one", log.callback());
    for (const AccessUnit& unit : units)
        ASSERT_EQ(stream.push(unit), 0);
    flush(stream, units.front());
    ASSERT_TRUE(log.wait_for(units.size() + 1)) << log.size();
    EXPECT_EQ(stream.stop(), 0);

    const std::string expected = decode_nv12(path);
    const std::vector<long> pts = sorted_pts(units);
    const std::vector<Frame> frames = log.frames();
    const std::size_t frame_bytes =
        static_cast<std::size_t>(spec.width) * static_cast<std::size_t>(spec.height) * 3 / 2;
    ASSERT_EQ(expected.size(), units.size() * frame_bytes);
    for (std::size_t i = 0; i < units.size(); ++i) {
        const Image& image = frames[i].image;
        EXPECT_EQ(image.pts, pts[i]) << i;
        EXPECT_EQ(image.streamId, "one");
        EXPECT_EQ(image.extra, "NV12");
        EXPECT_EQ(image.width, spec.width);
        EXPECT_EQ(image.height, spec.height);
        EXPECT_EQ(image.alignedWidth, spec.width);
        EXPECT_EQ(image.alignedHeight, spec.height);
        EXPECT_EQ(image.planeHeight, spec.height);
        EXPECT_GE(image.planeStride, spec.width);
        EXPECT_EQ(image.size, static_cast<uint64_t>(image.planeStride) * static_cast<uint64_t>(spec.height) * 3 / 2);
        EXPECT_EQ(image.timestamp, "");
        EXPECT_EQ(image.frameIndex, 0);
        EXPECT_EQ(image.fps, 0.0);
        ASSERT_EQ(frames[i].nv12.size(), frame_bytes);
        ASSERT_TRUE(std::equal(frames[i].nv12.begin(), frames[i].nv12.end(),
                               reinterpret_cast<const std::uint8_t*>(expected.data()) + i * frame_bytes))
            << "frame " << i << " differs";
    }
    EXPECT_EQ(frames[units.size()].image.pts, kHour) << "nothing comes twice, and the flush comes behind all";
}

/// Lets callbacks through one by one, or all.
class Turnstile {
public:
    void wait()
    {
        std::unique_lock lock(mutex_);
        is_waiting_ = true;
        changed_.notify_all();
        changed_.wait(lock, [&] { return is_open_; });
    }
    void open()
    {
        const std::lock_guard lock(mutex_);
        is_open_ = true;
        changed_.notify_all();
    }
    bool wait_for_arrival()
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kSplicePatience, [&] { return is_waiting_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool is_waiting_ = false;
    bool is_open_ = false;
};

Bytes big_unit(std::size_t size)
{
    Bytes unit = nal_unit(1);
    unit.resize(size, 0xAA);
    return unit;
}

guint64 queued_bytes(const std::string& id)
{
    return gst_app_src_get_current_level_bytes(GST_APP_SRC(appsrc_of(*find_splice_stream(id)).get()));
}

} // namespace

TEST(SpliceFrames, ComeOnceInOrderWithTheirTimesAsFfmpegDecodesThem)
{
    ClipSpec spec;
    spec.frames = 65;
    expect_frames(spec);
}

TEST(SpliceFrames, ReorderedOnesComeInTheOrderOfDisplay)
{
    ClipSpec spec;
    spec.frames = 40; // two key frames
    spec.b_frames = 3;
    expect_frames(spec);
}

TEST(SpliceFrames, RowsMayBePadded)
{
    ClipSpec spec;
    spec.width = 854; // rows of a multiple of 4 bytes
    spec.height = 482;
    spec.frames = 12;
    expect_frames(spec);
}

TEST(SpliceFrames, WithoutTimeStampHaveMinusOne)
{
    TemporaryFolder folder;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    FrameLog log;
    const SpliceStream stream("one", log.callback());
    {
        // Parser and decoder reckon times for frames that come without; some decoders do not.
        const auto context = find_splice_stream("one");
        const std::lock_guard lock(context->mutex);
        const PadPtr pad(gst_element_get_static_pad(context->appsink, "sink"));
        const auto clear_time = [](GstPad*, GstPadProbeInfo* info, gpointer) {
            GstBuffer* buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
            GST_BUFFER_PTS(buffer) = GST_CLOCK_TIME_NONE;
            info->data = buffer;
            return GST_PAD_PROBE_OK;
        };
        gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, clear_time, nullptr, nullptr);
    }
    for (const AccessUnit& unit : units)
        ASSERT_EQ(stream.push(unit.bytes, -5), 0);
    ASSERT_TRUE(log.wait_for(units.size()));
    for (const Frame& frame : log.frames())
        EXPECT_EQ(frame.image.pts, -1);
}

TEST(SpliceFrames, EightStreamsKeepApart)
{
    TemporaryFolder folder;
    std::vector<std::vector<AccessUnit>> clips;
    std::vector<std::unique_ptr<FrameLog>> logs;
    std::vector<std::unique_ptr<SpliceStream>> streams;
    for (int i = 0; i < 8; ++i) {
        ClipSpec spec;
        spec.width = 320 + 16 * i;
        clips.push_back(make_access_units(spec, folder.file("clip" + std::to_string(i) + ".mp4")));
        logs.push_back(std::make_unique<FrameLog>());
        streams.push_back(std::make_unique<SpliceStream>("stream" + std::to_string(i), logs.back()->callback()));
    }
    for (std::size_t unit = 0; unit < clips[0].size(); ++unit) {
        for (std::size_t i = 0; i < streams.size(); ++i)
            ASSERT_EQ(streams[i]->push(clips[i][unit]), 0);
    }
    for (std::size_t i = 0; i < streams.size(); ++i) {
        ASSERT_TRUE(logs[i]->wait_for(clips[i].size())) << i;
        for (const Frame& frame : logs[i]->frames()) {
            EXPECT_EQ(frame.image.streamId, "stream" + std::to_string(i));
            EXPECT_EQ(frame.image.width, 320 + 16 * static_cast<int>(i));
        }
    }
}

TEST(SpliceFrames, DecodingGoesOnBehindGarbage)
{
    TemporaryFolder folder;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    FrameLog log;
    const SpliceStream stream("one", log.callback());
    ASSERT_EQ(stream.push(units.front()), 0);
    EXPECT_EQ(stream.push(big_unit(5000), 1), 0);
    EXPECT_EQ(stream.push(Bytes(3000, 0x5A), 2), 0);
    EXPECT_EQ(stream.push(Bytes(3000, 0), 3), 0);
    EXPECT_EQ(stream.push(nal_units({32, 33, 34, 19}), 4), 0);
    for (const AccessUnit& unit : units)
        ASSERT_EQ(stream.push(unit.bytes, kHour + unit.pts), 0);
    EXPECT_TRUE(wait_until([&] {
        const auto frames = log.frames();
        return std::any_of(frames.begin(), frames.end(),
                           [&](const Frame& frame) { return frame.image.pts == kHour + sorted_pts(units).back(); });
    }));
}

TEST(SpliceCallback, ExceptionEndsTheCallbackAndNotTheStream)
{
    TemporaryFolder folder;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    const StandardStreams printed;
    FrameLog log;
    std::atomic<bool> is_first{true};
    const SpliceStream stream("one", log.callback([&] {
        if (is_first.exchange(false)) throw std::runtime_error("Made by a test.");
    }));
    for (const AccessUnit& unit : units)
        ASSERT_EQ(stream.push(unit), 0);
    EXPECT_TRUE(log.wait_for(units.size() - 1));
    EXPECT_NE(printed.error().find("[ERROR][one] frame callback raised an exception: Made by a test.\n"),
              std::string::npos);
}

TEST(SpliceCallback, StopInsideReturnsAtOnceAndEndsTheStreamBehindIt)
{
    TemporaryFolder folder;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    std::promise<int> result;
    std::atomic<int> calls{0};
    const SpliceStream stream("one", [&](const Image&) -> int8_t {
        if (calls++ == 0) result.set_value(stop_splice_stream("one"));
        return 0;
    });
    const std::weak_ptr<StreamContext> context = find_splice_stream("one");
    for (const AccessUnit& unit : units)
        stream.push(unit);
    auto future = result.get_future();
    ASSERT_EQ(future.wait_for(kSplicePatience), std::future_status::ready);
    EXPECT_EQ(future.get(), 0);
    EXPECT_TRUE(wait_until([&] { return context.expired(); })) << "the worker ends by itself";
    EXPECT_EQ(stream.stop(), -3);
}

TEST(SpliceCallback, SlowOneHoldsTheStreamUpAndAPushBlocksAt4MiB)
{
    TemporaryFolder folder;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    Turnstile turnstile;
    FrameLog log;
    const SpliceStream stream("one", log.callback([&] { turnstile.wait(); }));
    ASSERT_EQ(stream.push(units.front()), 0);
    ASSERT_TRUE(turnstile.wait_for_arrival());

    // No sleep tells that a push blocks; that it did not return is seen once the next one is let in.
    std::atomic<int> pushed{0};
    auto pusher = std::async(std::launch::async, [&] {
        for (int i = 0; i < 8; ++i) {
            EXPECT_EQ(stream.push(big_unit(1 << 20)), 0);
            ++pushed;
        }
    });
    EXPECT_TRUE(wait_until([&] { return queued_bytes("one") >= (4U << 20); }));
    EXPECT_EQ(pusher.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    EXPECT_LE(pushed, 5);
    EXPECT_LE(queued_bytes("one"), 6U << 20);
    turnstile.open();
    pusher.get();
    EXPECT_EQ(pushed, 8);
    for (std::size_t i = 0; i < units.size(); ++i)
        ASSERT_EQ(stream.push(units[i].bytes, kHour + static_cast<long>(i)), 0);
    // Nothing is lost, however long the callback took.
    EXPECT_TRUE(
        wait_until([&] { return log.frames().back().image.pts == kHour + static_cast<long>(units.size()) - 1; }));
    EXPECT_EQ(log.frames().front().image.pts, units.front().pts);
}

TEST(SpliceCallback, StopEndsAPushThatBlocks)
{
    TemporaryFolder folder;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    Turnstile turnstile;
    FrameLog log;
    const SpliceStream stream("one", log.callback([&] { turnstile.wait(); }));
    ASSERT_EQ(stream.push(units.front()), 0);
    ASSERT_TRUE(turnstile.wait_for_arrival());
    const auto push_on = [&] {
        int result = 0;
        while (result == 0)
            result = stream.push(big_unit(1 << 20));
        return result;
    };
    auto first = std::async(std::launch::async, push_on);
    auto second = std::async(std::launch::async, push_on);
    EXPECT_TRUE(wait_until([&] { return queued_bytes("one") >= (4U << 20); }));

    auto stop = std::async(std::launch::async, [&] { return stream.stop(); });
    // Both return while the callback still holds the stream up.
    ASSERT_EQ(first.wait_for(kSplicePatience), std::future_status::ready);
    ASSERT_EQ(second.wait_for(kSplicePatience), std::future_status::ready);
    EXPECT_EQ(stop.wait_for(std::chrono::seconds(0)), std::future_status::timeout) << "a stop waits for the callback";
    for (const int result : {first.get(), second.get()})
        EXPECT_TRUE(result == -3 || result == -5 || result == -7) << result;
    turnstile.open();
    ASSERT_EQ(stop.wait_for(kSplicePatience), std::future_status::ready);
    EXPECT_EQ(stop.get(), 0);
}

TEST(SpliceCallback, StopEndsAPushThatBlocksInside)
{
    TemporaryFolder folder;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    std::atomic<int> last{0};
    const SpliceStream stream("one", [&](const Image&) -> int8_t {
        const Bytes unit = big_unit(1 << 20);
        while (last == 0)
            last = decode_put_frame_splice(unit.data(), unit.size(), "one", -1, false);
        return 0;
    });
    ASSERT_EQ(stream.push(units.front()), 0);
    EXPECT_TRUE(wait_until([&] { return queued_bytes("one") >= (4U << 20); }));
    auto stop = std::async(std::launch::async, [&] { return stream.stop(); });
    ASSERT_EQ(stop.wait_for(kSplicePatience), std::future_status::ready);
    EXPECT_EQ(stop.get(), 0);
    EXPECT_TRUE(last == -3 || last == -5 || last == -7) << last;
}
