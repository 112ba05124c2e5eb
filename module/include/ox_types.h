/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The portability library: a logger to a debug file, accounted memory, clocks and calendar.
 * Exported to other modules except for ox_mem_init and ox_mem_exit. Any thread may call; the
 * comments tell which calls may sleep.
 */
#ifndef OX_TYPES_H
#define OX_TYPES_H

#include "kernel.h"
#include "TypeDef.h"

/* Levels of ox_log. */
enum ox_log_level { OX_LOG_FATAL, OX_LOG_ERROR, OX_LOG_WARNING, OX_LOG_INFO, OX_LOG_TRACE };

/* ---- lib/ox_debug ---- */

/* The debug file; null while closed, the error pointer after a failed ox_debug_init. */
extern struct file *g_debug_fd;

extern "C" {
/*
 * Opens the debug file for appending. Returns 0, also if an earlier call has set g_debug_fd; else
 * -errno, with the error pointer in g_debug_fd: do not retry, call ox_debug_exit. May sleep.
 */
int ox_debug_init(const char *path);
/* Closes it. Returns 0; -EINVAL if nothing was opened. May sleep. */
int ox_debug_exit(void);
/*
 * Writes one line; the format ends with "\n". Allowed only between a successful ox_debug_init and
 * ox_debug_exit. Returns the result of the file's write; 0 if the level is above OX_LOG_TRACE. May
 * sleep; takes no lock, so concurrent lines may interleave.
 */
ssize_t ox_log(int level, const char *file, int line, const char *func, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
}

/* ---- lib/ox_mem ---- */

/* Blocks and pages not yet freed; failed ox_malloc calls count too. */
extern atomic_t g_total_alloc;
/* Pages of ox_alloc_page not yet freed. */
extern atomic_t g_total_pages;

/* Sets the page limit to three eighths of the memory. Returns 0. */
int ox_mem_init(void);
/* Logs the number of blocks and pages not freed. Returns 0. */
int ox_mem_exit(void);

extern "C" {
/* Allocates by kmalloc; cleared with __GFP_ZERO. Null without memory. May sleep if the flags allow
 * it. */
[[nodiscard]] void *ox_malloc(ox_u64_t size, ox_u32_t flags);
/* Frees a block; null is counted too. Returns 0. */
int ox_free(const void *block);
/*
 * Allocates one page, null without memory. While more pages than the limit are allocated, the
 * caller sleeps with its page until enough are freed; signals do not end the wait.
 */
[[nodiscard]] struct page *ox_alloc_page(gfp_t flags);
void ox_free_page(struct page *page);
}

/* ---- lib/ox_sys ---- */

extern "C" {
/* Converts seconds since 1970 (not negative) to a date in UTC; tm_year counts from 1900, tm_mon
 * from 0. Returns `tm`. */
struct rtc_time *gmtime_r(const ox_s64_t *seconds, struct rtc_time *tm);
/* Microseconds since 1970 of a date eight hours east of UTC; tm_year is the full year, tm_mon
 * is 1..12. */
ox_s64_t ox_mktime(const struct rtc_time *tm);
/* Microseconds since 1970. */
ox_time_t ox_current_time_us(void);
/* Seconds times a million plus nanoseconds: not a count of nanoseconds. */
ox_time_t ox_current_time_ns(void);
/* Waits for a completion; 0xFFFFFFFF: without limit. Returns 0 or -ETIMEDOUT. Sleeps; signals do
 * not end the wait. */
int ox_complete_timedwait(struct completion *done, ox_u32_t milliseconds);
}

#endif
