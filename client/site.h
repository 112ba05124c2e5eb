/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Where this machine's module runs: in tarnd, or in the running kernel. Everything in libtarn that
 * talks to the module takes a Site and works alike for both.
 */
#ifndef TARN_CLIENT_SITE_H
#define TARN_CLIENT_SITE_H

#include <string>
#include <string_view>

namespace tarn {

struct Site {
  enum class Kind { kTarnd, kKernel };
  Kind kind;
  /* The directory of tarnd's sockets and of the daemon's lock file. */
  std::string run_dir;

  bool in_kernel() const { return kind == Kind::kKernel; }
};

/* The tarnd of a run directory, running or not. */
Site tarnd_site(const std::string &run_dir);

/* The module in the running kernel. */
Site kernel_site();

/*
 * If TARN_RUN_DIR is set: the tarnd there. Otherwise the tarnd that runs in run_directory(); if
 * none runs, the running kernel if the module is loaded; else the tarnd that could be started
 * there. Never fails.
 */
Site find_site();

/* Does a text like /proc/filesystems list type tarn? */
bool lists_tarn(std::string_view filesystems);

}  // namespace tarn

#endif
