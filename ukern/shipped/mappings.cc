// SPDX-License-Identifier: GPL-2.0
// Nobody maps a file here: what programs map, the host's kernel maps, and it reads and writes.
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mm.h>

void unmap_mapping_range(struct address_space *mapping, loff_t const, loff_t const, int) {
  might_sleep();
  BUG_ON(!list_empty(&mapping->i_mmap));
}
