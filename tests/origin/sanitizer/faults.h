// An application with a mistake in its callback.
#pragma once

#include <string>

namespace velstream::testing {

/**
 * Plays a file as two streams at the same time, to their end.
 * @param fault  "race": the callbacks of both streams count their frames without a lock; "none": with an atomic.
 * @return exit status, 0 unless the sanitizer sets another one.
 */
int run_with_fault(const std::string& fault, const std::string& path);

} // namespace velstream::testing
