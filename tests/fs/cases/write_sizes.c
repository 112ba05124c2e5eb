// SPDX-License-Identifier: GPL-2.0
// Writes of every size around a page, at every place around a page, each read back.
#include "case.h"

static const int kSizes[] = {1, 2, 511, 512, 4095, 4096, 4097, 8191, 8192, 12289, 65536, 131072};

static void run_case(void) {
  static unsigned char data[131072], back[131072];
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  unsigned seed = 1;
  for (size_t place = 0; place < 9; place++) {
    const off_t at = (off_t)place * 1367 * (off_t)(place + 1);
    for (size_t i = 0; i < sizeof(kSizes) / sizeof(kSizes[0]); i++) {
      const size_t size = (size_t)kSizes[i];
      for (size_t b = 0; b < size; b++)
        data[b] = (unsigned char)((seed = seed * 1103515245 + 12345) >> 16);
      const ssize_t written = pwrite(fd, data, size, at);
      memset(back, 0, size);
      const ssize_t got = pread(fd, back, size, at);
      struct stat st;
      SETUP(fstat(fd, &st));
      say("%zu bytes at %lld -> wrote %zd, read %zd, %s, size %lld", size, (long long)at, written,
          got, memcmp(data, back, size) ? "other bytes" : "the same", (long long)st.st_size);
    }
  }
}
