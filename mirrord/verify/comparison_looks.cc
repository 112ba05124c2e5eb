// SPDX-License-Identifier: GPL-2.0
// Looking again at what differed: does it differ for good?
#include <algorithm>
#include <chrono>
#include <ctime>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/verify/comparison.h"
#include "mirrord/verify/entry_differences.h"

namespace tarn {
namespace {

/* The pauses grow from this to a second, so that short bursts of changes end in between. It is
 * longer than the time in which two changes may have one change time. */
constexpr std::chrono::milliseconds kFirstPause(25);
constexpr std::chrono::milliseconds kLongestPause(1000);

/* Within this time two changes may have the same change time. Some file systems store seconds. */
constexpr std::int64_t kTickNs = 20'000'000;
constexpr std::int64_t kCoarseTickNs = 2'000'000'000;

/* Could the object change again now without another change time? One in the future tells nothing,
 * and waiting for it would not end. */
bool changed_just_now(const Version &version) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (version.seconds > now.tv_sec || now.tv_sec - version.seconds > 10) return false;
  const std::int64_t age =
      (now.tv_sec - version.seconds) * 1'000'000'000 + now.tv_nsec - version.nanoseconds;
  return age >= 0 && age < (version.nanoseconds == 0 ? kCoarseTickNs : kTickNs);
}

}  // namespace

void Comparison::note(Candidate candidate) {
  if (full()) {
    cut_ = true;
    return;
  }
  candidate.seen = !changed_just_now(candidate.source);
  candidate.looks = looks_before_;
  candidates_.push_back(std::move(candidate));
}

void Comparison::unreadable(const std::string &path, std::string why) {
  if (full())
    cut_ = true;
  else
    differences_.push_back({path, "unreadable", std::move(why)});
}

void Comparison::look_at(const std::string &path, Below below, const std::string &other) {
  Candidate candidate{path, other};
  candidate.entered = below == Below::kLeftOut;
  candidates_.push_back(std::move(candidate));
}

Result<std::vector<Difference>> Comparison::conclude() {
  auto pause = kFirstPause;
  for (bool first = true; !candidates_.empty(); first = false) {
    if (!first) {
      std::this_thread::sleep_for(pause);
      pause = std::min(2 * pause, kLongestPause);
    }
    auto reported = report(1, "waiting until the target has what was changed before");
    if (!reported) return reported.error();
    if (options_.settle) {
      auto settled = options_.settle();
      if (!settled) return settled.error();
    }
    for (Candidate &candidate : std::exchange(candidates_, {})) {
      reported = report(1, "looking again at " + printable(candidate.path));
      if (!reported) return reported.error();
      const auto concluded = concludes(candidate);
      if (!concluded) return concluded.error();
      if (!*concluded) candidates_.push_back(std::move(candidate));
    }
  }
  std::sort(differences_.begin(), differences_.end(), [](const auto &a, const auto &b) {
    return std::tie(a.path, a.kind, a.other) < std::tie(b.path, b.kind, b.other);
  });
  const auto end =
      std::unique(differences_.begin(), differences_.end(), [](const auto &a, const auto &b) {
        return a.path == b.path && a.kind == b.kind && a.other == b.other;
      });
  differences_.erase(end, differences_.end());
  if (cut_)
    differences_.push_back(
        {"", "more",
         fmt::format("more than {} differences: repair these and verify again", most_)});
  return std::move(differences_);
}

/* Looks at the candidate. True: it is equal, or it has been reported. */
Result<bool> Comparison::concludes(Candidate &candidate) {
  const std::string &path = candidate.path;
  if (candidate.looks >= kLooks) {
    differences_.push_back(
        {path, "changing", fmt::format("it changed each of the {} times it was compared", kLooks)});
    return true;
  }
  ++candidate.looks;
  const auto pair = find_both(path);
  if (!pair) {
    unreadable(path, pair.error().text);
    return true;
  }
  std::vector<Difference> found;
  if (what_ == What::kAll) found = entry_differences(path, pair->source, pair->target);
  const bool same = candidate.seen && candidate.source == pair->source_version() &&
                    candidate.target == pair->target_version();
  candidate.same_data = candidate.same_data && same;
  const auto steady = look_at_data(candidate, *pair, found);
  if (!steady) return steady.error();
  look_at_link(candidate, *pair, found);
  if (pair->both(S_IFDIR) && !candidate.entered) {
    candidate.entered = true;
    looks_before_ = candidate.looks;
    const auto walked = walk(path);
    looks_before_ = 0;
    if (!walked) return walked.error();
  }
  if (found.empty() && *steady) return true;
  if (same && *steady) {
    std::move(found.begin(), found.end(), std::back_inserter(differences_));
    return true;
  }
  candidate.source = pair->source_version();
  candidate.target = pair->target_version();
  candidate.seen = *steady && !changed_just_now(candidate.source);
  return false;
}

/* False: one of the files changed meanwhile. */
Result<bool> Comparison::look_at_data(Candidate &candidate, const Pair &pair,
                                      std::vector<Difference> &found) {
  if (what_ != What::kAll || !pair.same_size_files()) return true;
  const std::string &path = candidate.path;
  if (auto difference = holes(path, *pair.source, *pair.target))
    found.push_back(std::move(*difference));
  if (candidate.same_data) return true;
  const std::string directory = parent_of(path);
  std::vector<FilePair> files{{path.substr(directory.empty() ? 0 : directory.size() + 1),
                               pair.source->size, pair.source->version, pair.target->version}};
  const auto compared = compare_data(directory, files, 1, 0);
  if (!compared) return compared.error();
  const FilePair &file = files.front();
  if (!file.unreadable.empty()) found.push_back({path, "unreadable", file.unreadable});
  if (!file.differs.empty()) found.push_back({path, "data", file.differs});
  candidate.same_data = !file.settled() && !file.unsteady;
  return !file.unsteady;
}

/* Is the path one file with the candidate's other name on one side only? */
void Comparison::look_at_link(const Candidate &candidate, const Pair &pair,
                              std::vector<Difference> &found) {
  if (candidate.other.empty() || !pair.source || !pair.target) return;
  const auto others = find_both(candidate.other);
  if (!others || !others->source || !others->target) return;
  const bool at_source = pair.source->version.is_object(others->source->version);
  const bool at_target = pair.target->version.is_object(others->target->version);
  if (at_source == at_target) return;
  found.push_back({candidate.path, "link",
                   fmt::format("one file with {} {}", printable(candidate.other),
                               at_source ? "at the source only" : "in the target only"),
                   candidate.other});
}

}  // namespace tarn
