// SPDX-License-Identifier: GPL-2.0
// The index of cached pages: finding, adding and removing them.
#include <linux/err.h>
#include <linux/pagemap.h>
#include <linux/pagevec.h>
#include <linux/swap.h>

#include "ukern/mm/mm_internal.h"
#include "ukern/sync/guard.h"

int add_to_page_cache(struct page *page, struct address_space *mapping, unsigned long index,
                      gfp_t) {
  WriteGuard guard(mapping->tree_lock);
  const int error = radix_tree_insert(&mapping->page_tree, index, page);
  if (!error) {
    page_cache_get(page);
    SetPageLocked(page);
    page->mapping = mapping;
    page->index = index;
    mapping_pages_add(mapping, 1);
  }
  return error;
}

int add_to_page_cache_lru(struct page *page, struct address_space *mapping, unsigned long index,
                          gfp_t gfp_mask) {
  const int error = add_to_page_cache(page, mapping, index, gfp_mask);
  if (!error) lru_cache_add(page);
  return error;
}

void __remove_from_page_cache(struct page *page) {
  struct address_space *mapping = page->mapping;
  radix_tree_delete(&mapping->page_tree, page->index);
  page->mapping = nullptr;
  mapping_pages_add(mapping, -1);
}

void remove_from_page_cache(struct page *page) {
  struct address_space *mapping = page->mapping;
  BUG_ON(!PageLocked(page));
  WriteGuard guard(mapping->tree_lock);
  __remove_from_page_cache(page);
}

struct page *find_get_page(struct address_space *mapping, unsigned long index) {
  ReadGuard guard(mapping->tree_lock);
  auto *page = static_cast<struct page *>(radix_tree_lookup(&mapping->page_tree, index));
  if (page) page_cache_get(page);
  return page;
}

struct page *find_lock_page(struct address_space *mapping, unsigned long index) {
  while (struct page *page = find_get_page(mapping, index)) {
    lock_page(page);
    if (page->mapping == mapping && page->index == index) return page;
    unlock_page(page);  // truncated while we slept
    page_cache_release(page);
  }
  return nullptr;
}

struct page *find_or_create_page(struct address_space *mapping, unsigned long index,
                                 gfp_t gfp_mask) {
  struct page *fresh = nullptr;
  struct page *page;
  while (!(page = find_lock_page(mapping, index))) {
    if (!fresh && !(fresh = alloc_pages(gfp_mask, 0))) return nullptr;
    const int error = add_to_page_cache_lru(fresh, mapping, index, gfp_mask);
    if (!error) return fresh;
    if (error != -EEXIST) break;
  }
  if (fresh) page_cache_release(fresh);
  return page;
}

unsigned find_get_pages(struct address_space *mapping, pgoff_t start, unsigned int nr_pages,
                        struct page **pages) {
  ReadGuard guard(mapping->tree_lock);
  const unsigned found = radix_tree_gang_lookup(&mapping->page_tree,
                                                reinterpret_cast<void **>(pages), start, nr_pages);
  for (unsigned i = 0; i < found; i++) page_cache_get(pages[i]);
  return found;
}

unsigned find_get_pages_tag(struct address_space *mapping, pgoff_t *index, int tag,
                            unsigned int nr_pages, struct page **pages) {
  ReadGuard guard(mapping->tree_lock);
  const unsigned found =
      radix_tree_gang_lookup_tag(&mapping->page_tree, reinterpret_cast<void **>(pages), *index,
                                 nr_pages, static_cast<unsigned>(tag));
  for (unsigned i = 0; i < found; i++) page_cache_get(pages[i]);
  if (found) *index = pages[found - 1]->index + 1;
  return found;
}

int mapping_tagged(struct address_space *mapping, int tag) {
  ReadGuard guard(mapping->tree_lock);
  return radix_tree_tagged(&mapping->page_tree, static_cast<unsigned>(tag));
}

void pagevec_release(struct pagevec *pvec) {
  for (unsigned long i = 0; i < pvec->nr; i++) page_cache_release(pvec->pages[i]);
  pvec->nr = 0;
}

unsigned pagevec_lookup(struct pagevec *pvec, struct address_space *mapping, pgoff_t start,
                        unsigned nr_pages) {
  pvec->nr = find_get_pages(mapping, start, nr_pages, pvec->pages);
  return pagevec_count(pvec);
}

unsigned pagevec_lookup_tag(struct pagevec *pvec, struct address_space *mapping, pgoff_t *index,
                            int tag, unsigned nr_pages) {
  pvec->nr = find_get_pages_tag(mapping, index, tag, nr_pages, pvec->pages);
  return pagevec_count(pvec);
}

// Gets the page at an index: a new one filled, an existing one perhaps not up to date.
static struct page *find_or_fill(struct address_space *mapping, unsigned long index,
                                 filler_t *filler, void *data) {
  for (;;) {
    struct page *page = find_get_page(mapping, index);
    if (page) return page;
    page = page_cache_alloc(mapping);
    if (!page) return static_cast<struct page *>(ERR_PTR(-ENOMEM));
    int error = add_to_page_cache_lru(page, mapping, index, GFP_KERNEL);
    if (!error) {
      error = filler(data, page);
      if (error >= 0) return page;
    }
    page_cache_release(page);
    if (error != -EEXIST) return static_cast<struct page *>(ERR_PTR(error));
  }
}

struct page *read_cache_page(struct address_space *mapping, unsigned long index, filler_t *filler,
                             void *data) {
  for (;;) {
    struct page *page = find_or_fill(mapping, index, filler, data);
    if (IS_ERR(page)) return page;
    mark_page_accessed(page);
    if (PageUptodate(page)) return page;

    lock_page(page);
    if (!page->mapping) {
      unlock_page(page);
      page_cache_release(page);
      continue;
    }
    if (PageUptodate(page)) {
      unlock_page(page);
      return page;
    }
    const int error = filler(data, page);
    if (error >= 0) return page;
    page_cache_release(page);
    return static_cast<struct page *>(ERR_PTR(error));
  }
}
