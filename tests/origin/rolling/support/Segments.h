// What a rolling recording leaves on the disk.
#pragma once

#include "ConfigFile.h"
#include "StreamCall.h"
#include "patience.h"

#include <chrono>
#include <string>
#include <vector>

namespace velstream::testing {

/// A configuration file with the recorded stream "cam".
std::string recorded_entry(const std::string& type, const std::string& address, const std::string& codec = "H264");

/// Paths of the segments of an id, in the order of their numbers.
std::vector<std::string> segments_of(const std::string& id);

/// Waits until this many segments are there, the last of which is being written.
::testing::AssertionResult wait_for_segments(const std::string& id, std::size_t count,
                                             std::chrono::seconds bound = kPatience);

/// Every one of them is a complete file, and the pictures in them are those of the camera, one after the other.
void expect_complete(const std::vector<std::string>& segments, const std::string& codec = "h264");

} // namespace velstream::testing
