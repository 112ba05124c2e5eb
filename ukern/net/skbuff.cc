// SPDX-License-Identifier: GPL-2.0
// Socket buffers and their queues.

#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/skbuff.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "ukern/net/net.h"
#include "ukern/sync/guard.h"

// Room for a page and a few bytes in front of it, the size of most messages.
static constexpr unsigned kPageRoom = SKB_DATA_ALIGN(PAGE_SIZE + 1);

static kmem_cache_t *skbuff_head_cache;
static kmem_cache_t *page_data_cache;

int ukern::skb_init() {
  skbuff_head_cache =
      kmem_cache_create("skbuff_head_cache", sizeof(struct sk_buff), 0, 0, nullptr, nullptr);
  if (!skbuff_head_cache) return -ENOMEM;
  page_data_cache = kmem_cache_create("skbuff_page_data", kPageRoom, 0, 0, nullptr, nullptr);
  if (page_data_cache) return 0;
  kmem_cache_destroy(skbuff_head_cache);
  skbuff_head_cache = nullptr;
  return -ENOMEM;
}

void ukern::skb_exit() {
  kmem_cache_destroy(page_data_cache);
  page_data_cache = nullptr;
  kmem_cache_destroy(skbuff_head_cache);
  skbuff_head_cache = nullptr;
}

// Allocates exactly the room of the buffer, so that a write behind it is detected.
static unsigned char *data_alloc(unsigned size, gfp_t priority) {
  void *data = size == kPageRoom ? kmem_cache_alloc(page_data_cache, priority & ~__GFP_DMA)
                                 : kmalloc(size, priority);
  return static_cast<unsigned char *>(data);
}

static void data_free(unsigned char *data, unsigned size) {
  if (size == kPageRoom) {
    kmem_cache_free(page_data_cache, data);
  } else {
    kfree(data);
  }
}

static unsigned data_size(const struct sk_buff *skb) {
  return static_cast<unsigned>(skb->end - skb->head);
}

extern "C" {

struct sk_buff *__alloc_skb(unsigned int size, gfp_t priority, int) {
  auto *skb =
      static_cast<struct sk_buff *>(kmem_cache_alloc(skbuff_head_cache, priority & ~__GFP_DMA));
  if (!skb) return nullptr;

  size = SKB_DATA_ALIGN(size);
  unsigned char *data = data_alloc(size, priority);
  if (!data) {
    kmem_cache_free(skbuff_head_cache, skb);
    return nullptr;
  }

  memset(skb, 0, offsetof(struct sk_buff, truesize));
  skb->truesize = size + sizeof(struct sk_buff);
  atomic_set(&skb->users, 1);
  skb->head = skb->data = skb->tail = data;
  skb->end = data + size;
  return skb;
}

void __kfree_skb(struct sk_buff *skb) {
  if (skb->destructor) skb->destructor(skb);
  data_free(skb->head, data_size(skb));
  kmem_cache_free(skbuff_head_cache, skb);
}

void kfree_skb(struct sk_buff *skb) {
  if (unlikely(!skb)) return;
  if (likely(!atomic_dec_and_test(&skb->users))) return;
  __kfree_skb(skb);
}

int pskb_expand_head(struct sk_buff *skb, int nhead, int ntail, gfp_t gfp_mask) {
  BUG_ON(skb_shared(skb));

  const long used_end = skb->tail - skb->head;
  const long size = SKB_DATA_ALIGN(nhead + (skb->end - skb->head) + ntail);
  BUG_ON(size < nhead + used_end);
  unsigned char *data = data_alloc(static_cast<unsigned>(size), gfp_mask);
  if (!data) return -ENOMEM;

  memcpy(data + nhead, skb->head, used_end);
  const long headroom = skb->data - skb->head + nhead;
  data_free(skb->head, data_size(skb));
  skb->head = data;
  skb->data = data + headroom;
  skb->tail = data + nhead + used_end;
  skb->end = data + size;
  return 0;
}

void skb_over_panic(struct sk_buff *skb, int len, void *here) {
  printk(KERN_EMERG "skb_over_panic: text:%p len:%d put:%d head:%p data:%p tail:%p end:%p dev:%s\n",
         here, skb->len, len, skb->head, skb->data, skb->tail, skb->end, "<NULL>");
  BUG();
}

void skb_under_panic(struct sk_buff *skb, int len, void *here) {
  printk(KERN_EMERG
         "skb_under_panic: text:%p len:%d put:%d head:%p data:%p tail:%p end:%p dev:%s\n",
         here, skb->len, len, skb->head, skb->data, skb->tail, skb->end, "<NULL>");
  BUG();
}

struct sk_buff *skb_dequeue(struct sk_buff_head *list) {
  SpinGuard guard(list->lock);
  return __skb_dequeue(list);
}

struct sk_buff *skb_dequeue_tail(struct sk_buff_head *list) {
  SpinGuard guard(list->lock);
  return __skb_dequeue_tail(list);
}

void skb_queue_head(struct sk_buff_head *list, struct sk_buff *newsk) {
  SpinGuard guard(list->lock);
  __skb_queue_head(list, newsk);
}

void skb_queue_tail(struct sk_buff_head *list, struct sk_buff *newsk) {
  SpinGuard guard(list->lock);
  __skb_queue_tail(list, newsk);
}

void skb_unlink(struct sk_buff *skb, struct sk_buff_head *list) {
  SpinGuard guard(list->lock);
  __skb_unlink(skb, list);
}

void skb_queue_purge(struct sk_buff_head *list) {
  while (struct sk_buff *skb = skb_dequeue(list)) kfree_skb(skb);
}

}  // extern "C"
