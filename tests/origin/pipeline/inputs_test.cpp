// Files that cannot be played end the call with its documented result and a line that names the cause.
#include "FilePlayback.h"
#include "RecordedLog.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace velstream::testing {

namespace {

constexpr const char* kOtherCodec = "The file's video is of another codec than the entry's \"decodeType\".";

class BadFile : public Playback {
protected:
    /// Plays it; the call must come back, with -1, without a frame, and an error line must hold `cause`.
    void expect_failure(const std::string& path, const std::string& cause, const std::string& codec = "H264")
    {
        const ConfigFile config(file_entry(path, codec));
        const Played played = play_to_end();
        EXPECT_EQ(played.result, -1);
        EXPECT_EQ(played.numbers.size(), 0U);
        const std::vector<std::string> lines = log_lines();
        const auto names_cause = [&](const std::string& line) {
            return line.rfind("E ", 0) == 0 && line.find(cause) != std::string::npos;
        };
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), names_cause)) << errors_of(lines);
    }

    static std::string errors_of(const std::vector<std::string>& lines)
    {
        std::string text = "no error line names the cause:\n";
        for (const std::string& line : lines) {
            if (line.rfind("E ", 0) == 0) text += line + "\n";
        }
        return text;
    }

    std::string make(const media::MediaSpec& spec) const
    {
        const std::string path = folder_.file("video.mp4");
        make_video(spec, path);
        return path;
    }

    static media::MediaSpec small_video(const std::string& codec = "h264")
    {
        media::MediaSpec spec;
        spec.codec = codec;
        spec.width = 320;
        spec.height = 180;
        spec.frames = 30;
        return spec;
    }
};

} // namespace

TEST_F(BadFile, AbsentEndsWithItsName)
{
    expect_failure(folder_.file("absent.mp4"), "absent.mp4");
}

TEST_F(BadFile, FolderEndsWithItsName)
{
    const std::string path = folder_.file("folder.mp4");
    std::filesystem::create_directory(path);
    expect_failure(path, "folder.mp4");
}

TEST_F(BadFile, EmptyEndsWithItsCause)
{
    const std::string path = folder_.file("empty.mp4");
    std::ofstream(path).close();
    expect_failure(path, "no playable streams");
}

TEST_F(BadFile, GarbageEndsWithItsCause)
{
    const std::string path = folder_.file("garbage.mp4");
    std::ofstream file(path, std::ios::binary);
    std::uint32_t state = 1;
    for (int i = 0; i < 200000; ++i) {
        state = state * 1664525U + 1013904223U;
        file.put(static_cast<char>(state >> 24U));
    }
    file.close();
    expect_failure(path, "invalid");
}

TEST_F(BadFile, WithoutItsIndexEndsWithItsCause)
{
    const std::string path = make(small_video());
    std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
    expect_failure(path, "no playable streams");
}

TEST_F(BadFile, TruncatedInTheDataPlaysWhatIsThere)
{
    const std::string path = make(small_video());
    const std::string cut = folder_.file("cut.mp4");
    ASSERT_EQ(run_command({"ffmpeg", "-v", "error", "-i", path, "-c", "copy", "-movflags", "+faststart", cut}).status,
              0);
    const auto whole = std::filesystem::file_size(cut);
    std::filesystem::resize_file(cut, whole * 2 / 3);
    const ConfigFile config(file_entry(cut));
    const Played played = play_to_end();
    EXPECT_EQ(played.result, result_of_end());
    EXPECT_GT(played.numbers.size(), 5U);
    EXPECT_LT(played.numbers.size(), 30U);
    EXPECT_EQ(played.numbers.at(4), 4);
    EXPECT_TRUE(log_has("W File " + cut + " is cut short: " + std::to_string(whole - whole * 2 / 3) +
                        " bytes are missing at its end."));
}

TEST_F(BadFile, WithSoundOnlyEndsWithAFailure)
{
    media::MediaSpec spec = small_video();
    spec.has_video = false;
    spec.has_audio = true;
    expect_failure(make(spec), "The file has no H.264 or H.265 video.");
}

TEST_F(BadFile, OfH265DeclaredH264EndsWithAFailure)
{
    expect_failure(make(small_video("h265")), kOtherCodec, "H264");
}

TEST_F(BadFile, OfH264DeclaredH265EndsWithAFailure)
{
    expect_failure(make(small_video()), kOtherCodec, "H265");
}

TEST_F(BadFile, WithDamagedPicturesEndsInBoundedTime)
{
    const std::string path = make(small_video());
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    // The media data come first; the index at the end stays whole.
    const auto size = static_cast<long>(std::filesystem::file_size(path));
    for (long at = 2000; at < size / 2; at += 97) {
        file.seekp(at);
        file.put(static_cast<char>(at * 31));
    }
    file.close();
    const ConfigFile config(file_entry(path));
    const Played played = play_to_end();
    EXPECT_TRUE(played.result == 0 || played.result == -1);
    EXPECT_LE(played.numbers.size(), 150U); // five attempts, where there are some
}

} // namespace velstream::testing
