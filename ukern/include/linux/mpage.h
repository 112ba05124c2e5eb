/* SPDX-License-Identifier: GPL-2.0 */
/* Writing the dirty pages of a mapping one after the other. */
#ifndef _LINUX_MPAGE_H
#define _LINUX_MPAGE_H

#include <linux/fs.h>
#include <linux/writeback.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Calls a_ops->writepage for each dirty page that `wbc` selects, page locked. 0 or the first error,
 * which is also recorded in mapping->flags. May sleep.
 */
int generic_writepages(struct address_space *mapping, struct writeback_control *wbc);

#ifdef __cplusplus
}
#endif
#endif
