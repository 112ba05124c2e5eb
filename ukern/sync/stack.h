/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Call stacks as return addresses, found by the frame pointers, which all kernel-side code keeps.
 * The walk ends at the first frame that is not on the calling thread's stack.
 */
#ifndef UKERN_SYNC_STACK_H
#define UKERN_SYNC_STACK_H

#define UKERN_STACK_DEPTH 10

#ifdef __cplusplus
extern "C" {
#endif

struct call_stack {
  unsigned depth;
  unsigned long pc[UKERN_STACK_DEPTH]; /* innermost first */
};

/* Saves the call stack from the caller's caller on; `skip` more frames are left out. */
void call_stack_save(struct call_stack *stack, unsigned skip);

#ifdef __cplusplus
}
#endif
#endif
