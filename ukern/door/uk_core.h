/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The hosting program's interface to the kernel: boot and shutdown, tasks, the kernel log. Uses
 * built-in types only, so that hosted and kernel-side code can include it.
 *
 * One process has at most one kernel. All calls return 0 or a negative Linux error number unless
 * their comment says otherwise. Any thread may call; a call that acts for a task needs
 * uk_task_enter first.
 */
#ifndef UKERN_DOOR_UK_CORE_H
#define UKERN_DOOR_UK_CORE_H

#ifdef __cplusplus
extern "C" {
#endif

struct uk_boot_options {
  const char *root_type;   /* file system type of "/": "hostfs", and in images for tests "memfs" */
  const char *root_source; /* its source; for hostfs the host directory that becomes "/" */
  unsigned long ram_pages; /* totalram_pages, above which the page cache is reclaimed; 0: 65536 */
  unsigned long cache_pages; /* limit of the page cache; 0: ram_pages */
  int max_files; /* limit of open files, not for the superuser; 0: derived from ram_pages */
};

/* Boots the kernel: creates caches and kernel threads, mounts the root. The caller has no task
 * yet. */
int uk_boot(const struct uk_boot_options *options);

/*
 * Shuts the kernel down: unmounts everything, ends its threads, then checks for leaks. Each object,
 * reference and lock that is left is reported through the panic handler. If that returns, the
 * result is the number of reports.
 */
int uk_shutdown(void);

/* The modules linked into this image, by name ("tarn"). -ENOENT for an unknown name, else the
 * result of its init. */
int uk_module_load(const char *name);
int uk_module_unload(const char *name);

/* Called with the full report of a BUG, a leak or a broken rule. The default prints it and
 * aborts. */
typedef void (*uk_panic_handler)(const char *report);
void uk_set_panic_handler(uk_panic_handler handler);

/* The identity of a task. `groups` and `exe` are copied. */
struct uk_cred {
  int pid;
  unsigned uid, gid; /* also used as fsuid, fsgid */
  unsigned ngroups;
  const unsigned *groups;
  unsigned cap_effective; /* bit mask of CAP_*; ~0u for root */
  const char *exe;        /* path of the running program in the kernel's name space, or 0: none */
  /* Instead of `exe`: called whenever the program's path is needed, on a thread that may sleep.
   * Writes the path of process `pid` to buf, without a NUL. Returns its length, 0 for none. */
  long (*find_exe)(int pid, char *buf, unsigned long size);
};

struct uk_task;
/* A new task with a reference for the caller; 0: no memory. */
struct uk_task *uk_task_new(const struct uk_cred *cred);
/* Changes a task's identity. Only while no thread runs as the task, or by the thread that does. */
int uk_task_set_cred(struct uk_task *task, const struct uk_cred *cred);
/* Removes the task from the lookup by process id: a worker thread runs it for one process after
 * another. Called once, by the task's creator. */
void uk_task_hide(struct uk_task *task);
void uk_task_put(struct uk_task *task);
/* Makes the task `current` in the calling thread, which has none; leave undoes it. The caller keeps
 * its reference until then. */
void uk_task_enter(struct uk_task *task);
void uk_task_leave(void);
/* Signals sent to the task are passed to `deliver(arg, signal)`, which returns 0 or -errno; without
 * it they are only recorded. */
void uk_task_set_signal_handler(struct uk_task *task, int (*deliver)(void *arg, int signal),
                                void *arg);
/* `before(arg)` is called before each sleep of the task that a signal may end, in its own thread;
 * it may call uk_task_interrupt. Only while no thread runs as the task, or by the thread that does.
 */
void uk_task_set_wait_handler(struct uk_task *task, void (*before)(void *arg), void *arg);
/* Makes signals (bit n - 1 is signal n) pending in a task that has no handler. They end
 * interruptible waits, also those that begin before uk_task_clear_interrupt. */
void uk_task_interrupt(struct uk_task *task, unsigned long long signals);
/* Clears the pending signals. */
void uk_task_clear_interrupt(struct uk_task *task);
/* Bit mask of the signals recorded so far, bit number = signal number - 1. */
unsigned long long uk_task_signals(struct uk_task *task);

/* Declares [start, start + len) user memory of the current task, until removed or the task ends. */
int uk_user_add(const void *start, unsigned long len);
void uk_user_del(const void *start);
/* Bytes that the calling thread has copied in from user memory; 0 in builds without debug
 * checks. */
unsigned long uk_user_copied(void);

struct uk_klog_line {
  unsigned long long number; /* 0, 1, 2, ... since boot */
  unsigned long long us;     /* wall clock, microseconds since the epoch */
  unsigned level;            /* 0..7 */
  unsigned len;              /* bytes of text */
};
/*
 * Reads the first kernel log line whose number is at least `from`: its header and as much of its
 * text as fits, NUL-terminated. Waits at most `wait_ms`. 1 if there is one, else 0.
 */
int uk_klog_read(unsigned long long from, unsigned wait_ms, struct uk_klog_line *line, char *text,
                 unsigned long size);

#ifdef __cplusplus
}
#endif
#endif
