/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Persistent state of a replica: for each rule, the number of the last record that was handled. The
 * next mirrord of the replica resumes there, and so detects changes made while none ran.
 *
 * There is one file per source and replica, replaced atomically and on the disk when write()
 * returns. The state belongs to the replica's directory, not to its name: another directory of the
 * same name begins without state. It may claim less than was done, never more. One thread.
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

  /* Both paths are canonical and the replica exists. Makes the state directory and checks that it
   * is writable; does not change an existing file. */
  static Result<StateFile> open(const std::string &source, const std::string &replica);

  /* Empty if there is no state of this replica yet. Error: the file exists but is unusable. */
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
  std::string identity_; /* the replica directory's inode and birth time */
};

}  // namespace tarn

#endif
