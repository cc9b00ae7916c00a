// What the script does where something is wrong: it says so, and leaves no half file.
#include "Command.h"
#include "FakeProgram.h"
#include "JoinScript.h"
#include "frame_numbers.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace velstream::testing {

namespace {

namespace fs = std::filesystem;

std::vector<std::string> files_in(const std::string& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename());
    return names;
}

/// A join into a folder that is empty but for what the test puts there.
class FaultyJoin : public ::testing::Test {
protected:
    JoinResult join(const SegmentFolder& segments, std::vector<std::string> more = {}) const
    {
        more.insert(more.begin(), {"--stream-id", "cam", "--dir", segments.path(), "--output", out()});
        return join_segments(more);
    }
    std::string out() const { return folder_.file("out.mp4"); }
    std::string out_folder() const { return folder_.file(""); }

private:
    TemporaryFolder folder_;
};

void expect_failure(const JoinResult& result, int status, const std::string& text)
{
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.output, "");
    EXPECT_NE(result.errors.find("concate_video.py: " + text), std::string::npos) << result.errors;
}

/// A file system with this much room, for the life of the object.
class SmallDisk {
public:
    SmallDisk(const std::string& options, unsigned long flags = 0)
    {
        if (mount("velstream-test", path().c_str(), "tmpfs", flags, options.c_str()) != 0)
            ADD_FAILURE() << std::strerror(errno);
    }
    ~SmallDisk() { umount2(path().c_str(), MNT_DETACH); }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    std::string path() const { return folder_.file(""); }
    std::string file(const std::string& name) const { return folder_.file(name); }

private:
    TemporaryFolder folder_;
};

} // namespace

