/* SPDX-License-Identifier: GPL-2.0 */
/*
 * An index from unsigned long to pointers, with two tags per item. The page cache has one per file.
 *
 * The caller does the locking: changes exclude each other and lookups. An insertion sleeps only if
 * gfp_mask allows it, nothing else here does. Items are non-null pointers. The tree owns its nodes,
 * never the items.
 */
#ifndef _LINUX_RADIX_TREE_H
#define _LINUX_RADIX_TREE_H

#include <linux/types.h>
#include <linux/gfp.h>
#include <linux/stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RADIX_TREE_TAGS 2

struct radix_tree_node;

struct radix_tree_root {
  unsigned int height; /* levels of nodes; 0: the tree is empty */
  gfp_t gfp_mask;      /* how nodes are allocated */
  struct radix_tree_node *rnode;
};

#define INIT_RADIX_TREE(root, mask) \
  do {                              \
    (root)->height = 0;             \
    (root)->gfp_mask = (mask);      \
    (root)->rnode = NULL;           \
  } while (0)

/* 0, -EEXIST when the index is taken, -ENOMEM. */
int radix_tree_insert(struct radix_tree_root *root, unsigned long index, void *item);
/* The item at the index, or NULL. */
void *radix_tree_lookup(struct radix_tree_root *root, unsigned long index);
/* Removes the item with its tags: the item, or NULL when there was none. */
void *radix_tree_delete(struct radix_tree_root *root, unsigned long index);
/* Finds up to max_items items in index order, from first_index on; returns their number. */
unsigned int radix_tree_gang_lookup(struct radix_tree_root *root, void **results,
                                    unsigned long first_index, unsigned int max_items);
/* Tag the item at an index, which must exist (set), or remove the tag (clear): the item, or
 * NULL. */
void *radix_tree_tag_set(struct radix_tree_root *root, unsigned long index, unsigned int tag);
void *radix_tree_tag_clear(struct radix_tree_root *root, unsigned long index, unsigned int tag);
/* As radix_tree_gang_lookup, tagged items only. */
unsigned int radix_tree_gang_lookup_tag(struct radix_tree_root *root, void **results,
                                        unsigned long first_index, unsigned int max_items,
                                        unsigned int tag);
/* Does any item have the tag? */
int radix_tree_tagged(struct radix_tree_root *root, unsigned int tag);

#ifdef __cplusplus
}
#endif
#endif
