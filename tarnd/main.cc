// SPDX-License-Identifier: GPL-2.0
// tarnd: a kernel with the tarn module in a process, its mounts and its channels.

#include <getopt.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>

#include "module/os_public/Include/ox_ctl.h"
#include "tarnd/background.h"
#include "tarnd/control.h"
#include "tarnd/daemon_channel.h"
#include "tarnd/guardian.h"
#include "tarnd/kernel.h"
#include "tarnd/log_printer.h"
#include "tarnd/mount.h"
#include "tarnd/run_dir.h"
#include "tarnd/server.h"

namespace tarnd {
namespace {

struct Options {
  bool foreground = false;
  std::filesystem::path run_dir = default_run_dir();
};

constexpr char kUsage[] =
    "Usage: tarnd [--foreground] [--run-dir DIR]\n"
    "\n"
    "Runs the tarn module in a kernel of its own. Mounts are added and removed with\n"
    "'tarn mount' and 'tarn umount', which also start this program when it does not run.\n"
    "\n"
    "  -f, --foreground   stay in the foreground and print the kernel log\n"
    "  -r, --run-dir DIR  directory of the sockets; default: $TARN_RUN_DIR, /run/tarn for\n"
    "                     root, $XDG_RUNTIME_DIR/tarn for others, else /tmp/tarn-UID\n"
    "  -h, --help         print this text\n"
    "  -V, --version      print the version\n"
    "\n"
    "SIGTERM, SIGINT and SIGHUP unmount everything and end it.\n";

[[noreturn]] void wrong_usage(const std::string &what) {
  std::fprintf(stderr, "tarnd: %s: 'tarnd --help' shows what can be typed\n", what.c_str());
  std::exit(EXIT_FAILURE);
}

// What the option parser has just refused: a letter, or the long name that has none.
std::string refused(char **argv) {
  return optopt != 0 ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1];
}

Options parse_options(int argc, char **argv) {
  static const option long_options[] = {{"foreground", no_argument, nullptr, 'f'},
                                        {"run-dir", required_argument, nullptr, 'r'},
                                        {"help", no_argument, nullptr, 'h'},
                                        {"version", no_argument, nullptr, 'V'},
                                        {nullptr, 0, nullptr, 0}};
  Options options;
  opterr = 0;
  for (int c; (c = getopt_long(argc, argv, ":fr:hV", long_options, nullptr)) != -1;) {
    switch (c) {
      case 'f':
        options.foreground = true;
        break;
      case 'r':
        if (*optarg == '\0') wrong_usage("the run directory has no name");
        options.run_dir = optarg;
        break;
      case 'h':
        std::fputs(kUsage, stdout);
        std::exit(EXIT_SUCCESS);
      case 'V':
        std::puts("tarnd " TARN_VERSION);
        std::exit(EXIT_SUCCESS);
      case ':':
        wrong_usage(refused(argv) + " needs a directory");
      default:
        wrong_usage("wrong option " + refused(argv));
    }
  }
  if (optind < argc) wrong_usage(std::string("unexpected argument ") + argv[optind]);
  return options;
}

sigset_t ending_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signal);
  return set;
}

// From the first thread to the last.
void run(const RunDir &run_dir, Guardian *guardian, bool print_log, Starter *starter) {
  install_panic_handler();
  Kernel kernel;
  {
    LogPrinter log;
    if (print_log) log.start();
    MountTable mounts(guardian);
    Control control(&mounts);
    Server controls(run_dir.listen(OX_CTL_SOCKET), [&](int fd) { control.serve(fd); });
    Server daemons(run_dir.listen(OX_CTL_DAEMON_SOCKET), serve_daemon_channel);
    controls.start();
    daemons.start();
    run_dir.write_pid_file();
    starter->ready();

    const sigset_t signals = ending_signals();
    int signal = 0;
    while (sigwait(&signals, &signal) != 0) {
    }

    // Mounts first: what they still write may be meant for a daemon. Requests that unmount end with
    // them.
    control.stop();
    mounts.unmount_all();
    controls.stop();
    daemons.stop();
    run_dir.clean();
  }
  kernel.stop();
}

}  // namespace
}  // namespace tarnd

int main(int argc, char **argv) {
  tarnd::hold_standard_descriptors();
  tarnd::Options options = tarnd::parse_options(argc, argv);
  // Modes come from callers whose own masks have been applied.
  umask(0);
  std::signal(SIGPIPE, SIG_IGN);
  // Ignored, as the starter may have left it, it would hide how helpers end.
  std::signal(SIGCHLD, SIG_DFL);
  tarnd::Starter starter;
  try {
    options.run_dir = std::filesystem::absolute(options.run_dir);
    if (!options.foreground) tarnd::close_inherited_descriptors();
    const tarnd::RunDir run_dir(options.run_dir);
    if (!options.foreground) starter = tarnd::go_to_background(run_dir.file("tarnd.log"));
    tarnd::Guardian guardian;
    // Every thread inherits this mask; only the main one takes these signals, when it waits for
    // them.
    const sigset_t signals = tarnd::ending_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    tarnd::run(run_dir, &guardian, options.foreground, &starter);
  } catch (const std::exception &e) {
    std::fprintf(stderr, "tarnd: %s\n", e.what());
    starter.failed(e.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
