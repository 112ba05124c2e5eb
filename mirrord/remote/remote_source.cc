// SPDX-License-Identifier: GPL-2.0
#include "mirrord/remote/remote_source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "base/text.h"

namespace tarn {
namespace {

/* Statuses that one question asks for. */
constexpr std::size_t kMostPaths = 1024;
constexpr std::size_t kMostPathBytes = 128 << 10;
/* How far ahead of the last one an expected path is looked for. */
constexpr std::size_t kSkipped = 256;
/* What an answer told about the time holds this long. */
constexpr std::chrono::seconds kClockHolds{60};
/* A question is asked as often, if that takes no longer. */
constexpr int kTries = 3;
constexpr std::chrono::seconds kTryFor{5}, kSilence{1};

Error away(const std::string &why) {
  return Error{-EHOSTDOWN, "the source's host does not answer: " + why};
}

Error of_path(int err, const std::string &what, const std::string &path) {
  return system_error(err, fmt::format("{} {} at its host", what, printable("./" + path)));
}

remote::Object object_of(const struct stat &status) {
  return {status.st_dev, status.st_ino};
}

/* Takes from `from` on as many as one question may have. */
std::vector<std::string> some_of(const std::vector<std::string> &all, std::size_t from,
                                 const std::string &below) {
  std::vector<std::string> some;
  for (std::size_t bytes = 0; from < all.size() && some.size() < kMostPaths; ++from) {
    bytes += below.size() + all[from].size();
    if (!some.empty() && bytes > kMostPathBytes) break;
    some.push_back(below + all[from]);
  }
  return some;
}

}  // namespace

/* An object of the source, and of a directory the names that are asked for. */
class RemoteObject {
 public:
  RemoteObject(std::string at, int error, Xattrs found)
      : path(std::move(at)), xattrs_error(error), xattrs(std::move(found)) {}

  std::string below() const { return path.empty() ? "" : path + "/"; }

  const std::string path;
  const int xattrs_error;
  const Xattrs xattrs;
  std::vector<std::string> names; /* ascending */
  std::map<std::string, remote::Found> ahead;
};

namespace {

/* Reads in pieces as large as an answer may be. */
class RemoteFile final : public SourceFile {
 public:
  RemoteFile(Conversation &conversation, std::string path, const struct stat &status)
      : conversation_(conversation), path_(std::move(path)), object_(object_of(status)) {}

  Result<struct stat> begin(std::uint64_t from, std::uint64_t to) override {
    loads_ = 0;
    if (const auto loaded = load(from, to); !loaded) return loaded.error();
    return part_.before;
  }
  Result<struct stat> end() override {
    if (const auto asked = ask_last(); !asked) return asked.error();
    return last_.after;
  }
  Result<Xattrs> xattrs() override {
    if (const auto asked = ask_last(); !asked) return asked.error();
    if (last_.error != 0)
      return of_path(last_.error, "cannot read the extended attributes of the source's", path_);
    return last_.xattrs;
  }

  Result<Extent> data_from(std::uint64_t at, std::uint64_t to) override {
    if (!has(at)) {
      if (const auto loaded = load(at, to); !loaded) return loaded.error();
    }
    for (const remote::Piece &piece : part_.pieces) {
      const std::uint64_t behind = piece.at + piece.data.size();
      if (behind > at && piece.at < to) return Extent{std::max(at, piece.at), std::min(behind, to)};
    }
    const std::uint64_t end = std::min(part_.end, to);
    return Extent{end, end};
  }

  Result<std::size_t> read(std::uint64_t at, std::span<std::byte> to) override {
    std::size_t done = 0;
    while (done < to.size()) {
      const auto data = data_from(at + done, at + to.size());
      if (!data) return data.error();
      const std::span<std::byte> rest = to.subspan(done);
      if (data->begin > at + done) {  // a hole, or the end
        const auto size = static_cast<std::uint64_t>(part_.after.st_size);
        const std::uint64_t zeros = std::min(data->begin, size);
        if (zeros <= at + done) break;
        const auto length = static_cast<std::size_t>(zeros - (at + done));
        std::fill_n(rest.begin(), length, std::byte{0});
        done += length;
      } else {
        done += take(data->begin, rest.first(static_cast<std::size_t>(data->end - data->begin)));
      }
    }
    return done;
  }

 private:
  struct Last {
    struct stat after;
    int error;
    Xattrs xattrs;
  };

