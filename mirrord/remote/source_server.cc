// SPDX-License-Identifier: GPL-2.0
#include "mirrord/remote/source_server.h"

#include <algorithm>
#include <cerrno>
#include <optional>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/file_status.h"

namespace tarn {
namespace {

using remote::kMessageMax;

/* Of a message, beside its lists. */
constexpr std::size_t kHead = 1024;
constexpr std::size_t kPieceHead = 12;
constexpr std::size_t kDataMax = 448 << 10;
/* Of a file that changes while it is read: then the rest is asked for anew. */
constexpr int kMostExtents = 4096;
/* Blocks that are hashed for one question. */
constexpr std::uint64_t kMostHashed = 64;
constexpr std::size_t kMostHoles = 16384;

Error another_object(const std::string &path) {
  return Error{-ENOENT, printable("./" + path) + " is another object now at the source"};
}

}  // namespace

std::vector<std::byte> SourceServer::answer(Bytes message) {
  remote::NumberedAnswer answer;
  const auto question = remote::decode_question(message);
  if (question) {
    answer.number = question->number;
    auto found = std::visit([this](const auto &kind) { return to(kind); }, question->question);
    if (found)
      answer.answer = std::move(*found);
    else
      answer.answer = remote::Failure{-found.error().code, found.error().text};
  } else {
    answer.answer = remote::Failure{-question.error().code, question.error().text};
  }
  answer.now = now_us();
  return encode(answer);
}

Result<void> SourceServer::check_there() {
  if (source_.available()) return {};
  return Error{-EHOSTDOWN, fmt::format("the source {} cannot be read at its host: mount it",
                                       printable(options_.directory))};
}

/* Nothing leaves the source here: the path's names are plain, and no look-up follows a link. */
Result<std::optional<Source::Object>> SourceServer::find(const std::string &path) {
  const bool nul = path.find('\0') != std::string::npos;
  if (nul || !plain_relative(path))
    return Error{-EINVAL, printable("./" + path) + " is no path below the source"};
  if (const auto there = check_there(); !there) return there.error();
  if (!path.empty() && !options_.included(path)) return std::optional<Source::Object>();
  return source_.find(path);
}

Result<Source::Object> SourceServer::find_object(const std::string &path,
                                                 const remote::Object &object) {
  auto found = find(path);
  if (!found) return found.error();
  if (!*found || (*found)->status.st_dev != object.device ||
      (*found)->status.st_ino != object.inode)
    return another_object(path);
  return std::move(**found);
}

remote::Found SourceServer::found_at(const std::string &path) {
  remote::Found answer;
  auto there = find(path);
  if (!there || !*there) {
    answer.error = there ? ENOENT : -there.error().code;
    return answer;
  }
  answer.status = (*there)->status;
  answer.target = std::move((*there)->target);
  auto xattrs = source_.xattrs(**there);
  if (!xattrs) answer.xattrs_error = -xattrs.error().code;
  if (xattrs && *xattrs) answer.xattrs = std::move(**xattrs);
  return answer;
}

Result<remote::Answer> SourceServer::to(const remote::NowQuestion &) {
  return remote::Answer(remote::NowAnswer{});
}

Result<remote::Answer> SourceServer::to(const remote::StatusQuestion &question) {
  if (const auto there = check_there(); !there) return there.error();
  remote::StatusAnswer answer;
  std::size_t room = kMessageMax - kHead;
  for (const std::string &path : question.paths) {
    remote::Found found = found_at(path);
    std::size_t size = size_of(found);
    if (size > kMessageMax - kHead) {
      found.xattrs.clear();
      found.xattrs_error = E2BIG;
      size = size_of(found);
    }
    if (size > room) break;
    room -= size;
    answer.found.push_back(std::move(found));
  }
  return remote::Answer(std::move(answer));
}

Result<remote::Answer> SourceServer::to(const remote::ListQuestion &question) {
  const auto directory = find_object(question.path, question.object);
  if (!directory) return directory.error();
  const struct stat &status = directory->status;
  if (!S_ISDIR(status.st_mode)) return another_object(question.path);
  const bool kept = !question.after.empty() && listing_.path == question.path &&
                    same_object(listing_.status, status) &&
                    same_time(listing_.status.st_ctim, status.st_ctim);
  if (!kept) {
    auto entries = source_.entries(*directory);
    if (!entries) return entries.error();
    listing_ = {question.path, status, std::move(*entries)};
    std::erase_if(listing_.entries, [&](const DirectoryEntry &entry) {
      return !options_.included(question.path.empty() ? entry.name
                                                      : question.path + "/" + entry.name);
    });
    std::sort(listing_.entries.begin(), listing_.entries.end(),
              [](const DirectoryEntry &a, const DirectoryEntry &b) { return a.name < b.name; });
  }
  remote::ListAnswer answer;
  auto next = std::upper_bound(
      listing_.entries.begin(), listing_.entries.end(), question.after,
      [](const std::string &after, const DirectoryEntry &entry) { return after < entry.name; });
  for (std::size_t room = kMessageMax - kHead; next != listing_.entries.end(); ++next) {
    const std::size_t size = remote::size_of(*next);
    if (size > room) break;
    room -= size;
    answer.entries.push_back(*next);
  }
  answer.more = next != listing_.entries.end();
  if (!answer.more) listing_ = {};
  return remote::Answer(std::move(answer));
}

Result<remote::Answer> SourceServer::to(const remote::ReadQuestion &question) {
  const auto object = find_object(question.path, question.object);
  if (!object) return object.error();
  if (!S_ISREG(object->status.st_mode)) return another_object(question.path);
  const auto file = source_.open(*object);
  if (!file) return file.error();
  const auto before = (*file)->begin(question.from, question.to);
  if (!before) return before.error();
  remote::ReadAnswer answer;
  answer.before = *before;
  auto xattrs = (*file)->xattrs();
  if (!xattrs) answer.xattrs_error = -xattrs.error().code;
  if (xattrs) answer.xattrs = std::move(*xattrs);
  remote::Found size;
  size.xattrs = answer.xattrs;
  std::size_t taken = remote::size_of(size);
  if (taken > kMessageMax - kDataMax / 2) {
    answer.xattrs.clear();
    answer.xattrs_error = E2BIG;
    taken = 0;
  }
  const std::size_t room = std::min(kDataMax, kMessageMax - kHead - taken);
  if (const auto read = read_pieces(**file, question, room, answer); !read) return read.error();
  const auto after = (*file)->end();
  if (!after) return after.error();
  answer.after = *after;
  return remote::Answer(std::move(answer));
}

Result<void> SourceServer::read_pieces(SourceFile &file, const remote::ReadQuestion &question,
                                       std::size_t room, remote::ReadAnswer &answer) {
  data_.resize(kDataMax);  // never moved: the pieces lie in it
  std::size_t used = 0;
  std::uint64_t at = question.from;
  for (int extents = 0; at < question.to && room > kPieceHead && extents < kMostExtents;
       ++extents) {
    const auto data = file.data_from(at, question.to);
    if (!data) return data.error();
    at = data->begin;
    if (data->end <= at) continue;
    room -= kPieceHead;
    const auto most = static_cast<std::size_t>(
        std::min({data->end - at, std::uint64_t{room}, std::uint64_t{data_.size() - used}}));
    if (most == 0) break;
    const auto got = file.read(at, std::span(data_).subspan(used, most));
    if (!got) return got.error();
    if (*got > 0) answer.pieces.push_back({at, Bytes(data_).subspan(used, *got)});
    at += *got;
    used += *got;
    room -= *got;
    if (*got < most) at = question.to;  // the file's end
  }
  answer.end = std::max(at, question.from);
  return {};
}

Result<remote::Answer> SourceServer::to(const remote::WalkQuestion &question) {
  if (const auto asked = options_.walk(question); !asked) return asked.error();
  return remote::Answer(remote::WalkAnswer{});
}

Result<remote::Answer> SourceServer::to(const remote::MarkQuestion &) {
  const auto number = options_.mark();
  if (!number) return number.error();
  return remote::Answer(remote::MarkAnswer{*number});
}

Result<remote::Answer> SourceServer::to(const remote::ReportQuestion &question) {
  options_.report(question);
  return remote::Answer(remote::ReportAnswer{});
}

/* For a path that a replica may read. */
Result<LocalTree *> SourceServer::tree_with(const std::string &path) {
  const auto found = find(path);
  if (!found) return found.error();
  if (!*found) return Error{-ENOENT, printable("./" + path) + " is gone at the source"};
  if (!tree_) {
    auto opened = LocalTree::open(options_.directory);
    if (!opened) return opened.error();
    tree_.emplace(std::move(*opened));
  }
  return &*tree_;
}

Result<remote::Answer> SourceServer::to(const remote::HashQuestion &question) {
  const auto tree = tree_with(question.path);
  if (!tree) return tree.error();
  const std::string above = parent_of(question.path);
  const std::string name = question.path.substr(above.empty() ? 0 : above.size() + 1);
  const std::uint64_t length =
      std::min(question.to - std::min(question.to, question.from), kMostHashed * kBlockSize);
  if (question.from % kBlockSize != 0)
    return Error{-EINVAL, "hashes are asked for from within a block"};
  auto blocks = (*tree)->block_hashes(above, {Slice{name, question.from, length}});
  if (blocks.size() != 1) return Error{-EIO, "there are no hashes"};
  if (blocks.front().error != 0) return plain_error(blocks.front().error);
  return remote::Answer(
      remote::HashAnswer{blocks.front().version, std::move(blocks.front().hashes)});
}

Result<remote::Answer> SourceServer::to(const remote::HolesQuestion &question) {
  const auto tree = tree_with(question.path);
  if (!tree) return tree.error();
  const auto holes = (*tree)->holes(question.path);
  if (!holes) return holes.error();
  remote::HolesAnswer answer;
  for (const Hole &hole : *holes) {
    if (hole.offset + hole.length <= question.from) continue;
    answer.more = answer.holes.size() == kMostHoles;
    if (answer.more) break;
    answer.holes.push_back(hole);
  }
  return remote::Answer(std::move(answer));
}

Result<remote::Answer> SourceServer::to(const remote::AboutQuestion &) {
  return remote::Answer(remote::AboutAnswer{options_.run, options_.directory, options_.exclude});
}

Result<remote::Answer> SourceServer::to(const remote::AgainQuestion &question) {
  const auto coming = options_.again(question);
  if (!coming) return coming.error();
  return remote::Answer(remote::AgainAnswer{*coming});
}

}  // namespace tarn
