// Many streams at the same time, stopped at any moment.
#include "Command.h"
#include "ConfigFile.h"
#include "SpliceStream.h"
#include "StreamBuildSplice.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <thread>

#include <unistd.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

constexpr int kStreams = 8;
constexpr int kLives = 100;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kRounds = 25;
#else
constexpr int kRounds = 100;
#endif

/// What the threads of one stream saw.
struct Codes {
    std::mutex mutex; // guards the following
    std::set<int> put;
    void note(int code)
    {
        const std::lock_guard lock(mutex);
        put.insert(code);
    }
};

/// Pushes the clip until the stream is gone.
void push_until_stopped(const std::string& id, const std::vector<AccessUnit>& units, Codes& codes,
                        std::atomic<int>& accepted)
{
    for (std::size_t i = 0;; i = (i + 1) % units.size()) {
        const AccessUnit& unit = units[i];
        const int code = decode_put_frame_splice(unit.bytes.data(), unit.bytes.size(), id, unit.pts, false);
        codes.note(code);
        if (code == 0) ++accepted;
        if (code == -3) return;
    }
}

bool is_gone(GWeakRef& weak)
{
    return !ElementPtr(static_cast<GstElement*>(g_weak_ref_get(&weak)));
}

/// One life of a stream: started, pushed from two threads, stopped while they push.
void live_once(const std::string& id, const std::vector<AccessUnit>& units, int round, Codes& codes)
{
    std::atomic<int> frames{0};
    FrameCallback callback = [&](const Image&) -> int8_t {
        ++frames;
        return 0;
    };
    ASSERT_EQ(start_splice_stream(id, callback), 0);
    const std::weak_ptr<StreamContext> context = find_splice_stream(id);
    GWeakRef pipeline;
    {
        const auto held = context.lock();
        const std::lock_guard lock(held->mutex);
        g_weak_ref_init(&pipeline, held->pipeline);
    }
    std::atomic<int> accepted{0};
    const auto pusher = [&] { push_until_stopped(id, units, codes, accepted); };
    auto first = std::async(std::launch::async, pusher);
    auto second = std::async(std::launch::async, pusher);
    // At another point of its life in every round: before a unit, among the first ones, with frames on their way.
    ASSERT_TRUE(wait_until([&] { return round % 4 == 3 ? frames > 0 : accepted >= round % 4 * 3; }));
    ASSERT_EQ(stop_splice_stream(id), 0);
    ASSERT_EQ(first.wait_for(kSplicePatience), std::future_status::ready);
    ASSERT_EQ(second.wait_for(kSplicePatience), std::future_status::ready);
    EXPECT_TRUE(context.expired()) << "round " << round;
    // A thread of GStreamer's that was about to change its state may hold it for a moment.
    EXPECT_TRUE(wait_until([&] { return is_gone(pipeline); })) << "the pipeline of round " << round << " is leaked";
    g_weak_ref_clear(&pipeline);
}

int count_threads()
{
    const CommandResult result = run_command({"sh", "-c", "ls /proc/" + std::to_string(getpid()) + "/task | wc -l"});
    return std::atoi(result.output.c_str());
}

} // namespace

TEST(SpliceLoad, EightStreamsStoppedWhilePushedLeaveNothingBehind)
{
    TemporaryFolder folder;
    const StandardStreams printed; // thousands of state lines
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    std::vector<std::future<void>> streams;
    std::vector<Codes> codes(kStreams);
    for (int i = 0; i < kStreams; ++i) {
        streams.push_back(std::async(std::launch::async, [&, i] {
            for (int round = 0; round < kLives && !::testing::Test::HasFailure(); ++round)
                live_once("stream" + std::to_string(i), units, round + i, codes[static_cast<std::size_t>(i)]);
        }));
    }
    for (auto& stream : streams)
        stream.get();
    for (Codes& stream : codes) {
        for (const int code : stream.put)
            EXPECT_TRUE(code == 0 || code == -3 || code == -5 || code == -6 || code == -7) << code;
        EXPECT_TRUE(stream.put.count(0));
        EXPECT_TRUE(stream.put.count(-3));
    }
}

TEST(SpliceLoad, ThreadsEndWithTheirStreams)
{
    TemporaryFolder folder;
    const StandardStreams printed;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    Codes codes;
    live_once("one", units, 3, codes);
    live_once("one", units, 3, codes);
    const int before = count_threads();
    for (int round = 0; round < 10; ++round)
        live_once("one", units, round, codes);
    // Streaming threads go back to a pool that lets them go after a while.
    EXPECT_TRUE(wait_until([&] { return count_threads() <= before + 2; })) << before << " -> " << count_threads();
}

TEST(SpliceLoad, StopRacesWithTheStart)
{
    const StandardStreams printed;
    std::set<int> starts;
    for (int round = 0; round < kRounds; ++round) {
        std::atomic<bool> is_over{false};
        auto stopper = std::async(std::launch::async, [&] {
            // Stops it as soon as it is there, be it only half started.
            while (!is_over) {
                if (stop_splice_stream("one") == 0) return true;
            }
            return false;
        });
        FrameCallback callback = [](const Image&) -> int8_t { return 0; };
        const int result = start_splice_stream("one", callback);
        starts.insert(result);
        EXPECT_TRUE(result == 0 || result == -8) << result;
        ASSERT_TRUE(result != 0 || stopper.wait_for(kSplicePatience) == std::future_status::ready);
        is_over = true;
        stopper.get();
        EXPECT_EQ(find_splice_stream("one"), nullptr);
    }
    EXPECT_TRUE(starts.count(-8)) << "no stop came early enough";
}

TEST(SpliceLoad, StopRightBehindTheStart)
{
    const StandardStreams printed;
    for (int round = 0; round < kRounds; ++round) {
        const SpliceStream stream("one", [](const Image&) -> int8_t { return 0; });
        ASSERT_EQ(stream.start_result(), 0);
        ASSERT_EQ(stream.stop(), 0);
    }
}

TEST(SpliceLoad, OneOfManyStartsOfAnIdWins)
{
    const StandardStreams printed;
    for (int round = 0; round < 20; ++round) {
        std::vector<std::future<int>> starts;
        for (int i = 0; i < 4; ++i) {
            starts.push_back(std::async(std::launch::async, [] {
                FrameCallback callback = [](const Image&) -> int8_t { return 0; };
                return start_splice_stream("one", callback);
            }));
        }
        int won = 0;
        for (auto& start : starts) {
            const int result = start.get();
            EXPECT_TRUE(result == 0 || result == -2) << result;
            won += result == 0;
        }
        EXPECT_EQ(won, 1);
        EXPECT_EQ(stop_splice_stream("one"), 0);
    }
}
