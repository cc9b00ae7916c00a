// What an MP4 file lacks of the boxes that it announces.
#include "ConfigFile.h"
#include "Mp4Boxes.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace velstream::testing {

namespace {

using Quorvis::VelStream::cut_broken_mp4_end;
using Quorvis::VelStream::missing_mp4_bytes;

std::string number(std::uint64_t value, int bytes)
{
    std::string text;
    for (int k = bytes - 1; k >= 0; --k)
        text += static_cast<char>(value >> (8 * k) & 0xffU);
    return text;
}

std::string box(const std::string& type, std::size_t content, std::uint64_t announced)
{
    return number(announced, 4) + type + std::string(content, 'x');
}

std::uint64_t missing_in(const std::string& bytes)
{
    const TemporaryFolder folder;
    const std::string path = folder.file("video.mp4");
    std::ofstream(path, std::ios::binary) << bytes;
    return missing_mp4_bytes(path);
}

const std::string kStart = box("ftyp", 16, 24);

/// What is left of a file when a broken end is cut off.
std::string cut(const std::string& bytes)
{
    const TemporaryFolder folder;
    const std::string path = folder.file("video.mp4");
    std::ofstream(path, std::ios::binary) << bytes;
    const bool is_cut = cut_broken_mp4_end(path);
    std::ostringstream left;
    left << std::ifstream(path, std::ios::binary).rdbuf();
    EXPECT_EQ(is_cut, left.str() != bytes);
    return left.str();
}

} // namespace

TEST(Mp4Boxes, OfAWholeFileLackNothing)
{
    EXPECT_EQ(missing_in(kStart + box("moov", 92, 100) + box("mdat", 1000, 1008)), 0U);
    EXPECT_EQ(missing_in(kStart + box("mdat", 8 + 1000, 1).replace(8, 8, number(1016, 8)) + box("moov", 2, 10)), 0U);
}

TEST(Mp4Boxes, ThatEndEarlyLackTheRest)
{
    EXPECT_EQ(missing_in(kStart + box("moov", 92, 100) + box("mdat", 1000, 1500)), 492U);
    EXPECT_EQ(missing_in(kStart + box("mdat", 8 + 1000, 1).replace(8, 8, number(1ULL << 40U, 8))),
              (1ULL << 40U) - 1016U);
}

TEST(Mp4Boxes, WithoutAnEndOfTheirOwnLackNothing)
{
    EXPECT_EQ(missing_in(kStart + box("moov", 92, 100) + box("mdat", 1000, 0)), 0U);
}

TEST(Mp4Boxes, AreNotSeenInWhatIsNoMp4File)
{
    EXPECT_EQ(missing_in(""), 0U);
    EXPECT_EQ(missing_in("ftyp"), 0U);
    EXPECT_EQ(missing_in(std::string(1000, '\x7e')), 0U);
    EXPECT_EQ(missing_in("What is read here is a text, which announces nothing."), 0U);
    EXPECT_EQ(missing_in(kStart + std::string(40, '\0')), 0U) << "padding";
    EXPECT_EQ(missing_in(kStart + box("moov", 92, 3)), 0U) << "no size of a box";
    EXPECT_EQ(missing_in(kStart + box("mdat", 3, 1)), 0U) << "its size is not there";
    EXPECT_EQ(missing_mp4_bytes("/nowhere/at/all.mp4"), 0U);
    EXPECT_EQ(missing_mp4_bytes("/tmp"), 0U);
}

TEST(Mp4Boxes, OfAFragmentsHeadThatIsBrokenOffAreCut)
{
    const std::string whole = kStart + box("moov", 92, 100) + box("moof", 92, 100) + box("mdat", 1000, 1008);
    EXPECT_EQ(cut(whole + box("moof", 0, 100)), whole);
    EXPECT_EQ(cut(whole + box("moof", 91, 100)), whole);
    EXPECT_EQ(cut(whole + box("mfra", 50, 100)), whole);
}

TEST(Mp4Boxes, ThatPlayAsTheyAreAreLeft)
{
    const std::string whole = kStart + box("moov", 92, 100) + box("moof", 92, 100) + box("mdat", 1000, 1008);
    for (const std::string& bytes :
         {whole, whole + box("moof", 92, 100), whole + "moo", kStart + box("moov", 50, 100),
          kStart + box("moov", 92, 100) + box("moof", 92, 100) + box("mdat", 900, 1008), std::string("a text")})
        EXPECT_EQ(cut(bytes), bytes);
    EXPECT_FALSE(cut_broken_mp4_end("/nowhere/at/all.mp4"));
}

} // namespace velstream::testing
