/* SPDX-License-Identifier: GPL-2.0 */
/* Start and end of the allocator, for the boot. */
#ifndef UKERN_MM_SLAB_H
#define UKERN_MM_SLAB_H

#ifdef __cplusplus
extern "C" {
#endif

int ukern_slab_init(void);
/* Reports every cache that still exists and every kmalloc block that is still allocated. */
void ukern_slab_exit(void);

#ifdef __cplusplus
}
#endif
#endif
