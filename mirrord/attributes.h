/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Changes of owner, mode, size and times, and of data, of an object that has its place: what of a
 * record is believed, and what is taken from the source. applier.h tells the rules. One thread.
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

  /* The replica has the object, or the path follows the source. */
  Result<Replica::Done> apply(const std::string &path, const SetAttr &change);

 private:
  Result<Replica::Done> from_source(const std::string &path, const SetAttr &change,
                                    const struct stat &mine, const Source::Object &theirs);
  Result<Replica::Done> refused(const std::string &path, const SetAttr &change,
                                const Source::Object &theirs);
};

/* A write to a path that follows the source: the bytes are those that the source has there now. */
Result<Replica::Done> refresh_written(Reconciler &reconciler, Replica &replica,
                                      const std::string &path, std::uint64_t offset,
                                      std::size_t length);

/* Before a write to a set-user-id file: the bit must not outlive the bytes that it was given to,
 * unless the source's file has it still. */
Result<void> drop_set_id(Reconciler &reconciler, Replica &replica, const std::string &path);

}  // namespace tarn

#endif
