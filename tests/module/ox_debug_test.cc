// SPDX-License-Identifier: GPL-2.0
#include "ox_guard.h"
#include "ox_types.h"
#include "tests/harness/case.h"
#include "ukern/door/uk_core.h"
#include "ukern/testing/uk_fault.h"

namespace {

const char kFile[] = "/debug.log";

/* What the debug file holds, NUL added; its length or -errno. */
long read_log(char *buf, unsigned long size) {
  struct file *file = filp_open(kFile, O_RDONLY, 0);
  if (IS_ERR(file)) return PTR_ERR(file);
  kernel_ds_guard kernel_addresses;
  loff_t pos = 0;
  const long len = vfs_read(file, buf, size - 1, &pos);
  filp_close(file, nullptr);
  buf[len < 0 ? 0 : len] = '\0';
  return len;
}

/* The part of a line behind tag and time: "[pid]file:line:function:text". */
const char *behind_time(const char *line) {
  const char *end = strchr(line, ']');
  return end ? end + 1 : line;
}

char content[8192];

}  // namespace

CASE(ox_debug, a_line_has_tag_time_pid_place_and_text) {
  REQUIRE_EQ(ox_debug_init(kFile), 0);
  const ox_time_t before = ox_current_time_us();
  EXPECT_GT(ox_log(OX_LOG_TRACE, "dir/sub/name", 12, "fn", "v=%d\n", 5), 0);
  const ox_time_t after = ox_current_time_us();
  EXPECT_EQ(ox_debug_exit(), 0);
  REQUIRE_TRUE(read_log(content, sizeof(content)) > 0);
  EXPECT_EQ(strncmp(content, "T[", 2), 0);
  ox_time_t us = 0;
  for (const char *p = content + 2; *p >= '0' && *p <= '9'; ++p) us = us * 10 + (*p - '0');
  EXPECT_LE(before, us);
  EXPECT_LE(us, after);
  char expected[64];
  snprintf(expected, sizeof(expected), "[%d]name:12:fn:v=5\n", current->pid);
  EXPECT_STREQ(behind_time(content), expected);
}

CASE(ox_debug, levels_above_the_highest_write_nothing) {
  REQUIRE_EQ(ox_debug_init(kFile), 0);
  EXPECT_EQ(ox_log(5, "f", 1, "fn", "no\n"), 0);
  EXPECT_EQ(ox_log(1000, "f", 1, "fn", "no\n"), 0);
  EXPECT_GT(ox_log(4, "f", 1, "fn", "yes\n"), 0);
  EXPECT_GT(ox_log(-3, "f", 1, "fn", "below\n"), 0);
  EXPECT_EQ(ox_debug_exit(), 0);
  REQUIRE_TRUE(read_log(content, sizeof(content)) > 0);
  EXPECT_EQ(content[0], 'T');
  EXPECT_TRUE(strstr(content, "no\n") == nullptr);
  EXPECT_TRUE(strstr(content, "\nF[") != nullptr);
}

CASE(ox_debug, every_level_has_its_tag) {
  REQUIRE_EQ(ox_debug_init(kFile), 0);
  for (int level = 0; level <= 4; ++level) ox_log(level, "f", 1, "fn", "\n");
  EXPECT_EQ(ox_debug_exit(), 0);
  REQUIRE_TRUE(read_log(content, sizeof(content)) > 0);
  const char *line = content;
  for (const char *tag = "FEWIT"; *tag; ++tag) {
    EXPECT_EQ(*line, *tag);
    line = strchr(line, '\n');
    REQUIRE_TRUE(line != nullptr);
    ++line;
  }
}

CASE(ox_debug, the_file_is_logged_without_its_folders) {
  REQUIRE_EQ(ox_debug_init(kFile), 0);
  ox_log(0, "plain", 1, "fn", "\n");
  ox_log(0, "trailing/", 2, "fn", "\n");
  ox_log(0, "folder/in_it/name.cc", 3, "fn", "\n");
  ox_log(0, "folder/in_it/", 4, "fn", "\n");
  EXPECT_EQ(ox_debug_exit(), 0);
  REQUIRE_TRUE(read_log(content, sizeof(content)) > 0);
  EXPECT_TRUE(strstr(content, "]plain:1:fn:\n") != nullptr);
  EXPECT_TRUE(strstr(content, "]:2:fn:\n") != nullptr);
  EXPECT_TRUE(strstr(content, "]name.cc:3:fn:\n") != nullptr);
  EXPECT_TRUE(strstr(content, "]:4:fn:\n") != nullptr);
}

CASE(ox_debug, an_overlong_message_is_cut_but_counted_whole) {
  static char text[2001];
  memset(text, 'x', sizeof(text) - 1);
  REQUIRE_EQ(ox_debug_init(kFile), 0);
  const long written = ox_log(0, "f", 1, "fn", "%s", text);
  EXPECT_EQ(ox_debug_exit(), 0);
  const long len = read_log(content, sizeof(content));
  EXPECT_EQ(len, written);
  const char *start = strchr(content, 'x');
  REQUIRE_TRUE(start != nullptr);
  const long head = start - content;
  EXPECT_EQ(written, head + 2000);
  /* 948 bytes were formatted, the last of them a NUL; what is missing is zero. */
  EXPECT_EQ(content[946], 'x');
  for (long i = 947; i < len; ++i) REQUIRE_EQ(content[i], 0);
}

