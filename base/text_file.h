/* SPDX-License-Identifier: GPL-2.0 */
/* Reads and writes small files as a whole. */
#ifndef TARN_BASE_TEXT_FILE_H
#define TARN_BASE_TEXT_FILE_H

#include <string>
#include <string_view>

#include "base/result.h"

namespace tarn {

/* Returns 0 or the error number, after which a part may have been written. Does not sync. */
int write_text(int fd, std::string_view text);

/* Reads up to the end of the file. `what` begins the error text and names the failed operation. */
Result<std::string> read_text(int fd, const std::string &what);
Result<std::string> read_text(const std::string &file, const std::string &what);

}  // namespace tarn

#endif
