// SPDX-License-Identifier: GPL-2.0
#include "mirrord/verify/mender.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/verify/entry_differences.h"

namespace tarn {
namespace {

/* More are not kept: they are as many as the differences that are reported. */
constexpr std::size_t kMostFailures = 1'000'000;

const char *remedy(int err) {
  switch (err) {
    case ENOSPC:
    case EDQUOT:
      return "free space in the target and repair again";
    case EROFS:
      return "mount the target writable and repair again";
    case EPERM:
    case EACCES:
      return "repair as root, and look for an immutable file or directory (lsattr)";
    case EOPNOTSUPP:
      return "the target's file system cannot store it";
    case ENOTEMPTY:
      return "it holds excluded names, or new ones";
    default:
      return "repair again";
  }
}

/* Gives the object its name if that is free. */
int rename_to_free(const Place &place, const std::string &from) {
  const int directory = place.directory.get();
#ifdef RENAME_NOREPLACE
  if (renameat2(directory, from.c_str(), directory, place.name.c_str(), RENAME_NOREPLACE) == 0)
    return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
#endif
  // Not every kernel and file system knows the flag.
  if (linkat(directory, from.c_str(), directory, place.name.c_str(), 0) != 0) return errno;
  return unlinkat(directory, from.c_str(), 0) == 0 ? 0 : errno;
}

bool is_end(const Result<void> &result) {
  return !result && result.error().code == -ECANCELED;
}

}  // namespace

void Mender::fail(const std::string &path, const Error &error) {
  if (failures_.size() < kMostFailures)
    failures_.emplace(path, fmt::format("not mended: {}; {}", error.text, remedy(-error.code)));
}

std::string Mender::temporary_name() {
  return fmt::format(".tarn-mend-{}-{}", getpid(), temporary_names_++);
}

bool Mender::is_unchanged(const std::string &path, const TreeEntry &source) {
  const auto now = source_.find(path);
  return now && *now && (*now)->version == source.version;
}

Result<void> Mender::mend(const std::string &path, Part part) {
  const auto source = source_.find(path);
  if (!source) {
    fail(path, source.error());
    return {};
  }
  const auto target = target_.find(path);
  if (!target) {
    fail(path, target.error());
    return {};
  }
  if (!*source && !*target) return {};
  auto done = *source ? mend_found(path, **source, *target, part) : remove_tree(path);
  if (is_end(done)) return done;
  if (!done) fail(path, done.error());
  if (!path.empty()) restore_time(parent_of(path));
  return {};
}

Result<void> Mender::mend_found(const std::string &path, const TreeEntry &source,
                                const std::optional<TreeEntry> &target, Part part) {
  if (!target) return make_tree(path, source);
  if (same_type(source, *target)) {
    if (source.text != target->text || source.device != target->device)
      return make_object(path, source, Existing::kReplaced);
    return update(path, source, *target, part);
  }
  auto removed = remove_tree(path);
  if (!removed) return removed;
  return make_tree(path, source);
}

Result<void> Mender::update(const std::string &path, const TreeEntry &source,
                            const TreeEntry &target, Part part) {
  // Other names of the target's file have nothing to do with the source's.
  if (target.links > 1 && source.links == 1 && !S_ISDIR(source.mode))
    return make_object(path, source, Existing::kReplaced);
  const auto place = place_below(target_.root(), path);
  if (!place) return place.error();
  if (S_ISREG(source.mode) && (part == Part::kAll || source.size != target.size)) {
    auto copied = copy_data(*place, path, source);
    if (!copied) return copied;
  }
  return copy_attributes(*place, path, source);
}

Result<std::vector<std::string>> Mender::names_in(SourceTree &tree, const std::string &directory) {
  auto names = tree.names(directory);
  if (names && options_.included)
    std::erase_if(
        *names, [&](const std::string &name) { return !options_.included(join(directory, name)); });
  return names;
}

/* Not recursive: a tree may be deeper than the stack. */
Result<void> Mender::make_tree(const std::string &top, const TreeEntry &source) {
  if (!S_ISDIR(source.mode)) return make_object(top, source, Existing::kKept);
  std::vector<Frame> frames;
  const auto enter = [&](const std::string &path) -> Result<void> {
    auto made = make_directory(path);
    if (!made) return made;
    auto names = names_in(source_, path);
    if (!names) return names.error();
    frames.push_back({path, std::move(*names)});
    return {};
  };
  auto entered = enter(top);
  if (!entered) return entered;
  while (!frames.empty()) {
    Frame &frame = frames.back();
    if (frame.next == frame.names.size()) {
      const auto found = source_.find(frame.path);
      const auto place = place_below(target_.root(), frame.path);
      if (!place) fail(frame.path, place.error());
      if (place && found && *found) {
        auto like = copy_attributes(*place, frame.path, **found);
        if (!like) fail(frame.path, like.error());
      }
      frames.pop_back();
      continue;
    }
    const std::string path = join(frame.path, frame.names[frame.next++]);
    auto reported = report_("copying " + printable(path));
    if (!reported) return reported;
    const auto found = source_.find(path);
    if (!found) fail(path, found.error());
    if (!found || !*found) continue;
    const auto made =
        S_ISDIR((*found)->mode) ? enter(path) : make_object(path, **found, Existing::kKept);
    if (is_end(made)) return made;
    if (!made) fail(path, made.error());
  }
  return {};
}

Result<void> Mender::make_directory(const std::string &path) {
  const auto place = place_below(target_.root(), path);
  if (!place) return place.error();
  if (mkdirat(place->directory.get(), place->name.c_str(), 0700) != 0 && errno != EEXIST)
    return plain_error(errno);
  return {};
}

/* Anything but a directory. A name that came meanwhile and is not replaced is looked at again by
 * the caller. */
Result<void> Mender::make_object(const std::string &path, const TreeEntry &source,
                                 Existing existing) {
  if (existing == Existing::kKept && made_link(path, source)) return {};
  auto place = place_below(target_.root(), path);
  if (!place) return place.error();
  const std::string name = std::exchange(place->name, temporary_name());
  const int directory = place->directory.get();
  auto made = make_below(*place, path, source);
  const std::string temporary = std::exchange(place->name, name);
  int err = 0;
  if (made && existing == Existing::kKept) err = rename_to_free(*place, temporary);
  if (made && existing == Existing::kReplaced &&
      renameat(directory, temporary.c_str(), directory, name.c_str()) != 0)
    err = errno;
  if (made && err == 0) {
    if (source.links > 1)
      made_.insert_or_assign(source.version.object(), Made{path, 1, source.links});
    return {};
  }
  if (unlinkat(directory, temporary.c_str(), 0) != 0 && errno != ENOENT && made)
    return plain_error(errno);
  if (!made) return made;
  return err == EEXIST ? Result<void>() : plain_error(err);
}

Result<void> Mender::make_below(const Place &place, const std::string &path,
                                const TreeEntry &source) {
  const int directory = place.directory.get();
  const char *name = place.name.c_str();
  if (S_ISREG(source.mode)) {
    const UniqueFd file(openat(directory, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file) return plain_error(errno);
    auto copied = copy_data(place, path, source);
    if (!copied) return copied;
  } else if (S_ISLNK(source.mode)) {
    const auto text = source_.link_text(path);
    if (!text) return text.error();
    if (symlinkat(text->c_str(), directory, name) != 0) return plain_error(errno);
  } else if (mknodat(directory, name, (source.mode & S_IFMT) | 0600, source.device) != 0) {
    return plain_error(errno);
  }
  return copy_attributes(place, path, source);
}

/* Makes a name of a file that was made before under another one. */
bool Mender::made_link(const std::string &path, const TreeEntry &source) {
  const auto made = made_.find(source.version.object());
  if (made == made_.end()) return false;
  const auto there = source_.find(made->second.path);
  if (!there || !*there || !(*there)->version.is_object(source.version)) return false;
  const auto from = place_below(target_.root(), made->second.path);
  const auto to = place_below(target_.root(), path);
  if (!from || !to ||
      linkat(from->directory.get(), from->name.c_str(), to->directory.get(), to->name.c_str(), 0))
    return false;  // it becomes a copy, and a link when all names are looked at
  if (++made->second.names >= made->second.expected) made_.erase(made);
  return true;
}

Result<void> Mender::link_over(const std::string &existing, const std::string &path) {
  const auto from = place_below(target_.root(), existing);
  if (!from) return from.error();
  const auto to = place_below(target_.root(), path);
  if (!to) return to.error();
  const std::string temporary = temporary_name();
  const int directory = to->directory.get();
  if (linkat(from->directory.get(), from->name.c_str(), directory, temporary.c_str(), 0) != 0)
    return plain_error(errno);
  const int err =
      renameat(directory, temporary.c_str(), directory, to->name.c_str()) == 0 ? 0 : errno;
  // A rename over another name of the same file leaves both.
  if (unlinkat(directory, temporary.c_str(), 0) != 0 && errno != ENOENT) return plain_error(errno);
  if (err != 0) return plain_error(err);
  return {};
}

Result<void> Mender::mend_link(const std::string &path, const std::string &other) {
  const auto s = source_.find(path), so = source_.find(other), t = target_.find(path),
             to = target_.find(other);
  for (const auto *found : {&s, &so, &t, &to}) {
    if (!*found) fail(path, found->error());
    if (!*found || !**found) return {};
  }
  if (S_ISDIR((*s)->mode) || S_ISDIR((*to)->mode)) return {};
  const bool at_source = (*s)->version.is_object((*so)->version);
  if (at_source == (*t)->version.is_object((*to)->version)) return {};
  auto done = at_source ? link_over(other, path) : make_object(path, **s, Existing::kReplaced);
  if (is_end(done)) return done;
  if (!done) fail(path, done.error());
  restore_time(parent_of(path));
  return {};
}

Result<void> Mender::remove_tree(const std::string &top) {
  if (top.empty()) return plain_error(ENOENT);  // the source's root is gone: never empty the target
  Error first;
  std::vector<Frame> frames;
  const auto remove = [&](const std::string &path, int flags) -> int {
    const auto place = place_below(target_.root(), path);
    if (!place) return -place.error().code;
    return unlinkat(place->directory.get(), place->name.c_str(), flags) == 0 ? 0 : errno;
  };
  const auto note = [&](int err) {
    if (err != 0 && !means_absent(err) && first.code == 0) first = plain_error(err);
  };
  const auto enter = [&](const std::string &path) {
    const int err = remove(path, 0);
    if (err != EISDIR) return note(err);
    auto names = names_in(target_, path);
    if (!names) return note(-names.error().code);
    frames.push_back({path, std::move(*names)});
  };
  enter(top);
  while (!frames.empty()) {
    Frame &frame = frames.back();
    if (frame.next == frame.names.size()) {
      note(remove(frame.path, AT_REMOVEDIR));
      frames.pop_back();
      continue;
    }
    const std::string path = join(frame.path, frame.names[frame.next++]);
    auto reported = report_("removing " + printable(path));
    if (!reported) return reported;
    enter(path);
  }
  return first.code == 0 ? Result<void>() : first;
}

}  // namespace tarn
