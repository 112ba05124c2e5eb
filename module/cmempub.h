/* SPDX-License-Identifier: GPL-2.0 */
/* Memory of the code that is shared with other systems: zero-filled blocks that kfree takes back.
 */
#ifndef TARN_CMEMPUB_H
#define TARN_CMEMPUB_H

#include "TypeDef.h"

/* Null without memory. Sleeps. */
[[nodiscard]] void *_malloc_(unsigned long size);

#endif
