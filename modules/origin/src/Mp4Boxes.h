// How an MP4 file is put together, as far as it says whether the file is whole.
#pragma once

#include <cstdint>
#include <string>

namespace Quorvis::VelStream {

/// Bytes that the file at `path` lacks of what its outermost boxes announce: a copy that was broken off lacks some.
/// 0 for a whole file, and for what cannot be read or is no MP4 file.
std::uint64_t missing_mp4_bytes(const std::string& path);

/// Cuts a fragment's head or the index of fragments off the end of the file at `path` when it is not whole there, as
/// when the disk is full: a player may refuse all of the file for it. Media data that is broken off is left, it plays.
/// @return true when something was cut off.
bool cut_broken_mp4_end(const std::string& path);

} // namespace Quorvis::VelStream
