// SPDX-License-Identifier: GPL-2.0
#include <linux/sched.h>
#include <linux/string.h>
#include <asm/uaccess.h>

#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"

namespace {

// An address of a kernel's, as far as any program is concerned.
char kernel_memory[64] = "kernel";

}  // namespace

CASE(uaccess, kernel_memory_is_out_of_a_programs_reach) {
  char buf[8];
  memset(buf, 'x', sizeof(buf));
  EXPECT_FALSE(access_ok(VERIFY_READ, kernel_memory, 8));
  EXPECT_EQ(copy_from_user(buf, kernel_memory, 8), 8ul);
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(buf[7], 0);
  EXPECT_EQ(copy_to_user(kernel_memory, "12345678", 8), 8ul);
  EXPECT_EQ(clear_user(kernel_memory, 8), 8ul);
  EXPECT_STREQ(kernel_memory, "kernel");
  EXPECT_EQ(strncpy_from_user(buf, kernel_memory, 8), (long)-EFAULT);
  EXPECT_EQ(strnlen_user(kernel_memory, 8), 0l);
  int value = 5;
  EXPECT_EQ(get_user(value, (int *)kernel_memory), -EFAULT);
  EXPECT_EQ(value, 0);
  EXPECT_EQ(put_user(1, (int *)kernel_memory), -EFAULT);
}

CASE(uaccess, kernel_limit_reaches_everything) {
  kernel_buffers limit;
  char buf[8];
  EXPECT_TRUE(access_ok(VERIFY_READ, kernel_memory, 8));
  EXPECT_EQ(copy_from_user(buf, kernel_memory, 7), 0ul);
  EXPECT_STREQ(buf, "kernel");
  EXPECT_EQ(strncpy_from_user(buf, kernel_memory, 8), 6l);
  EXPECT_EQ(strncpy_from_user(buf, kernel_memory, 3), 3l);
  EXPECT_EQ(strnlen_user(kernel_memory, 64), 7l);
  EXPECT_GT(strnlen_user(kernel_memory, 3), 3l);
  unsigned short value = 0;
  EXPECT_EQ(get_user(value, (const unsigned short *)kernel_memory), 0);
  EXPECT_EQ(value, (unsigned short)('k' | 'e' << 8));
}

CASE(uaccess, limits_compare) {
  EXPECT_TRUE(segment_eq(get_fs(), USER_DS));
  EXPECT_FALSE(segment_eq(KERNEL_DS, USER_DS));
  EXPECT_TRUE(segment_eq(get_ds(), KERNEL_DS));
}
