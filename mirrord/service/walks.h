/* SPDX-License-Identifier: GPL-2.0 */
/* Where a target asks for walks over its source (walker.h), which may be on another host. */
#ifndef TARN_MIRRORD_SERVICE_WALKS_H
#define TARN_MIRRORD_SERVICE_WALKS_H

#include <cstdint>
#include <string>
#include <string_view>

#include "mirrord/log/position.h"

namespace tarn {

/* The name of a replica on another host in walks: no target of a source has such a one. */
inline constexpr std::string_view kReplicaInWalks = "replica:";

class Walks {
 public:
  virtual ~Walks() = default;
  /* A target wants to compare what has changed since then. A walk that begins at or behind `from`
   * in the target's log serves it. Any thread. */
  virtual void request(const std::string &target, std::int64_t since, LogPosition from) = 0;
};

}  // namespace tarn

#endif
