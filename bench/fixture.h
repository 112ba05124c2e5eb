/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The kernel under measurement: memfs at its root, a tarn mount over a directory of it, a file on
 * the mount, rules, and a daemon. One per program; the main thread is its task. Failures end the
 * program.
 */
#ifndef BENCH_FIXTURE_H
#define BENCH_FIXTURE_H

#include <string>
#include <vector>

#include "ukern/door/uk_core.h"
#include "ukern/door/uk_fs.h"
#include "ukern/door/uk_net.h"

/* What rules must include for the file to hit them. */
inline constexpr const char *kLowerDir = "/lower";

/* A task for the calling thread, until the end of the scope. */
class BenchTask {
 public:
  explicit BenchTask(int pid);
  ~BenchTask();
  BenchTask(const BenchTask &) = delete;
  BenchTask &operator=(const BenchTask &) = delete;

 private:
  uk_task *task_;
};

/* The daemon's end of the channel, at the port of the current task. */
class BenchDaemon {
 public:
  BenchDaemon(int pid, unsigned long queue_bytes);
  ~BenchDaemon();
  BenchDaemon(const BenchDaemon &) = delete;
  BenchDaemon &operator=(const BenchDaemon &) = delete;

  void hello() { control(true); }
  void quit() { control(false); }
  /* The next message: its length, or negative when none comes in time. */
  long receive(void *buf, unsigned long size, unsigned wait_ms) {
    return uk_nl_recv(sock_, buf, size, wait_ms);
  }
  /* Takes all that waits; how many messages that were. */
  unsigned drain();

 private:
  void control(bool hello);
  uk_nlsock *sock_;
};

class BenchKernel {
 public:
  BenchKernel();
  ~BenchKernel();
  BenchKernel(const BenchKernel &) = delete;
  BenchKernel &operator=(const BenchKernel &) = delete;

  /* Makes these, one rule for each directory and in this order, all the rules there are. */
  void install_rules(const std::vector<std::string> &dirs);
  /* On the tarn mount, open for writing. */
  uk_file *file() const { return file_; }
  /* Of the main thread; registered only between its hello and quit. */
  BenchDaemon &daemon() { return *daemon_; }

 private:
  BenchTask *task_;
  BenchDaemon *daemon_;
  uk_file *file_;
  std::vector<std::string> rules_;
};

BenchKernel &bench_kernel();

#endif
