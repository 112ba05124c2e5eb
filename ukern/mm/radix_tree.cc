// SPDX-License-Identifier: GPL-2.0
// Index of a file's pages: a tree of 64-way nodes, 6 bits of the index per level, whose height
// grows with the largest index. A node has a bit mask per tag of the slots that lead to a tagged
// item, so that a search for dirty pages visits only dirty pages.
#include <linux/radix-tree.h>
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/slab.h>

#include "ukern/mm/mm_internal.h"

namespace {

constexpr unsigned kShift = 6;
constexpr unsigned kSlots = 1u << kShift;
constexpr unsigned kMaxHeight = (64 + kShift - 1) / kShift;
constexpr unsigned kNoTag = RADIX_TREE_TAGS;

kmem_cache_t *node_cache;

}  // namespace

struct radix_tree_node {
  unsigned count;  // slots in use
  unsigned long tags[RADIX_TREE_TAGS];
  void *slots[kSlots];
};

namespace {

unsigned slot_of(unsigned long index, unsigned level) {
  return (index >> (level * kShift)) & (kSlots - 1);
}

unsigned long max_index(unsigned height) {
  const unsigned bits = height * kShift;
  return bits >= 64 ? ~0ul : (1ul << bits) - 1;
}

radix_tree_node *new_node(const radix_tree_root *root) {
  auto *node = static_cast<radix_tree_node *>(kmem_cache_alloc(node_cache, root->gfp_mask));
  if (node) memset(node, 0, sizeof *node);
  return node;
}

unsigned levels_for(unsigned long index) {
  unsigned height = 1;
  while (index > max_index(height)) height++;
  return height;
}

// Number of nodes that an insertion at `index` adds: new levels on top and missing nodes on the way
// down.
unsigned nodes_missing(const radix_tree_root *root, unsigned long index) {
  const unsigned levels = levels_for(index);
  if (!root->rnode) return levels;
  if (levels > root->height) return levels - root->height + levels - 1;
  const radix_tree_node *node = root->rnode;
  for (unsigned level = root->height - 1; level > 0; level--) {
    node = static_cast<const radix_tree_node *>(node->slots[slot_of(index, level)]);
    if (!node) return level;
  }
  return 0;
}

// Nodes allocated before the tree is touched, so that an insertion that fails changes nothing.
struct spare_nodes {
  radix_tree_node *nodes[2 * kMaxHeight];
  unsigned count = 0;

  bool reserve(const radix_tree_root *root, unsigned wanted) {
    while (count < wanted) {
      radix_tree_node *node = new_node(root);
      if (!node) return false;
      nodes[count++] = node;
    }
    return true;
  }
  radix_tree_node *take() {
    BUG_ON(count == 0);
    return nodes[--count];
  }
  ~spare_nodes() {
    while (count) kmem_cache_free(node_cache, nodes[--count]);
  }
};

// Adds levels on top until `index` fits.
void extend(radix_tree_root *root, unsigned long index, spare_nodes *spare) {
  const unsigned levels = levels_for(index);
  if (!root->rnode) {
    root->rnode = spare->take();
    root->height = levels;
  }
  while (root->height < levels) {
    radix_tree_node *top = spare->take();
    top->slots[0] = root->rnode;
    top->count = 1;
    for (unsigned tag = 0; tag < RADIX_TREE_TAGS; tag++)
      if (root->rnode->tags[tag]) top->tags[tag] = 1;
    root->rnode = top;
    root->height++;
  }
}

// Finds the nodes from the top to the leaf of `index`, path[0] the leaf; false if there is no such
// item.
bool walk(const radix_tree_root *root, unsigned long index, radix_tree_node *path[kMaxHeight]) {
  if (!root->rnode || index > max_index(root->height)) return false;
  void *at = root->rnode;
  for (unsigned level = root->height; level-- > 0;) {
    if (!at) return false;
    path[level] = static_cast<radix_tree_node *>(at);
    at = path[level]->slots[slot_of(index, level)];
  }
  return at != nullptr;
}

void clear_tag(radix_tree_node *const path[], unsigned height, unsigned long index, unsigned tag) {
  for (unsigned level = 0; level < height; level++) {
    path[level]->tags[tag] &= ~(1ul << slot_of(index, level));
    if (path[level]->tags[tag]) return;
  }
}

// Removes levels that lead to slot 0 only, and the last node when it is empty.
void shrink(radix_tree_root *root) {
  while (root->height > 1 && root->rnode->count == 1 && root->rnode->slots[0]) {
    radix_tree_node *top = root->rnode;
    root->rnode = static_cast<radix_tree_node *>(top->slots[0]);
    root->height--;
    kmem_cache_free(node_cache, top);
  }
  if (root->rnode->count == 0) {
    kmem_cache_free(node_cache, root->rnode);
    root->rnode = nullptr;
    root->height = 0;
  }
}

struct gather {
  void **results;
  unsigned found, wanted, tag;
};

void collect(const radix_tree_node *node, unsigned level, unsigned long first, gather *g) {
  for (unsigned slot = slot_of(first, level); slot < kSlots && g->found < g->wanted; slot++) {
    const bool take =
        g->tag == kNoTag ? node->slots[slot] != nullptr : (node->tags[g->tag] >> slot & 1) != 0;
    if (take) {
      if (level == 0)
        g->results[g->found++] = node->slots[slot];
      else
        collect(static_cast<const radix_tree_node *>(node->slots[slot]), level - 1, first, g);
    }
    first = 0;  // later slots are searched from their beginning
  }
}

unsigned gang_lookup(const radix_tree_root *root, void **results, unsigned long first, unsigned max,
                     unsigned tag) {
  gather g = {results, 0, max, tag};
  if (root->rnode && first <= max_index(root->height))
    collect(root->rnode, root->height - 1, first, &g);
  return g.found;
}

}  // namespace

