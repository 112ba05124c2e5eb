/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Tasks. Each runs in a thread of the host: a kernel thread in one of its own, a program's task in
 * the thread that entered it. A task is reference counted; its own thread needs no reference while
 * it runs. A field without a remark belongs to the task's own thread.
 */
#ifndef _LINUX_SCHED_H
#define _LINUX_SCHED_H

#include <linux/capability.h>
#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/errno.h>
#include <linux/list.h>
#include <linux/jiffies.h>
#include <linux/time.h>
#include <linux/limits.h>
#include <linux/resource.h>
#include <linux/rwsem.h>
#include <linux/signal.h>
#include <linux/completion.h>
#include <linux/fs_struct.h>
#include <linux/preempt.h>
#include <asm/current.h>
#include <asm/request.h>
#include <asm/semaphore.h>

struct backing_dev_info;
struct mm_struct;
struct namespace_;
struct sk_buff;

#define TASK_RUNNING 0
#define TASK_INTERRUPTIBLE 1
#define TASK_UNINTERRUPTIBLE 2
#define TASK_STOPPED 4
#define TASK_TRACED 8

#define TASK_COMM_LEN 16

#define PF_EXITING 0x00000004
#define PF_SUPERPRIV 0x00000100
#define PF_MEMALLOC 0x00000800
#define PF_FLUSHER 0x00001000
#define PF_NOFREEZE 0x00008000
#define PF_KSWAPD 0x00040000
#define PF_LESS_THROTTLE 0x00100000

#define MAX_SCHEDULE_TIMEOUT LONG_MAX

typedef struct {
  unsigned long seg;
} mm_segment_t;

/* Sorted by number. Never changed while there is more than one reference. */
struct group_info {
  int ngroups;
  atomic_t usage;
  gid_t gids[];
};

struct sighand_struct {
  spinlock_t siglock; /* protects the task's `pending` and `blocked` */
};

struct signal_struct {
  struct rlimit rlim[RLIM_NLIMITS];
};

/* A range of user memory. */
struct ukern_user_range {
  unsigned long start, len;
};
#define UKERN_USER_RANGES 8

struct task_struct {
  volatile long state; /* TASK_*; a waker changes it too */
  unsigned long flags; /* PF_* */
  atomic_t usage;
  long exit_code;

  struct mm_struct *mm; /* under alloc_lock; null until the first get_task_mm */

  pid_t pid;
  pid_t tgid;
  char comm[TASK_COMM_LEN];

  uid_t uid, euid, suid, fsuid;
  gid_t gid, egid, sgid, fsgid;
  struct group_info *group_info;
  kernel_cap_t cap_effective, cap_inheritable, cap_permitted;

  struct host_request request; /* the hosting program's current request */
  bool file_too_large;         /* the host refused the current write with -EFBIG */
  const struct dentry *walked; /* the dentry whose d_revalidate the path walk calls, else null */
  int link_count, total_link_count; /* symbolic links in the current path walk */

  struct fs_struct *fs;
  struct namespace_ *namespace_;
  struct signal_struct *signal;
  struct sighand_struct *sighand;
  sigset_t blocked;
  struct sigpending pending;
  spinlock_t alloc_lock; /* protects mm, comm and exe against other tasks */

  void *journal_info;
  struct backing_dev_info *backing_dev_info;

  mm_segment_t addr_limit;

  /* From here on: fields of this kernel only. */
  volatile int sigpending;    /* whether an unblocked signal is pending; under siglock */
  struct hlist_node pid_link; /* under tasklist_lock */
  struct list_head task_link; /* under tasklist_lock */
  struct signal_struct own_signal;
  struct sighand_struct own_sighand;
  unsigned long long signals_seen;       /* under siglock */
  int (*deliver)(void *arg, int signal); /* under siglock */
  void *deliver_arg;                     /* under siglock */
  /* Called before each sleep that a signal may end, by the thread that runs as the task. */
  void (*before_wait)(void *arg);
  void *before_wait_arg;
  char *exe;                                                /* path of the program, or null */
  long (*find_exe)(int pid, char *buf, unsigned long size); /* or null; see uk_cred */
  struct ukern_kthread *kthread;                            /* null unless it is a kernel thread */
  unsigned int user_ranges;                                 /* number of ranges in the two below */
  unsigned int user_room;                                   /* size of user_more */
  struct ukern_user_range user[UKERN_USER_RANGES];
  struct ukern_user_range *user_more; /* beyond the first UKERN_USER_RANGES */
};

