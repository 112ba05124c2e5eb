/* SPDX-License-Identifier: GPL-2.0 */
/* Includes libfuse and selects the version of its interface. */
#ifndef TARND_FUSE_FUSE_API_H
#define TARND_FUSE_FUSE_API_H

#define FUSE_USE_VERSION 314
#include <fuse_lowlevel.h>

#endif
