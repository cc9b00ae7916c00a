/**
 * The logging library's interface. On a device the maker's own libvelclog.so takes this one's place at run time.
 */
#pragma once

#pragma GCC visibility push(default)
namespace Quorvis::VelClog {

/**
 * Writes one line, from any thread.
 * @param level   0 information, 1 warning, 2 error; what is outside counts as the nearest of them. A line below the set
 *                level costs one atomic load: nothing is formatted.
 * @param file    source file of the call, as __FILE__ gives it. Null: left out.
 * @param line    line of the call.
 * @param format  printf format of the message, of any length; one trailing newline is dropped. Null: no line.
 */
void clog_printf(int level, const char* file, int line, const char* format, ...) __attribute__((format(printf, 4, 5)));

/// Sets the level below which lines are dropped (default 1; above 2 nothing is written) for the whole process. `tag`
/// names who asked and stands in every line from now on; null or empty: no tag.
void clog_set_log_level(const char* tag, int level);

/**
 * Sets where lines go, for the whole process; also while other threads log.
 * @param tag     names who asked and stands in every line from now on; null or empty: no tag.
 * @param path    log file, appended to and flushed line by line; missing folders are made. Read when `output` has the
 *                file bit. A file that cannot be opened is reported once, and lines go to the console.
 * @param output  bit mask: 1 console (standard error), 2 file at `path`; 0 writes nothing anywhere.
 */
void clogger(const char* tag, const char* path, int output);

} // namespace Quorvis::VelClog
#pragma GCC visibility pop
