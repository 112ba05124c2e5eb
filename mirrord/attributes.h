/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Applies changes of attributes and of data to existing objects. Decides which attributes are taken
 * from the record and which from the source, by the rules in applier.h. One thread.
 */
#ifndef TARN_MIRRORD_ATTRIBUTES_H
#define TARN_MIRRORD_ATTRIBUTES_H

#include <cstdint>
#include <string>

#include "client/messages.h"
#include "mirrord/replica.h"
#include "mirrord/reconciler.h"

namespace tarn {

struct AttributeChange {
  Reconciler &reconciler;
  Replica &replica;
  std::uint64_t captured; /* microseconds */

  /* The replica must have the object, or the path follow the source. */
  Result<Replica::Done> apply(const std::string &path, const SetAttr &change);

 private:
  Result<Replica::Done> from_source(const std::string &path, const SetAttr &change,
                                    const struct stat &mine, const Source::Object &theirs);
  Result<Replica::Done> refused(const std::string &path, const SetAttr &change,
                                const Source::Object &theirs);
};

/* A write to a path that follows the source: copies the range as the source has it now. */
Result<Replica::Done> refresh_written(Reconciler &reconciler, Replica &replica,
                                      const std::string &path, std::uint64_t offset,
                                      std::size_t length);

/* Call it before a write: takes the set-user-id and set-group-id bits from the replica's file, so
 * that they do not cover other bytes, unless the source's file still has them. */
Result<void> drop_set_id(Reconciler &reconciler, Replica &replica, const std::string &path,
                         const struct stat &mine);

}  // namespace tarn

#endif
