/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Circular lists of entries linked through a member, and chains with a one-pointer head for hash
 * tables. Nothing is allocated and no lock is taken: the list's owner does the locking. list_del
 * leaves an entry unusable until it is added again; list_del_init leaves it empty.
 */
#ifndef _LINUX_LIST_H
#define _LINUX_LIST_H

#include <linux/stddef.h>
#include <linux/kernel.h>

#define LIST_POISON1 ((void *)0x00100100)
#define LIST_POISON2 ((void *)0x00200200)

struct list_head {
  struct list_head *next, *prev;
};

#define LIST_HEAD_INIT(name) \
  { &(name), &(name) }
#define LIST_HEAD(name) struct list_head name = LIST_HEAD_INIT(name)

/* Atomic: list_empty may run without the list's lock while another thread links and unlinks. */
static inline void ukern_list_link(struct list_head *prev, struct list_head *next) {
  __atomic_store_n(&next->prev, prev, __ATOMIC_RELAXED);
  __atomic_store_n(&prev->next, next, __ATOMIC_RELAXED);
}

static inline void INIT_LIST_HEAD(struct list_head *list) {
  ukern_list_link(list, list);
}

static inline void __list_add(struct list_head *entry, struct list_head *prev,
                              struct list_head *next) {
#if UKERN_DEBUG
  BUG_ON(next->prev != prev);
  BUG_ON(prev->next != next);
#endif
  ukern_list_link(entry, next);
  ukern_list_link(prev, entry);
}

/* After the head, as for a stack. */
static inline void list_add(struct list_head *entry, struct list_head *head) {
  __list_add(entry, head, head->next);
}

/* Before the head, as for a queue. */
static inline void list_add_tail(struct list_head *entry, struct list_head *head) {
  __list_add(entry, head->prev, head);
}

static inline void __list_del(struct list_head *prev, struct list_head *next) {
  ukern_list_link(prev, next);
}

static inline void ukern_list_unlink(struct list_head *entry) {
#if UKERN_DEBUG
  BUG_ON(entry->prev->next != entry);
  BUG_ON(entry->next->prev != entry);
#endif
  __list_del(entry->prev, entry->next);
}

static inline void list_del(struct list_head *entry) {
  ukern_list_unlink(entry);
  entry->next = (struct list_head *)LIST_POISON1;
  entry->prev = (struct list_head *)LIST_POISON2;
}

static inline void list_replace(struct list_head *old, struct list_head *entry) {
  ukern_list_link(entry, old->next);
  ukern_list_link(old->prev, entry);
}

static inline void list_del_init(struct list_head *entry) {
  ukern_list_unlink(entry);
  INIT_LIST_HEAD(entry);
}

static inline void list_move(struct list_head *entry, struct list_head *head) {
  ukern_list_unlink(entry);
  list_add(entry, head);
}

static inline void list_move_tail(struct list_head *entry, struct list_head *head) {
  ukern_list_unlink(entry);
  list_add_tail(entry, head);
}

static inline int list_empty(const struct list_head *head) {
  return __atomic_load_n(&head->next, __ATOMIC_RELAXED) == head;
}

static inline void __list_splice(struct list_head *list, struct list_head *head) {
  struct list_head *first = list->next;
  struct list_head *last = list->prev;
  struct list_head *at = head->next;

  ukern_list_link(head, first);
  ukern_list_link(last, at);
}

/* Moves all entries of `list` to the front of `head`; `list` itself is not reset. */
static inline void list_splice(struct list_head *list, struct list_head *head) {
  if (!list_empty(list)) __list_splice(list, head);
}

static inline void list_splice_init(struct list_head *list, struct list_head *head) {
  if (!list_empty(list)) {
    __list_splice(list, head);
    INIT_LIST_HEAD(list);
  }
}

#define list_entry(ptr, type, member) container_of(ptr, type, member)

#define list_for_each(pos, head) for (pos = (head)->next; pos != (head); pos = pos->next)
#define __list_for_each(pos, head) list_for_each(pos, head)
#define list_for_each_prev(pos, head) for (pos = (head)->prev; pos != (head); pos = pos->prev)
/* Safe against removal of `pos`. */
#define list_for_each_safe(pos, n, head) \
  for (pos = (head)->next, n = pos->next; pos != (head); pos = n, n = pos->next)
