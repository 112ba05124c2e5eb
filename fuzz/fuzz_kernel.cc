// SPDX-License-Identifier: GPL-2.0
#include "fuzz/fuzz_kernel.h"

#include <cstdio>
#include <cstdlib>

#include "fuzz/uk_fuzz.h"

namespace fuzz {
namespace {

constexpr int kLostSignal = 58;
constexpr unsigned long kLeakCheckEvery = 64;

uk_task *new_task(int pid, unsigned capabilities) {
  uk_cred cred = {};
  cred.pid = pid;
  cred.uid = cred.gid = capabilities ? 0 : 1;
  cred.cap_effective = capabilities;
  uk_task *task = uk_task_new(&cred);
  check(task, "a task");
  return task;
}

}  // namespace

void fail(const char *what, long long got, long long expected) {
  std::fprintf(stderr, "%s: %lld, expected %lld\n", what, got, expected);
  std::abort();
}

Kernel &Kernel::get() {
  static Kernel kernel;
  return kernel;
}

Kernel::Kernel() {
  uk_boot_options options = {};
  options.root_type = "memfs";
  check_equal(uk_boot(&options), 0, "boot");
  task_ = new_task(kPid, ~0u);
  other_ = new_task(kOtherPid, 0);
  uk_task_set_signal_handler(
      task_,
      [](void *kernel, int signal) {
        if (signal == kLostSignal) ++static_cast<Kernel *>(kernel)->lost_;
        return 0;
      },
      this);
  uk_task_enter(task_);
  check_equal(uk_module_load("tarn"), 0, "load");
  blocks_ = uk_fuzz_blocks();
}

Kernel::~Kernel() {
  check_equal(uk_module_unload("tarn"), 0, "unload");
  uk_task_leave();
  uk_task_put(task_);
  uk_task_put(other_);
  check_equal(uk_shutdown(), 0, "shutdown");
}

int Kernel::lost_signals() {
  const int lost = lost_;
  lost_ = 0;
  return lost;
}

void Kernel::check_leaks() {
  if (++inputs_ % kLeakCheckEvery == 0)
    check_equal(static_cast<long long>(uk_fuzz_blocks()), static_cast<long long>(blocks_),
                "blocks left by one of the last inputs");
}

}  // namespace fuzz
