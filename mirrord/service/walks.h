/* SPDX-License-Identifier: GPL-2.0 */
/* Where a target asks for walks over its source (walker.h), which may be on another host. */
#ifndef TARN_MIRRORD_SERVICE_WALKS_H
#define TARN_MIRRORD_SERVICE_WALKS_H

#include <cstdint>
#include <string>
#include <string_view>

#include "mirrord/log/position.h"
#include "mirrord/service/log_entries.h"

namespace tarn {

/* The name of a replica on another host in walks: no target of a source has such a one. */
inline constexpr std::string_view kReplicaInWalks = "replica:";

class Walks {
 public:
  virtual ~Walks() = default;
  /* A target wants to compare what has changed since then. A walk that begins at or behind `from`
   * in the target's log serves it. Any thread. */
  virtual void request(const std::string &target, std::int64_t since, LogPosition from) = 0;
  /* A target has read all of the log that another process has left, and this walk, which it wants,
   * does not end there: what is left of it, behind the directory `after`, is appended, once. Only
   * where the walker is on this host. Any thread. */
  virtual void go_on(const std::string & /*target*/, const WalkBeginEntry & /*walk*/,
                     const std::string & /*after*/) {}
};

}  // namespace tarn

#endif
