// SPDX-License-Identifier: GPL-2.0
#include <linux/kernel.h>
#include <linux/string.h>

#include "tests/harness/case.h"

namespace {

char text[256];

// The compiler checks formats as C does; the kernel's own rules are tested with formats that it
// does not see.
const char *format(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vsnprintf(text, sizeof(text), fmt, args);
  va_end(args);
  return text;
}

}  // namespace

CASE(printk, integers) {
  EXPECT_STREQ(format("%d %i %u", -5, 7, 4000000000u), "-5 7 4000000000");
  EXPECT_STREQ(format("%ld %llu", -5000000000L, 18446744073709551615ULL),
               "-5000000000 18446744073709551615");
  EXPECT_STREQ(format("%x %X %o", 0xbeefu, 0xbeefu, 8u), "beef BEEF 10");
  EXPECT_STREQ(format("%#x %#X %#o", 0xbeefu, 0xbeefu, 8u), "0xbeef 0XBEEF 010");
  EXPECT_STREQ(format("%hd %hu", 0x18000, 0x18000), "-32768 32768");
  EXPECT_STREQ(format("%zu %zd", (size_t)-1, (ssize_t)12), "18446744073709551615 12");
  EXPECT_STREQ(format("%d", INT_MIN), "-2147483648");
  EXPECT_STREQ(format("%lld", (long long)(1ULL << 63)), "-9223372036854775808");
}

CASE(printk, width_precision_and_flags) {
  EXPECT_STREQ(format("[%5d][%-5d][%05d]", 42, 42, 42), "[   42][42   ][00042]");
  EXPECT_STREQ(format("[%+d][% d][%+d]", 42, 42, -42), "[+42][ 42][-42]");
  EXPECT_STREQ(format("[%.4d][%8.4d]", 42, 42), "[0042][    0042]");
  EXPECT_STREQ(format("[%*d][%-*d][%*d]", 4, 1, 4, 1, -4, 1), "[   1][1   ][1   ]");
  EXPECT_STREQ(format("[%05d]", -42), "[-0042]");
  EXPECT_STREQ(format("[%#06x]", 0xau), "[0x000a]");
  EXPECT_STREQ(format("[%c][%3c][%-3c]", 'a', 'b', 'c'), "[a][  b][c  ]");
}

CASE(printk, strings) {
  EXPECT_STREQ(format("[%s][%5s][%-5s][%.2s]", "ab", "cd", "ef", "ghi"), "[ab][   cd][ef   ][gh]");
  EXPECT_STREQ(format("[%.*s]", 3, "abcdef"), "[abc]");
  EXPECT_STREQ(format("%s", (char *)NULL), "<NULL>");
  EXPECT_STREQ(format("%s", (char *)100), "<NULL>");
}

CASE(printk, pointers_are_sixteen_digits) {
  EXPECT_STREQ(format("%p", (void *)0x1234abcd), "000000001234abcd");
  EXPECT_STREQ(format("%p", (void *)NULL), "0000000000000000");
}

CASE(printk, unknown_conversions_stand_as_they_are) {
  EXPECT_STREQ(format("100%% %y", 1), "100% %y");
  EXPECT_STREQ(format("end %"), "end %");
}

CASE(printk, count_conversion_stores_the_length) {
  int count = -1;
  format("abc%ndef", &count);
  EXPECT_EQ(count, 3);
}

CASE(printk, snprintf_gives_the_whole_length_and_scnprintf_what_is_there) {
  char small[8];
  EXPECT_EQ(snprintf(small, sizeof(small), "%s", "abcdefghij"), 10);
  EXPECT_STREQ(small, "abcdefg");
  EXPECT_EQ(scnprintf(small, sizeof(small), "%s", "abcdefghij"), 7);
  EXPECT_EQ(scnprintf(small, sizeof(small), "%s", "abc"), 3);
  small[0] = 'x';
  EXPECT_EQ(snprintf(small, 0, "%s", "abc"), 3);
  EXPECT_EQ(small[0], 'x');
  EXPECT_EQ(sprintf(small, "%d", 1234), 4);
}

CASE(printk, result_counts_a_level_that_was_not_given) {
  EXPECT_EQ(printk("<6>with a level\n"), 16);
  EXPECT_EQ(printk("without\n"), 11);
}

CASE(printk, simple_strto_reads_numbers) {
  char *end;
  EXPECT_EQ(simple_strtoul("123abc", &end, 10), 123ul);
  EXPECT_STREQ(end, "abc");
  EXPECT_EQ(simple_strtoul("0x1F", &end, 0), 31ul);
  EXPECT_EQ(simple_strtoul("0x1F", NULL, 16), 31ul);
  EXPECT_EQ(simple_strtoul("017", NULL, 0), 15ul);
  EXPECT_EQ(simple_strtol("-45", NULL, 10), -45l);
  EXPECT_EQ(simple_strtoull("18446744073709551615", NULL, 10), 18446744073709551615ull);
  EXPECT_EQ(simple_strtoul("x", &end, 10), 0ul);
  EXPECT_STREQ(end, "x");
}

CASE(printk, string_functions_of_the_kernel) {
  char buf[8];
  EXPECT_EQ(strlcpy(buf, "abcdefghij", sizeof(buf)), 10ul);
  EXPECT_STREQ(buf, "abcdefg");
  strlcpy(buf, "ab", sizeof(buf));
  EXPECT_EQ(strlcat(buf, "cdefghij", sizeof(buf)), 10ul);
  EXPECT_STREQ(buf, "abcdefg");
  EXPECT_EQ(strnicmp("ABC", "abd", 2), 0);
  EXPECT_LT(strnicmp("ABC", "abd", 3), 0);
  char list[] = "a,b;c", *rest = list;
  EXPECT_STREQ(strsep(&rest, ",;"), "a");
  EXPECT_STREQ(strsep(&rest, ",;"), "b");
  EXPECT_STREQ(strsep(&rest, ",;"), "c");
  EXPECT_EQ(strsep(&rest, ",;"), (char *)NULL);
  char block[] = "xyz";
  EXPECT_EQ(memscan(block, 'y', 3), (void *)(block + 1));
  EXPECT_EQ(memscan(block, 'q', 3), (void *)(block + 3));
}
