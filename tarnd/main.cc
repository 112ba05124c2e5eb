// SPDX-License-Identifier: GPL-2.0
// tarnd: runs a kernel with the tarn module in this process, and serves its mounts and channels.

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include "base/print_error.h"
#include "base/run_dir.h"
#include "base/standard_fds.h"
#include "base/version.h"
#include "module/os_public/Include/ox_ctl.h"
#include "tarnd/channel/control.h"
#include "tarnd/channel/daemon_channel.h"
#include "tarnd/channel/server.h"
#include "tarnd/fuse/mount.h"
#include "tarnd/process/background.h"
#include "tarnd/process/guardian.h"
#include "tarnd/process/kernel.h"
#include "tarnd/process/log_printer.h"
#include "tarnd/process/run_dir.h"

namespace tarnd {
namespace {

using tarn::Error;
using tarn::Result;

constexpr char kAbout[] =
    "tarnd runs the tarn module in a kernel of its own. Mounts are added and removed with\n"
    "'tarn mount' and 'tarn umount', which also start this program when it does not run.";

constexpr char kEnd[] = "SIGTERM, SIGINT and SIGHUP unmount everything and end it.";

struct Options {
  bool foreground = false;
  std::string run_dir = tarn::run_directory();
};

int fail(const Error &error) {
  tarn::print_error("tarnd: {}\n", error.text);
  return EXIT_FAILURE;
}

std::string explain(const CLI::App &app, const CLI::ParseError &error) {
  const auto unknown = app.remaining();
  if (!unknown.empty())
    return (unknown.front().starts_with('-') ? "wrong option " : "unexpected argument ") +
           unknown.front();
  if (dynamic_cast<const CLI::ArgumentMismatch *>(&error)) return "-r needs a directory";
  return error.what();
}

/* Returns nothing, with the exit status set, if the program is to end. */
std::optional<Options> parse_options(int argc, char **argv, int *status) {
  Options options;
  CLI::App app(kAbout, "tarnd");
  app.footer(kEnd);
  app.set_version_flag("-V,--version", tarn::version_line("tarnd"));
  app.add_flag("-f,--foreground", options.foreground,
               "Stay in the foreground and print the kernel log");
  app.add_option("-r,--run-dir", options.run_dir,
                 "Directory of the sockets; default: $TARN_RUN_DIR, /run/tarn for root, "
                 "$XDG_RUNTIME_DIR/tarn for others, else /tmp/tarn-UID")
      ->type_name("DIR")
      ->check([](const std::string &name) {
        return std::string(name.empty() ? "the run directory has no name" : "");
      });
  try {
    app.parse(argc, argv);
    return options;
  } catch (const CLI::ParseError &error) {
    *status = error.get_exit_code() == 0
                  ? app.exit(error)
                  : fail({-EINVAL, explain(app, error) + ": 'tarnd --help' shows the usage"});
    return std::nullopt;
  }
}

sigset_t ending_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signal);
  return set;
}

// All threads but the main one exist only during this call.
Result<void> run(const RunDir &run_dir, Guardian *guardian, bool print_log, ReadyPipe *ready) {
  install_panic_handler();
  auto kernel = Kernel::boot();
  if (!kernel) return kernel.error();
  {
    LogPrinter log;
    if (print_log) log.start();
    MountTable mounts(guardian);
    Control control(&mounts);
    auto control_socket = run_dir.listen(OX_CTL_SOCKET);
    if (!control_socket) return control_socket.error();
    auto daemon_socket = run_dir.listen(OX_CTL_DAEMON_SOCKET);
    if (!daemon_socket) return daemon_socket.error();
    Server controls(std::move(*control_socket), [&](int connection, const Identity &peer) {
      control.serve(connection, peer);
      return Result<void>();
    });
    Server daemons(std::move(*daemon_socket), serve_daemon_channel);
    controls.start();
    daemons.start();
    if (auto written = run_dir.write_pid_file(); !written) return written;
    ready->ready();

    const sigset_t signals = ending_signals();
    int signal = 0;
    while (sigwait(&signals, &signal) != 0) {
    }

    // Mounts first: their last records still reach a daemon, and pending unmount requests end.
    control.stop();
    mounts.unmount_all();
    controls.stop();
    daemons.stop();
    run_dir.clean();
  }
  (*kernel)->stop();
  return {};
}

Result<void> start(Options options, ReadyPipe *ready) {
  std::error_code error;
  options.run_dir = std::filesystem::absolute(options.run_dir, error).string();
  if (error) return tarn::system_error(error.value(), "the run directory");
  if (!options.foreground) close_inherited_descriptors();
  const auto run_dir = RunDir::open(options.run_dir);
  if (!run_dir) return run_dir.error();
  if (!options.foreground) {
    auto background = go_to_background(run_dir->file("tarnd.log"));
    if (!background) return background.error();
    *ready = std::move(*background);
  }
  const auto guardian = Guardian::start();
  if (!guardian) return guardian.error();
  // All threads inherit this mask; the main thread takes these signals by sigwait().
  const sigset_t signals = ending_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return run(*run_dir, guardian->get(), options.foreground, ready);
}

/* Also catches exceptions of the standard library: no memory, no threads. */
Result<void> start_or_fail(const Options &options, ReadyPipe *ready) {
  try {
    return start(options, ready);
  } catch (const std::exception &e) {
    return Error{-ENOMEM, e.what()};
  }
}

}  // namespace
}  // namespace tarnd

int main(int argc, char **argv) {
  tarn::hold_standard_descriptors();
  int status = EXIT_SUCCESS;
  const auto options = tarnd::parse_options(argc, argv, &status);
  if (!options) return status;
  // The host kernel has applied the caller's umask.
  umask(0);
  std::signal(SIGPIPE, SIG_IGN);
  // An inherited SIG_IGN would hide the exit status of helpers.
  std::signal(SIGCHLD, SIG_DFL);
  tarnd::ReadyPipe ready;
  if (auto run = tarnd::start_or_fail(*options, &ready); !run) {
    ready.failed(run.error().text);
    return tarnd::fail(run.error());
  }
  return EXIT_SUCCESS;
}
