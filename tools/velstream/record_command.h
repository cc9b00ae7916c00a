// "velstream record": keeps the newest stretch of a camera on the disk.
#pragma once

#include <string>

namespace velstream::tool {

struct RecordOptions {
    std::string id;
    std::string config;
    double duration = 0; ///< seconds; 0 for no limit
    bool is_restarting = false;
    double stall_timeout = 60; ///< seconds without a byte after which a restarting recording begins again
    bool is_json = false;
    std::string elements = "auto";
    std::string log_level = "warning";
};

/// @return the exit status: 0 it has recorded until it was stopped, or the stream came to its end; 1 not so.
/// @throws UserError
int record_stream(const RecordOptions& options);

} // namespace velstream::tool
