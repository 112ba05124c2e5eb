/* SPDX-License-Identifier: GPL-2.0 */
/* The memory of a case: buffers, what of it is a program's own, and what the module has not given
 * back. */
#ifndef TESTS_MODULE_KIT_MEMORY_H
#define TESTS_MODULE_KIT_MEMORY_H

#include "kernel.h"
#include "ox_types.h"
#include "tests/harness/case.h"
#include "ukern/door/uk_core.h"

/* A buffer, freed at the end of the scope. */
class test_buffer {
 public:
  explicit test_buffer(unsigned long size, int value = 0)
      : order_(get_order(size)),
        data_(reinterpret_cast<char *>(__get_free_pages(GFP_KERNEL, order_))) {
    memset(data_, value, size);
  }
  ~test_buffer() { free_pages(reinterpret_cast<unsigned long>(data_), order_); }
  test_buffer(const test_buffer &) = delete;
  test_buffer &operator=(const test_buffer &) = delete;
  char *get() const { return data_; }
  char &operator[](unsigned long i) const { return data_[i]; }

 private:
  static unsigned get_order(unsigned long size) {
    unsigned order = 0;
    while ((PAGE_SIZE << order) < size) order++;
    return order;
  }
  unsigned order_;
  char *data_;
};

/* Declares memory of the case as the task's own for a scope. */
class user_memory {
 public:
  user_memory(const void *start, unsigned long len) : start_(start) {
    EXPECT_EQ(uk_user_add(start, len), 0);
  }
  ~user_memory() { uk_user_del(start_); }
  user_memory(const user_memory &) = delete;
  user_memory &operator=(const user_memory &) = delete;

 private:
  const void *start_;
};

/* Balance of the blocks that the library counts, over a scope. */
class alloc_balance {
 public:
  int operator()() const { return atomic_read(&g_total_alloc) - before_; }

 private:
  int before_ = atomic_read(&g_total_alloc);
};

#endif
