/**
 * The logging library's interface. On a device the maker's own libvelclog.so takes this one's place at run time.
 */
#pragma once

#pragma GCC visibility push(default)
namespace Quorvis::VelClog {

/**
 * Writes one line, from any thread.
 * @param level   0 information, 1 warning, 2 error. A line below the set level costs one atomic load.
 * @param file    source file of the call, as __FILE__ gives it.
 * @param line    line of the call.
 * @param format  printf format of the message; a trailing newline is allowed.
 */
void clog_printf(int level, const char* file, int line, const char* format, ...) __attribute__((format(printf, 4, 5)));

/// Sets the level below which lines are dropped (default 1) for the whole process; `tag` names who asked.
void clog_set_log_level(const char* tag, int level);

/**
 * Sets where lines go, for the whole process.
 * @param tag     names who asked.
 * @param path    log file, appended to; read when `output` has the file bit.
 * @param output  bit mask: 1 console (standard error), 2 file at `path`.
 */
void clogger(const char* tag, const char* path, int output);

} // namespace Quorvis::VelClog
#pragma GCC visibility pop
