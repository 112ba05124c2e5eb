/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The two ways to the module in a kernel: socket options, and the netlink socket of unit 29 with
 * the messages and records of ox_msg.h. Written for these tests alone, so that a mistake in libtarn
 * cannot hide one in the module.
 */
#ifndef TESTS_GUEST_CHANNEL_H
#define TESTS_GUEST_CHANNEL_H

#include <stddef.h>

#include "ox_msg.h"

/* What setsockopt and getsockopt of the module return: results below -999 come as they are. */
int set_option(int option, const void *value, unsigned size);
int get_option(int option, void *value, unsigned *size);

/* A rule of one identifier byte that includes one directory. */
void make_rule(struct prule *rule, unsigned char id, const char *directory);
/* Adds it: the result of the option. */
int add_rule(unsigned char id, const char *directory);
int add_directory(unsigned char id, const char *directory);

/* ---- the daemon's end ---- */

struct message {
  int type, flags;
  unsigned seq, pid;
  unsigned from;   /* port of the sender */
  size_t size;     /* of the payload */
  size_t datagram; /* of all */
  unsigned char payload[65536];
};

/* An open netlink socket with this process's id as its port, or -1. */
int channel_open(void);
/* A message to the module: 0 or -1. */
int channel_send(int channel, int type, const void *payload, size_t size);
/* The same with the length field given. */
int channel_send_raw(int channel, int type, unsigned length_field, const void *payload,
                     size_t size);
/* The next message: 1, 0 when none came in time, -1 with errno. */
int channel_receive(int channel, struct message *message, int milliseconds);

#endif
