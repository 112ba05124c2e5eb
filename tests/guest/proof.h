/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the kernel has remembered to prove its locking, where it was built to do so. Its tables are
 * of a fixed size, nothing leaves them when a module goes, and the proof ends when one is full.
 */
#ifndef TESTS_GUEST_PROOF_H
#define TESTS_GUEST_PROOF_H

struct proof {
  int on; /* it has not ended */
  unsigned long fullest_percent;
  char tables[512]; /* " NAME USED MAX" for each */
};

/* Whether this kernel proves anything. */
int read_proof(struct proof *proof);

#endif
