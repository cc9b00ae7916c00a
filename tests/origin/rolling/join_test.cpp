// What the script makes of segments: which, in which order, and the joined file.
#include "JoinScript.h"
#include "VideoFiles.h"
#include "frame_numbers.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <numeric>

namespace velstream::testing {

namespace {

namespace fs = std::filesystem;

/// Options for the segments of a folder, joined into a file of their own.
std::vector<std::string> options(const SegmentFolder& segments, const std::string& output,
                                 std::vector<std::string> more = {})
{
    more.insert(more.begin(), {"--stream-id", "cam", "--dir", segments.path(), "--output", output});
    return more;
}

/// Numbers of the pictures of a whole second each, from these on.
std::vector<int> seconds_of_pictures(const std::vector<int>& seconds)
{
    std::vector<int> numbers;
    for (const int second : seconds) {
        for (int i = 0; i < 25; ++i)
            numbers.push_back(second * 25 + i);
    }
    return numbers;
}

/// Seconds of the pictures that were joined with these options.
void expect_seconds(const SegmentFolder& segments, const std::vector<std::string>& more,
                    const std::vector<int>& seconds)
{
    const TemporaryFolder folder;
    const JoinResult result = join_segments(options(segments, folder.file("out.mp4"), more));
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(numbers_in_file(folder.file("out.mp4")), seconds_of_pictures(seconds));
}

void expect_exact_join(const std::string& codec, int b_frames)
{
    const SegmentFolder segments(4, codec, b_frames);
    const TemporaryFolder folder;
    const std::string out = folder.file("out.mp4");
    std::size_t sum = 0;
    for (int i = 0; i < 4; ++i)
        sum += packets_in(segments.path(SegmentFolder::name_of(i))).size();
    EXPECT_EQ(sum, 100U);
    const JoinResult result = join_segments(options(segments, out, {"--json"}));
    ASSERT_EQ(result.status, 0) << result.errors;
    const std::vector<Packet> packets = packets_in(out);
    EXPECT_EQ(packets.size(), sum);
    EXPECT_TRUE(are_evenly_spaced(packets, 25));
    EXPECT_NEAR(probe_video(out).seconds, 4.0, 0.01);
    EXPECT_EQ(numbers_in_file(out), numbers_below(100));
    EXPECT_EQ(result.json()["frames"].asInt(), 100);
    EXPECT_NEAR(result.json()["seconds"].asDouble(), 4.0, 0.001);
    EXPECT_EQ(result.json()["segments"].asInt(), 4);
    EXPECT_EQ(result.json()["bytes"].asUInt64(), fs::file_size(out));
}

} // namespace

TEST(Join, OfH264HasEveryPictureAtItsTime)
{
    expect_exact_join("h264", 0);
}

TEST(Join, OfH264WithReorderedPicturesHasEveryPictureAtItsTime)
{
    expect_exact_join("h264", 2);
}

TEST(Join, OfH265HasEveryPictureAtItsTime)
{
    expect_exact_join("h265", 0);
}

TEST(Join, OrdersByTheTimeOfCompletionWhereTheNumbersWrap)
{
    const SegmentFolder segments(4);
    segments.rename(0, 98);
    segments.rename(1, 99);
    segments.rename(2, 0);
    segments.rename(3, 1);
    expect_seconds(segments, {}, {0, 1, 2, 3});
}

TEST(Join, SegmentsCompletedTogetherAreInTheOrderOfTheirNumbers)
{
    const SegmentFolder segments(4);
    segments.rename(0, 97);
    segments.rename(1, 98);
    segments.rename(2, 99);
    segments.rename(3, 0);
    // The muxers of the last two have finished the other way round.
    segments.complete("00000.mp4", SegmentFolder::kFirstEnd + 2.9);
    segments.complete("00099.mp4", SegmentFolder::kFirstEnd + 3.0);
    expect_seconds(segments, {}, {0, 1, 2, 3});
}

TEST(Join, LastTakesTheNewestWholeSegments)
{
    const SegmentFolder segments(5);
    expect_seconds(segments, {"--last", "2"}, {3, 4});
    expect_seconds(segments, {"--last", "2.1"}, {2, 3, 4});
    expect_seconds(segments, {"--last", "0.1"}, {4});
    expect_seconds(segments, {"--last", "1000"}, {0, 1, 2, 3, 4});
}

TEST(Join, RangeTakesTheSegmentsThatLieInIt)
{
    const SegmentFolder segments(5); // from 1700000000 on
    expect_seconds(segments, {"--start", "1700000002.5"}, {2, 3, 4});
    expect_seconds(segments, {"--end", "1700000002.5"}, {0, 1, 2});
    expect_seconds(segments, {"--start", "1700000001.5", "--end", "1700000003.5"}, {1, 2, 3});
    expect_seconds(segments, {"--last", "2", "--end", "1700000003.5"}, {2, 3});
    expect_seconds(segments, {"--start", "2023-11-14T22:13:22.5Z"}, {2, 3, 4});
    expect_seconds(segments, {"--end", "2023-11-14 23:13:22.5+01:00"}, {0, 1, 2});
}

TEST(Join, SegmentsThatWereSetAsideBelongToIt)
{
    const SegmentFolder segments(4);
    fs::create_directory(segments.path("earlier-20231114-221320"));
    fs::create_directory(segments.path("pictures"));
    for (int i : {0, 1})
        fs::rename(segments.path(SegmentFolder::name_of(i)),
                   segments.path("earlier-20231114-221320/" + SegmentFolder::name_of(i)));
    segments.rename(2, 0);
    fs::copy(segments.path("00000.mp4"), segments.path("pictures/00000.mp4"));
    fs::copy(segments.path("00000.mp4"), segments.path("joined.mp4"));
    expect_seconds(segments, {}, {0, 1, 2, 3});
}

TEST(Join, SegmentsOfAnotherPictureSizeAreNamedAndLeftOut)
{
    const SegmentFolder segments(3);
    const CommandResult other = run_command({"ffmpeg", "-v", "error", "-y", "-i", segments.path("00001.mp4"), "-vf",
                                             "scale=640:360", "-c:v", "libx264", segments.path("00002.mp4")});
    ASSERT_EQ(other.status, 0);
    const TemporaryFolder folder;
    const JoinResult result = join_segments(options(segments, folder.file("out.mp4")));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors,
              "concate_video.py: 00000.mp4 left out: its pictures are avc1 320x240, the newest ones avc1 "
              "640x360.\n"
              "concate_video.py: 00001.mp4 left out: its pictures are avc1 320x240, the newest ones avc1 "
              "640x360.\n");
    EXPECT_EQ(probe_video(folder.file("out.mp4")).width, 640);
}

