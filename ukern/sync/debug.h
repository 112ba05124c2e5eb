/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Whether this is a debug build, for `if constexpr`. Larger differences are whole files, x_debug.cc
 * or x_release.cc, of which the build takes one.
 */
#ifndef UKERN_SYNC_DEBUG_H
#define UKERN_SYNC_DEBUG_H

constexpr bool kDebugBuild = UKERN_DEBUG;

#endif
