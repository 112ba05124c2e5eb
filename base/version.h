/* SPDX-License-Identifier: GPL-2.0 */
/* The project's version and what this program was built from. Any thread; nothing fails. */
#ifndef TARN_BASE_VERSION_H
#define TARN_BASE_VERSION_H

#include <string>
#include <string_view>

namespace tarn {

/* What the programs' --version prints: "tarn 0.1.0 (commit 0123456789ab, Release build by GNU
 * 12.2.0)". A commit that ends in "-dirty" was built with changes. */
std::string version_line(std::string_view program);

}  // namespace tarn

#endif
