/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Strings and blocks of memory. The standard functions are the compiler's built-ins or libc's;
 * those that only a kernel has are in ukern/sched/string.cc.
 */
#ifndef _LINUX_STRING_H
#define _LINUX_STRING_H

#include <linux/compiler.h>
#include <linux/types.h>
#include <linux/stddef.h>

extern "C" {

char *strcpy(char *dest, const char *src);
char *strncpy(char *dest, const char *src, size_t count);
char *strcat(char *dest, const char *src);
int strcmp(const char *a, const char *b);
int strncmp(const char *a, const char *b, size_t count);
size_t strlen(const char *s);
size_t strnlen(const char *s, size_t count);
size_t strspn(const char *s, const char *accept);
size_t strcspn(const char *s, const char *reject);

void *memset(void *s, int c, size_t count);
void *memcpy(void *dest, const void *src, size_t count);
void *memmove(void *dest, const void *src, size_t count);
int memcmp(const void *a, const void *b, size_t count);

/* In the kernel these return a pointer to char whatever their argument. */
#undef strchr
#define strchr(s, c) __builtin_strchr((char *)(s), c)
#undef strrchr
#define strrchr(s, c) __builtin_strrchr((char *)(s), c)
#undef strstr
#define strstr(s, t) __builtin_strstr((char *)(s), t)
#undef memchr
#define memchr(s, c, n) __builtin_memchr((void *)(s), c, n)

/* Returns the length of `src`; `dest` receives at most size - 1 characters of it and a NUL. */
size_t strlcpy(char *dest, const char *src, size_t size);
/* Returns the length that the whole result needs; BUG when `dest` fills `size` already. */
size_t strlcat(char *dest, const char *src, size_t size);
int strnicmp(const char *a, const char *b, size_t count);
char *strsep(char **s, const char *delimiters);
/* First byte equal to `c`, or the address behind the block. */
void *memscan(void *s, int c, size_t count);
/* A copy from kmalloc, or null. */
char *kstrdup(const char *s, gfp_t gfp);
}

#endif
