/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Replays one change record on the replica: the source directory at the head of its paths is
 * replaced by the replica. One thread.
 */
#ifndef TARN_MIRRORD_APPLIER_H
#define TARN_MIRRORD_APPLIER_H

#include <string>

#include "client/messages.h"
#include "client/pages.h"
#include "mirrord/replica.h"

namespace tarn {

class Applier {
 public:
  /* `source` is absolute, without a slash at its end (but "/" itself). */
  Applier(std::string source, Replica &replica) : source_(std::move(source)), replica_(replica) {}

  enum class Outcome {
    kApplied,
    kAlready,  /* the replica was that way before */
    kOutside,  /* the change is about another directory than the source */
    kNameless, /* the change is about a file without a name any more; the replica has none either */
  };

  Result<Outcome> apply(const Record &record);

  /* Of the last write page that was applied: the file, which a later page's record does not name.
   */
  const std::string &page_path() const { return page_path_; }

 private:
  struct Visitor;

  std::string source_;
  Replica &replica_;
  PageFollower pages_;
  std::string page_path_;
};

}  // namespace tarn

#endif