TEST(Join, WithoutOutputLiesBesideTheFolderAndReplacesNothing)
{
    const SegmentFolder segments(1);
    fs::create_directory("/tmp/rolling/cam");
    fs::copy(segments.path("00000.mp4"), "/tmp/rolling/cam/00000.mp4");
    const JoinResult first = join_segments({"--stream-id", "cam", "--json"});
    const JoinResult second = join_segments({"--stream-id", "cam", "--json"});
    ASSERT_EQ(first.status, 0) << first.errors;
    ASSERT_EQ(second.status, 0) << second.errors;
    EXPECT_EQ(fs::path(first.json()["output"].asString()).parent_path(), "/tmp/rolling");
    EXPECT_NE(first.json()["output"], second.json()["output"]);
    for (const JoinResult& result : {first, second})
        EXPECT_EQ(numbers_in_file(result.json()["output"].asString()), numbers_below(25));
}

TEST(Join, IdsWithOddCharactersAreTakenAsTheyAre)
{
    const SegmentFolder segments(2);
    const std::vector<std::string> ids{"it's", "a b", "-x", "a\"b", "$HOME", "a\nb", "a:b", "100%d", "x/../y", "ä"};
    for (const std::string& id : ids) {
        SCOPED_TRACE(id);
        fs::create_directories("/tmp/rolling/" + id);
        fs::copy(segments.path("00000.mp4"), "/tmp/rolling/" + id + "/00000.mp4", fs::copy_options::overwrite_existing);
        fs::copy(segments.path("00001.mp4"), "/tmp/rolling/" + id + "/00001.mp4", fs::copy_options::overwrite_existing);
        const std::string out = "/tmp/rolling/" + id + ".joined";
        const JoinResult result = join_segments({"--stream-id", id, "--output", out});
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(packets_in(out).size(), 50U);
    }
}

TEST(Join, SaysWhatItHasJoined)
{
    setenv("TZ", "UTC", 1);
    const SegmentFolder segments(2);
    const TemporaryFolder folder;
    const JoinResult result = join_segments(options(segments, folder.file("out.mp4")));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output.rfind("cam: 2 segments, 50 frames, 2.0 s, ", 0), 0U) << result.output;
    EXPECT_NE(result.output.find("2023-11-14 22:13:20 to 2023-11-14 22:13:22: " + folder.file("out.mp4") + "\n"),
              std::string::npos)
        << result.output;
}

} // namespace velstream::testing
