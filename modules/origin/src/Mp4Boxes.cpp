#include "Mp4Boxes.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <optional>

namespace Quorvis::VelStream {

namespace {

constexpr std::uint64_t kShortHeader = 8; // size and type
constexpr std::uint64_t kLongHeader = 16; // a size of 1 means that 64 bits of size follow the type
constexpr int kMostBoxes = 100000;        // a fragmented file has two for each fragment

std::uint64_t read_big_endian(const unsigned char* bytes, int count)
{
    std::uint64_t value = 0;
    for (int k = 0; k < count; ++k)
        value = value << 8U | bytes[k];
    return value;
}

bool is_type(const unsigned char* bytes)
{
    return std::all_of(bytes, bytes + 4, [](unsigned char c) { return c >= 0x20 && c < 0x7f; });
}

bool begins_as_mp4(const unsigned char* type)
{
    constexpr std::array<const char*, 6> kFirst{"ftyp", "moov", "mdat", "free", "skip", "wide"};
    const std::string text(reinterpret_cast<const char*>(type), 4);
    return std::any_of(kFirst.begin(), kFirst.end(), [&](const char* first) { return text == first; });
}

struct Box {
    std::uint64_t at;
    std::uint64_t size;
    std::string type;
};

/// @return the box that begins at `at`; none where no box begins, and where the last one has no end of its own.
std::optional<Box> read_box(std::ifstream& file, std::uint64_t at)
{
    std::array<unsigned char, kLongHeader> header{};
    file.clear();
    file.seekg(static_cast<std::streamoff>(at));
    file.read(reinterpret_cast<char*>(header.data()), kLongHeader);
    const auto read = static_cast<std::uint64_t>(file.gcount());
    const unsigned char* type = header.data() + 4;
    if (read < kShortHeader || !is_type(type) || (at == 0 && !begins_as_mp4(type))) return std::nullopt;
    std::uint64_t size = read_big_endian(header.data(), 4);
    const bool is_long = size == 1;
    if (is_long && read < kLongHeader) return std::nullopt;
    if (is_long) size = read_big_endian(header.data() + 8, 8);
    if (size < (is_long ? kLongHeader : kShortHeader)) return std::nullopt;
    return Box{at, size, std::string(type, type + 4)};
}

struct BrokenBox {
    Box box;
    std::uint64_t missing;
};

/// The last outermost box, when the file ends within it.
std::optional<BrokenBox> find_broken_box(const std::string& path)
{
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(path, ignored)) return std::nullopt;
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    const std::streamoff length = file ? std::streamoff(file.tellg()) : -1;
    if (length <= 0) return std::nullopt;
    const auto end = static_cast<std::uint64_t>(length);
    std::uint64_t at = 0;
    for (int count = 0; at < end && count < kMostBoxes; ++count) {
        const std::optional<Box> box = read_box(file, at);
        if (!box) return std::nullopt;
        if (box->size > end - at) return BrokenBox{*box, box->size - (end - at)};
        at += box->size;
    }
    return std::nullopt;
}

} // namespace

std::uint64_t missing_mp4_bytes(const std::string& path)
{
    const std::optional<BrokenBox> broken = find_broken_box(path);
    return broken ? broken->missing : 0;
}

bool cut_broken_mp4_end(const std::string& path)
{
    const std::optional<BrokenBox> broken = find_broken_box(path);
    if (!broken || (broken->box.type != "moof" && broken->box.type != "mfra")) return false;
    std::error_code failure;
    std::filesystem::resize_file(path, broken->box.at, failure);
    return !failure;
}

} // namespace Quorvis::VelStream
