/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the programs of the guest are written with. A program is a list of cases; guest_main runs
 * each in a process of its own and prints one line for it: "ok PROGRAM.CASE", "FAILED PROGRAM.CASE"
 * or "skipped PROGRAM.CASE: why", and before a FAILED one a line "  why" for each check that did
 * not hold.
 *
 * What a case asks for is there when it starts and taken away behind it; that this cannot be done
 * fails the case.
 */
#ifndef TESTS_GUEST_GUEST_H
#define TESTS_GUEST_GUEST_H

#include <stddef.h>

enum guest_setting {
  GUEST_BARE,    /* tarn.ko is not loaded */
  GUEST_LOADED,  /* tarn.ko is loaded */
  GUEST_MOUNTED, /* and an empty ext2 is at /lower, with a tarn mount over it at /mnt */
};

struct guest_case {
  const char *name; /* null ends the list */
  enum guest_setting setting;
  void (*run)(void);
};

/* 0 when no case failed. */
int guest_main(const char *program, const struct guest_case *cases);

/* ---- inside a case ---- */

#define EXPECT(it) guest_expect((it) ? 1 : 0, __FILE__, __LINE__, #it)
#define EXPECT_EQ(a, b) \
  guest_expect_equal((long long)(a), (long long)(b), __FILE__, __LINE__, #a " == " #b)
/* Ends the case when it does not hold. */
#define REQUIRE(it)                                                        \
  do {                                                                     \
    if (!guest_expect((it) ? 1 : 0, __FILE__, __LINE__, #it)) guest_end(); \
  } while (0)

int guest_expect(int holds, const char *file, int line, const char *text);
int guest_expect_equal(long long a, long long b, const char *file, int line, const char *text);
/* Ends the case with what has been found so far. */
void guest_end(void) __attribute__((noreturn));

/* ---- helpers: 0 or a descriptor, or -1 with errno ---- */

int load_module(const char *path, const char *parameters);
int unload_module(const char *name);
/* Writes a text as the whole content of a file that exists. */
int write_text(const char *path, const char *text);
/* The beginning of a file, terminated; its length, or -1. */
long read_text(const char *path, char *buf, size_t size);
/* Makes or replaces a file. */
int put_file(const char *path, const void *data, size_t size);
/* Whether a file holds exactly these bytes. */
int file_holds(const char *path, const void *data, size_t size);
/* Byte `at` of test data number `seed`. */
unsigned char pattern(unsigned seed, unsigned long at);
void fill_pattern(void *data, size_t size, unsigned seed);
/* Becomes an ordinary user for good. */
void become_user(void);
/* Runs a function in a process of its own: its exit status, or -1 when a signal ended it. */
int in_process(int (*work)(void));

#endif
