/* SPDX-License-Identifier: GPL-2.0 */
/* A change record, taken apart for the checks. A large write is put together again from its pages.
 */
#ifndef TESTS_GUEST_RECORD_H
#define TESTS_GUEST_RECORD_H

#include "channel.h"

struct record {
  unsigned char id; /* the rule's identifier byte */
  int op;
  unsigned wseq;
  unsigned long long ts;
  char path[4096];
  char second[4096];       /* the second string of a name record; else "" */
  unsigned mode;           /* of a name record */
  struct attr_common attr; /* of an attribute record */
  struct lin_sec owner;
  unsigned long long offset; /* of a write */
  size_t size;
  unsigned pages;
  unsigned char data[1 << 20];
};

/*
 * The next record: 1, 0 when none came in time, -1 when what came is not one as it must be. Each
 * message is checked to the byte: sender, type, flags, numbers, lengths, places of the pages.
 */
int record_receive(int channel, struct record *record, int milliseconds);

#endif
