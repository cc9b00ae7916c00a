// What an entry of the configuration starts, and the elements that this takes.
#pragma once

#include "configuration.h"

#include <string>
#include <vector>

namespace velstream::tool {

enum class StreamKind { Ordinary, UsbCamera, Splice, AudioRelay, Rolling, SaveMp4, NetworkPush, None };

/// What start_stream() makes of the entry; None for an input type that it does not know.
StreamKind kind_of(const StreamEntry& stream);

/// The platform that this build is for: "ub2404", "v4l2", "6490" or "8550".
std::string build_platform();

/// "rtsp -> callback, mp4", "application -> mp4".
std::string describe_road(const StreamEntry& stream);

/// The elements of its pipeline that may be missing, without GStreamer's own core elements, in the order of the data.
std::vector<std::string> needed_elements(const StreamEntry& stream, const std::string& platform);
/// The same for its half of a split stream.
std::vector<std::string> needed_split_elements(const StreamEntry& stream, const std::string& platform);
/// True for an entry whose parent another one names as well: start_split_stream() serves both.
bool is_half_of_split(const StreamEntry& stream, const std::vector<StreamEntry>& streams);

} // namespace velstream::tool
