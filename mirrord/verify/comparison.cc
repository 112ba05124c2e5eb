// SPDX-License-Identifier: GPL-2.0
#include "mirrord/verify/comparison.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/verify/entry_differences.h"

namespace tarn {
namespace {

bool has_joins(const TreeEntry &entry) {
  return entry.links > 1 && !S_ISDIR(entry.mode);
}

/* May the target store zeros where the source has holes? */
bool maybe_sparse(const TreeEntry &source, const TreeEntry &target) {
  return source.allocated + kHoleSize <= source.size &&
         source.allocated + kHoleSize <= target.allocated;
}

}  // namespace

bool Comparison::Pair::both(std::uint32_t type) const {
  return source && target && (source->mode & S_IFMT) == type && (target->mode & S_IFMT) == type;
}

bool Comparison::Pair::same_size_files() const {
  return both(S_IFREG) && source->size == target->size && source->size > 0;
}

Result<void> Comparison::report(double done, const std::string &what) {
  if (!options_.progress || options_.progress(std::clamp(done, 0.0, 1.0), what)) return {};
  return Error{-ECANCELED, "the comparison was ended before it was complete"};
}

Result<Comparison::Pair> Comparison::find_both(const std::string &path) {
  Result<Entry> source = Entry(), target = Entry();
  thread_.both([&] { source = source_.find(path); }, [&] { target = target_.find(path); });
  if (!source) return Error{source.error().code, "source: " + source.error().text};
  if (!target) return Error{target.error().code, "target: " + target.error().text};
  return Pair{std::move(*source), std::move(*target)};
}

/* The data is taken to be compared: if it differs, that is noted by itself. */
Comparison::Candidate Comparison::candidate_of(const std::string &path, const Pair &pair) {
  return {.path = path,
          .source = pair.source_version(),
          .target = pair.target_version(),
          .same_data = pair.same_size_files(),
          .entered = pair.both(S_IFDIR)};
}

Result<void> Comparison::walk(const std::string &top) {
  const auto pair = find_both(top);
  if (!pair) {
    unreadable(top, pair.error().text);
    return {};
  }
  if (what_ == What::kAll && !entry_differences(top, pair->source, pair->target).empty())
    note(candidate_of(top, *pair));
  std::vector<Frame> frames;
  if (pair->both(S_IFDIR)) {
    const auto entered = enter(top, frames, 0, 1);
    if (!entered) return entered;
  }
  while (!frames.empty() && !cut_) {
    Frame &frame = frames.back();
    if (frame.next == frame.names.size()) {
      frames.pop_back();
      continue;
    }
    // The first share is the directory's own files.
    const double share = frame.share / static_cast<double>(frame.names.size() + 1);
    const double begin = frame.begin + share * static_cast<double>(frame.next + 1);
    const std::string path = join(frame.path, frame.names[frame.next++]);
    const auto entered = enter(path, frames, begin, share);
    if (!entered) return entered;
  }
  walked_ = true;
  return {};
}

Result<void> Comparison::enter(const std::string &path, std::vector<Frame> &frames, double begin,
                               double share) {
  auto reported = report(begin, "comparing " + printable(path.empty() ? "." : path));
  if (!reported) return reported;
  Result<Listing> source = Listing(), target = Listing();
  thread_.both([&] { source = source_.list(path); }, [&] { target = target_.list(path); });
  for (const auto &[side, listing] : {std::pair{"source", &source}, std::pair{"target", &target}}) {
    if (listing->ok()) continue;
    const Error &error = listing->error();
    // What has gone or become something else is looked at again; that ends by the number of looks.
    if (means_absent(-error.code))
      note({.path = path});
    else
      unreadable(path, fmt::format("{}: {}", side, error.text));
    return {};
  }
  Frame frame{path, {}, 0, begin, share};
  std::vector<FilePair> files;
  compare_lists(path, *source, *target, frame.names, files);
  source = Listing();
  target = Listing();
  auto compared =
      compare_data(path, files, begin, share / static_cast<double>(frame.names.size() + 1));
  if (!compared) return compared;
  for (const FilePair &file : files) {
    if (file.unsteady || file.settled() || file.maybe_sparse)
      note({.path = join(path, file.name),
            .source = file.source,
            .target = file.target,
            .same_data = !file.unsteady && !file.settled()});
  }
  if (!frame.names.empty()) frames.push_back(std::move(frame));
  return {};
}

void Comparison::compare_lists(const std::string &path, const Listing &source,
                               const Listing &target, std::vector<std::string> &directories,
                               std::vector<FilePair> &files) {
  const bool equal = source.hash == target.hash;
  auto s = source.entries.begin();
  auto t = target.entries.begin();
  while (s != source.entries.end() || t != target.entries.end()) {
    const bool has_source =
        s != source.entries.end() && (t == target.entries.end() || s->name <= t->name);
    const bool has_target =
        t != target.entries.end() && (s == source.entries.end() || t->name <= s->name);
    const TreeEntry *mine = has_source ? &*s++ : nullptr;
    const TreeEntry *theirs = has_target ? &*t++ : nullptr;
    const std::string child = join(path, (mine ? mine : theirs)->name);
    if (!included(child)) continue;
    if (!mine || !theirs) {
      if (what_ == What::kAll)
        note({.path = child,
              .source = mine ? mine->version : Version{},
              .target = theirs ? theirs->version : Version{}});
      continue;
    }
    if (!equal && what_ == What::kAll && !entry_differences(child, *mine, *theirs).empty())
      note(candidate_of(child, {*mine, *theirs}));
    if (!same_type(*mine, *theirs)) continue;
    if (S_ISDIR(mine->mode)) directories.push_back(mine->name);
    compare_names(child, *mine, *theirs);
    if (what_ == What::kAll && S_ISREG(mine->mode) && mine->size == theirs->size && mine->size > 0)
      files.push_back(
          {mine->name, mine->size, mine->version, theirs->version, maybe_sparse(*mine, *theirs)});
  }
}

/* Returns the first name of `mine` if the other side has another object there, else "". */
std::string Comparison::note_joined(JoinedFiles &files, const TreeEntry &mine,
                                    const TreeEntry &theirs, const std::string &path,
                                    bool each_once) {
  if (!has_joins(mine)) return "";
  const auto [at, is_first] =
      files.try_emplace(mine.version.object(), Joined{theirs.version.object(), path});
  Joined &joined = at->second;
  const bool differs = !is_first && joined.path != path && joined.other != theirs.version.object();
  std::string other = differs ? joined.path : "";
  if (++joined.names >= mine.links && each_once) files.erase(at);
  return other;
}

void Comparison::compare_names(const std::string &path, const TreeEntry &source,
                               const TreeEntry &target) {
  const auto note_if_joined = [&](const std::string &other) {
    if (other.empty()) return;
    Candidate candidate = candidate_of(path, {source, target});
    candidate.other = other;
    note(std::move(candidate));
  };
  note_if_joined(note_joined(joined_at_source_, source, target, path, !walked_));
  note_if_joined(note_joined(joined_at_target_, target, source, path, !walked_));
}

/* Both must be files with the same data. */
std::optional<Difference> Comparison::holes(const std::string &path, const TreeEntry &source,
                                            const TreeEntry &target) {
  if (!maybe_sparse(source, target)) return std::nullopt;
  Result<std::uint64_t> ours = std::uint64_t{0}, theirs = std::uint64_t{0};
  thread_.both([&] { ours = source_.hole_bytes(path); },
               [&] { theirs = target_.hole_bytes(path); });
  if (!ours || !theirs) return std::nullopt;  // gone: seen by the next look
  if (*ours < *theirs + kHoleSize) return std::nullopt;
  return Difference{path, "holes",
                    fmt::format("the source has {} bytes in holes, the target {}", *ours, *theirs)};
}

}  // namespace tarn
