// SPDX-License-Identifier: GPL-2.0
// A file that one descriptor writes only, opened before others read and map it.
#include "case.h"
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>

enum { kRounds = 10000, kNearEnd = 2000, kAppends = 3000 };

static void write_number(int fd, unsigned number, off_t at) {
  if (pwrite(fd, &number, sizeof(number), at) != (ssize_t)sizeof(number)) say("pwrite failed");
}

// One process writes a number into the first bytes of a page over and over, another counts in bytes
// of the same page: neither may undo what the other has done.
static void write_beside_stores(int only, unsigned char *map) {
  volatile unsigned *counter = (volatile unsigned *)(map + kNearEnd);
  *counter = 0;
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    for (unsigned i = 1; i <= kRounds; i++) {
      *counter = i;
      sched_yield();
      if (*counter != i) _exit(1);
    }
    _exit(0);
  }
  for (unsigned i = 1; i <= kRounds; i++) {
    write_number(only, i, 0);
    unsigned seen;
    memcpy(&seen, map, sizeof(seen));
    if (seen != i) {
      say("the mapping shows another number");
      break;
    }
  }
  say_end("the process that stores", pid);
  say("written last %u, stored last %u", *(unsigned *)map, *counter);
}

static void append_beside_reader(void) {
  const int end = FD(open("log", O_WRONLY | O_CREAT | O_APPEND, 0644));
  OP(write(end, "one", 3));
  const int reader = FD(open("log", O_RDONLY));
  char part[8] = "";
  OP(read(reader, part, sizeof(part)));
  OP(write(end, "two", 3));
  OP(read(reader, part, sizeof(part)));
  say_bytes("read", part, 3);
  OP(ftruncate(end, 1));
  OP(write(end, "three", 5));
  OP(pread(reader, part, sizeof(part), 0));
  say_bytes("read", part, 6);
}

// What is appended is there once, whatever is stored in the page that it goes to.
static void append_beside_stores(void) {
  const int end = FD(open("appended", O_WRONLY | O_CREAT | O_APPEND, 0644));
  OP(write(end, "abcdefgh", 8));
  const int both = FD(open("appended", O_RDWR));
  unsigned char *map = MAP(mmap(NULL, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, both, 0));
  if (map == MAP_FAILED) return;
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    for (;;) {
      (*(volatile unsigned char *)map)++;
      sched_yield();
    }
  }
  for (int i = 0; i < kAppends; i++) {
    if (write(end, "x", 1) != 1) say("write failed");
  }
  kill(pid, SIGKILL);
  say_end("the process that stores", pid);
  OP(munmap(map, kPage));
  struct stat st;
  OP(fstat(both, &st));
  say("size %ld", (long)st.st_size);
  OP(ftruncate(both, 0));  // the counter is nobody's to compare
}

static void run_case(void) {
  append_beside_reader();
  append_beside_stores();
  const int only = FD(open("f", O_WRONLY | O_CREAT, 0644));
  char text[2 * kPage];
  memset(text, 'a', sizeof(text));
  OP(write(only, text, sizeof(text)));
  say_file("f");

  const int reader = FD(open("f", O_RDONLY));
  char part[8];
  OP(pread(reader, part, sizeof(part), 0));
  OP(pwrite(only, "written", 7, 0));
  OP(pread(reader, part, sizeof(part), 0));
  say_bytes("read", part, sizeof(part));

  const int both = FD(open("f", O_RDWR));
  unsigned char *map = MAP(mmap(NULL, 2 * kPage, PROT_READ | PROT_WRITE, MAP_SHARED, both, 0));
  if (map == MAP_FAILED) return;
  memcpy(map + 20, "stored", 6);
  OP(pwrite(only, "beside", 6, 30));
  say_bytes("mapped", map, 40);
  memcpy(map + kPage, "stored", 6);
  OP(pwrite(only, "over it", 7, kPage));
  say_bytes("mapped", map + kPage, 10);
  OP(pwrite(both, "by the other", 12, 50));
  OP(pwrite(only, "B", 1, 50));
  say_bytes("mapped", map + 50, 14);

  write_beside_stores(only, map);
  OP(msync(map, 2 * kPage, MS_SYNC));
  OP(munmap(map, 2 * kPage));
  say_file("f");
}
