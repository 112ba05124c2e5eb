/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Keeps the module's configuration as the service needs it: the daemon's program path, one rule for
 * each source, and the targets as replicated directories. The module forgets all of it when tarnd
 * ends or the module is unloaded, and others may change it.
 *
 * In a replicated directory nobody but the daemon's program may rename: that is for targets, never
 * for sources. The module asks only for renames through a mount of tarn, and compares lower paths:
 * a target is set only while a mount shows it, by its lower path. Its contents are meant, and not a
 * directory beside it whose name begins alike.
 *
 * One thread at a time. Each call of keep() connects anew and blocks until the module has answered.
 */
#ifndef TARN_MIRRORD_CONFIG_RULE_KEEPER_H
#define TARN_MIRRORD_CONFIG_RULE_KEEPER_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/result.h"
#include "client/control.h"
#include "client/site.h"
#include "client/uuid.h"

namespace tarn {

class RuleKeeper {
 public:
  struct Target {
    Uuid uuid; /* of the replicated directory: made once, another one for each target */
    std::string directory;
  };
  /* All paths are canonical. `uuid`: of the rule, made once and kept in the source's state. */
  struct Wanted {
    Uuid uuid;
    std::string directory;
    std::vector<std::string> exclude{};
    std::vector<Target> targets{};
  };
  RuleKeeper(Site site, std::string program_path, std::vector<Wanted> wanted);

  struct Changed {
    std::vector<Uuid> added{}; /* rules made now: what changed before was not captured */
    std::vector<Uuid> kept{};
  };
  /*
   * Sets what is missing or different; a rule of the same UUID with other directories is deleted
   * and added again. Changes nothing where all is as wanted. An error names what has failed; the
   * rest is set all the same, and what was added is told by the next call that succeeds. A process
   * that ends before learns of it by the generation in the rule's records.
   */
  Result<Changed> keep();

 private:
  enum class RuleState { kAdded, kKept };

  Result<RuleState> keep_rule(ControlChannel &control, const Wanted &wanted,
                              const std::string &text);
  Result<void> keep_targets(ControlChannel &control);
  Result<void> keep_target(ControlChannel &control, const Target &target,
                           const std::string &directory);

  Site site_;
  std::string program_path_;
  std::vector<Wanted> wanted_;
  std::set<Uuid> added_{};                    /* not yet told */
  std::map<Uuid, std::string> directories_{}; /* that this object has set */
};

}  // namespace tarn

#endif
