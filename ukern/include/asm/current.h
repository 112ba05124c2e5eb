/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The task as which the calling thread runs; null in a thread that has entered none.
 */
#ifndef _ASM_CURRENT_H
#define _ASM_CURRENT_H

struct task_struct;

extern "C" {
extern __thread struct task_struct *ukern_current_task __attribute__((tls_model("initial-exec")));
}

static inline struct task_struct *get_current(void) {
  return ukern_current_task;
}
#define current get_current()

#endif
