/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The configuration of the service: which directories are replicated, to which targets, with which
 * limits. It is a TOML file; mirrord.toml(5) describes it.
 *
 * Reading says what is wrong with the text; checking says what is wrong with it on this machine.
 * Neither changes anything. Plain values, without a lock. Errors are one line each that begins with
 * the file and, where one is to blame, the line: "FILE:LINE: what is wrong; what is expected".
 */
#ifndef TARN_MIRRORD_CONFIG_CONFIG_H
#define TARN_MIRRORD_CONFIG_CONFIG_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/mount_table.h"
#include "base/result.h"
#include "mirrord/stream/stream_config.h"

namespace tarn {

struct TargetConfig {
  std::string name{}, directory{}; /* absolute; canonical as far as it can be looked up */
  int line = 0;                    /* where it begins in the file */
};

/* A target on other hosts, which a stream leads to. */
struct StreamTargetConfig {
  std::string name{};
  StreamConfig stream{};
  int line = 0;
};

struct SourceConfig {
  std::string name{}, directory{};    /* the lower directory; absolute, canonical */
  std::vector<std::string> exclude{}; /* absolute paths below the directory */
  std::vector<TargetConfig> targets{};
  std::vector<StreamTargetConfig> streams{};        /* with the targets at least one */
  std::uint64_t log_limit = std::uint64_t{1} << 30; /* bytes */
  std::uint64_t walk_files_per_second = 0, copy_bytes_per_second = 0; /* 0: no limit */
  int line = 0;
};

/* A replica of a source of another host, which a stream leads from: [replica]. */
struct ReplicaConfig {
  TargetConfig target{};                            /* its name is the replica's */
  StreamConfig stream{};                            /* its servers, name and files */
  std::uint64_t log_limit = std::uint64_t{1} << 30; /* bytes */
  std::uint64_t copy_bytes_per_second = 0;          /* 0: no limit */
};

struct Config {
  std::string file{}; /* for messages; empty: there is none */
  std::string state_directory{};
  std::string control_socket{};
  std::string metrics_file{}; /* empty: none */
  std::vector<SourceConfig> sources{};
  std::optional<ReplicaConfig> replica{}; /* then there are no sources */
};

/* The first error is that of the smallest line. */
Result<Config> read_config(const std::string &file);

/*
 * One source and one target, without a file: `mirrord --source A --replica B`. Their names follow
 * from the paths, so each pair keeps a state of its own. `state_directory` "": the default one.
 */
Result<Config> config_of_pair(const std::string &source, const std::string &target,
                              const std::string &state_directory);

/* Where the state is kept if nothing else is said: the directory mirrord in $TARN_STATE_DIR if that
 * is set; else in /var/lib/tarn for root; else in $XDG_STATE_HOME/tarn; else in
 * ~/.local/state/tarn. Error: none of them is known. */
Result<std::string> default_state_directory();

/* Where `mirrord replica` keeps its state if nothing else is said. Its control socket is in it. */
inline constexpr char kReplicaStateDirectory[] = "/var/lib/tarn-replica";

/* The control socket if nothing else is said: in the run directory. */
std::string default_control_socket();
/* That of a service without a file whose state directory was given. */
std::string control_socket_in(const std::string &state_directory);

/* What was understood of the file, and all that is wrong with it, in the order of lines. Without
 * problems the configuration is whole. */
struct ReadConfig {
  Config config{};
  std::vector<Error> problems{};
};
ReadConfig read_config_with_problems(const std::string &file);

/*
 * What only the machine tells and what forbids to begin: a source that is no directory or a path of
 * a tarn mount, directories of sources, targets and the service itself that overlap, by whatever
 * mounts and links, an exclude that looks like a pattern. A target that is not there is none of
 * these: it may be on a disk that is not mounted now (see config_notes()).
 */
std::vector<Error> config_problems(const Config &config, const std::vector<MountEntry> &table);
/* The first of them. */
Result<void> check_config(const Config &config, const std::vector<MountEntry> &table);

/* The mount table, or what tarn says of its mounts where the machine has none. */
std::vector<MountEntry> machine_mount_table();

/*
 * Asked whenever a target is opened: whether what its path leads to now is apart from all other
 * directories. What was not there when the service began, or could not be looked up, may have come
 * as a link or a mount into a source since.
 */
Result<void> check_target(const Config &config, const TargetConfig &target,
                          const std::vector<MountEntry> &table);

/* What is not there now but may come while the service runs: targets, and the directory of the
 * metrics' file. Lines like those of errors. */
std::vector<std::string> config_notes(const Config &config);

/* `mirrord check`: prints each problem and each note in a line of stderr, or says on stdout that
 * the file is good. Returns the exit code: 0 good, 1 not. */
int check_command(const std::string &file);

}  // namespace tarn

#endif
