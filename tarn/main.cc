// SPDX-License-Identifier: GPL-2.0
// The command line of the tool.
#include <algorithm>
#include <cerrno>
#include <iostream>

#include <CLI/CLI.hpp>

#include "base/run_dir.h"
#include "base/standard_fds.h"
#include "base/text.h"
#include "base/version.h"
#include "module/os_public/Include/ox_ctl.h"
#include "tarn/commands.h"

namespace tarn {

int fail(const Error &error) {
  std::string text = error.text;
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::cerr << "tarn: " << text << '\n';
  return no_tarnd_there(error) && text.starts_with("no tarnd runs") ? kExitNoTarnd : kExitFailed;
}

namespace {

constexpr char kAbout[] =
    "tarn lays a file system over a directory and sends every change made through it to a daemon,\n"
    "which replays the changes elsewhere.";

constexpr char kExample[] =
    "A first try, as any user:\n"
    "  mkdir lower mnt replica\n"
    "  tarn mount lower mnt     what is in lower/ is now seen in mnt/ as well\n"
    "  mirrord --source lower --replica replica &\n"
    "  echo hello >mnt/file; mirrord wait; cat replica/file\n"
    "  tarn umount mnt; tarn stop\n"
    "Each command explains itself: tarn COMMAND --help. The manual: man tarn.";

constexpr int kManyDirectories = 10000;

/* The grammar of the command line, and the parsed arguments. */
class CommandLine {
 public:
  CommandLine() : app_(kAbout, "tarn") {
    app_.require_subcommand(1);
    app_.set_version_flag("--version", version_line("tarn"));
    app_.footer(kExample);
    add_mounts();
    add_rules();
    add_directories();
    add_reports();
  }

  int run(int argc, char **argv) {
    try {
      app_.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
      if (error.get_exit_code() == 0) return app_.exit(error);
      fail({-EINVAL, explain(error) + ": 'tarn --help' shows the usage"});
      return kExitUsage;
    }
    return exit_;
  }

 private:
  /* An unknown word explains more than the missing one that the library reports. */
  std::string explain(const CLI::ParseError &error) const {
    const auto unknown = app_.remaining(true);
    if (unknown.empty()) return error.what();
    return printable(unknown.front()) + " is not known here";
  }

  /* The raw words: the library would parse a directory named "[a,b]" as a list. */
  static std::vector<std::string> words(const CLI::Option *option) { return option->results(); }
  Format format() const { return json_ ? Format::kJson : Format::kText; }

  CLI::App *command(CLI::App &parent, const char *name, const char *about) {
    return parent.add_subcommand(name, about);
  }
  void add_json(CLI::App *command) {
    command->add_flag("--json", json_, "Print JSON instead of text");
  }

