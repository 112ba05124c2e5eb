/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Prints, into its assembly, what the C compiler makes of the structures in layout.def. The build
 * turns the lines into assertions that layout.cc compiles.
 */
#include "kernel.h"

#define SIZE(type) __asm__ volatile("\n->sizeof(" #type ") := %c0" ::"i"(sizeof(type)));
#define PLACE(type, member)                                     \
  __asm__ volatile("\n->__builtin_offsetof(" #type ", " #member \
                   ") := %c0" ::"i"(__builtin_offsetof(type, member)));

void layout(void) {
#include "layout.def"
}
