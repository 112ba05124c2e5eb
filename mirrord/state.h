/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What outlives a mirrord: up to which number the records of each rule have been dealt with in a
 * replica. The next mirrord of that replica goes on from there, so that it knows what was changed
 * while none ran.
 *
 * One file for each source and replica, replaced in one step and on the disk when write() returns.
 * The state belongs to the replica's directory, not to its name: another directory in that place
 * begins without state. What it claims may be less than what was done, never more. One thread.
 */
#ifndef TARN_MIRRORD_STATE_H
#define TARN_MIRRORD_STATE_H

#include <map>
#include <string>

#include "base/result.h"
#include "client/sequence.h"
#include "client/uuid.h"

namespace tarn {

/* $TARN_STATE_DIR if set; else /var/lib/tarn for root; else $XDG_STATE_HOME/tarn; else
 * ~/.local/state/tarn. Fails if none of them is known. */
Result<std::string> state_directory();

class StateFile {
 public:
  using Positions = std::map<Uuid, Sequencer::Position>;

  /* Both whole paths; the replica exists. Makes the directory of the state and sees that it can be
   * written; leaves a file that is there as it is. */
  static Result<StateFile> open(const std::string &source, const std::string &replica);

  /* Nothing if there is no state of this replica yet. Error: there is a file, but it cannot be
   * used. */
  Result<Positions> read() const;

  Result<void> write(const Positions &positions) const;

  const std::string &path() const { return path_; }

 private:
  StateFile() = default;
  Result<std::string> write_beside(const std::string &text) const;

  std::string directory_;
  std::string path_;
  std::string source_;
  std::string replica_;
  std::string identity_; /* of the replica's directory */
};

}  // namespace tarn

#endif
