// The script that joins segments, as another program, and segments for it.
#pragma once

#include "ConfigFile.h"
#include "RecordedLog.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

namespace velstream::testing {

struct JoinResult {
    int status = -1;
    std::string output;
    std::string errors;
    Json::Value json() const; ///< of its output; null when that is none
};

/// Runs the script with these arguments.
JoinResult join_segments(const std::vector<std::string>& arguments);

/// One picture of a file, as ffprobe shows it.
struct Packet {
    double pts = 0;
    double dts = 0;
};
std::vector<Packet> packets_in(const std::string& path);

/// Every picture a frame's time after the one before, from 0 on.
::testing::AssertionResult are_evenly_spaced(std::vector<Packet> packets, double fps);

/// A folder with the segments 00000, 00001, ... of a video of 25 frames a second, a second each, completed a second
/// after each other. Their pictures carry the numbers from 0 on.
class SegmentFolder {
public:
    explicit SegmentFolder(int count, const std::string& codec = "h264", int b_frames = 0);
    std::string path(const std::string& name = "") const { return folder_.file(name); }
    /// Gives segment `number` another one. Its time stays.
    void rename(int number, int to) const;
    /// Sets the time of a segment's completion, in seconds since 1970.
    void complete(const std::string& name, double seconds) const;
    static constexpr double kFirstEnd = 1700000001; ///< of the first one
    static std::string name_of(int number);

private:
    TemporaryFolder folder_;
};

} // namespace velstream::testing
