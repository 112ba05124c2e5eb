// SPDX-License-Identifier: GPL-2.0
// Reclaim of cached pages with an inactive and an active list. A page enters the inactive list,
// moves to the active one when it is used twice, and back when the inactive list runs short.
// Reclaim frees the oldest inactive page that was not referenced since its last scan, if it is
// clean and unused; dirty pages wait for write-back.
#include <linux/list.h>
#include <linux/pagemap.h>
#include <linux/spinlock.h>
#include <linux/swap.h>

#include "ukern/mm/mm_internal.h"
#include "ukern/sync/guard.h"

namespace {

DEFINE_SPINLOCK(lru_lock);
LIST_HEAD(inactive);  // both: newest first
LIST_HEAD(active);
unsigned long nr_inactive, nr_active;
unsigned long nr_pages;  // of both; read without the lock

// lru_lock is held.
void add_locked(struct page *page) {
  if (PageActive(page)) {
    list_add(&page->lru, &active);
    nr_active++;
  } else {
    list_add(&page->lru, &inactive);
    nr_inactive++;
  }
  SetPageLRU(page);
  __atomic_store_n(&nr_pages, nr_inactive + nr_active, __ATOMIC_RELAXED);
}

void del_locked(struct page *page) {
  list_del(&page->lru);
  INIT_LIST_HEAD(&page->lru);
  (PageActive(page) ? nr_active : nr_inactive)--;
  ClearPageLRU(page);
  __atomic_store_n(&nr_pages, nr_inactive + nr_active, __ATOMIC_RELAXED);
}

// Moves the oldest active pages to the inactive list; a referenced one stays. lru_lock is held.
void refill_inactive_locked() {
  for (unsigned long scan = nr_active; scan > 0 && nr_inactive < nr_active; scan--) {
    struct page *page = list_entry(active.prev, struct page, lru);
    del_locked(page);
    if (!TestClearPageReferenced(page)) ClearPageActive(page);
    add_locked(page);
  }
}

// Takes the oldest inactive page off the list, with a reference; NULL if there is none.
struct page *isolate_oldest() {
  struct page *found = nullptr;
  SpinGuard guard(lru_lock);
  refill_inactive_locked();
  for (unsigned long left = nr_inactive; left > 0 && !found; left--) {
    struct page *page = list_entry(inactive.prev, struct page, lru);
    if (get_page_unless_zero(page)) {
      del_locked(page);
      found = page;
    } else {
      list_move(&page->lru,
                &inactive);  // the task that dropped it to zero waits for the lock to remove it
    }
  }
  return found;
}

void put_back(struct page *page) {
  {
    SpinGuard guard(lru_lock);
    add_locked(page);
  }
  page_cache_release(page);
}

// Removes a locked page from the cache if it is clean and only the cache and the caller use it.
bool remove_if_unused(struct page *page) {
  struct address_space *mapping = page->mapping;
  if (!mapping || PageDirty(page) || PageWriteback(page) || page_mapped(page)) return false;
  if (PagePrivate(page) && !try_to_release_page(page, GFP_KERNEL)) return false;
  {
    WriteGuard guard(mapping->tree_lock);
    if (page_count(page) != 2 || PageDirty(page)) return false;
    __remove_from_page_cache(page);
  }
  page_cache_release(page);  // the cache's reference
  return true;
}

bool reclaim(struct page *page) {
  if (TestClearPageReferenced(page) || TestSetPageLocked(page)) return false;
  const bool reclaimed = remove_if_unused(page);
  unlock_page(page);
  return reclaimed;
}

}  // namespace

unsigned long page_cache_limit;

unsigned long lru_pages(void) {
  return __atomic_load_n(&nr_pages, __ATOMIC_RELAXED);
}

void lru_cache_add(struct page *page) {
  SpinGuard guard(lru_lock);
  BUG_ON(PageLRU(page));
  add_locked(page);
}

void lru_cache_del(struct page *page) {
  if (!PageLRU(page)) return;
  SpinGuard guard(lru_lock);
  if (PageLRU(page)) del_locked(page);
}

void mark_page_accessed(struct page *page) {
  if (!PageReferenced(page)) {
    SetPageReferenced(page);
    return;
  }
  if (PageActive(page) || !PageLRU(page)) return;
  {
    SpinGuard guard(lru_lock);
    if (PageLRU(page) && !PageActive(page)) {
      del_locked(page);
      SetPageActive(page);
      add_locked(page);
    }
  }
  ClearPageReferenced(page);
}

unsigned long shrink_page_cache(unsigned long want, unsigned long scan) {
  unsigned long reclaimed = 0;
  for (; scan > 0 && reclaimed < want; scan--) {
    struct page *page = isolate_oldest();
    if (!page) break;
    if (reclaim(page)) {
      page_cache_release(page);
      reclaimed++;
    } else {
      put_back(page);
    }
  }
  return reclaimed;
}

void drop_pagecache(void) {
  unsigned long pages;
  {
    SpinGuard guard(lru_lock);
    pages = nr_inactive + nr_active;
  }
  shrink_page_cache(pages,
                    2 * pages);  // the first scan of a page may only clear PG_referenced
}
