/* SPDX-License-Identifier: GPL-2.0 */
#define _GNU_SOURCE
#include "record.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "guest.h"

enum { kWaitForPages = 5000 };

#define MUST(it)                                                \
  do {                                                          \
    if (!(it)) {                                                \
      printf("  %s:%d: not so: %s\n", __FILE__, __LINE__, #it); \
      return -1;                                                \
    }                                                           \
  } while (0)

/* A string of `size` bytes, its NUL the last of them. */
static int take_text(char *out, const unsigned char *from, size_t size) {
  MUST(size > 0 && size <= 4096);
  MUST(memchr(from, 0, size) == from + size - 1);
  memcpy(out, from, size);
  return 1;
}

static int take_name(struct record *record, const struct message *message) {
  struct ox_msg_para head;

  MUST(message->size >= OX_MSG_PARA_LEN);
  memcpy(&head, message->payload, OX_MSG_PARA_LEN);
  MUST(message->size == (size_t)OX_MSG_PARA_LEN + head.dlen1 + head.dlen2);
  record->mode = head.mode;
  MUST(take_text(record->path, message->payload + OX_MSG_PARA_LEN, head.dlen1) == 1);
  if (head.dlen2)
    MUST(take_text(record->second, message->payload + OX_MSG_PARA_LEN + head.dlen1, head.dlen2) ==
         1);
  return 1;
}

static int take_attributes(struct record *record, const struct message *message) {
  struct ox_msg_attr head;

  MUST(message->size >= sizeof(head));
  memcpy(&head, message->payload, sizeof(head));
  MUST(head.dlen1 == sizeof(head.sec) && head.com.len == OX_ATTR_LEN);
  MUST(message->size == (size_t)OX_MSG_ATTR_LEN + head.dlen1 + head.dlen2);
  record->attr = head.com;
  record->owner = head.sec;
  return take_text(record->path, message->payload + sizeof(head), head.dlen2);
}

/* One page, or all of a small write. */
static int take_data(struct record *record, const struct message *message, unsigned page) {
  struct ox_msg_wr head;
  const unsigned char *at = message->payload + OX_MSG_WR_LEN;

  MUST(message->size >= OX_MSG_WR_LEN);
  memcpy(&head, message->payload, OX_MSG_WR_LEN);
  MUST(message->size == OX_MSG_WR_LEN + head.dlen1 + head.dlen2 &&
       message->size <= OX_PAGE_PAYLOAD);
  MUST(head.op == OX_OP_WRITE && head.wseq == record->wseq && head.pagenr == page);
  MUST(head.dlen1 % 8 == 0 && (head.dlen1 != 0) == (page == 0));
  if (page == 0) {
    const size_t length = strnlen((const char *)at, head.dlen1);
    MUST(length < head.dlen1 && head.dlen1 - length <= 8);
    memcpy(record->path, at, length + 1);
    record->offset = head.off;
    record->pages = head.pages;
  }
  MUST(head.off == record->offset + record->size && head.pages == record->pages);
  MUST(record->size + head.dlen2 <= sizeof(record->data));
  memcpy(record->data + record->size, at + head.dlen1, head.dlen2);
  record->size += head.dlen2;
  return 1;
}

static int take_write(int channel, struct record *record, struct message *message) {
  const int paged = message->type == OX_OP_WRITE;

  MUST(take_data(record, message, 0) == 1);
  MUST(paged ? record->pages > 1 : record->pages == 1);
  for (unsigned page = 1; page < record->pages; page++) {
    MUST(channel_receive(channel, message, kWaitForPages) == 1);
    MUST(message->from == 0 && message->type == OX_OP_WRITE && message->flags == OX_NLM_F_MULTI);
    MUST(take_data(record, message, page) == 1);
  }
  return 1;
}

int record_receive(int channel, struct record *record, int milliseconds) {
  static struct message message;
  struct ox_msg head;
  const int got = channel_receive(channel, &message, milliseconds);

  if (got <= 0) return got;
  memset(record, 0, offsetof(struct record, data));
  MUST(message.from == 0 && message.pid == (unsigned)getpid());
  MUST(message.type == OX_OP_COLLECT || message.type == OX_OP_WRITE);
  MUST(message.flags == (message.type == OX_OP_WRITE ? OX_NLM_F_MULTI : 0));
  MUST(message.size >= sizeof(head));
  memcpy(&head, message.payload, sizeof(head));
  MUST(head.os == OX_OS_LINUX && head.wseq == message.seq);
  record->id = head.uuid[0];
  for (int i = 0; i < OX_UUID_LEN; i++) MUST(head.uuid[i] == record->id);
  record->op = head.op;
  record->wseq = head.wseq;
  record->ts = head.ts;
  if (head.op == OX_OP_WRITE) return take_write(channel, record, &message);
  MUST(message.type == OX_OP_COLLECT);
  return head.op == OX_OP_SETATTR ? take_attributes(record, &message) : take_name(record, &message);
}
