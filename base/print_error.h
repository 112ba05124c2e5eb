/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TARN_BASE_PRINT_ERROR_H
#define TARN_BASE_PRINT_ERROR_H

#include <cstdio>
#include <utility>

#include <fmt/format.h>

namespace tarn {

/* Prints to standard error. Unlike fmt::print() it does not throw on a write error. */
template <class... Args>
void print_error(fmt::format_string<Args...> format, Args &&...args) {
  std::fputs(fmt::format(format, std::forward<Args>(args)...).c_str(), stderr);
}

}  // namespace tarn

#endif
