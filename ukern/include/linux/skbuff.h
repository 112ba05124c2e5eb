/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Socket buffers: one linear block of data each, with head and tail room, and queues of them.
 *
 * A buffer is reference counted (users); kfree_skb drops one reference. While `users` is 1 the
 * owner of the reference may change it without a lock. On a queue, the queue owns the reference and
 * its lock protects the buffer. Page fragments, fragment lists and clones do not exist here:
 * data_len is always 0.
 */
#ifndef UKERN_LINUX_SKBUFF_H
#define UKERN_LINUX_SKBUFF_H

#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/compiler.h>
#include <linux/cache.h>
#include <linux/spinlock.h>
#include <linux/gfp.h>
#include <asm/atomic.h>
#include <asm/page.h>
#include <asm/bug.h>

struct sk_buff;
struct sock;

#define SKB_DATA_ALIGN(X) (((X) + (SMP_CACHE_BYTES - 1)) & ~(SMP_CACHE_BYTES - 1))
/* The largest data size in a block of 2^ORDER pages besides X bytes. */
#define SKB_MAX_ORDER(X, ORDER) (((PAGE_SIZE << (ORDER)) - (X)) & ~(SMP_CACHE_BYTES - 1))

/* The first two members are those of sk_buff: the head is a link of the circular list. */
struct sk_buff_head {
  struct sk_buff *next;
  struct sk_buff *prev;

  __u32 qlen;
  spinlock_t lock;
};

struct sk_buff {
  struct sk_buff *next;
  struct sk_buff *prev;

  struct sock *sk; /* the socket that it is charged to; null: none */

  char cb[48]; /* private to the layer that owns the buffer */

  unsigned int len; /* bytes from data to tail */
  unsigned int data_len;

  void (*destructor)(struct sk_buff *skb); /* called before it is freed or orphaned */

  /* All above is zero in a new buffer. */
  unsigned int truesize; /* the size charged: data block and this structure */
  atomic_t users;
  unsigned char *head, *data, *tail, *end;
};

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A new buffer with one reference, no head room and a tail room of `size` rounded up to whole cache
 * lines; null without memory. `fclone` is ignored. May sleep if `priority` allows it. Structure and
 * data are two allocations.
 */
struct sk_buff *__alloc_skb(unsigned int size, gfp_t priority, int fclone);
/* Frees at once, whatever `users` says. */
void __kfree_skb(struct sk_buff *skb);
/* Drops one reference; the last one frees. Any context. */
void kfree_skb(struct sk_buff *skb);
/*
 * Moves the data to a new block with `nhead` more bytes of head room and `ntail` more of tail room
 * (either may be negative). 0 or -ENOMEM. The buffer must have one reference. truesize does not
 * change.
 */
int pskb_expand_head(struct sk_buff *skb, int nhead, int ntail, gfp_t gfp_mask);

void skb_over_panic(struct sk_buff *skb, int len, void *here);
void skb_under_panic(struct sk_buff *skb, int len, void *here);

/* Queue calls that take the queue's lock. */
struct sk_buff *skb_dequeue(struct sk_buff_head *list);
struct sk_buff *skb_dequeue_tail(struct sk_buff_head *list);
void skb_queue_head(struct sk_buff_head *list, struct sk_buff *newsk);
void skb_queue_tail(struct sk_buff_head *list, struct sk_buff *newsk);
void skb_unlink(struct sk_buff *skb, struct sk_buff_head *list);
void skb_queue_purge(struct sk_buff_head *list);

/*
 * Takes the next datagram of a socket's receive queue, with its reference (MSG_PEEK: leaves it
 * there and takes another reference). Waits up to sk_rcvtimeo unless `noblock`. Null with *err set:
 * -EAGAIN for no datagram, -EINTR/-ERESTARTSYS for a signal, a pending sk_err once, 0 when the
 * socket is shut down.
 */
struct sk_buff *skb_recv_datagram(struct sock *sk, unsigned flags, int noblock, int *err);
void skb_free_datagram(struct sock *sk, struct sk_buff *skb);
/* Copies `size` bytes from `offset` on to user memory. 0 or -EFAULT. */
int skb_copy_datagram_iovec(const struct sk_buff *from, int offset, struct iovec *to, int size);

#ifdef __cplusplus
}
#endif

static inline struct sk_buff *alloc_skb(unsigned int size, gfp_t priority) {
  return __alloc_skb(size, priority, 0);
}

static inline struct sk_buff *skb_get(struct sk_buff *skb) {
  atomic_inc(&skb->users);
  return skb;
}

