/* SPDX-License-Identifier: GPL-2.0 */
/* A list with the lock that guards it. */
#ifndef OX_QUE_H
#define OX_QUE_H

#include "kernel.h"
#include "TypeDef.h"

struct ox_que {
  spinlock_t lock;
  struct list_head head; /* under lock */
  ox_u32_t nr;           /* under lock */
};
typedef struct ox_que ox_que_t;

static inline void ox_que_init(ox_que_t *que) {
  spin_lock_init(&que->lock);
  INIT_LIST_HEAD(&que->head);
  que->nr = 0;
}

#endif