int radix_tree_cache_init(void) {
  node_cache =
      kmem_cache_create("radix_tree_node", sizeof(radix_tree_node), 0, 0, nullptr, nullptr);
  return node_cache ? 0 : -ENOMEM;
}

void radix_tree_cache_exit(void) {
  kmem_cache_destroy(node_cache);
  node_cache = nullptr;
}

int radix_tree_insert(struct radix_tree_root *root, unsigned long index, void *item) {
  BUG_ON(!item);
  spare_nodes spare;
  if (!spare.reserve(root, nodes_missing(root, index))) return -ENOMEM;
  extend(root, index, &spare);
  radix_tree_node *node = root->rnode;
  for (unsigned level = root->height - 1; level > 0; level--) {
    void **slot = &node->slots[slot_of(index, level)];
    if (!*slot) {
      *slot = spare.take();
      node->count++;
    }
    node = static_cast<radix_tree_node *>(*slot);
  }
  void **slot = &node->slots[slot_of(index, 0)];
  if (*slot) return -EEXIST;
  *slot = item;
  node->count++;
  return 0;
}

void *radix_tree_lookup(struct radix_tree_root *root, unsigned long index) {
  if (!root->rnode || index > max_index(root->height)) return nullptr;
  void *at = root->rnode;
  for (unsigned level = root->height; level-- > 0 && at;)
    at = static_cast<radix_tree_node *>(at)->slots[slot_of(index, level)];
  return at;
}

void *radix_tree_delete(struct radix_tree_root *root, unsigned long index) {
  radix_tree_node *path[kMaxHeight] = {};
  if (!walk(root, index, path)) return nullptr;
  const unsigned height = root->height;
  for (unsigned tag = 0; tag < RADIX_TREE_TAGS; tag++) clear_tag(path, height, index, tag);
  void *item = path[0]->slots[slot_of(index, 0)];
  for (unsigned level = 0; level < height; level++) {
    path[level]->slots[slot_of(index, level)] = nullptr;
    if (--path[level]->count || level == height - 1) break;
    kmem_cache_free(node_cache, path[level]);
  }
  shrink(root);
  return item;
}

unsigned int radix_tree_gang_lookup(struct radix_tree_root *root, void **results,
                                    unsigned long first_index, unsigned int max_items) {
  return gang_lookup(root, results, first_index, max_items, kNoTag);
}

unsigned int radix_tree_gang_lookup_tag(struct radix_tree_root *root, void **results,
                                        unsigned long first_index, unsigned int max_items,
                                        unsigned int tag) {
  BUG_ON(tag >= RADIX_TREE_TAGS);
  return gang_lookup(root, results, first_index, max_items, tag);
}

void *radix_tree_tag_set(struct radix_tree_root *root, unsigned long index, unsigned int tag) {
  radix_tree_node *path[kMaxHeight] = {};
  BUG_ON(tag >= RADIX_TREE_TAGS);
  BUG_ON(!walk(root, index, path));
  for (unsigned level = 0; level < root->height; level++)
    path[level]->tags[tag] |= 1ul << slot_of(index, level);
  return path[0]->slots[slot_of(index, 0)];
}

void *radix_tree_tag_clear(struct radix_tree_root *root, unsigned long index, unsigned int tag) {
  radix_tree_node *path[kMaxHeight] = {};
  BUG_ON(tag >= RADIX_TREE_TAGS);
  if (!walk(root, index, path)) return nullptr;
  clear_tag(path, root->height, index, tag);
  return path[0]->slots[slot_of(index, 0)];
}

int radix_tree_tagged(struct radix_tree_root *root, unsigned int tag) {
  return root->rnode && root->rnode->tags[tag] != 0;
}
