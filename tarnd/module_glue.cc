// SPDX-License-Identifier: GPL-2.0
// Kernel side: the modules linked into this image.

#include "ukern/sched/module_table.h"

extern "C" {

int tarn_init(void);
void tarn_exit(void);

extern const struct uk_module uk_modules[] = {
    {"tarn", tarn_init, tarn_exit},
    {nullptr, nullptr, nullptr},
};

}  // extern "C"