CASE(ox_debug, a_head_longer_than_the_buffer_stays_inside_it) {
  static char name[1500];
  memset(name, 'n', sizeof(name) - 1);
  REQUIRE_EQ(ox_debug_init(kFile), 0);
  const long written = ox_log(0, "f", 1, name, "text\n");
  EXPECT_EQ(ox_debug_exit(), 0);
  EXPECT_GT(written, 1500);
  EXPECT_EQ(read_log(content, sizeof(content)), written);
}

CASE(ox_debug, lines_are_appended_over_openings) {
  for (int i = 0; i < 2; ++i) {
    REQUIRE_EQ(ox_debug_init(kFile), 0);
    EXPECT_EQ(ox_debug_init("/elsewhere"), 0); /* already open: not opened again */
    ox_log(0, "f", i, "fn", "\n");
    EXPECT_EQ(ox_debug_exit(), 0);
  }
  REQUIRE_TRUE(read_log(content, sizeof(content)) > 0);
  EXPECT_TRUE(strstr(content, "]f:0:fn:\n") != nullptr);
  EXPECT_TRUE(strstr(content, "]f:1:fn:\n") != nullptr);
  EXPECT_EQ(PTR_ERR(filp_open("/elsewhere", O_RDONLY, 0)), -ENOENT);
}

CASE(ox_debug, the_file_is_open_for_reading_and_everybody_may_write_it) {
  const int mask = current->fs->umask;
  current->fs->umask = 0;
  EXPECT_EQ(ox_debug_init(kFile), 0);
  current->fs->umask = mask;
  EXPECT_EQ(g_debug_fd->f_mode & (FMODE_READ | FMODE_WRITE), FMODE_READ | FMODE_WRITE);
  EXPECT_EQ(g_debug_fd->f_flags, (unsigned)(O_RDWR | O_APPEND | O_LARGEFILE));
  EXPECT_EQ(g_debug_fd->f_dentry->d_inode->i_mode, S_IFREG | 0666);
  EXPECT_EQ(ox_debug_exit(), 0);
}

CASE(ox_debug, closing_what_is_not_open) {
  EXPECT_EQ(ox_debug_exit(), -EINVAL);
}

CASE(ox_debug, a_failed_opening_is_remembered_until_the_exit) {
  EXPECT_EQ(ox_debug_init("/no/such/dir/log"), -ENOENT);
  EXPECT_TRUE(IS_ERR(g_debug_fd));
  EXPECT_EQ(ox_debug_init(kFile), 0); /* nothing is opened */
  EXPECT_TRUE(IS_ERR(g_debug_fd));
  EXPECT_EQ(ox_debug_exit(), 0);
  EXPECT_TRUE(g_debug_fd == nullptr);
  EXPECT_EQ(ox_debug_exit(), -EINVAL);
}

/* A debug file of the case's own, whose writes fail as it says and then end. */
static int interruptions;
static long last_result;
static unsigned long last_count;
static ssize_t write_interrupted(struct file *file, const char __user *, size_t count,
                                 loff_t *pos) {
  EXPECT_TRUE(segment_eq(get_fs(), KERNEL_DS));
  EXPECT_TRUE(pos == &file->f_pos);
  last_count = count;
  return interruptions-- > 0 ? -EINTR : last_result;
}

CASE(ox_debug, an_interrupted_write_is_repeated_and_another_error_is_the_result) {
  static struct file_operations fops;
  static struct file file;
  fops.write = write_interrupted;
  file.f_op = &fops;
  g_debug_fd = &file;
  interruptions = 3;
  last_result = 5;
  EXPECT_EQ(ox_log(0, "f", 1, "fn", "x"), 5);
  EXPECT_EQ(interruptions, -1);
  interruptions = 0;
  last_result = -ENOSPC;
  EXPECT_EQ(ox_log(0, "f", 1, "fn", "x"), -ENOSPC);
  g_debug_fd = nullptr;
}

/* Without memory for the bytes that are missing, what there is of the line is written. */
CASE(ox_debug, an_overlong_message_without_memory) {
  static struct file_operations fops;
  static struct file file;
  static char text[2001];
  memset(text, 'x', sizeof(text) - 1);
  fops.write = write_interrupted;
  file.f_op = &fops;
  g_debug_fd = &file;
  interruptions = 0;
  last_result = 1;
  uk_fault_arm(1);
  EXPECT_EQ(ox_log(0, "f", 1, "fn", "%s", text), 1);
  uk_fault_arm(0);
  EXPECT_EQ(last_count, 948ul);
  g_debug_fd = nullptr;
}

CASE(ox_debug, the_address_limit_is_restored) {
  const mm_segment_t before = get_fs();
  REQUIRE_EQ(ox_debug_init(kFile), 0);
  ox_log(0, "f", 1, "fn", "\n");
  EXPECT_TRUE(segment_eq(get_fs(), before));
  EXPECT_EQ(ox_debug_exit(), 0);
}