extern "C" {

extern struct task_struct init_task;
extern rwlock_t tasklist_lock; /* the tables of tasks */

/* Sleeps until the state is TASK_RUNNING again; returns at once if it is. A pending signal ends
 * TASK_INTERRUPTIBLE. */
void schedule(void);
/* As schedule, for at most `timeout` jiffies; returns those left. The state must have been set
 * before. */
signed long schedule_timeout(signed long timeout);
signed long schedule_timeout_interruptible(signed long timeout);
signed long schedule_timeout_uninterruptible(signed long timeout);
void msleep(unsigned int msecs);
void yield(void);
/* May sleep; non-zero if it yielded the processor. */
int cond_resched(void);

/* Makes the task runnable whatever its sleeping state; 1 when it slept. */
int wake_up_process(struct task_struct *tsk);
int wake_up_state(struct task_struct *tsk, unsigned int state);

/* Needs tasklist_lock, or another guarantee that the task stays. */
struct task_struct *find_task_by_pid(int nr);
void __put_task_struct(struct task_struct *tsk);

/* Makes the calling kernel thread independent of its creator, under a new name, signals blocked. */
void daemonize(const char *name, ...) __attribute__((format(printf, 1, 2)));

/*
 * Sends a signal to the task with this id: 0, -ESRCH for no such task, -EINVAL for no such signal,
 * -EPERM when `priv` is 0 and the current task has no permission. Signal 0 only checks.
 */
int kill_proc(pid_t pid, int sig, int priv);
/* The same for a task that the caller has, without a permission check. */
int send_sig(int sig, struct task_struct *tsk, int priv);
int allow_signal(int sig);
/* Recomputes whether a signal is pending, after a change of `blocked`; siglock held. */
void recalc_sigpending(void);
/* Clears every pending signal. */
void flush_signals(struct task_struct *tsk);

/* Null without memory. */
struct group_info *groups_alloc(int gidsetsize);
void groups_free(struct group_info *group_info);
int groups_search(struct group_info *group_info, gid_t grp);
/* Whether the current task is in the group, by fsgid or by its list. */
int in_group_p(gid_t grp);

/*
 * The task's mm with a reference, or null for a kernel thread. The mm of a program's task begins
 * with an executable region of the program's file, if that file can be found. May sleep.
 */
struct mm_struct *get_task_mm(struct task_struct *task);
void mmput(struct mm_struct *mm);
}

#define GROUP_AT(gi, i) ((gi)->gids[i])
#define get_group_info(group_info)    \
  do {                                \
    atomic_inc(&(group_info)->usage); \
  } while (0)
#define put_group_info(group_info)                                          \
  do {                                                                      \
    if (atomic_dec_and_test(&(group_info)->usage)) groups_free(group_info); \
  } while (0)

#define get_task_struct(tsk)   \
  do {                         \
    atomic_inc(&(tsk)->usage); \
  } while (0)

static inline void put_task_struct(struct task_struct *t) {
  if (atomic_dec_and_test(&t->usage)) __put_task_struct(t);
}

#define __set_task_state(tsk, state_value) \
  __atomic_store_n(&(tsk)->state, (long)(state_value), __ATOMIC_RELAXED)
#define set_task_state(tsk, state_value) \
  __atomic_store_n(&(tsk)->state, (long)(state_value), __ATOMIC_SEQ_CST)
#define __set_current_state(state_value) __set_task_state(current, state_value)
#define set_current_state(state_value) set_task_state(current, state_value)

static inline int signal_pending(struct task_struct *p) {
  return unlikely(__atomic_load_n(&p->sigpending, __ATOMIC_ACQUIRE) != 0);
}

#endif
