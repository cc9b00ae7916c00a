// What "velstream run" draws: in the snapshots, in a recording, in a file that has nothing else.
#include "tool_fixture.h"

#include <cstdlib>
#include <fstream>

namespace {

constexpr int kWidth = 642;
constexpr int kHeight = 362;

struct Colour {
    int red = -1;
    int green = -1;
    int blue = -1;
    bool is_near(int r, int g, int b) const
    {
        return std::abs(red - r) <= 12 && std::abs(green - g) <= 12 && std::abs(blue - b) <= 12;
    }
};

void PrintTo(const Colour& colour, std::ostream* out)
{
    *out << colour.red << ", " << colour.green << ", " << colour.blue;
}

/// A picture, or one frame of a video, as ffmpeg decodes it.
class Picture {
public:
    explicit Picture(const std::string& path, int frame = 0)
        : rgb_(run_command("ffmpeg -v error -i " + path + " -vf \"select=eq(n\\," + std::to_string(frame) +
                           "),scale=in_color_matrix=bt601,format=rgb24,crop=642:362:0:0\" -frames:v 1 -f rawvideo -")
                   .text)
    {
        EXPECT_EQ(rgb_.size(), static_cast<std::size_t>(kWidth * kHeight) * 3) << path;
        rgb_.resize(static_cast<std::size_t>(kWidth * kHeight) * 3);
    }
    Colour at(int x, int y) const
    {
        const auto* pixel = reinterpret_cast<const unsigned char*>(&rgb_[static_cast<std::size_t>(y * kWidth + x) * 3]);
        return {pixel[0], pixel[1], pixel[2]};
    }
    /// Pixels of the colour of the time, where it stands.
    int red_pixels() const
    {
        int count = 0;
        for (int y = 20; y < 60; ++y) {
            for (int x = 20; x < 500; ++x) {
                const Colour colour = at(x, y);
                count += colour.red > 200 && colour.green < 60 && colour.blue < 60;
            }
        }
        return count;
    }

private:
    std::string rgb_;
};

class DrawTool : public Tool {
protected:
    /// 200x120: white, bright blue from (20, 60), nothing at all from (100, 60), green from (20, 90).
    std::string make_logo() const
    {
        const std::string path = (folder_ / "logo.png").string();
        EXPECT_EQ(run_command("ffmpeg -v error -f lavfi -i \"color=white:s=200x120:d=1,drawbox=20:60:60:20:blue:fill,"
                              "drawbox=100:60:60:20:magenta:fill,drawbox=20:90:60:20:0x00a000:fill,format=rgba,"
                              "colorkey=magenta:0.1:0\" -frames:v 1 " +
                              path)
                      .status,
                  0);
        return path;
    }
    std::string snapshot(const std::string& name) const { return (folder_ / "pictures" / name).string(); }
    Output run_with_snapshots(const std::string& arguments) const
    {
        return run_software("run " + arguments + " --snapshot " + (folder_ / "pictures").string());
    }
};

void expect_logo(const Picture& drawn, const Picture& plain)
{
    EXPECT_TRUE(drawn.at(50, 70).is_near(0, 0, 240)) << ::testing::PrintToString(drawn.at(50, 70));
    EXPECT_TRUE(drawn.at(50, 100).is_near(0, 160, 0)) << ::testing::PrintToString(drawn.at(50, 100));
    // White, transparent, and beside the picture: the frame's own.
    for (const auto& [x, y] : {std::pair(180, 30), {130, 70}, {400, 200}}) {
        const Colour own = plain.at(x, y);
        EXPECT_TRUE(drawn.at(x, y).is_near(own.red, own.green, own.blue)) << x << ", " << y;
    }
}

} // namespace

TEST_F(DrawTool, PictureIsInSnapshotsAndInTheRecording)
{
    write_clip();
    const Output output = run_with_snapshots("second --draw-picture " + make_logo());
    ASSERT_EQ(output.status, 0) << stderr_text();
    const Picture plain(clip());
    expect_logo(Picture(snapshot("second-000001.png")), plain);
    expect_logo(Picture((folder_ / "out.mp4").string()), plain);
}

TEST_F(DrawTool, TimeIsInSnapshotsAndInTheRecording)
{
    write_clip();
    ASSERT_EQ(run_with_snapshots("second --draw-time").status, 0) << stderr_text();
    EXPECT_EQ(Picture(clip()).red_pixels(), 0);
    EXPECT_GT(Picture(snapshot("second-000001.png")).red_pixels(), 500);
    EXPECT_GT(Picture((folder_ / "out.mp4").string(), 10).red_pixels(), 300);
}

TEST_F(DrawTool, StreamThatHasNothingElseIsDrawnAnewEveryFrame)
{
    const std::string saved = (folder_ / "saved.mp4").string();
    write_clip(1, R"(,{"streamsId": "saved", "properties": {"saveMp4": true, "width": 642, "height": 362, "fps": 50,
                      "outputFile": ")" +
                      saved + "\"}}");
    ASSERT_EQ(run_with_snapshots("saved --frames 65 --draw-time --draw-picture " + make_logo()).status, 0)
        << stderr_text();
    const Picture first(snapshot("saved-000001.png"));
    const Picture last(snapshot("saved-000061.png"));
    EXPECT_GT(first.red_pixels(), 500);
    // Sixty times on top of each other would be a red smear.
    EXPECT_NEAR(last.red_pixels(), first.red_pixels(), first.red_pixels() / 4);
    EXPECT_TRUE(last.at(50, 70).is_near(0, 0, 240)) << ::testing::PrintToString(last.at(50, 70));
    EXPECT_TRUE(last.at(400, 200).is_near(128, 128, 128)) << ::testing::PrintToString(last.at(400, 200));
    EXPECT_TRUE(Picture(saved, 60).at(50, 100).is_near(0, 160, 0));
}

TEST_F(DrawTool, PictureThatCannotBeReadIsOneSentence)
{
    write_clip();
    EXPECT_EQ(run_software("run clip --draw-picture " + clip()).status, 2);
    EXPECT_NE(stderr_text().find("velstream: Picture " + clip() + " cannot be read as PNG: "), std::string::npos)
        << stderr_text();
    EXPECT_EQ(lines_of(stderr_text()).size(), 1U) << stderr_text();
    EXPECT_EQ(run_software("run clip --draw-picture /nonexistent.png").status, 2);
    EXPECT_NE(stderr_text().find("No such file or directory"), std::string::npos) << stderr_text();
}