  void add_mounts() {
    auto *mount =
        command(app_, "mount", "Mount LOWER through tarn at MOUNTPOINT; starts tarnd if none runs");
    mount->add_option("LOWER", first_, "The directory that holds the files")->required();
    mount->add_option("MOUNTPOINT", second_, "An existing directory where they appear")->required();
    mount
        ->add_option(
            "--cache", cache_,
            "For how many seconds the host may keep names, listings and attributes (default 1)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, OX_CTL_CACHE_MAX / 1000.0));
    mount->callback([this] { exit_ = mount_command(first_, second_, cache_); });

    auto *umount = command(app_, "umount", "Unmount MOUNTPOINT; LOWER keeps all files");
    umount->add_option("MOUNTPOINT", first_, "Where it is mounted")->required();
    umount->add_flag("--lazy", lazy_, "Even if programs still use it");
    umount->callback([this] { exit_ = umount_command(first_, lazy_); });

    auto *stop = command(app_, "stop", "Unmount everything and end tarnd; its rules are forgotten");
    stop->callback([this] { exit_ = stop_command(); });
  }

  void add_rules() {
    auto *rule = command(app_, "rule", "Manage the rules: which directories are replicated");
    rule->require_subcommand(1);

    auto *add = command(*rule, "add", "Add a rule; prints its UUID if none was given");
    auto *uuid = add->add_option(
        "UUID", "The rule's name: 32 hexadecimal digits, 8-4-4-4-12; generated if left out");
    auto *include =
        add->add_option("--include", "Directories of the lower file system to replicate")
            ->type_name("DIR...")
            ->expected(1, kManyDirectories)
            ->required();
    auto *exclude = add->add_option("--exclude", "Directories inside those to leave out")
                        ->type_name("DIR...")
                        ->expected(1, kManyDirectories);
    add->callback([this, uuid, include, exclude] {
      const auto given = words(uuid);
      exit_ = rule_add_command(given.empty() ? std::nullopt : std::optional(given[0]),
                               words(include), words(exclude));
    });

    auto *del = command(*rule, "del", "Delete a rule");
    del->add_option("UUID", first_, "Its name")->required();
    del->callback([this] { exit_ = rule_delete_command(first_); });

    auto *list = command(*rule, "list", "List the rules: +included and -excluded directories");
    add_json(list);
    list->callback([this] { exit_ = rule_list_command(format()); });

    auto *show = command(*rule, "show", "Show one rule");
    show->add_option("UUID", first_, "Its name")->required();
    add_json(show);
    show->callback([this] { exit_ = rule_show_command(first_, format()); });

    auto *test = command(*rule, "test", "Show which rules include PATH, and by which entry");
    test->add_option("PATH", first_, "A file or directory, which need not exist")->required();
    add_json(test);
    test->callback([this] { exit_ = rule_test_command(first_, format()); });

    auto *flush = command(*rule, "flush", "Delete all rules");
    flush->callback([this] { exit_ = rule_flush_command(); });
  }

  void add_directories() {
    auto *dir = command(app_, "dir", "Manage the directories out of which only the daemon renames");
    dir->require_subcommand(1);

    auto *add = command(*dir, "add", "Add a directory; prints its UUID if none was given");
    add->add_option("DIR", first_, "A directory of the lower file system")->required();
    auto *uuid = add->add_option("UUID", "Its name, as of a rule; generated if left out");
    add->callback([this, uuid] {
      const auto given = words(uuid);
      exit_ = directory_add_command(first_, given.empty() ? std::nullopt : std::optional(given[0]));
    });

    auto *del = command(*dir, "del", "Delete a directory; it stays on the disk");
    del->add_option("UUID", first_, "Its name")->required();
    del->callback([this] { exit_ = directory_delete_command(first_); });

    auto *flush = command(*dir, "flush", "Delete all directories");
    flush->callback([this] { exit_ = directory_flush_command(); });

    auto *daemon = command(*dir, "daemon", "Set the daemon's program, which may rename");
    daemon->add_option("PROGRAM", first_, "Its file")->required();
    daemon->callback([this] { exit_ = directory_daemon_command(first_); });
  }

  void add_reports() {
    auto *status = command(app_, "status", "Show the mounts, the rules and the daemon");
    add_json(status);
    status->callback([this] { exit_ = status_command(format()); });

    auto *log = command(app_, "log", "Show the kernel log of the module");
    log->add_option("--level", log_.level,
                    "Only lines of this level or worse: 0 (emergency) to 7 (debug)")
        ->type_name("L")
        ->check(CLI::Range(0, 7));
    log->add_flag("--follow", log_.follow, "Go on showing lines as they come");
    log->callback([this] { exit_ = log_command(log_); });

    auto *watch = command(app_, "watch",
                          "Show change records as they arrive; registers as the daemon meanwhile");
    add_json(watch);
    watch->add_flag("--take-over", take_over_,
                    "Even if another daemon is registered: it gets no more records");
    watch->callback([this] { exit_ = watch_command({format(), take_over_}); });
  }

  CLI::App app_;
  int exit_ = kExitOk;
  std::string first_, second_;
  std::optional<double> cache_;
  bool json_ = false, lazy_ = false, take_over_ = false;
  LogOptions log_;
};

/* A command whose output is lost has failed. */
int finish(int exit) {
  if (std::cout.flush()) return exit;
  fail({-EIO,
        "cannot write to standard output: the output is lost, but the command was carried out"});
  return exit == kExitOk ? kExitFailed : exit;
}

}  // namespace
}  // namespace tarn

int main(int argc, char **argv) {
  tarn::hold_standard_descriptors();
  std::ios::sync_with_stdio(false);
  return tarn::finish(tarn::CommandLine().run(argc, argv));
}
