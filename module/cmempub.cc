// SPDX-License-Identifier: GPL-2.0
#include "cmempub.h"

#include "kernel.h"

void *_malloc_(unsigned long size) {
  return kzalloc(size, GFP_KERNEL);
}
