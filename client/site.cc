// SPDX-License-Identifier: GPL-2.0
#include "client/site.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "base/run_dir.h"
#include "base/text.h"
#include "module/os_public/Include/ox_ctl.h"

namespace tarn {
namespace {

// Systems of 2006 have no /run.
constexpr char kKernelRunDir[] = "/var/run/tarn";

bool kernel_has_tarn() {
  std::ifstream table("/proc/filesystems");
  return lists_tarn(std::string(std::istreambuf_iterator<char>(table), {}));
}

}  // namespace

Site tarnd_site(const std::string &run_dir) {
  return {Site::Kind::kTarnd, run_dir};
}

Site kernel_site() {
  return {Site::Kind::kKernel, kKernelRunDir};
}

Site find_site() {
  const Site tarnd = tarnd_site(run_directory());
  const char *chosen = std::getenv("TARN_RUN_DIR");
  if ((chosen && *chosen) || !kernel_has_tarn()) return tarnd;
  return connect_socket(tarnd.run_dir, OX_CTL_SOCKET) ? tarnd : kernel_site();
}

bool lists_tarn(std::string_view filesystems) {
  while (!filesystems.empty()) {
    const std::string_view line = take_until(filesystems, '\n');
    // "nodev" or nothing, a tab, the type.
    if (line.substr(line.find('\t') + 1) == "tarn") return true;
  }
  return false;
}

}  // namespace tarn
