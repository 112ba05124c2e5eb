// SPDX-License-Identifier: GPL-2.0
#include "mirrord/config/rule_keeper.h"

#include <optional>

#include <fmt/format.h>

#include "base/text.h"
#include "client/paths.h"
#include "client/workdir.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

Error about(const std::string &subject, const std::string &directory, const Error &error) {
  return {error.code,
          fmt::format("cannot set the {} {}: {}", subject, printable(directory), error.text)};
}

/* The lower path that the module is asked for, if a mount shows anything of the directory. */
std::optional<std::string> shown_lower_path(const std::vector<Mount> &mounts,
                                            const std::string &directory) {
  if (auto lower = meant_lower_path(mounts, directory)) return lower;
  for (const Mount &mount : mounts) {
    if (path_below(mount.lower, directory) || path_below(directory, mount.lower)) return directory;
  }
  return std::nullopt;
}

void remember(std::optional<Error> &first, const Error &error) {
  if (!first) first = error;
}

}  // namespace

RuleKeeper::RuleKeeper(Site site, std::string program_path, std::vector<Wanted> wanted)
    : site_(std::move(site)), program_path_(std::move(program_path)), wanted_(std::move(wanted)) {}

Result<RuleKeeper::Changed> RuleKeeper::keep() {
  std::vector<std::string> texts;
  for (const Wanted &wanted : wanted_) {
    auto text = make_workdir({{wanted.directory}, wanted.exclude});
    if (!text) return about("rule of", wanted.directory, text.error());
    texts.push_back(std::move(*text));
  }
  auto control = ControlChannel::connect(site_);
  if (!control) return control.error();
  std::optional<Error> first;
  Changed changed;
  // The module does not tell which one it has.
  if (const auto set = control->set_daemon_path(program_path_); !set) remember(first, set.error());
  for (std::size_t i = 0; i < wanted_.size(); ++i) {
    const auto state = keep_rule(*control, wanted_[i], texts[i]);
    if (!state)
      remember(first, about("rule of", wanted_[i].directory, state.error()));
    else if (*state == RuleState::kKept && !added_.contains(wanted_[i].uuid))
      changed.kept.push_back(wanted_[i].uuid);
  }
  if (const auto targets = keep_targets(*control); !targets) remember(first, targets.error());
  if (first) return *first;
  changed.added.assign(added_.begin(), added_.end());
  added_.clear();
  return changed;
}

Result<RuleKeeper::RuleState> RuleKeeper::keep_rule(ControlChannel &control, const Wanted &wanted,
                                                    const std::string &text) {
  const auto old = control.get_rule(wanted.uuid);
  if (!old && old.error().code != OX_ERR_NOENT) return old.error();
  if (old && old->workdir == text) return RuleState::kKept;
  if (old) {
    const auto deleted = control.delete_rule(wanted.uuid);
    if (!deleted && deleted.error().code != OX_ERR_NOENT) return deleted.error();
  }
  if (const auto added = control.add_rule({wanted.uuid, text}); !added) return added.error();
  added_.insert(wanted.uuid);
  return RuleState::kAdded;
}

Result<void> RuleKeeper::keep_targets(ControlChannel &control) {
  const auto mounts = control.mounts();
  if (!mounts) return mounts.error();
  std::optional<Error> first;
  for (const Wanted &wanted : wanted_) {
    for (const Target &target : wanted.targets) {
      const auto directory = shown_lower_path(*mounts, target.directory);
      if (!directory) continue;
      if (const auto kept = keep_target(control, target, *directory); !kept)
        remember(first, about("replicated directory", target.directory, kept.error()));
    }
  }
  if (first) return *first;
  return {};
}

/* The module does not list its directories: one that an earlier process has set under this UUID may
 * have another path. */
Result<void> RuleKeeper::keep_target(ControlChannel &control, const Target &target,
                                     const std::string &directory) {
  // The module compares beginnings of paths, without regard to names.
  const std::string contents = directory == "/" ? directory : directory + "/";
  auto added = control.add_directory(target.uuid, contents);
  if (!added && added.error().code == OX_ERR_EXIST) {
    const auto known = directories_.find(target.uuid);
    if (known != directories_.end() && known->second == contents) return {};
    const auto deleted = control.delete_directory(target.uuid);
    if (!deleted && deleted.error().code != OX_ERR_NOENT) return deleted.error();
    added = control.add_directory(target.uuid, contents);
  }
  if (!added) return added.error();
  directories_[target.uuid] = contents;
  return {};
}

}  // namespace tarn
