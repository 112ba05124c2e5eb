// SPDX-License-Identifier: GPL-2.0
// Text in the bounded buffer of a seq_file.
#include "tests/ukern/testfs.h"

struct text_buffer {
  char room[128];
  struct seq_file m;

  explicit text_buffer(size_t size) {
    memset(room, '#', sizeof(room));
    m = {};
    m.buf = room;
    m.size = size;
  }
  const char *text() {
    room[m.count] = 0;
    return room;
  }
};

CASE(seq_file, calls_append) {
  text_buffer b(100);
  EXPECT_EQ(seq_puts(&b.m, "one"), 0);
  EXPECT_EQ(seq_putc(&b.m, ' '), 0);
  EXPECT_EQ(seq_printf(&b.m, "%d,%s", 2, "x"), 0);
  EXPECT_EQ(seq_escape(&b.m, " a\tb\\", " \t\\"), 0);
  EXPECT_STREQ(b.text(), "one 2,x\\040a\\011b\\134");
}

CASE(seq_file, what_does_not_fit_fills_the_buffer_up) {
  text_buffer puts(4);
  EXPECT_EQ(seq_puts(&puts.m, "1234"), -1);
  EXPECT_EQ(puts.m.count, puts.m.size);
  EXPECT_EQ(seq_putc(&puts.m, 'x'), -1);
  EXPECT_EQ(puts.room[4], '#');

  text_buffer print(4);
  EXPECT_EQ(seq_printf(&print.m, "%d", 123), 0);
  EXPECT_EQ(seq_printf(&print.m, "%d", 4), -1);
  EXPECT_EQ(print.m.count, print.m.size);
  EXPECT_EQ(print.room[4], '#');

  text_buffer escape(6);
  EXPECT_EQ(seq_escape(&escape.m, "abc d", " "), -1);
  EXPECT_EQ(escape.m.count, escape.m.size);
  EXPECT_EQ(escape.room[6], '#');

  text_buffer last(1);
  EXPECT_EQ(seq_putc(&last.m, 'x'), 0);
  EXPECT_EQ(seq_putc(&last.m, 'y'), -1);
}

static char blanks[] = " \t\n\\";

CASE(seq_file, path_is_escaped) {
  testfs fs;
  struct dentry *dir = fs.add(fs.root(), "a b", S_IFDIR | 0755);
  REQUIRE_TRUE(dir);
  text_buffer b(100);
  EXPECT_EQ(seq_path(&b.m, fs.mnt, dir, blanks), 7);
  EXPECT_STREQ(b.text(), "/a\\040b");
  text_buffer small(6);
  EXPECT_EQ(seq_path(&small.m, fs.mnt, dir, blanks), -1);
  EXPECT_EQ(small.m.count, small.m.size);
  dput(dir);
}
