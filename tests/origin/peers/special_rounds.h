// Rounds of streams that have more to them than one input and one output.
#pragma once

#include <string>
#include <vector>

namespace velstream::testing {

/// True for a kind that run_special_round() runs.
bool is_special_round(const std::string& kind);

/// What must be done before this process has a second thread. @return an empty text, or what went wrong.
std::string prepare_round(const std::string& kind);

/**
 * Runs a stream of a kind until something has come of it, and stops it.
 * @param arguments  "splice" and an MP4 file of H.265 whose access units are pushed; "rolling" and a configuration file
 *                   with the recorded stream "cam"; "compose", the URL of what all four cameras show, and the file to
 *                   record.
 * @return an empty text, or what went wrong.
 */
std::string run_special_round(const std::vector<std::string>& arguments);

} // namespace velstream::testing
