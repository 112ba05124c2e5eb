/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The commands of the tool. Each takes its arguments and returns the process's exit code; results
 * go to stdout, errors as one line to stderr.
 */
#ifndef TARN_TARN_COMMANDS_H
#define TARN_TARN_COMMANDS_H

#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "client/uuid.h"

namespace tarn {

/* The exit codes, as tarn(1) lists them. */
enum Exit {
  kExitOk = 0,
  kExitFailed = 1,      /* the request was refused or failed */
  kExitUsage = 2,       /* the command line is wrong */
  kExitNoTarnd = 3,     /* no tarnd runs in the run directory */
  kExitCannotStart = 4, /* tarnd was not found or did not start */
  /* Of `rule test`. */
  kExitNotIncluded = 1,
};

enum class Format { kText, kJson };

/* Prints the error as one line and returns the exit code for it. */
int fail(const Error &error);

/* Parses a UUID argument. Error: -EINVAL. */
Result<Uuid> read_uuid(const std::string &text);

/* `cache`: seconds, if given. */
int mount_command(const std::string &lower, const std::string &mountpoint,
                  std::optional<double> cache);
int umount_command(const std::string &mountpoint, bool lazily);
int stop_command();

int rule_add_command(const std::optional<std::string> &uuid,
                     const std::vector<std::string> &include,
                     const std::vector<std::string> &exclude);
int rule_delete_command(const std::string &uuid_text);
int rule_list_command(Format format);
int rule_show_command(const std::string &uuid_text, Format format);
int rule_flush_command();
/* Returns kExitOk if a rule includes the path, and kExitNotIncluded if none does. */
int rule_test_command(const std::string &path, Format format);

int directory_add_command(const std::string &path, const std::optional<std::string> &uuid);
int directory_delete_command(const std::string &uuid_text);
int directory_flush_command();
int directory_daemon_command(const std::string &program);

struct LogOptions {
  unsigned level = 7; /* the least severe level to show */
  bool follow = false;
};
int log_command(const LogOptions &options);

struct WatchOptions {
  Format format = Format::kText;
  bool take_over = false;
};
int watch_command(const WatchOptions &options);

int status_command(Format format);

}  // namespace tarn

#endif
