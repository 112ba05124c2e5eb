// SPDX-License-Identifier: GPL-2.0
// The string functions that only a kernel has.
#include <linux/ctype.h>
#include <linux/kernel.h>
#include <linux/slab.h>
#include <linux/string.h>

extern "C" {

size_t strlcpy(char *dest, const char *src, size_t size) {
  const size_t length = strlen(src);
  if (size) {
    const size_t kept = length < size ? length : size - 1;
    memcpy(dest, src, kept);
    dest[kept] = 0;
  }
  return length;
}

size_t strlcat(char *dest, const char *src, size_t size) {
  const size_t had = strlen(dest);
  BUG_ON(had >= size);
  return had + strlcpy(dest + had, src, size - had);
}

int strnicmp(const char *a, const char *b, size_t count) {
  for (; count; count--, a++, b++) {
    const int ca = tolower(static_cast<unsigned char>(*a)),
              cb = tolower(static_cast<unsigned char>(*b));
    if (ca != cb || !ca) return ca - cb;
  }
  return 0;
}

char *strsep(char **s, const char *delimiters) {
  char *start = *s;
  if (!start) return nullptr;
  char *end = start + strcspn(start, delimiters);
  *s = *end ? end + 1 : nullptr;
  *end = 0;
  return start;
}

void *memscan(void *s, int c, size_t count) {
  void *found = memchr(s, c, count);
  return found ? found : static_cast<char *>(s) + count;
}

char *kstrdup(const char *s, gfp_t gfp) {
  if (!s) return nullptr;
  const size_t size = strlen(s) + 1;
  char *copy = static_cast<char *>(kmalloc(size, gfp));
  if (copy) memcpy(copy, s, size);
  return copy;
}
}
