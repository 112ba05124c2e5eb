/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The service's own directory: logs, positions and what else must outlive it. One service at a time
 * has it, and only the user that made it.
 *
 *   PATH/VERSION           the format of everything below, as text
 *   PATH/LOCK              held locked (flock) by the service; holds its process id
 *   PATH/SOURCE/log        the log of a source
 *   PATH/SOURCE/target-T   the state of a target
 *
 * The object owns the lock, which the kernel releases when the process ends, however it does. Any
 * thread may ask for paths; one thread at a time makes a source's directory. Errors: one line with
 * the path and the remedy.
 */
#ifndef TARN_MIRRORD_CONFIG_STATE_DIRECTORY_H
#define TARN_MIRRORD_CONFIG_STATE_DIRECTORY_H

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "base/result.h"
#include "base/unique_fd.h"

namespace tarn {

class StateDirectory {
 public:
  /*
   * `directory` is absolute. Makes it (mode 0700) with the directories above it, or begins in an
   * empty one; otherwise checks that it is ours, closed to others and of a known version. Nothing
   * is changed on an error. Errors: -EBUSY: another service has it; -EPERM: another user's, or open
   * to others; -EBADMSG: another version, or no state directory; those of system calls.
   */
  static Result<StateDirectory> open(const std::string &directory);

  const std::string &path() const { return path_; }

  /* The directory of a source, made if it is missing (mode 0700, on the disk on return). -EINVAL: a
   * name that read_config() would refuse. */
  Result<std::string> source(const std::string &name) const;

 private:
  StateDirectory(std::string path, UniqueFd directory, UniqueFd lock)
      : path_(std::move(path)), directory_(std::move(directory)), lock_(std::move(lock)) {}

  std::string path_;
  UniqueFd directory_;
  UniqueFd lock_;
};

/*
 * Small files that a power cut leaves either as they were or as they are to be: a JSON document
 * behind a line with its checksum. Read as a whole, replaced as a whole.
 *
 * write_document() returns when the file and its name are on the disk. On an error the old content
 * is still there, unless only the last step, syncing the directory, has failed: then it is either.
 * One thread at a time writes a file; it makes FILE.new beside it for the time. Text in the
 * document is UTF-8 (-EINVAL): client/json_bytes.h is for paths.
 */
Result<void> write_document(const std::string &file, const nlohmann::json &document);

/* Nothing: there is no such file. -EBADMSG: it is not one of write_document(), or is damaged. */
Result<std::optional<nlohmann::json>> read_document(const std::string &file);

/* Fields of a document. The library's own conversions of numbers wrap and cut without an error.
 * Throw nlohmann::json::exception if there is none, or one of another type or range. */
std::uint64_t count_field(const nlohmann::json &document, const char *name);
std::int64_t time_field(const nlohmann::json &document, const char *name);

}  // namespace tarn

#endif
