/* SPDX-License-Identifier: GPL-2.0 */
/* The version of the programs, as --version prints it: that of the whole project. */
#ifndef TARN_BASE_VERSION_H
#define TARN_BASE_VERSION_H

namespace tarn {

extern const char kVersion[];

}  // namespace tarn

#endif
