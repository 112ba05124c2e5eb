/* SPDX-License-Identifier: GPL-2.0 */
/* Zero-filled memory for code shared with other systems; freed by kfree. */
#ifndef TARN_CMEMPUB_H
#define TARN_CMEMPUB_H

#include "TypeDef.h"

/* Null without memory. May sleep. */
[[nodiscard]] void *_malloc_(unsigned long size);

#endif