TEST_F(FaultyJoin, SegmentThatIsBeingWrittenIsNamedAndLeftOut)
{
    const SegmentFolder segments(2);
    std::ofstream open(segments.path("00002.mp4"));
    open << std::ifstream(segments.path("00001.mp4")).rdbuf();
    open.flush();
    fs::resize_file(segments.path("00002.mp4"), fs::file_size(segments.path("00002.mp4")) / 2);
    segments.complete("00002.mp4", SegmentFolder::kFirstEnd + 2); // a camera that has gone silent
    const JoinResult result = join(segments, {"--json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "concate_video.py: 00002.mp4 left out: it is still being written.\n");
    EXPECT_EQ(result.json()["skipped"]["00002.mp4"], "it is still being written");
    EXPECT_EQ(numbers_in_file(out()), numbers_below(50));
}

TEST_F(FaultyJoin, BrokenSegmentsAreNamedAndLeftOut)
{
    const SegmentFolder segments(6);
    const auto size_of = [&](int number) { return fs::file_size(segments.path(SegmentFolder::name_of(number))); };
    fs::resize_file(segments.path("00001.mp4"), size_of(1) / 2);
    fs::resize_file(segments.path("00002.mp4"), 0);
    std::ofstream(segments.path("00003.mp4")) << std::string(5000, 'x');
    fs::resize_file(segments.path("00004.mp4"), size_of(4) - 3);
    fs::remove(segments.path("00005.mp4"));
    fs::create_directory(segments.path("00005.mp4"));
    for (int i = 1; i < 5; ++i)
        segments.complete(SegmentFolder::name_of(i), SegmentFolder::kFirstEnd + i);
    const JoinResult result = join(segments);
    EXPECT_EQ(result.status, 0) << result.errors;
    for (const char* name : {"00001", "00002", "00003", "00004", "00005"})
        EXPECT_NE(result.errors.find(std::string("concate_video.py: ") + name + ".mp4 left out: it "),
                  std::string::npos)
            << result.errors;
    EXPECT_NE(result.errors.find("00002.mp4 left out: it is broken, it is empty.\n"), std::string::npos);
    EXPECT_EQ(result.errors.find("still being written"), std::string::npos) << result.errors;
    EXPECT_EQ(numbers_in_file(out()), numbers_below(25));
}

TEST_F(FaultyJoin, GarbledIndexIsBroken)
{
    const SegmentFolder segments(2);
    std::string content;
    {
        std::ostringstream text;
        text << std::ifstream(segments.path("00000.mp4")).rdbuf();
        content = text.str();
    }
    for (const char* box : {"trak", "mdhd", "stts", "stsz", "stsd", "hdlr"}) {
        std::string garbled = content;
        garbled.replace(garbled.find(box), 4, "free");
        std::ofstream(segments.path("00000.mp4")) << garbled;
        segments.complete("00000.mp4", SegmentFolder::kFirstEnd);
        const JoinResult result = join(segments, {"--overwrite"});
        EXPECT_EQ(result.status, 0);
        EXPECT_NE(result.errors.find("00000.mp4 left out: it is broken, "), std::string::npos) << box << result.errors;
    }
}

TEST_F(FaultyJoin, EmptyFolderIsNothingToJoin)
{
    const SegmentFolder segments(0);
    expect_failure(join(segments), 3, segments.path() + " has no complete segment.");
    EXPECT_EQ(files_in(out_folder()), std::vector<std::string>{});
}

TEST_F(FaultyJoin, UnknownStreamIsNothingToJoin)
{
    expect_failure(join_segments({"--stream-id", "absent"}), 3, "/tmp/rolling/absent is not there: ");
}

TEST_F(FaultyJoin, EmptyRangeSaysWhatThereIs)
{
    setenv("TZ", "UTC", 1);
    const SegmentFolder segments(2);
    expect_failure(join(segments, {"--start", "1800000000"}), 3,
                   "no segment lies in the range; there are some from 2023-11-14 22:13:20 to 2023-11-14 22:13:22.");
}

TEST_F(FaultyJoin, OutputThatIsThereIsKeptUnlessAskedFor)
{
    const SegmentFolder segments(1);
    std::ofstream(out()) << "mine";
    expect_failure(join(segments), 1, out() + " is there already: ");
    EXPECT_EQ(fs::file_size(out()), 4U);
    EXPECT_EQ(join(segments, {"--overwrite"}).status, 0);
    EXPECT_EQ(numbers_in_file(out()), numbers_below(25));
    EXPECT_EQ(files_in(out_folder()), std::vector<std::string>{"out.mp4"});
}

TEST_F(FaultyJoin, OutputThatIsAFolderIsRefused)
{
    const SegmentFolder segments(1);
    fs::create_directory(out());
    expect_failure(join(segments, {"--overwrite"}), 1, out() + " is a folder: ");
}

TEST_F(FaultyJoin, FolderThatCannotBeWrittenToIsNamed)
{
    const SegmentFolder segments(1);
    const SmallDisk disk("size=1m", MS_RDONLY);
    const JoinResult result =
        join_segments({"--stream-id", "cam", "--dir", segments.path(), "--output", disk.file("out.mp4")});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.errors.find("cannot be written to: Read-only file system."), std::string::npos) << result.errors;
    expect_failure(join_segments({"--stream-id", "cam", "--dir", segments.path(), "--output", "/absent/out.mp4"}), 1,
                   "/absent cannot be written to: No such file or directory.");
}

TEST_F(FaultyJoin, FullDiskIsSaidBeforehand)
{
    const SegmentFolder segments(2);
    const SmallDisk disk("size=64k");
    const JoinResult result =
        join_segments({"--stream-id", "cam", "--dir", segments.path(), "--output", disk.file("out.mp4")});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.errors.find("MB are needed: make room, "), std::string::npos) << result.errors;
    EXPECT_EQ(files_in(disk.path()), std::vector<std::string>{});
}

TEST_F(FaultyJoin, DiskThatFillsMeanwhileLeavesNoFile)
{
    const SegmentFolder segments(2);
    const SmallDisk disk("size=3m");
    // What takes the room between the look and the writing.
    const FakeProgram ffmpeg("ffmpeg", "head -c 4000000 /dev/zero 2>&- > " + disk.file("full") +
                                           "\nexec env -i PATH=" + std::string(std::getenv("PATH")) + " ffmpeg \"$@\"");
    const JoinResult result =
        join_segments({"--stream-id", "cam", "--dir", segments.path(), "--output", disk.file("out.mp4")});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.errors.find("ffmpeg could not join the segments: "), std::string::npos) << result.errors;
    EXPECT_NE(result.errors.find("No space left on device"), std::string::npos) << result.errors;
    EXPECT_EQ(files_in(disk.path()), std::vector<std::string>{"full"});
}

TEST_F(FaultyJoin, LostPicturesAreAFailure)
{
    const SegmentFolder segments(2);
    const FakeProgram ffmpeg("ffmpeg", "head -c 40 > /dev/null; for word; do last=$word; done\n"
                                       "cp " +
                                           segments.path("00000.mp4") + " \"${last#file:}\"");
    expect_failure(join(segments), 1, "ffmpeg could not join the segments: 25 pictures in it, 50 in the segments");
    EXPECT_EQ(files_in(out_folder()), std::vector<std::string>{});
}

