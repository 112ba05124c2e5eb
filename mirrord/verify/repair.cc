// SPDX-License-Identifier: GPL-2.0
#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "base/text.h"
#include "mirrord/verify/comparison.h"
#include "mirrord/verify/local_tree.h"
#include "mirrord/verify/mender.h"
#include "mirrord/verify/verify.h"

namespace tarn {
namespace {

/* What differs although it was mended is mended again this often: the source changed in between. */
constexpr unsigned kRounds = 4;

class Repair {
 public:
  Repair(SourceTree &source, LocalTree &target, const VerifyOptions &options, SideThread &thread)
      : source_(source),
        target_(target),
        options_(options),
        thread_(thread),
        mender_(source, target, options, thread,
                [this](const std::string &what) { return report(what); }) {
    looks_ = options;
    looks_.progress = [this](double, const std::string &what) { return report(what).ok(); };
  }

  Result<std::vector<Difference>> run(const std::vector<Difference> &found);

 private:
  struct Work {
    bool data = false;  /* the data may differ */
    bool below = false; /* a whole tree was made */
    std::set<std::string> others = {};
  };
  using Works = std::map<std::string, Work>; /* parents come first */

  Result<void> report(const std::string &what);
  void take_up(const Difference &difference, Works &works);
  Result<void> mend(const Works &works);
  Result<std::vector<Difference>> what_is_left(const Works &works);
  void add_reasons(std::vector<Difference> &left) const;

  SourceTree &source_;
  LocalTree &target_;
  const VerifyOptions &options_;
  VerifyOptions looks_; /* with this repair's progress */
  SideThread &thread_;
  Mender mender_;
  Mender::Failures failures_;
  double done_ = 0;
};

Result<void> Repair::report(const std::string &what) {
  if (!options_.progress || options_.progress(done_, what)) return {};
  return Error{-ECANCELED, "the repair was ended before it was complete"};
}

void Repair::take_up(const Difference &difference, Works &works) {
  const auto &[path, kind, detail, other] = difference;
  if (options_.included && !path.empty() && !options_.included(path)) return;
  Work &work = works[path];
  static const std::set<std::string> kAttributes = {"mode", "owner", "mtime", "xattr", "link"};
  work.data = work.data || !kAttributes.contains(kind);
  work.below = work.below || kind == "missing" || kind == "type";
  if (!other.empty()) work.others.insert(other);
}

Result<void> Repair::mend(const Works &works) {
  // Names are joined and parted first: what is then written is written to the right file.
  for (const auto &[path, work] : works) {
    for (const std::string &other : work.others) {
      auto reported = report("mending " + printable(path));
      if (!reported) return reported;
      auto mended = mender_.mend_link(path, other);
      if (!mended) return mended;
    }
  }
  std::size_t count = 0;
  for (const auto &[path, work] : works) {
    done_ = std::max(done_, static_cast<double>(count++) / static_cast<double>(works.size()));
    auto reported = report("mending " + printable(path.empty() ? "." : path));
    if (!reported) return reported;
    auto mended = mender_.mend(path, work.data ? Mender::Part::kAll : Mender::Part::kAttributes);
    if (!mended) return mended;
  }
  done_ = 1;
  failures_.merge(mender_.take_failures());
  return {};
}

Result<std::vector<Difference>> Repair::what_is_left(const Works &works) {
  using Below = Comparison::Below;
  Comparison comparison(source_, target_, looks_, thread_);
  for (const auto &[path, work] : works) {
    comparison.look_at(path, work.below ? Below::kCompared : Below::kLeftOut);
    for (const std::string &other : work.others) comparison.look_at(path, Below::kLeftOut, other);
  }
  return comparison.conclude();
}

void Repair::add_reasons(std::vector<Difference> &left) const {
  for (Difference &difference : left) {
    const auto failure = failures_.find(difference.path);
    if (failure != failures_.end()) difference.detail += "; " + failure->second;
  }
}

Result<std::vector<Difference>> Repair::run(const std::vector<Difference> &found) {
  std::vector<Difference> left;
  Works works;
  for (const Difference &difference : found) {
    if (difference.kind == "more")
      left.push_back(difference);
    else
      take_up(difference, works);
  }
  for (unsigned round = 1; !works.empty(); ++round) {
    auto mended = mend(works);
    if (!mended) return mended.error();
    auto remaining = what_is_left(works);
    if (!remaining) return remaining.error();
    // A file that was copied may have another name which the target has too, anywhere.
    if (round <= 2 && mender_.copied_joined()) {
      Comparison links(source_, target_, looks_, thread_, Comparison::What::kOnlyLinks);
      auto walked = links.walk("");
      if (!walked) return walked.error();
      auto apart = links.conclude();
      if (!apart) return apart.error();
      std::move(apart->begin(), apart->end(), std::back_inserter(*remaining));
    }
    works.clear();
    for (Difference &difference : *remaining) {
      const bool again = round < kRounds && difference.persists() && difference.kind != "more" &&
                         difference.kind != "unreadable" && !failures_.contains(difference.path);
      if (again) take_up(difference, works);
      if (!again) left.push_back(std::move(difference));
    }
  }
  add_reasons(left);
  std::sort(left.begin(), left.end(), [](const auto &a, const auto &b) {
    return std::tie(a.path, a.kind) < std::tie(b.path, b.kind);
  });
  return left;
}

}  // namespace

Result<std::vector<Difference>> repair_trees(const std::string &source, const std::string &target,
                                             const std::vector<Difference> &found,
                                             const VerifyOptions &options) {
  auto ours = LocalTree::open(source);
  if (!ours) return ours.error();
  return repair_trees(*ours, target, found, options);
}

Result<std::vector<Difference>> repair_trees(SourceTree &source, const std::string &target,
                                             const std::vector<Difference> &found,
                                             const VerifyOptions &options) {
  auto theirs = LocalTree::open(target);
  if (!theirs) return theirs.error();
  const auto thread = SideThread::start();
  if (!thread) return thread.error();
  return Repair(source, *theirs, options, **thread).run(found);
}

}  // namespace tarn
