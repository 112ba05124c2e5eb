/* SPDX-License-Identifier: GPL-2.0 */
/* Paths hold any byte but NUL. These functions show them on one line without losing a byte. */
#ifndef TARN_BASE_TEXT_H
#define TARN_BASE_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

namespace tarn {

bool valid_utf8(std::string_view bytes);

/*
 * On one line, for a person: unchanged if it is plain text without blanks, quotes or backslashes;
 * otherwise in double quotes with \n, \t, \", \\ and \xHH for what is not printable UTF-8.
 */
std::string printable(std::string_view bytes);

/* On one line of a log: control characters as \ooo, and backslashes doubled. */
std::string escape_controls(std::string_view text);

/* Takes what stands before `end` off the front of the text, and `end` with it; all of the text if
 * it has none. */
std::string_view take_until(std::string_view &text, char end);

/* Words in lines of /proc/mounts' kind: each of `bytes` becomes \ooo, and back. */
std::string escape_octal(std::string_view text, std::string_view bytes);
std::string unescape_octal(std::string_view text);

/* Microseconds since the epoch as "2006-09-20 03:42:06.123456" in UTC. */
std::string utc_time(std::int64_t us);

}  // namespace tarn

#endif
