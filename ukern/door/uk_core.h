/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The kernel in a process, as the program that hosts it sees it: start and stop, tasks, the kernel
 * log. Usable from hosted and from kernel-side code: only built-in types appear.
 *
 * One process holds at most one kernel. All calls return 0 or a negative error number of Linux
 * unless their comment says otherwise. Any thread may call; a call that acts for a task needs
 * uk_task_enter first.
 */
#ifndef UKERN_DOOR_UK_CORE_H
#define UKERN_DOOR_UK_CORE_H

#ifdef __cplusplus
extern "C" {
#endif

struct uk_boot_options {
  const char *root_type;   /* file system type of "/": "hostfs", and in images for tests "memfs" */
  const char *root_source; /* its source argument; for hostfs the host directory that becomes "/" */
  unsigned long
      ram_pages; /* what totalram_pages says and what all pages are kept below; 0: 65536 */
  unsigned long cache_pages; /* what the page cache is kept below; 0: ram_pages */
  int max_files; /* that may be open, for all but the superuser; 0: what ram_pages have room for */
};

/* Starts the kernel: caches, root file system mounted, kernel threads. The caller has no task yet.
 */
int uk_boot(const struct uk_boot_options *options);

/*
 * Stops the kernel: unmounts what is mounted, ends its threads, then looks for what is left. An
 * object still allocated, a reference still held or a lock still held is reported through the panic
 * handler; where that returns, the number of complaints is the result.
 */
int uk_shutdown(void);

/* The modules linked into this image, by name ("tarn"). -ENOENT for an unknown name, else init's
 * result. */
int uk_module_load(const char *name);
int uk_module_unload(const char *name);

/* Called with the whole report of a BUG, a leak or a broken rule. The default prints it and aborts.
 */
typedef void (*uk_panic_handler)(const char *report);
void uk_set_panic_handler(uk_panic_handler handler);

/* Who a task is. `groups` and `exe` are copied. */
struct uk_cred {
  int pid;
  unsigned uid, gid; /* also used as fsuid, fsgid */
  unsigned ngroups;
  const unsigned *groups;
  unsigned cap_effective; /* bit mask of CAP_*; ~0u for root */
  const char *exe; /* path of the running program inside the kernel's name space, or 0: none */
  /* Instead of `exe`: asked for the program whenever it matters, on a thread that may sleep. Writes
   * the path of process `pid`, not terminated, to buf; its length, 0 for none. */
  long (*find_exe)(int pid, char *buf, unsigned long size);
};

struct uk_task;
/* A new task with a reference for the caller; 0 without memory. */
struct uk_task *uk_task_new(const struct uk_cred *cred);
/* Changes who an existing task is. Only while no thread runs as it, or by the thread that does. */
int uk_task_set_cred(struct uk_task *task, const struct uk_cred *cred);
/* From now on no process id leads to the task: a thread lends it to one process after another,
 * which are not to be found in it. Once, by whoever made it. */
void uk_task_hide(struct uk_task *task);
void uk_task_put(struct uk_task *task);
/* Makes the task `current` in the calling thread, which has none; leave undoes it. The caller keeps
 * its reference until then. */
void uk_task_enter(struct uk_task *task);
void uk_task_leave(void);
/* Signals sent to the task go to `deliver(arg, signal)`, 0 or -errno; without it they are only
 * recorded. */
void uk_task_set_signal_handler(struct uk_task *task, int (*deliver)(void *arg, int signal),
                                void *arg);
/* `before(arg)` is called before each sleep of the task that a signal may end, in its own thread;
 * it may call uk_task_interrupt. Only while no thread runs as the task, or by the thread that does.
 */
void uk_task_set_wait_handler(struct uk_task *task, void (*before)(void *arg), void *arg);
/* Signals have come (bit n - 1 is signal n) for a task that has no handler: waits that they end are
 * ended, also those that begin before uk_task_clear_interrupt. */
void uk_task_interrupt(struct uk_task *task, unsigned long long signals);
/* Forgets the signals that wait. */
void uk_task_clear_interrupt(struct uk_task *task);
/* Bit mask of the signals recorded so far, bit number = signal number - 1. */
unsigned long long uk_task_signals(struct uk_task *task);

/* Declares [start, start + len) user memory of the current task, until removed or the task ends. */
int uk_user_add(const void *start, unsigned long len);
void uk_user_del(const void *start);
/* Bytes that the calling thread has copied in from user memory; counted in debug builds only, else
 * 0. */
unsigned long uk_user_copied(void);

struct uk_klog_line {
  unsigned long long number; /* 0, 1, 2, ... since boot */
  unsigned long long us;     /* wall clock, microseconds since the epoch */
  unsigned level;            /* 0..7 */
  unsigned len;              /* bytes of text */
};
/*
 * The first kernel log line whose number is at least `from`: its head and as much of its text as
 * fits, NUL added. Waits at most `wait_ms` for it. 1 when there was one, 0 when not.
 */
int uk_klog_read(unsigned long long from, unsigned wait_ms, struct uk_klog_line *line, char *text,
                 unsigned long size);

#ifdef __cplusplus
}
#endif
#endif
