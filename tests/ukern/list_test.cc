// SPDX-License-Identifier: GPL-2.0
#include <linux/list.h>

#include "tests/harness/case.h"

namespace {

struct Item {
  int value;
  struct list_head link;
  struct hlist_node node;
};

int sum_in_order(struct list_head *head) {
  int result = 0;
  struct Item *item;
  list_for_each_entry(item, head, link) result = result * 10 + item->value;
  return result;
}

int reversed(struct list_head *head) {
  int result = 0;
  struct Item *item;
  list_for_each_entry_reverse(item, head, link) result = result * 10 + item->value;
  return result;
}

struct Three {
  struct list_head head;
  struct Item items[3];

  Three() {
    INIT_LIST_HEAD(&head);
    for (int i = 0; i < 3; i++) {
      items[i].value = i + 1;
      list_add_tail(&items[i].link, &head);
    }
  }
};

}  // namespace

CASE(list, add_puts_first_and_add_tail_puts_last) {
  LIST_HEAD(head);
  struct Item a = {}, b = {}, c = {};
  a.value = 1;
  b.value = 2;
  c.value = 3;
  EXPECT_TRUE(list_empty(&head));
  list_add(&a.link, &head);
  list_add(&b.link, &head);
  list_add_tail(&c.link, &head);
  EXPECT_FALSE(list_empty(&head));
  EXPECT_EQ(sum_in_order(&head), 213);
  EXPECT_EQ(reversed(&head), 312);
}

CASE(list, del_leaves_poison_and_del_init_an_empty_list) {
  Three three;
  list_del(&three.items[0].link);
  EXPECT_EQ(three.items[0].link.next, (struct list_head *)LIST_POISON1);
  EXPECT_EQ(three.items[0].link.prev, (struct list_head *)LIST_POISON2);
  list_del_init(&three.items[1].link);
  EXPECT_TRUE(list_empty(&three.items[1].link));
  EXPECT_EQ(sum_in_order(&three.head), 3);
}

CASE(list, move_takes_an_entry_to_either_end) {
  Three three;
  list_move(&three.items[2].link, &three.head);
  EXPECT_EQ(sum_in_order(&three.head), 312);
  list_move_tail(&three.items[0].link, &three.head);
  EXPECT_EQ(sum_in_order(&three.head), 321);
}

CASE(list, splice_init_puts_a_list_in_front_and_empties_it) {
  Three three, more;
  list_splice_init(&more.head, &three.head);
  EXPECT_TRUE(list_empty(&more.head));
  EXPECT_EQ(sum_in_order(&three.head), 123123);
}

CASE(list, splice_of_an_empty_list_changes_nothing) {
  Three three;
  LIST_HEAD(empty);
  list_splice(&empty, &three.head);
  EXPECT_EQ(sum_in_order(&three.head), 123);
}

CASE(list, safe_walk_survives_removal) {
  Three three;
  struct Item *item, *next;
  list_for_each_entry_safe(item, next, &three.head, link) list_del(&item->link);
  EXPECT_TRUE(list_empty(&three.head));
}

CASE(list, replace_keeps_the_place) {
  Three three;
  struct Item other = {};
  other.value = 9;
  list_replace(&three.items[1].link, &other.link);
  EXPECT_EQ(sum_in_order(&three.head), 193);
}

CASE(list, hlist_adds_in_front_and_unhashes) {
  HLIST_HEAD(head);
  struct Item a = {}, b = {};
  a.value = 1;
  b.value = 2;
  INIT_HLIST_NODE(&a.node);
  EXPECT_TRUE(hlist_unhashed(&a.node));
  hlist_add_head(&a.node, &head);
  hlist_add_head(&b.node, &head);
  struct Item *item;
  struct hlist_node *pos;
  int seen = 0;
  hlist_for_each_entry(item, pos, &head, node) seen = seen * 10 + item->value;
  EXPECT_EQ(seen, 21);
  hlist_del_init(&b.node);
  EXPECT_TRUE(hlist_unhashed(&b.node));
  hlist_del_init(&b.node);
  hlist_del(&a.node);
  EXPECT_TRUE(hlist_empty(&head));
}

CASE(list, container_of_finds_the_structure) {
  struct Item item = {};
  EXPECT_EQ(container_of(&item.link, struct Item, link), &item);
  const struct Item *constant = &item;
  EXPECT_EQ(list_entry(&constant->link, const struct Item, link), constant);
}