TEST_F(FaultyJoin, WithoutFfmpegSaysWhatToInstall)
{
    const SegmentFolder segments(1);
    const TemporaryFolder programs;
    const CommandResult python = run_command({"python3", "-c", "import sys; print(sys.executable, end='')"});
    fs::create_symlink(python.output, programs.file("python3"));
    fs::create_symlink("/bin/sh", programs.file("sh"));
    const std::string path = std::getenv("PATH");
    setenv("PATH", programs.file("").c_str(), 1);
    expect_failure(join(segments), 1, "ffmpeg is not installed: apt-get install ffmpeg");
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(files_in(out_folder()), std::vector<std::string>{});
}

TEST_F(FaultyJoin, SegmentThatTheRingOverwritesMeanwhileIsNotInIt)
{
    const SegmentFolder segments(3);
    const FakeProgram ffmpeg("ffmpeg", "rm -f " + segments.path("00000.mp4") +
                                           "\nexec env -i PATH=" + std::string(std::getenv("PATH")) + " ffmpeg \"$@\"");
    const JoinResult result = join(segments, {"--json"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.json()["segments"].asInt(), 2);
    std::vector<int> numbers = numbers_in_file(out());
    ASSERT_EQ(numbers.size(), 50U);
    EXPECT_EQ(numbers.front(), 25);
}

TEST_F(FaultyJoin, TwoAtOnceIntoOneFileLeaveOneWholeFile)
{
    const SegmentFolder segments(3);
    JoinResult first;
    std::thread other([&] { first = join(segments); });
    const JoinResult second = join(segments);
    other.join();
    EXPECT_TRUE(first.status == 0 || second.status == 0) << first.errors << second.errors;
    EXPECT_EQ(numbers_in_file(out()), numbers_below(75));
    EXPECT_EQ(files_in(out_folder()), std::vector<std::string>{"out.mp4"});
}

TEST_F(FaultyJoin, TwoAtOnceWithoutOutputLeaveTwoWholeFiles)
{
    const SegmentFolder segments(2);
    fs::copy(segments.path(), "/tmp/rolling/busy", fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    // Each waits for the other one, so that neither sees the other's file when it looks for a name.
    const FakeProgram ffmpeg("ffmpeg", "touch $FOLDER/came.$$; i=0\n"
                                       "until [ $(ls $FOLDER | grep -c came) -ge 2 ]; do\n"
                                       "i=$((i + 1)); [ $i -lt 300 ] || exit 1; sleep 0.1\ndone\nexec env -i PATH=" +
                                           std::string(std::getenv("PATH")) + " ffmpeg \"$@\"");
    const std::vector<std::string> arguments{"--stream-id", "busy", "--json"};
    JoinResult first;
    std::thread other([&] { first = join_segments(arguments); });
    const JoinResult second = join_segments(arguments);
    other.join();
    ASSERT_EQ(first.status, 0) << first.errors;
    ASSERT_EQ(second.status, 0) << second.errors;
    EXPECT_NE(first.json()["output"], second.json()["output"]);
    for (const JoinResult& result : {first, second})
        EXPECT_EQ(numbers_in_file(result.json()["output"].asString()), numbers_below(50));
}

TEST_F(FaultyJoin, EndedBySignalLeavesNoFile)
{
    const SegmentFolder segments(2);
    // The script is this program's parent.
    const FakeProgram ffmpeg("ffmpeg", "kill -TERM $PPID; exec sleep 30");
    const JoinResult result = join(segments);
    EXPECT_EQ(result.status, 128 + SIGTERM) << result.errors;
    EXPECT_EQ(files_in(out_folder()), std::vector<std::string>{});
}

TEST_F(FaultyJoin, WrongUsageIsStatus2)
{
    const std::vector<std::vector<std::string>> wrong{{},
                                                      {"--stream-id"},
                                                      {"--stream-id", ""},
                                                      {"--stream-id", "cam", "--last", "-3"},
                                                      {"--stream-id", "cam", "--last", "nan"},
                                                      {"--stream-id", "cam", "--last", "3", "--start", "10:00"},
                                                      {"--stream-id", "cam", "--start", "yesterday"},
                                                      {"--stream-id", "cam", "--start", "10", "--end", "9"},
                                                      {"--stream-id", "cam", "more"},
                                                      {"--stream-id", "cam", "--out", "x"}};
    for (const auto& arguments : wrong)
        EXPECT_EQ(join_segments(arguments).status, 2) << ::testing::PrintToString(arguments);
    EXPECT_EQ(join_segments({"--help"}).status, 0);
}

} // namespace velstream::testing
