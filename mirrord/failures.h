/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What an error means for a replica, and which one is told when work goes on after several. Pure
 * functions; any thread.
 */
#ifndef TARN_MIRRORD_FAILURES_H
#define TARN_MIRRORD_FAILURES_H

#include "base/result.h"

namespace tarn {

/* Does the error hold a target? Errors of the machine do, they may go away; those of a record do
 * not. */
bool holds_target(const Error &error);

/* Is it about an object that has gone, which records of later changes tell of? */
bool is_absent(const Error &error);

/* Keeps the error that weighs most, of several the first: one that holds a target, then others,
 * then those of absent objects, which may be passed over and must not hide another. */
void keep_worst(Result<void> &worst, const Error &error);
template <class T>
void keep_worst(Result<void> &worst, const Result<T> &result) {
  if (!result) keep_worst(worst, result.error());
}

}  // namespace tarn

#endif
