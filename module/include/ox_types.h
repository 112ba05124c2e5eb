/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The portability library: a logger that writes to a debug file, accounted memory, clocks and
 * calendar. Other modules may import all but ox_mem_init and ox_mem_exit. Any thread may call; each
 * comment says what sleeps.
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
 * Opens the debug file, appending. 0, also when a call before has set g_debug_fd; else -errno, and
 * the error pointer stays in g_debug_fd: do not retry, call ox_debug_exit. Sleeps.
 */
int ox_debug_init(const char *path);
/* Closes it. 0; -EINVAL when nothing was opened. Sleeps. */
int ox_debug_exit(void);
/*
 * Writes one line; the format ends it with "\n". Only between a successful ox_debug_init and
 * ox_debug_exit. The result of the file's write; 0 when the level is above OX_LOG_TRACE. Sleeps;
 * takes no lock, so that concurrent lines may interleave.
 */
ssize_t ox_log(int level, const char *file, int line, const char *func, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
}

/* ---- lib/ox_mem ---- */

/* Blocks and pages handed out and not yet returned, failed ox_malloc calls included. */
extern atomic_t g_total_alloc;
/* Pages of ox_alloc_page not yet returned. */
extern atomic_t g_total_pages;

/* Sets the page limit to three eighths of the memory. 0. */
int ox_mem_init(void);
/* Logs how many blocks and pages were not returned. 0. */
int ox_mem_exit(void);

extern "C" {
/* A block of kmalloc, cleared with __GFP_ZERO. Null without memory. May sleep as the flags say. */
[[nodiscard]] void *ox_malloc(ox_u64_t size, ox_u32_t flags);
/* Gives a block back; null is counted as well. 0. */
int ox_free(const void *block);
/*
 * One page, null without memory. While more pages are out than the limit allows, the caller sleeps
 * with its page until enough were returned; signals do not end the wait.
 */
[[nodiscard]] struct page *ox_alloc_page(gfp_t flags);
void ox_free_page(struct page *page);
}

/* ---- lib/ox_sys ---- */

extern "C" {
/* Seconds since 1970, not before it, as a date in UTC; tm_year counts from 1900, tm_mon from 0.
 * `tm`. */
struct rtc_time *gmtime_r(const ox_s64_t *seconds, struct rtc_time *tm);
/* Microseconds since 1970 of a date eight hours east of UTC; tm_year is the full year, tm_mon
 * is 1..12. */
ox_s64_t ox_mktime(const struct rtc_time *tm);
/* Microseconds since 1970. */
ox_time_t ox_current_time_us(void);
/* Seconds times a million plus nanoseconds: not a count of nanoseconds. */
ox_time_t ox_current_time_ns(void);
/* Waits for a completion, 0xFFFFFFFF for ever. 0 or -ETIMEDOUT. Sleeps; signals do not end the
 * wait. */
int ox_complete_timedwait(struct completion *done, ox_u32_t milliseconds);
}

#endif
