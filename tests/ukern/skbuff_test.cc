// SPDX-License-Identifier: GPL-2.0
// Socket buffers and their queues.
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/skbuff.h>
#include <linux/string.h>
#include <net/sock.h>

#include "tests/harness/case.h"

namespace {

int destroyed;

void count_destructor(struct sk_buff *) {
  destroyed++;
}

}  // namespace

CASE(skbuff, new_buffer_is_empty_with_tail_room) {
  struct sk_buff *skb = alloc_skb(100, GFP_KERNEL);
  REQUIRE_TRUE(skb);
  EXPECT_EQ(skb->len, 0u);
  EXPECT_EQ(skb->data_len, 0u);
  EXPECT_TRUE(skb->data == skb->head);
  EXPECT_TRUE(skb->tail == skb->head);
  EXPECT_EQ(skb_headroom(skb), 0);
  EXPECT_EQ(skb_tailroom(skb), (int)SKB_DATA_ALIGN(100));
  EXPECT_EQ(skb->truesize, SKB_DATA_ALIGN(100) + sizeof(struct sk_buff));
  EXPECT_FALSE(skb_shared(skb));
  EXPECT_TRUE(skb->sk == NULL);
  EXPECT_TRUE(skb->destructor == NULL);
  for (unsigned i = 0; i < sizeof(skb->cb); i++) EXPECT_EQ(skb->cb[i], 0);
  kfree_skb(skb);
}

CASE(skbuff, put_push_pull_trim) {
  struct sk_buff *skb = alloc_skb(64, GFP_KERNEL);
  REQUIRE_TRUE(skb);
  skb_reserve(skb, 16);
  EXPECT_EQ(skb_headroom(skb), 16);
  unsigned char *at = skb_put(skb, 20);
  EXPECT_TRUE(at == skb->head + 16);
  EXPECT_EQ(skb->len, 20u);
  EXPECT_EQ(skb_headlen(skb), 20u);
  memset(at, 'x', 20);
  at = skb_put(skb, 4);
  EXPECT_TRUE(at == skb->head + 36);
  EXPECT_TRUE(skb_push(skb, 8) == skb->head + 8);
  EXPECT_EQ(skb->len, 32u);
  EXPECT_TRUE(skb_pull(skb, 10) == skb->head + 18);
  EXPECT_EQ(skb->len, 22u);
  EXPECT_TRUE(skb_pull(skb, 23) == NULL);
  EXPECT_EQ(skb->len, 22u);
  skb_trim(skb, 30);
  EXPECT_EQ(skb->len, 22u);
  skb_trim(skb, 5);
  EXPECT_EQ(skb->len, 5u);
  EXPECT_TRUE(skb->tail == skb->data + 5);
  kfree_skb(skb);
}

CASE(skbuff, tail_room_can_be_used_to_the_last_byte) {
  struct sk_buff *skb = alloc_skb(4112, GFP_KERNEL);
  REQUIRE_TRUE(skb);
  const int room = skb_tailroom(skb);
  EXPECT_GE(room, 4112);
  memset(skb_put(skb, room), 1, room);
  EXPECT_EQ(skb_tailroom(skb), 0);
  kfree_skb(skb);
}

CASE(skbuff, freed_with_its_last_reference) {
  destroyed = 0;
  struct sk_buff *skb = alloc_skb(10, GFP_KERNEL);
  REQUIRE_TRUE(skb);
  skb->destructor = count_destructor;
  EXPECT_TRUE(skb_get(skb) == skb);
  EXPECT_TRUE(skb_shared(skb));
  kfree_skb(skb);
  EXPECT_EQ(destroyed, 0);
  EXPECT_FALSE(skb_shared(skb));
  kfree_skb(skb);
  EXPECT_EQ(destroyed, 1);
}

