/* SPDX-License-Identifier: GPL-2.0 */
#define _GNU_SOURCE
#include "channel.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { kNetlinkFamily = 16, kLevel = 0 };

struct netlink_address {
  unsigned short family, pad;
  unsigned pid, groups;
};

struct netlink_header {
  unsigned length;
  unsigned short type, flags;
  unsigned seq, pid;
};

_Static_assert(sizeof(struct netlink_header) == OX_NLMSG_HDRLEN, "netlink header");

/* ---- socket options ---- */

/* The C library makes errors of all results from -4095 to -1. */
static int result_of(int returned, int error) {
  return returned == -1 ? -error : returned;
}

int set_option(int option, const void *value, unsigned size) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  int result;

  if (fd < 0) return -errno;
  result = setsockopt(fd, kLevel, option, value, size);
  result = result_of(result, errno);
  close(fd);
  return result;
}

int get_option(int option, void *value, unsigned *size) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  int result;

  if (fd < 0) return -errno;
  result = getsockopt(fd, kLevel, option, value, size);
  result = result_of(result, errno);
  close(fd);
  return result;
}

static void base64(char *out, const char *text) {
  static const char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const size_t size = strlen(text);

  for (size_t i = 0; i < size; i += 3) {
    const unsigned left = (unsigned)(size - i);
    const unsigned bits = (unsigned char)text[i] << 16 |
                          (left > 1 ? (unsigned char)text[i + 1] << 8 : 0) |
                          (left > 2 ? (unsigned char)text[i + 2] : 0);
    *out++ = letters[bits >> 18];
    *out++ = letters[bits >> 12 & 63];
    *out++ = left > 1 ? letters[bits >> 6 & 63] : '=';
    *out++ = left > 2 ? letters[bits & 63] : '=';
  }
  *out = 0;
}

void make_rule(struct prule *rule, unsigned char id, const char *directory) {
  memset(rule, 0, sizeof(*rule));
  memset(rule->uuid, id, sizeof(rule->uuid));
  base64(rule->workdir, directory);
}

int add_rule(unsigned char id, const char *directory) {
  static struct prule rule;

  make_rule(&rule, id, directory);
  return set_option(OX_SO_REP_ADD, &rule, sizeof(rule));
}

int add_directory(unsigned char id, const char *directory) {
  struct dir dir;

  memset(&dir, 0, sizeof(dir));
  memset(dir.uuid, id, sizeof(dir.uuid));
  strcpy(dir.repdir, directory);
  return set_option(OX_SO_DIR_ADD, &dir, sizeof(dir));
}

/* ---- netlink ---- */

int channel_open(void) {
  const struct netlink_address me = {.family = kNetlinkFamily, .pid = (unsigned)getpid()};
  const int room = 4 << 20;
  const int fd = socket(kNetlinkFamily, SOCK_RAW, OX_NETLINK_UNIT);

  if (fd < 0) return -1;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room));
  return bind(fd, (const struct sockaddr *)&me, sizeof(me)) ? -1 : fd;
}

int channel_send_raw(int channel, int type, unsigned length_field, const void *payload,
                     size_t size) {
  static unsigned char datagram[OX_NLMSG_HDRLEN + 65536];
  const struct netlink_address kernel = {.family = kNetlinkFamily};
  const struct netlink_header header = {
      .length = length_field, .type = (unsigned short)type, .pid = (unsigned)getpid()};

  memcpy(datagram, &header, sizeof(header));
  if (size) memcpy(datagram + sizeof(header), payload, size);
  size += sizeof(header);
  return sendto(channel, datagram, size, 0, (const struct sockaddr *)&kernel, sizeof(kernel)) ==
                 (ssize_t)size
             ? 0
             : -1;
}

int channel_send(int channel, int type, const void *payload, size_t size) {
  return channel_send_raw(channel, type, (unsigned)(OX_NLMSG_HDRLEN + size), payload, size);
}

static int take_apart(struct message *message, const unsigned char *datagram, size_t size,
                      unsigned from) {
  struct netlink_header header;

  if (size < sizeof(header)) return -1;
  memcpy(&header, datagram, sizeof(header));
  if (header.length < sizeof(header) || header.length > size) return -1;
  message->type = header.type;
  message->flags = header.flags;
  message->seq = header.seq;
  message->pid = header.pid;
  message->from = from;
  message->datagram = size;
  message->size = header.length - sizeof(header);
  memcpy(message->payload, datagram + sizeof(header), message->size);
  return 1;
}

int channel_receive(int channel, struct message *message, int milliseconds) {
  static unsigned char datagram[OX_NLMSG_HDRLEN + 65536];
  struct netlink_address from;
  struct pollfd ready = {.fd = channel, .events = POLLIN};
  socklen_t length = sizeof(from);
  const int polled = poll(&ready, 1, milliseconds);
  ssize_t got;

  if (polled <= 0) return polled;
  got = recvfrom(channel, datagram, sizeof(datagram), 0, (struct sockaddr *)&from, &length);
  if (got < 0) return -1;
  errno = EBADMSG;
  return take_apart(message, datagram, (size_t)got, from.pid);
}
