/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The kernel's interface to the host: threads, waiting, memory, clocks, error output. Built-in
 * types only. Calls return 0 or a negative error number unless they say otherwise. Only those that
 * say so may block.
 */
#ifndef UKERN_HOST_HOST_H
#define UKERN_HOST_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/* Starts a detached thread that runs fn(arg). `name` is its name on the host, cut to 15
 * characters. */
int host_thread_start(void (*fn)(void *arg), void *arg, const char *name);
/* The calling thread's stack: its lowest address and the first one behind it. */
void host_stack_bounds(unsigned long *low, unsigned long *high);
void host_yield(void);

/*
 * Blocks while *word == expected, until a host_wake on it or for `timeout_ns` (negative: without
 * limit). 0 when woken, also spuriously, or when the word differs; -ETIMEDOUT (-110).
 */
int host_wait(const volatile unsigned int *word, unsigned int expected, long long timeout_ns);
/* Wakes up to `count` threads that wait on the word. The word may have been freed. */
void host_wake(const volatile unsigned int *word, int count);

/* Memory at a multiple of `align` (a power of two, at least 16), or 0. Freed by host_free. */
void *host_alloc(unsigned long size, unsigned long align);
void host_free(void *memory);

long long host_wall_ns(void);  /* since 1970 */
long long host_clock_ns(void); /* monotonic */

/*
 * Describes each address of this program as "function file:line", or as much of that as is known.
 * May block and start a program: only for reports.
 */
void host_symbolize(const unsigned long *pcs, unsigned count,
                    void (*line)(void *arg, const char *text), void *arg);
void host_write_stderr(const char *text, unsigned long len);
void host_abort(void) __attribute__((noreturn));

#ifdef __cplusplus
}
#endif
#endif
