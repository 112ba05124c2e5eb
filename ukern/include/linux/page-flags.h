/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Page state bits. A bit is changed atomically, with a reference on the page; further conditions
 * are at the bits. A test may be outdated at once unless the page is locked.
 */
#ifndef _LINUX_PAGE_FLAGS_H
#define _LINUX_PAGE_FLAGS_H

#include <linux/mm_types.h>
#include <linux/types.h>
#include <asm/bitops.h>

#define PG_locked 0     /* exclusive use of the page; lock_page and unlock_page */
#define PG_error 1      /* the last I/O of the page failed */
#define PG_referenced 2 /* used since the reclaimer's last scan */
#define PG_uptodate 3   /* the data is valid; set with the page locked */
#define PG_dirty 4      /* must be written back; changed through set_page_dirty and the like */
#define PG_lru 5        /* on the reclaimer's list */
#define PG_active 6
#define PG_checked 8
#define PG_arch_1 9
#define PG_reserved 10
#define PG_private 11   /* private_ belongs to the file system */
#define PG_writeback 12 /* being written; changed by set_page_writeback, end_page_writeback */
#define PG_mappedtodisk 16
#define PG_reclaim 17

/* The accessors of one bit, in macros: PageX, SetPageX, ClearPageX, TestSet, TestClear. */
#define UKERN_PAGE_TEST(name, bit)                        \
  static inline int Page##name(const struct page *page) { \
    return test_bit(bit, &page->flags);                   \
  }
#define UKERN_PAGE_CHANGE(name, bit)                      \
  static inline void SetPage##name(struct page *page) {   \
    set_bit(bit, &page->flags);                           \
  }                                                       \
  static inline void ClearPage##name(struct page *page) { \
    clear_bit(bit, &page->flags);                         \
  }
#define UKERN_PAGE_TEST_SET(name, bit)                     \
  static inline int TestSetPage##name(struct page *page) { \
    return test_and_set_bit(bit, &page->flags);            \
  }
#define UKERN_PAGE_TEST_CLEAR(name, bit)                     \
  static inline int TestClearPage##name(struct page *page) { \
    return test_and_clear_bit(bit, &page->flags);            \
  }
#define UKERN_PAGE_BIT(name, bit) \
  UKERN_PAGE_TEST(name, bit)      \
  UKERN_PAGE_CHANGE(name, bit)

#ifdef __cplusplus
extern "C" {
#endif

UKERN_PAGE_BIT(Locked, PG_locked)
UKERN_PAGE_TEST_SET(Locked, PG_locked)
UKERN_PAGE_TEST_CLEAR(Locked, PG_locked)
UKERN_PAGE_BIT(Error, PG_error)
UKERN_PAGE_BIT(Referenced, PG_referenced)
UKERN_PAGE_TEST_CLEAR(Referenced, PG_referenced)
UKERN_PAGE_BIT(Uptodate, PG_uptodate)
UKERN_PAGE_BIT(Dirty, PG_dirty)
UKERN_PAGE_TEST_SET(Dirty, PG_dirty)
UKERN_PAGE_TEST_CLEAR(Dirty, PG_dirty)
UKERN_PAGE_BIT(LRU, PG_lru)
UKERN_PAGE_BIT(Active, PG_active)
UKERN_PAGE_BIT(Checked, PG_checked)
UKERN_PAGE_BIT(Reserved, PG_reserved)
UKERN_PAGE_BIT(Private, PG_private)
UKERN_PAGE_BIT(MappedToDisk, PG_mappedtodisk)
UKERN_PAGE_BIT(Reclaim, PG_reclaim)
UKERN_PAGE_TEST_CLEAR(Reclaim, PG_reclaim)
UKERN_PAGE_TEST(Writeback, PG_writeback)

static inline int PageHighMem(const struct page *) {
  return 0;
}

/* Set or clear PG_writeback and the mapping's tag for it; return the earlier state. Take no
 * sleeping lock. */
int test_set_page_writeback(struct page *page);
int test_clear_page_writeback(struct page *page);
static inline void set_page_writeback(struct page *page) {
  test_set_page_writeback(page);
}

#ifdef __cplusplus
}
#endif

#undef UKERN_PAGE_BIT
#undef UKERN_PAGE_TEST
#undef UKERN_PAGE_CHANGE
#undef UKERN_PAGE_TEST_SET
#undef UKERN_PAGE_TEST_CLEAR
#endif