  bool has(std::uint64_t at) const { return loads_ > 0 && at >= from_ && at < part_.end; }

  /* From the piece that has this place. */
  std::size_t take(std::uint64_t at, std::span<std::byte> to) const {
    for (const remote::Piece &piece : part_.pieces) {
      if (at < piece.at || at - piece.at >= piece.data.size()) continue;
      std::memcpy(to.data(), piece.data.data() + (at - piece.at), to.size());
    }
    return to.size();
  }

  Result<void> load(std::uint64_t from, std::uint64_t to) {
    std::vector<std::byte> message;
    auto part = conversation_.ask<remote::ReadAnswer>(
        remote::ReadQuestion{path_, object_, from, to}, message);
    if (!part) return part.error();
    if (from < to && part->end <= from) return away("its answer has no data");
    message_ = std::move(message);
    part_ = std::move(*part);
    from_ = from;
    last_ = Last{part_.after, part_.xattrs_error, std::move(part_.xattrs)};
    last_is_behind_all_ = ++loads_ == 1;
    return {};
  }

  /* The attributes and the status are of the time behind all that was read: in the only answer, or
   * in one that asks for nothing else. */
  Result<void> ask_last() {
    if (last_is_behind_all_) return {};
    std::vector<std::byte> message;
    auto part =
        conversation_.ask<remote::ReadAnswer>(remote::ReadQuestion{path_, object_, 0, 0}, message);
    if (!part) return part.error();
    last_ = Last{part->after, part->xattrs_error, std::move(part->xattrs)};
    last_is_behind_all_ = true;
    return {};
  }

