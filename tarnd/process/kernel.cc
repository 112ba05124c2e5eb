// SPDX-License-Identifier: GPL-2.0
#include "tarnd/process/kernel.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string>

#include "base/print_error.h"
#include "tarnd/process/task.h"
#include "ukern/door/uk_core.h"

namespace tarnd {

static constexpr char kModule[] = "tarn";

// 256 KiB. The host's page cache holds the same data already, above and below. A small cache here
// whose pages stay in the processor's cache makes writes faster than a large one.
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

tarn::Result<std::unique_ptr<Kernel>> Kernel::boot() {
  uk_boot_options options{};
  options.root_type = "hostfs";
  options.root_source = "/";
  options.cache_pages = kCachePages;
  options.max_files = std::numeric_limits<int>::max();  // the host's descriptor limit applies
  if (const int err = uk_boot(&options); err != 0)
    return tarn::system_error(-err, "cannot start the kernel");

  const Task task(service_identity());
  const ActAs act(task);
  if (const int err = uk_module_load(kModule); err != 0)
    return tarn::system_error(-err, "cannot load the module");
  return std::unique_ptr<Kernel>(new Kernel);
}

void Kernel::stop() {
  if (!running_) return;
  running_ = false;
  {
    const Task task(service_identity());
    const ActAs act(task);
    if (const int err = uk_module_unload(kModule); err != 0)
      tarn::print_error("tarnd: {}\n", tarn::system_error(-err, "cannot unload the module").text);
  }
  if (const int complaints = uk_shutdown(); complaints != 0)
    tarn::print_error("tarnd: the kernel left {} things behind\n", complaints);
}

}  // namespace tarnd
