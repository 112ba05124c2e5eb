/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The comparison behind verify_trees() and repair_trees(). walk() and look_at() collect the paths
 * that differ; conclude() looks at them until each is equal, differs for good, or is given up as
 * changing. One thread; the sides are read by another one too, see SideThread.
 */
#ifndef TARN_MIRRORD_VERIFY_COMPARISON_H
#define TARN_MIRRORD_VERIFY_COMPARISON_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "mirrord/verify/side_thread.h"
#include "mirrord/verify/tree.h"
#include "mirrord/verify/verify.h"

namespace tarn {

class Comparison {
 public:
  /* How often a path is looked at again before it is called changing. */
  static constexpr unsigned kLooks = 6;
  static constexpr std::size_t kMostDifferences = 1'000'000;

  /* kOnlyLinks compares only which names are one file. */
  enum class What { kAll, kOnlyLinks };

  /* All but `most` must outlive this. */
  Comparison(Tree &source, Tree &target, const VerifyOptions &options, SideThread &thread,
             What what = What::kAll, std::size_t most = kMostDifferences)
      : source_(source),
        target_(target),
        options_(options),
        thread_(thread),
        what_(what),
        most_(most) {}

  /* Compares `top` and all below it. Error: see verify_trees(). */
  Result<void> walk(const std::string &top);

  /* Compares `path` alone, or also what is below it if both are directories. `other` is another
   * name that it may have. */
  enum class Below { kLeftOut, kCompared };
  void look_at(const std::string &path, Below below, const std::string &other = {});

  /* Sorted by path. */
  Result<std::vector<Difference>> conclude();

 private:
  using Entry = std::optional<TreeEntry>;
  /* The two objects of a path. */
  struct Pair {
    Entry source, target;
    bool both(std::uint32_t type) const;
    bool same_size_files() const;
    Version source_version() const { return source ? source->version : Version{}; }
    Version target_version() const { return target ? target->version : Version{}; }
  };
  /* A path to look at again, and how it was when it was last looked at. */
  struct Candidate {
    std::string path;
    std::string other = {}; /* a name with which it may be one file */
    Version source = {}, target = {};
    bool seen = false; /* `source` and `target` are set, and another change would show there */
    bool same_data = false;
    bool entered = false; /* what is below it has been compared, or nothing is */
    unsigned looks = 0;
  };
  /* Two files of one size and how their data compare. */
  struct FilePair {
    std::string name;
    std::uint64_t size;
    Version source, target; /* as listed */
    bool maybe_sparse = false;
    bool unsteady = false;       /* one of them changed or went */
    std::string differs = {};    /* where; empty if they do not */
    std::string unreadable = {}; /* why, or empty */
    bool settled() const { return !differs.empty() || !unreadable.empty(); }
  };
  /* The part of the progress that a directory is, and its subdirectories to be entered. */
  struct Frame {
    std::string path;
    std::vector<std::string> names;
    std::size_t next;
    double begin, share;
  };
  /* One object of one side that has several names: the other side's object at the first one. */
  struct Joined {
    Version other;
    std::string path;
    std::uint64_t names = 0;
  };
  using JoinedFiles = std::unordered_map<Version, Joined, ObjectHash>;

  bool included(const std::string &path) const {
    return path.empty() || !options_.included || options_.included(path);
  }
  Result<void> report(double done, const std::string &what);

  Result<Pair> find_both(const std::string &path);
  Result<void> enter(const std::string &path, std::vector<Frame> &frames, double begin,
                     double share);
  void compare_lists(const std::string &path, const Listing &source, const Listing &target,
                     std::vector<std::string> &directories, std::vector<FilePair> &files);
  void compare_names(const std::string &path, const TreeEntry &source, const TreeEntry &target);
  static std::string note_joined(JoinedFiles &files, const TreeEntry &mine, const TreeEntry &theirs,
                                 const std::string &path, bool each_once);
  Result<void> compare_data(const std::string &directory, std::vector<FilePair> &files,
                            double begin, double share);
  void compare_slices(const std::string &directory, std::vector<FilePair> &files,
                      const std::vector<std::size_t> &of, const std::vector<Slice> &slices);
  static Candidate candidate_of(const std::string &path, const Pair &pair);
  void note(Candidate candidate);
  void unreadable(const std::string &path, std::string why);
  std::optional<Difference> holes(const std::string &path, const TreeEntry &source,
                                  const TreeEntry &target);

  Result<bool> concludes(Candidate &candidate);
  Result<bool> look_at_data(Candidate &candidate, const Pair &pair, std::vector<Difference> &found);
  void look_at_link(const Candidate &candidate, const Pair &pair, std::vector<Difference> &found);
  bool full() const { return candidates_.size() + differences_.size() >= most_; }

  Tree &source_;
  Tree &target_;
  const VerifyOptions &options_;
  SideThread &thread_;
  const What what_;
  const std::size_t most_;

  JoinedFiles joined_at_source_, joined_at_target_;
  std::vector<Candidate> candidates_;
  std::vector<Difference> differences_;
  unsigned looks_before_ = 0; /* of the candidate whose subtree is walked */
  bool walked_ = false;       /* a second walk may come to the same names again */
  bool cut_ = false;          /* there were too many */
};

}  // namespace tarn

#endif
