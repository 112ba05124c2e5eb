/* SPDX-License-Identifier: GPL-2.0 */
/* A program may be started with some of its three standard descriptors closed. */
#ifndef TARN_BASE_STANDARD_FDS_H
#define TARN_BASE_STANDARD_FDS_H

namespace tarn {

/*
 * To be called first of all. Takes the numbers of closed standard descriptors, so that no file that
 * is opened later gets one of them and is written to in its stead. Nothing can be read from them,
 * and to write to them fails. Never fails itself: without /dev/null all stays as it is.
 */
void hold_standard_descriptors();

}  // namespace tarn

#endif
