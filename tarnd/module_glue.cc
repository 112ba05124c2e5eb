// SPDX-License-Identifier: GPL-2.0
// Kernel side: the modules linked into this image.

#include "ukern/door/module_table.h"

extern "C" {

int tarn_init(void);
void tarn_exit(void);

extern const struct builtin_module builtin_modules[] = {
    {"tarn", tarn_init, tarn_exit},
    {nullptr, nullptr, nullptr},
};

}  // extern "C"
