/* SPDX-License-Identifier: GPL-2.0 */
/* Small files that are read and written as a whole. */
#ifndef TARN_BASE_TEXT_FILE_H
#define TARN_BASE_TEXT_FILE_H

#include <string>
#include <string_view>

#include "base/result.h"

namespace tarn {

/* 0 or the error number; what was written until then stays. It may still be lost: see fsync. */
int write_text(int fd, std::string_view text);

/* All until the end. The error is the system's; `what`, which begins its text, says what cannot be
 * done. */
Result<std::string> read_text(int fd, const std::string &what);
Result<std::string> read_text(const std::string &file, const std::string &what);

}  // namespace tarn

#endif
