/* SPDX-License-Identifier: GPL-2.0 */
/* For programs that may be started with standard descriptors closed. */
#ifndef TARN_BASE_STANDARD_FDS_H
#define TARN_BASE_STANDARD_FDS_H

namespace tarn {

/*
 * Call it first in main(). Opens closed standard descriptors, so that no file opened later gets
 * their numbers and a stray write. Reads from them return nothing and writes fail. Never fails;
 * without /dev/null it does nothing.
 */
void hold_standard_descriptors();

}  // namespace tarn

#endif
