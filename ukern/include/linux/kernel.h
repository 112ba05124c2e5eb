/* SPDX-License-Identifier: GPL-2.0 */
/* Used by every kernel file: the log, formatted text, small arithmetic, container_of. */
#ifndef _LINUX_KERNEL_H
#define _LINUX_KERNEL_H

#include <stdarg.h>
#include <linux/linkage.h>
#include <linux/stddef.h>
#include <linux/types.h>
#include <linux/compiler.h>
#include <asm/bitops.h>
#include <asm/bug.h>

#define INT_MAX ((int)(~0U >> 1))
#define INT_MIN (-INT_MAX - 1)
#define UINT_MAX (~0U)
#define LONG_MAX ((long)(~0UL >> 1))
#define LONG_MIN (-LONG_MAX - 1)
#define ULONG_MAX (~0UL)
#define LLONG_MAX ((long long)(~0ULL >> 1))

#define ARRAY_SIZE(x) (sizeof(x) / sizeof((x)[0]))
#define ALIGN(x, a) (((x) + (a)-1UL) & ~((a)-1UL))
#define FIELD_SIZEOF(t, f) (sizeof(((t *)0)->f))
#define roundup(x, y) ((((x) + ((y)-1)) / (y)) * (y))

#define KERN_EMERG "<0>"
#define KERN_ALERT "<1>"
#define KERN_CRIT "<2>"
#define KERN_ERR "<3>"
#define KERN_WARNING "<4>"
#define KERN_NOTICE "<5>"
#define KERN_INFO "<6>"
#define KERN_DEBUG "<7>"

extern "C" {

/* May be called anywhere, never sleeps. Returns the number of characters of the text. */
asmlinkage int printk(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int printk_ratelimit(void);
asmlinkage int vprintk(const char *fmt, va_list args) __attribute__((format(printf, 1, 0)));

int sprintf(char *buf, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
/* Returns the length of the whole text, also when it was cut. */
int snprintf(char *buf, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
int vsnprintf(char *buf, size_t size, const char *fmt, va_list args)
    __attribute__((format(printf, 3, 0)));
/* Returns the length of the text in the buffer. */
int scnprintf(char *buf, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
int vscnprintf(char *buf, size_t size, const char *fmt, va_list args)
    __attribute__((format(printf, 3, 0)));

unsigned long simple_strtoul(const char *cp, char **endp, unsigned int base);
long simple_strtol(const char *cp, char **endp, unsigned int base);
unsigned long long simple_strtoull(const char *cp, char **endp, unsigned int base);
long long simple_strtoll(const char *cp, char **endp, unsigned int base);

void panic(const char *fmt, ...) __attribute__((noreturn, format(printf, 1, 2)));
/* Completes `comp`, unless it is null, and ends the calling kernel thread. */
struct completion;
void complete_and_exit(struct completion *comp, long code) __attribute__((noreturn));

#if UKERN_DEBUG
void ukern_might_sleep(void);
#define might_sleep() ukern_might_sleep()
#else
#define might_sleep() \
  do {                \
  } while (0)
#endif
}

#define might_sleep_if(condition) \
  do {                            \
    if (condition) might_sleep(); \
  } while (0)

#define abs(x)                       \
  ({                                 \
    int abs_x_ = (x);                \
    (abs_x_ < 0) ? -abs_x_ : abs_x_; \
  })

/* Both sides of one type, each evaluated once. */
#define min(x, y)                      \
  ({                                   \
    typeof(x) min_x_ = (x);            \
    typeof(y) min_y_ = (y);            \
    (void)(&min_x_ == &min_y_);        \
    min_x_ < min_y_ ? min_x_ : min_y_; \
  })
#define max(x, y)                      \
  ({                                   \
    typeof(x) max_x_ = (x);            \
    typeof(y) max_y_ = (y);            \
    (void)(&max_x_ == &max_y_);        \
    max_x_ > max_y_ ? max_x_ : max_y_; \
  })
#define min_t(type, x, y)              \
  ({                                   \
    type min_x_ = (x);                 \
    type min_y_ = (y);                 \
    min_x_ < min_y_ ? min_x_ : min_y_; \
  })
#define max_t(type, x, y)              \
  ({                                   \
    type max_x_ = (x);                 \
    type max_y_ = (y);                 \
    max_x_ > max_y_ ? max_x_ : max_y_; \
  })

#define container_of(ptr, type, member)                               \
  ({                                                                  \
    const typeof(((type *)0)->member) *member_ptr_ = (ptr);           \
    (type *)((char *)member_ptr_ - __builtin_offsetof(type, member)); \
  })

#endif