#define list_for_each_entry(pos, head, member)                                       \
  for (pos = list_entry((head)->next, typeof(*pos), member); &pos->member != (head); \
       pos = list_entry(pos->member.next, typeof(*pos), member))
#define list_for_each_entry_reverse(pos, head, member)                               \
  for (pos = list_entry((head)->prev, typeof(*pos), member); &pos->member != (head); \
       pos = list_entry(pos->member.prev, typeof(*pos), member))
#define list_prepare_entry(pos, head, member) \
  ((pos) ? (pos) : list_entry(head, typeof(*pos), member))
#define list_for_each_entry_continue(pos, head, member)                                  \
  for (pos = list_entry(pos->member.next, typeof(*pos), member); &pos->member != (head); \
       pos = list_entry(pos->member.next, typeof(*pos), member))
#define list_for_each_entry_safe(pos, n, head, member)        \
  for (pos = list_entry((head)->next, typeof(*pos), member),  \
      n = list_entry(pos->member.next, typeof(*pos), member); \
       &pos->member != (head); pos = n, n = list_entry(n->member.next, typeof(*n), member))
#define list_for_each_entry_safe_reverse(pos, n, head, member) \
  for (pos = list_entry((head)->prev, typeof(*pos), member),   \
      n = list_entry(pos->member.prev, typeof(*pos), member);  \
       &pos->member != (head); pos = n, n = list_entry(n->member.prev, typeof(*n), member))

struct hlist_node {
  struct hlist_node *next, **pprev;
};
struct hlist_head {
  struct hlist_node *first;
};

#define HLIST_HEAD_INIT \
  { .first = NULL }
#define HLIST_HEAD(name) struct hlist_head name = {.first = NULL}
#define INIT_HLIST_HEAD(ptr) ((ptr)->first = NULL)

static inline void INIT_HLIST_NODE(struct hlist_node *h) {
  h->next = NULL;
  h->pprev = NULL;
}

static inline int hlist_unhashed(const struct hlist_node *h) {
  return !h->pprev;
}

static inline int hlist_empty(const struct hlist_head *h) {
  return !__atomic_load_n(&h->first, __ATOMIC_RELAXED);
}

static inline void __hlist_del(struct hlist_node *n) {
  struct hlist_node *next = n->next;
  *n->pprev = next;
  if (next) next->pprev = n->pprev;
}

static inline void hlist_del(struct hlist_node *n) {
  __hlist_del(n);
  n->next = (struct hlist_node *)LIST_POISON1;
  n->pprev = (struct hlist_node **)LIST_POISON2;
}

static inline void hlist_del_init(struct hlist_node *n) {
  if (n->pprev) {
    __hlist_del(n);
    INIT_HLIST_NODE(n);
  }
}

static inline void hlist_add_head(struct hlist_node *n, struct hlist_head *h) {
  struct hlist_node *first = h->first;
  n->next = first;
  if (first) first->pprev = &n->next;
  h->first = n;
  n->pprev = &h->first;
}

#define hlist_entry(ptr, type, member) container_of(ptr, type, member)

#define hlist_for_each(pos, head) for (pos = (head)->first; pos; pos = pos->next)
#define hlist_for_each_safe(pos, n, head)    \
  for (pos = (head)->first; pos && ({        \
                              n = pos->next; \
                              1;             \
                            });              \
       pos = n)
#define hlist_for_each_entry(tpos, pos, head, member)                         \
  for (pos = (head)->first; pos && ({                                         \
                              tpos = hlist_entry(pos, typeof(*tpos), member); \
                              1;                                              \
                            });                                               \
       pos = pos->next)
#define hlist_for_each_entry_safe(tpos, pos, n, head, member)                 \
  for (pos = (head)->first; pos && ({                                         \
                              n = pos->next;                                  \
                              1;                                              \
                            }) &&                                             \
                            ({                                                \
                              tpos = hlist_entry(pos, typeof(*tpos), member); \
                              1;                                              \
                            });                                               \
       pos = n)

#endif
