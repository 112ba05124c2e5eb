// SPDX-License-Identifier: GPL-2.0
// The figures that the C compiler gave for the structures in layout.def, asserted in C++. A
// structure that differs would be read and written in the wrong places without any other sign.
#include "kernel.h"

#include "layout_figures.h"
