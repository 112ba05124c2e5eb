// SPDX-License-Identifier: GPL-2.0
#include "tarnd/kernel.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>

#include "ukern/door/uk_core.h"
#include "tarnd/task.h"

namespace tarnd {

static constexpr char kModule[] = "tarn";

// 256 KiB. The host keeps the same data twice, above and below, and reads go below; pages that are
// soon used again, while they are still in the processor's cache, do more for writes than a third
// copy of everything.
static constexpr unsigned long kCachePages = 64;

static void panic(const char *report) {
  std::fputs(report, stderr);
  std::fputc('\n', stderr);
  std::fflush(stderr);
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) syslog(LOG_CRIT, "%s", line.c_str());
  std::abort();
}

void install_panic_handler() {
  openlog("tarnd", LOG_PID, LOG_DAEMON);
  uk_set_panic_handler(panic);
}

static std::runtime_error failure(const char *what, int err) {
  return std::runtime_error(std::string(what) + ": " + std::strerror(-err));
}

Kernel::Kernel() {
  uk_boot_options options{};
  options.root_type = "hostfs";
  options.root_source = "/";
  options.cache_pages = kCachePages;
  options.max_files = std::numeric_limits<int>::max();  // descriptors are counted instead
  if (const int err = uk_boot(&options); err != 0) throw failure("cannot start the kernel", err);

  const Task task(service_identity());
  const ActAs act(task);
  if (const int err = uk_module_load(kModule); err != 0) {
    throw failure("cannot load the module", err);
  }
  running_ = true;
}

void Kernel::stop() {
  if (!running_) return;
  running_ = false;
  {
    const Task task(service_identity());
    const ActAs act(task);
    if (const int err = uk_module_unload(kModule); err != 0)
      std::fprintf(stderr, "tarnd: cannot unload the module: %s\n", std::strerror(-err));
  }
  if (const int complaints = uk_shutdown(); complaints != 0)
    std::fprintf(stderr, "tarnd: the kernel left %d things behind\n", complaints);
}

}  // namespace tarnd
