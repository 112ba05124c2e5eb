/* SPDX-License-Identifier: GPL-2.0 */
/* Shows paths, which may contain any byte but NUL, on one line without losing a byte. */
#ifndef TARN_BASE_TEXT_H
#define TARN_BASE_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

namespace tarn {

bool valid_utf8(std::string_view bytes);

/*
 * One line for display: unchanged if it is UTF-8 without blanks, quotes, backslashes and control
 * characters; otherwise in double quotes with \n, \t, \", \\ and \xHH.
 */
std::string printable(std::string_view bytes);

/* One line for a log: control characters as \ooo, and backslashes doubled. */
std::string escape_controls(std::string_view text);

/* Removes and returns the text before the first `end`, which is removed too; all of the text if
 * there is none. */
std::string_view take_until(std::string_view &text, char end);

/* Escapes as in /proc/mounts: each of `bytes` becomes \ooo, and back. */
std::string escape_octal(std::string_view text, std::string_view bytes);
std::string unescape_octal(std::string_view text);

/* Microseconds since the epoch as "2006-09-20 03:42:06.123456" in UTC. */
std::string utc_time(std::int64_t us);

}  // namespace tarn

#endif