static inline int skb_shared(const struct sk_buff *skb) {
  return atomic_read(&skb->users) != 1;
}

static inline int skb_is_nonlinear(const struct sk_buff *skb) {
  return skb->data_len;
}

static inline unsigned int skb_headlen(const struct sk_buff *skb) {
  return skb->len - skb->data_len;
}

static inline int skb_headroom(const struct sk_buff *skb) {
  return skb->data - skb->head;
}

static inline int skb_tailroom(const struct sk_buff *skb) {
  return skb_is_nonlinear(skb) ? 0 : skb->end - skb->tail;
}

/* Reserves room in front of the data of an empty buffer. */
static inline void skb_reserve(struct sk_buff *skb, int len) {
  skb->data += len;
  skb->tail += len;
}

static inline unsigned char *__skb_put(struct sk_buff *skb, unsigned int len) {
  unsigned char *tmp = skb->tail;
  BUG_ON(skb_is_nonlinear(skb));
  skb->tail += len;
  skb->len += len;
  return tmp;
}

/* Extends the data by `len` bytes at its end and returns their start. Past the end it is a BUG. */
static inline unsigned char *skb_put(struct sk_buff *skb, unsigned int len) {
  unsigned char *tmp = __skb_put(skb, len);
  if (unlikely(skb->tail > skb->end)) skb_over_panic(skb, len, __builtin_return_address(0));
  return tmp;
}

/* Extends the data by `len` bytes at its front. Before the head it is a BUG. */
static inline unsigned char *skb_push(struct sk_buff *skb, unsigned int len) {
  skb->data -= len;
  skb->len += len;
  if (unlikely(skb->data < skb->head)) skb_under_panic(skb, len, __builtin_return_address(0));
  return skb->data;
}

/* Removes `len` bytes from the front; null when there are fewer. */
static inline unsigned char *skb_pull(struct sk_buff *skb, unsigned int len) {
  if (unlikely(len > skb->len)) return NULL;
  skb->len -= len;
  return skb->data += len;
}

/* Cuts the data to `len` bytes if it is longer. */
static inline void skb_trim(struct sk_buff *skb, unsigned int len) {
  if (skb->len <= len) return;
  skb->len = len;
  skb->tail = skb->data + len;
}

/* Ends the charge of the buffer to its socket. */
static inline void skb_orphan(struct sk_buff *skb) {
  if (skb->destructor) skb->destructor(skb);
  skb->destructor = NULL;
  skb->sk = NULL;
}

static inline void skb_queue_head_init(struct sk_buff_head *list) {
  spin_lock_init(&list->lock);
  list->prev = list->next = (struct sk_buff *)list;
  list->qlen = 0;
}

static inline int skb_queue_empty(const struct sk_buff_head *list) {
  return list->next == (const struct sk_buff *)list;
}

static inline __u32 skb_queue_len(const struct sk_buff_head *list) {
  return list->qlen;
}

static inline struct sk_buff *skb_peek(struct sk_buff_head *list) {
  return skb_queue_empty(list) ? NULL : list->next;
}

static inline struct sk_buff *skb_peek_tail(struct sk_buff_head *list) {
  return skb_queue_empty(list) ? NULL : list->prev;
}

/* The following calls need the queue's lock held, or a queue that is not shared. */
static inline void __skb_link(struct sk_buff_head *list, struct sk_buff *skb,
                              struct sk_buff *prev) {
  skb->prev = prev;
  skb->next = prev->next;
  prev->next->prev = skb;
  prev->next = skb;
  list->qlen++;
}

static inline void __skb_queue_head(struct sk_buff_head *list, struct sk_buff *newsk) {
  __skb_link(list, newsk, (struct sk_buff *)list);
}

static inline void __skb_queue_tail(struct sk_buff_head *list, struct sk_buff *newsk) {
  __skb_link(list, newsk, list->prev);
}

static inline void __skb_unlink(struct sk_buff *skb, struct sk_buff_head *list) {
  skb->next->prev = skb->prev;
  skb->prev->next = skb->next;
  skb->next = skb->prev = NULL;
  list->qlen--;
}

static inline struct sk_buff *__skb_dequeue(struct sk_buff_head *list) {
  struct sk_buff *skb = skb_peek(list);
  if (skb) __skb_unlink(skb, list);
  return skb;
}

static inline struct sk_buff *__skb_dequeue_tail(struct sk_buff_head *list) {
  struct sk_buff *skb = skb_peek_tail(list);
  if (skb) __skb_unlink(skb, list);
  return skb;
}

#endif
