/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Paths hold any byte but NUL. These functions show them to a person on one line, or to a program
 * as JSON, without losing a byte.
 */
#ifndef TARN_CLIENT_TEXT_H
#define TARN_CLIENT_TEXT_H

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace tarn {

bool valid_utf8(std::string_view bytes);

/*
 * On one line, for a person: unchanged if it is plain text without blanks, quotes or backslashes;
 * otherwise in double quotes with \n, \t, \", \\ and \xHH for what is not printable UTF-8.
 */
std::string printable(std::string_view bytes);

/* For programs: a JSON string if the bytes are UTF-8, otherwise the object {"base64": "..."}. */
nlohmann::ordered_json json_bytes(std::string_view bytes);

/* Takes what stands before `end` off the front of the text, and `end` with it; all of the text if
 * it has none. */
std::string_view take_until(std::string_view &text, char end);

/* Lines of /proc/mounts' kind: \ooo becomes the byte. */
std::string unescape_octal(std::string_view text);

/* Microseconds since the epoch as "2006-09-20 03:42:06.123456" in UTC. */
std::string utc_time(std::int64_t us);

}  // namespace tarn

#endif
