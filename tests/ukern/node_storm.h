/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Several threads that make, move, link, write, list and remove the same few names through nodes at
 * once. What each call returns is up to the others; what must hold is that no lock is taken out of
 * order, nothing is used after it was freed and nothing is left behind.
 */
#ifndef TESTS_UKERN_NODE_STORM_H
#define TESTS_UKERN_NODE_STORM_H

#include "tests/harness/case.h"
#include "module/kernel.h"
#include <linux/fcntl.h>
#include "ukern/door/uk_fs.h"

namespace node_storm {

constexpr int kThreads = 4;
constexpr const char *kNames[] = {"a", "b", "c", "d"};
constexpr const char *kDirs[] = {"x", "y"};

struct storm {
  struct uk_node *top;
  int rounds;
  atomic_t running;
  atomic_t unexpected;
};

struct runner {
  struct storm *storm;
  unsigned seed;
  struct uk_node *dirs[3]; /* the top and the directories, which come and go */
};

inline unsigned draw(struct runner *r, unsigned below) {
  r->seed = r->seed * 1103515245u + 12345u;
  return (r->seed >> 16) % below;
}

inline const char *name(struct runner *r) {
  return kNames[draw(r, 4)];
}

inline struct uk_node *dir(struct runner *r) {
  struct uk_node *found = r->dirs[draw(r, 3)];
  return found ? found : r->storm->top;
}

inline int skip_entry(void *, const char *, unsigned long long, unsigned, unsigned long long) {
  return 0;
}

inline void write_file(struct runner *r) {
  struct uk_node *node;
  struct uk_file *file;
  struct uk_stat stat;
  char buf[100] = "content";
  const int flags = draw(r, 2) ? O_RDWR : O_RDWR | O_APPEND;
  if (uk_create(dir(r), name(r), flags, 0644, &node, &file, &stat)) return;
  uk_write(file, buf, sizeof(buf), draw(r, 10000), O_RDWR);
  uk_read(file, buf, sizeof(buf), draw(r, 5000));
  if (uk_getattr(node, draw(r, 2) ? file : NULL, &stat)) atomic_inc(&r->storm->unexpected);
  uk_flush(file);
  uk_release(file);
  uk_node_put(node, 1);
}

inline void change(struct runner *r) {
  struct uk_node *node;
  struct uk_stat stat = {};
  if (uk_lookup(dir(r), name(r), &node, &stat)) return;
  stat.mode = 0600 + draw(r, 0100);
  stat.size = draw(r, 9000);
  uk_setattr(node, NULL, UK_SET_MODE | (draw(r, 2) ? UK_SET_SIZE : 0) | UK_SET_MTIME_NOW, &stat,
             &stat);
  if (uk_getattr(node, NULL, &stat)) atomic_inc(&r->storm->unexpected);
  uk_node_put(node, 1);
}

inline void link_name(struct runner *r) {
  struct uk_node *node, *made;
  struct uk_stat stat;
  if (uk_lookup(dir(r), name(r), &node, &stat)) return;
  if (!uk_link(node, dir(r), name(r), &made, &stat)) uk_node_put(made, 1);
  uk_node_put(node, 1);
}

inline void list(struct runner *r) {
  struct uk_file *file;
  if (uk_open(dir(r), O_RDONLY | O_DIRECTORY, &file)) return;
  uk_readdir(file, 0, skip_entry, NULL);
  uk_release(file);
}

inline void renew_dir(struct runner *r) {
  const unsigned which = draw(r, 2);
  struct uk_stat stat;
  if (r->dirs[which + 1]) uk_node_put(r->dirs[which + 1], 1);
  r->dirs[which + 1] = NULL;
  if (draw(r, 4) == 0) uk_rmdir(r->storm->top, kDirs[which]);
  if (uk_mkdir(r->storm->top, kDirs[which], 0755, &r->dirs[which + 1], &stat))
    uk_lookup(r->storm->top, kDirs[which], &r->dirs[which + 1], &stat);
}

inline void step(struct runner *r) {
  switch (draw(r, 9)) {
    case 0:
    case 1:
      return write_file(r);
    case 2:
      return change(r);
    case 3:
      return link_name(r);
    case 4:
      return list(r);
    case 5:
      return renew_dir(r);
    case 6:
      uk_unlink(dir(r), name(r));
      return;
    case 7:
      uk_rename(dir(r), name(r), dir(r), name(r));
      return;
    default:
      uk_rename(r->storm->top, kDirs[draw(r, 2)], dir(r), kDirs[draw(r, 2)]);
  }
}

inline int run(void *arg) {
  struct storm *storm = (struct storm *)arg;
  struct runner r = {};
  r.storm = storm;
  r.seed = (unsigned)current->pid;
  for (int i = 0; i < storm->rounds; i++) step(&r);
  for (struct uk_node *node : r.dirs)
    if (node) uk_node_put(node, 1);
  atomic_dec(&storm->running);
  while (!kthread_should_stop()) schedule_timeout_interruptible(1);
  return 0;
}

/* The storm in the directory at `path`. */
inline void in(const char *path, int rounds) {
  struct storm storm = {};
  REQUIRE_EQ(uk_node_at(path, &storm.top), 0);
  storm.rounds = rounds;
  atomic_set(&storm.running, kThreads);
  struct task_struct *threads[kThreads];
  for (auto &thread : threads) {
    thread = kthread_run(run, &storm, "storm");
    REQUIRE_TRUE(!IS_ERR(thread));
  }
  while (atomic_read(&storm.running)) schedule_timeout_interruptible(1);
  for (auto &thread : threads) kthread_stop(thread);
  EXPECT_EQ(atomic_read(&storm.unexpected), 0);
  uk_node_put(storm.top, 1);
}

}  // namespace node_storm

#endif
