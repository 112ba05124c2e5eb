/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Where the module runs that programs of this machine use: in tarnd, or in the running kernel.
 * Everything in libtarn that talks to the module takes a Site and behaves alike for both.
 */
#ifndef TARN_CLIENT_SITE_H
#define TARN_CLIENT_SITE_H

#include <string>
#include <string_view>

namespace tarn {

struct Site {
  enum class Kind { kTarnd, kKernel };
  Kind kind;
  /* The directory of tarnd's sockets, and of the file that tells who the daemon is. */
  std::string run_dir;

  bool in_kernel() const { return kind == Kind::kKernel; }
};

/* The tarnd of that run directory, whether it runs or not. */
Site tarnd_site(const std::string &run_dir);

/* The module in the running kernel. */
Site kernel_site();

/*
 * With TARN_RUN_DIR set, tarnd, which is what that is about. Otherwise the tarnd that runs in
 * run_directory(); if none does, the running kernel, if the module is loaded; and if it is not,
 * the tarnd that could be started there. Never fails.
 */
Site find_site();

/* Is type tarn among the file systems in a text like /proc/filesystems? */
bool lists_tarn(std::string_view filesystems);

}  // namespace tarn

#endif
