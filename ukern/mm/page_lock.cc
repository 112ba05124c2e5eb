// SPDX-License-Identifier: GPL-2.0
// Waiting for a bit of a page. All pages share a table of wait queues. A waiter tests its own
// page's bit after every wake-up, so a collision costs only a test.
#include <linux/hash.h>
#include <linux/pagemap.h>
#include <linux/wait.h>

#include "ukern/mm/mm_internal.h"

namespace {

constexpr unsigned kBits = 8;
wait_queue_head_t queues[1u << kBits];

wait_queue_head_t *queue_of(struct page *page) {
  return &queues[hash_long(reinterpret_cast<unsigned long>(page), kBits)];
}

void wake_waiters(struct page *page) {
  smp_mb();  // the bit is clear before the queue is tested
  wait_queue_head_t *queue = queue_of(page);
  if (waitqueue_active(queue)) wake_up_all(queue);
}

}  // namespace

void page_wait_init(void) {
  for (wait_queue_head_t &queue : queues) init_waitqueue_head(&queue);
}

void __lock_page(struct page *page) {
  might_sleep();
  wait_queue_head_t *queue = queue_of(page);
  DEFINE_WAIT(wait);
  while (TestSetPageLocked(page)) {
    prepare_to_wait(queue, &wait, TASK_UNINTERRUPTIBLE);
    if (PageLocked(page)) schedule();
  }
  finish_wait(queue, &wait);
}

void wait_on_page_bit(struct page *page, int bit_nr) {
  might_sleep();
  wait_queue_head_t *queue = queue_of(page);
  DEFINE_WAIT(wait);
  while (test_bit(bit_nr, &page->flags)) {
    prepare_to_wait(queue, &wait, TASK_UNINTERRUPTIBLE);
    if (test_bit(bit_nr, &page->flags)) schedule();
  }
  finish_wait(queue, &wait);
}

void unlock_page(struct page *page) {
  BUG_ON(!TestClearPageLocked(page));
  // From here on the page may be freed; only its address is used.
  wake_waiters(page);
}

void end_page_writeback(struct page *page) {
  ClearPageReclaim(page);
  BUG_ON(!test_clear_page_writeback(page));
  wake_waiters(page);
}