CASE(skbuff, orphan_calls_the_destructor_once) {
  destroyed = 0;
  struct sk_buff *skb = alloc_skb(10, GFP_KERNEL);
  REQUIRE_TRUE(skb);
  skb->destructor = count_destructor;
  skb_orphan(skb);
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(skb->destructor == NULL);
  kfree_skb(skb);
  EXPECT_EQ(destroyed, 1);
}

CASE(skbuff, expand_head_keeps_the_data) {
  struct sk_buff *skb = alloc_skb(1024, GFP_KERNEL);
  REQUIRE_TRUE(skb);
  skb_reserve(skb, 8);
  memcpy(skb_put(skb, 5), "hello", 5);
  const unsigned truesize = skb->truesize;
  REQUIRE_EQ(pskb_expand_head(skb, 64, -(skb_tailroom(skb)), GFP_KERNEL), 0);
  EXPECT_EQ(skb_headroom(skb), 72);
  EXPECT_EQ(skb->len, 5u);
  EXPECT_EQ(memcmp(skb->data, "hello", 5), 0);
  EXPECT_LT(skb_tailroom(skb), SMP_CACHE_BYTES);
  EXPECT_EQ(skb->truesize, truesize);
  kfree_skb(skb);
}

// Data of the size of a page message is kept apart from that of other sizes.
CASE(skbuff, page_data_moves_to_another_size_and_back) {
  struct sk_buff *skb = alloc_skb(PAGE_SIZE + 16, GFP_KERNEL);
  REQUIRE_TRUE(skb);
  EXPECT_EQ(skb_tailroom(skb), (int)SKB_DATA_ALIGN(PAGE_SIZE + 16));
  memset(skb_put(skb, 100), 'a', 100);
  const int shrink = -(skb_tailroom(skb) - 28);
  REQUIRE_EQ(pskb_expand_head(skb, 0, shrink, GFP_KERNEL), 0);
  EXPECT_EQ(skb_tailroom(skb), 28);
  REQUIRE_EQ(pskb_expand_head(skb, 0, -shrink, GFP_KERNEL), 0);
  EXPECT_EQ(skb_tailroom(skb), (int)SKB_DATA_ALIGN(PAGE_SIZE + 16) - 100);
  memset(skb_put(skb, skb_tailroom(skb)), 'b', SKB_DATA_ALIGN(PAGE_SIZE + 16) - 100);
  EXPECT_EQ(skb->data[99], 'a');
  kfree_skb(skb);
}

CASE(skbuff, queue_order) {
  struct sk_buff_head list;
  skb_queue_head_init(&list);
  EXPECT_TRUE(skb_queue_empty(&list));
  EXPECT_TRUE(skb_dequeue(&list) == NULL);
  EXPECT_TRUE(skb_peek(&list) == NULL);

  struct sk_buff *skb[4];
  for (int i = 0; i < 4; i++) {
    skb[i] = alloc_skb(8, GFP_KERNEL);
    REQUIRE_TRUE(skb[i]);
  }
  skb_queue_tail(&list, skb[1]);
  skb_queue_tail(&list, skb[2]);
  skb_queue_head(&list, skb[0]);
  skb_queue_tail(&list, skb[3]);
  EXPECT_EQ(skb_queue_len(&list), 4u);
  EXPECT_TRUE(skb_peek(&list) == skb[0]);
  EXPECT_TRUE(skb_peek_tail(&list) == skb[3]);
  skb_unlink(skb[1], &list);
  EXPECT_TRUE(skb[1]->next == NULL);
  kfree_skb(skb[1]);
  EXPECT_TRUE(skb_dequeue_tail(&list) == skb[3]);
  kfree_skb(skb[3]);
  EXPECT_TRUE(skb_dequeue(&list) == skb[0]);
  kfree_skb(skb[0]);
  EXPECT_EQ(skb_queue_len(&list), 1u);
  skb_queue_purge(&list);
  EXPECT_TRUE(skb_queue_empty(&list));
  EXPECT_EQ(skb_queue_len(&list), 0u);
}
