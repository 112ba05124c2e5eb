/* SPDX-License-Identifier: GPL-2.0 */
/* The project's version, as the programs' --version prints it. */
#ifndef TARN_BASE_VERSION_H
#define TARN_BASE_VERSION_H

namespace tarn {

extern const char kVersion[];

}  // namespace tarn

#endif
