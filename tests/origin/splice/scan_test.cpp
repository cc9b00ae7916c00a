#include "AccessUnits.h"
#include "plain_scan.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>

using namespace Quorvis::VelStream;
using velstream::testing::Bytes;
using velstream::testing::nal_unit;
using velstream::testing::nal_units;

namespace {

std::string text_of(const HevcAuInfo& info)
{
    return std::string(info.has_vps ? "vps " : "") + (info.has_sps ? "sps " : "") + (info.has_pps ? "pps " : "") +
           (info.is_irap ? "irap " : "") + (info.has_vcl ? "vcl " : "");
}

/// Scans a copy that ends where its memory ends.
std::string scan(const Bytes& bytes)
{
    const auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
    if (!bytes.empty()) std::memcpy(copy.get(), bytes.data(), bytes.size());
    return text_of(parse_hevc_au_info_splice(copy.get(), bytes.size()));
}

std::string plain_scan(const Bytes& bytes)
{
    return text_of(velstream::testing::plain_scan(bytes.data(), bytes.size()));
}

/// Every buffer of a length over an alphabet.
void compare_all(const Bytes& alphabet, std::size_t length)
{
    std::vector<std::size_t> digits(length, 0);
    Bytes bytes(length, alphabet[0]);
    for (std::size_t place = 0; place < length;) {
        ASSERT_EQ(scan(bytes), plain_scan(bytes)) << ::testing::PrintToString(bytes);
        for (place = 0; place < length; ++place) {
            digits[place] = (digits[place] + 1) % alphabet.size();
            bytes[place] = alphabet[digits[place]];
            if (digits[place] != 0) break;
        }
    }
}

} // namespace

TEST(SpliceScan, NullAndFiveBytesHoldNothing)
{
    EXPECT_EQ(text_of(parse_hevc_au_info_splice(nullptr, 0)), "");
    EXPECT_EQ(text_of(parse_hevc_au_info_splice(nullptr, 100)), "");
    EXPECT_EQ(scan({}), "");
    EXPECT_EQ(scan({0, 0, 1, 0x40}), "");
    EXPECT_EQ(scan({0, 0, 1, 0x40, 1}), "");
}

TEST(SpliceScan, SixBytesHoldAVps)
{
    EXPECT_EQ(scan({0, 0, 1, 0x40, 1, 0x0C}), "vps ");
}

TEST(SpliceScan, EveryTypeSetsItsFlags)
{
    for (unsigned type = 0; type < 64; ++type) {
        std::string expected;
        if (type == 32) expected = "vps ";
        if (type == 33) expected = "sps ";
        if (type == 34) expected = "pps ";
        if (type < 32) expected = "vcl ";
        if (type >= 16 && type <= 21) expected = "irap vcl ";
        EXPECT_EQ(scan(nal_unit(type)), expected) << type;
        Bytes behind_four_bytes = nal_unit(type);
        behind_four_bytes.insert(behind_four_bytes.begin(), 0);
        EXPECT_EQ(scan(behind_four_bytes), expected) << type;
    }
}

TEST(SpliceScan, ForbiddenBitAndLayerDoNotCount)
{
    EXPECT_EQ(scan({0, 0, 1, 0x80 | 33 << 1 | 1, 0xF9, 0xAA}), "sps ");
}

TEST(SpliceScan, LongerZeroRunIsSkipped)
{
    EXPECT_EQ(scan({0, 0, 0, 0, 1, 33 << 1, 1, 0xAA}), "sps ");
    EXPECT_EQ(scan({0, 0, 0, 0, 0, 0, 0, 0, 1, 33 << 1, 1}), "sps ");
}

TEST(SpliceScan, FlagsAddUp)
{
    EXPECT_EQ(scan(nal_units({32, 33, 34, 19})), "vps sps pps irap vcl ");
    EXPECT_EQ(scan(nal_units({35, 1, 34})), "pps vcl ");
    EXPECT_EQ(scan(nal_units({32, 33, 34, 19, 1, 39})), "vps sps pps irap vcl ");
}

TEST(SpliceScan, ShortUnitIsCountedAndEndsTheScan)
{
    // Seven bytes from the header to the end: the start code among them is not looked at. With eight it is.
    EXPECT_EQ(scan({0, 0, 1, 32 << 1, 1, 0, 0, 1, 33 << 1, 1}), "vps ");
    EXPECT_EQ(scan({0, 0, 1, 32 << 1, 1, 0, 0, 1, 33 << 1, 1, 0xAA}), "vps sps ");
}

TEST(SpliceScan, HeaderCutOffIsNotCounted)
{
    EXPECT_EQ(scan({0xAA, 0xAA, 0xAA, 0, 0, 1, 0x40}), "");
    EXPECT_EQ(scan({0xAA, 0xAA, 0xAA, 0, 0, 0, 1, 0x40}), "");
    EXPECT_EQ(scan({0xAA, 0xAA, 0xAA, 0, 0, 1}), "");
    EXPECT_EQ(scan({0xAA, 0xAA, 0xAA, 0, 0, 1, 0x40, 1}), "vps ");
}

TEST(SpliceScan, EveryShortBufferGivesThePlainScansFlags)
{
    for (std::size_t length = 0; length <= 11; ++length)
        compare_all({0, 1, 0x42}, length);
    for (std::size_t length = 6; length <= 8; ++length)
        compare_all({0, 1, 0x40, 0x44, 0x26}, length);
}

TEST(SpliceScan, RandomBuffersGiveThePlainScansFlags)
{
    std::mt19937 random(20240607);
    const std::vector<Bytes> alphabets{{0, 1}, {0, 1, 0x40, 0x42, 0x44, 0x26, 2}, {0, 0, 0, 1, 3, 0x42}, {1, 1, 1, 0}};
    for (int round = 0; round < 40000; ++round) {
        Bytes bytes(random() % 200);
        const Bytes& alphabet = alphabets[static_cast<std::size_t>(round) % alphabets.size()];
        for (std::uint8_t& byte : bytes)
            byte = round % 5 == 4 ? static_cast<std::uint8_t>(random()) : alphabet[random() % alphabet.size()];
        ASSERT_EQ(scan(bytes), plain_scan(bytes)) << ::testing::PrintToString(bytes);
    }
}

TEST(SpliceScan, StartCodeIsFoundWhereverItStands)
{
    // Whatever width the search has, a unit stands before, across and behind its edges.
    for (const std::uint8_t filling : {0x00, 0x01, 0x03, 0xFF}) {
        for (std::size_t place = 0; place < 300; ++place) {
            for (const std::size_t rest : {0UL, 1UL, 5UL, 6UL, 7UL, 70UL}) {
                Bytes bytes(place, filling);
                const Bytes unit{0, 0, 1, 33 << 1, 1};
                bytes.insert(bytes.end(), unit.begin(), unit.end());
                bytes.insert(bytes.end(), rest, filling);
                ASSERT_EQ(scan(bytes), plain_scan(bytes)) << int(filling) << " " << place << " " << rest;
            }
        }
    }
}

TEST(SpliceScan, LongUnitsGiveThePlainScansFlags)
{
    std::mt19937 random(7);
    for (int round = 0; round < 8; ++round) {
        Bytes bytes = nal_units({35, 1});
        for (int i = 0; i < 300000; ++i)
            bytes.push_back(static_cast<std::uint8_t>(random()));
        const Bytes tail = nal_unit(32U + static_cast<unsigned>(round) % 3);
        bytes.insert(bytes.end(), tail.begin(), tail.end());
        ASSERT_EQ(scan(bytes), plain_scan(bytes)) << round;
    }
}
