/* SPDX-License-Identifier: GPL-2.0 */
/* The one place that says which version of libfuse's interface is used. */
#ifndef TARND_FUSE_FUSE_API_H
#define TARND_FUSE_FUSE_API_H

#define FUSE_USE_VERSION 314
#include <fuse_lowlevel.h>

#endif
