/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Makes single paths of a target like the source. What it finds there decides, not what was found
 * before. New objects get their name when they are complete; files that exist are written in place.
 *
 * A failure is kept with its path, and what can be done beside it is done. Only the caller's wish
 * to end it is returned. One thread, and the one that reads the other side.
 */
#ifndef TARN_MIRRORD_VERIFY_MENDER_H
#define TARN_MIRRORD_VERIFY_MENDER_H

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "mirrord/verify/local_tree.h"
#include "mirrord/verify/side_thread.h"
#include "mirrord/verify/verify.h"

namespace tarn {

class Mender {
 public:
  /* `report` is called often with what is being done; its error ends the work. */
  using Report = std::function<Result<void>(const std::string &what)>;

  /* All must outlive this. */
  Mender(SourceTree &source, LocalTree &target, const VerifyOptions &options, SideThread &thread,
         Report report)
      : source_(source),
        target_(target),
        options_(options),
        thread_(thread),
        report_(std::move(report)) {}

  /* kAttributes: the data is known to be equal if the sizes are. */
  enum class Part { kAttributes, kAll };
  Result<void> mend(const std::string &path, Part part);

  /* Makes `path` and `other` one file in the target, or two, as they are at the source. */
  Result<void> mend_link(const std::string &path, const std::string &other);

  /* Why paths could not be mended, since the last call. */
  using Failures = std::map<std::string, std::string>;
  Failures take_failures() { return std::exchange(failures_, {}); }

  /* Was a file copied that has another name at the source, which the target may have as well? */
  bool copied_joined() const { return !made_.empty(); }

 private:
  /* Names of a directory that are still to be worked on. */
  struct Frame {
    std::string path;
    std::vector<std::string> names;
    std::size_t next = 0;
  };
  struct Made {
    std::string path;
    std::uint64_t names, expected;
  };

  Result<void> mend_found(const std::string &path, const TreeEntry &source,
                          const std::optional<TreeEntry> &target, Part part);
  Result<void> update(const std::string &path, const TreeEntry &source, const TreeEntry &target,
                      Part part);
  Result<std::vector<std::string>> names_in(SourceTree &tree, const std::string &directory);
  Result<void> make_tree(const std::string &top, const TreeEntry &source);
  Result<void> make_directory(const std::string &path);
  enum class Existing { kKept, kReplaced };
  Result<void> make_object(const std::string &path, const TreeEntry &source, Existing existing);
  Result<void> make_below(const Place &place, const std::string &path, const TreeEntry &source);
  bool made_link(const std::string &path, const TreeEntry &source);
  Result<void> remove_tree(const std::string &top);
  Result<void> link_over(const std::string &existing, const std::string &path);
  void restore_time(const std::string &directory);

  /* `place` has the target's file of `path`, or one that is to become it. */
  Result<void> copy_data(const Place &place, const std::string &path, const TreeEntry &source);
  /* Two open files. */
  struct Copy {
    SourceFile &from;
    int to;
    const TreeEntry &source;
    bool closed = false; /* the target may not be run with rights it has no more */
  };
  Result<void> copy_ranges(Copy &copy, const std::string &path, std::uint64_t shared);
  Result<void> copy_block(Copy &copy, std::uint64_t offset, std::uint64_t length);
  Result<void> punch_holes(const std::string &path, int to);

  Result<void> copy_attributes(const Place &place, const std::string &path,
                               const TreeEntry &source);
  bool is_unchanged(const std::string &path, const TreeEntry &source);

  void fail(const std::string &path, const Error &error);
  std::string temporary_name();

  SourceTree &source_;
  LocalTree &target_;
  const VerifyOptions &options_;
  SideThread &thread_;
  const Report report_;
  Failures failures_;
  std::unordered_map<Version, Made, ObjectHash> made_; /* by the source's object */
  std::uint64_t temporary_names_ = 0;
  std::vector<char> ours_ = std::vector<char>(kBlockSize);
  std::vector<char> theirs_ = std::vector<char>(kBlockSize);
};

}  // namespace tarn

#endif