  Conversation &conversation_;
  const std::string path_;
  const remote::Object object_;
  std::vector<std::byte> message_; /* the bytes of `part_` */
  remote::ReadAnswer part_;
  std::uint64_t from_ = 0;
  std::uint64_t loads_ = 0; /* since begin() */
  Last last_{};
  bool last_is_behind_all_ = false;
};

}  // namespace

std::int64_t Conversation::Heard::at_present() const {
  using std::chrono::microseconds;
  return now + std::chrono::duration_cast<microseconds>(Clock::now() - at).count();
}

/* One lost message is no reason to hold a target. */
Result<remote::Answer> Conversation::ask(const remote::Question &question,
                                         std::vector<std::byte> &message) {
  const auto begun = Clock::now();
  if (begun < ask_again_) return Error{-EHOSTDOWN, silence_};
  for (int tries = kTries;; --tries) {
    auto answer = ask_once(question, message);
    const bool again = !answer && is_away(answer.error()) && Clock::now() - begun < kTryFor;
    if (again && tries > 1) continue;
    if (!answer && silent_) {
      silence_ = answer.error().text;
      ask_again_ = Clock::now() + kSilence;
    }
    return answer;
  }
}

Result<remote::Answer> Conversation::ask_once(const remote::Question &question,
                                              std::vector<std::byte> &message) {
  const auto bytes = remote::encode({++number_, question});
  auto got = requests_.ask(bytes);
  silent_ = !got && got.error().code == -ETIMEDOUT;
  if (!got) return away(got.error().text);
  message = std::move(*got);
  auto answer = remote::decode_answer(message);
  if (!answer) return away(answer.error().text);
  if (const auto *failure = std::get_if<remote::Failure>(&answer->answer);
      failure && answer->number == 0)
    return away(printable(failure->text));
  if (answer->number != number_) return away("its answer is to another question");
  heard_ = Heard{answer->now, Clock::now()};
  if (const auto *failure = std::get_if<remote::Failure>(&answer->answer))
    return Error{-failure->error, printable(failure->text)};
  if (answer->answer.index() != question.index() + 1) return away("its answer is of another kind");
  return std::move(answer->answer);
}

Result<std::int64_t> Conversation::now() {
  if (!heard_ || Clock::now() - heard_->at > kClockHolds) {
    std::vector<std::byte> message;
    const auto answer = ask(remote::NowQuestion{}, message);
    if (!answer && !heard_) return answer.error();
  }
  return heard_->at_present();
}

bool RemoteSource::available() {
  return true;
}

/* The first path's; what came with it goes to `ahead`. */
Result<remote::Found> RemoteSource::ask_for(const std::vector<std::string> &paths, Ahead &ahead) {
  ahead.clear();
  std::vector<std::byte> message;
  auto answer = conversation_.ask<remote::StatusAnswer>(remote::StatusQuestion{paths}, message);
  if (!answer) return answer.error();
  auto &found = answer->found;
  if (found.empty() || found.size() > paths.size())
    return away("its answer has not as many paths as were asked for");
  for (std::size_t i = 1; i < found.size(); ++i)
    ahead.insert_or_assign(paths[i], std::move(found[i]));
  return std::move(found.front());
}

namespace {

/* What was found at the path, as the engine sees it. */
Result<std::optional<Source::Object>> as_object(const std::string &path, remote::Found found) {
  if (found.error == ENOENT) return std::optional<Source::Object>();
  if (found.error != 0) return of_path(found.error, "cannot read the source's", path);
  Source::Object object{.status = found.status, .target = std::move(found.target), .fd = {}};
  object.remote = std::make_shared<RemoteObject>(path, found.xattrs_error, std::move(found.xattrs));
  return std::optional<Source::Object>(std::move(object));
}

}  // namespace

Result<std::optional<Source::Object>> RemoteSource::find(const std::string &path) {
  if (auto known = ahead_.extract(path)) return as_object(path, std::move(known.mapped()));
  std::vector<std::string> paths = {path};
  const auto from = expected_.begin() + static_cast<std::ptrdiff_t>(next_expected_);
  const auto until = expected_.end() - from > static_cast<std::ptrdiff_t>(kSkipped)
                         ? from + static_cast<std::ptrdiff_t>(kSkipped)
                         : expected_.end();
  Ahead others;
  const auto at = std::find(from, until, path);
  const bool expected = at != until;
  if (expected) paths = some_of(expected_, static_cast<std::size_t>(at - expected_.begin()), "");
  auto found = ask_for(paths, others);
  if (!found) return found.error();
  if (expected) {
    next_expected_ = static_cast<std::size_t>(at - expected_.begin()) + 1 + others.size();
    ahead_ = std::move(others);
  }
  return as_object(path, std::move(*found));
}

void RemoteSource::expect(const std::vector<std::string> &paths) {
  expected_ = paths;
  next_expected_ = 0;
  ahead_.clear();
}

Result<std::optional<Source::Object>> RemoteSource::child(const Object &directory,
                                                          const DirectoryEntry &entry) {
  RemoteObject &above = *directory.remote;
  const std::string path = above.below() + entry.name;
  if (auto known = above.ahead.extract(path)) return as_object(path, std::move(known.mapped()));
  std::vector<std::string> paths = {path};
  const auto at = std::lower_bound(above.names.begin(), above.names.end(), entry.name);
  if (at != above.names.end() && *at == entry.name)
    paths = some_of(above.names, static_cast<std::size_t>(at - above.names.begin()), above.below());
  auto found = ask_for(paths, above.ahead);
  if (!found) return found.error();
  return as_object(path, std::move(*found));
}

Result<std::vector<DirectoryEntry>> RemoteSource::entries(const Object &directory) {
  RemoteObject &object = *directory.remote;
  std::vector<DirectoryEntry> all;
  std::vector<std::byte> message;
  for (bool more = true; more;) {
    auto part = conversation_.ask<remote::ListAnswer>(
        remote::ListQuestion{object.path, object_of(directory.status),
                             all.empty() ? "" : all.back().name},
        message);
    if (!part) return part.error();
    const bool onward =
        part->entries.empty() || all.empty() || all.back().name < part->entries.front().name;
    if (!onward || (part->more && part->entries.empty()))
      return away("its list of a directory does not go on");
    std::move(part->entries.begin(), part->entries.end(), std::back_inserter(all));
    more = part->more;
  }
  object.names.clear();
  object.ahead.clear();
  for (const DirectoryEntry &entry : all) object.names.push_back(entry.name);
  return all;
}

Result<std::unique_ptr<SourceFile>> RemoteSource::open(const Object &file) {
  return std::unique_ptr<SourceFile>(
      std::make_unique<RemoteFile>(conversation_, file.remote->path, file.status));
}

Result<std::optional<Xattrs>> RemoteSource::xattrs(const Object &object) {
  const RemoteObject &there = *object.remote;
  if (there.xattrs_error != 0)
    return of_path(there.xattrs_error, "cannot read the extended attributes of the source's",
                   there.path);
  return std::optional<Xattrs>(there.xattrs);
}

/* Names outside the source are not told. */
bool RemoteSource::has_name(const struct stat &, const std::string &) {
  return false;
}

Result<std::int64_t> RemoteSource::now() {
  return conversation_.now();
}

}  // namespace tarn
