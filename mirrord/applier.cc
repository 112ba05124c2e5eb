// SPDX-License-Identifier: GPL-2.0
#include "mirrord/applier.h"

#include <cerrno>
#include <optional>
#include <string_view>

#include "client/paths.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

// What the kernel puts behind the path of a file that is still open but has lost its name.
constexpr std::string_view kDeleted = " (deleted)";

Replica::Attributes named_attributes(const SetAttr &change) {
  Replica::Attributes attributes;
  if (change.valid & OX_ATTR_SIZE) attributes.size = change.size;
  if (change.valid & OX_ATTR_UID) attributes.uid = change.uid;
  if (change.valid & OX_ATTR_GID) attributes.gid = change.gid;
  if (change.valid & OX_ATTR_MODE) attributes.mode = change.mode;
  if (change.valid & OX_ATTR_ATIME) attributes.atime = change.atime;
  if (change.valid & OX_ATTR_MTIME) attributes.mtime = change.mtime;
  return attributes;
}

}  // namespace

/* One function per kind of change; each gives what the replica said, or nothing if the change is
 * not its business. */
struct Applier::Visitor {
  using Done = std::optional<Result<Replica::Done>>;

  Applier &applier;
  const Record &record;
  Replica &replica = applier.replica_;

  std::optional<std::string> below(std::string_view path) const {
    return path_below(applier.source_, path);
  }

  Done operator()(const Create &c) {
    const auto path = below(c.path);
    return path ? Done(replica.create(*path, c.mode)) : Done();
  }
  Done operator()(const Mkdir &c) {
    const auto path = below(c.path);
    return path ? Done(replica.mkdir(*path, c.mode)) : Done();
  }
  Done operator()(const Unlink &c) {
    const auto path = below(c.path);
    return path ? Done(replica.unlink(*path)) : Done();
  }
  Done operator()(const Rmdir &c) {
    const auto path = below(c.path);
    return path ? Done(replica.rmdir(*path)) : Done();
  }
  Done operator()(const Symlink &c) {
    const auto path = below(c.path);
    return path ? Done(replica.symlink(std::string(c.target), *path)) : Done();
  }
  Done operator()(const Link &c) {
    const auto existing = below(c.existing), path = below(c.path);
    if (!path) return Done();
    if (!existing) return Done(Error{-EXDEV, "the linked file lies outside the source directory"});
    return replica.link(*existing, *path);
  }
  Done operator()(const Rename &c) {
    const auto from = below(c.from), to = below(c.to);
    if (!from && !to) return Done();
    if (!from)
      return Done(
          Error{-EXDEV, "it came from outside the source directory, so its contents are unknown"});
    if (!to)
      return Done(Error{-EXDEV, "it went outside the source directory and stays in the replica"});
    return replica.rename(*from, *to);
  }
  Done operator()(const SetAttr &c) {
    const auto path = below(c.path);
    return path ? Done(replica.set_attributes(*path, named_attributes(c))) : Done();
  }
  Done operator()(const Write &c) {
    const auto path = below(c.path);
    return path ? Done(replica.write(*path, c.offset, c.data)) : Done();
  }
  Done operator()(const WritePage &c) {
    auto place = applier.pages_.follow(record);
    if (!place) return Done(place.error());
    applier.page_path_ = std::move(place->path);
    const auto path = below(applier.page_path_);
    return path ? Done(replica.write(*path, c.offset, c.data)) : Done();
  }
};

Result<Applier::Outcome> Applier::apply(const Record &record) {
  page_path_.clear();
  const auto done = std::visit(Visitor{*this, record}, record.change);
  if (!done) return Outcome::kOutside;
  if (done->ok()) return **done == Replica::Done::kChanged ? Outcome::kApplied : Outcome::kAlready;
  const std::string_view path = page_path_.empty() ? change_path(record.change) : page_path_;
  if (done->error().code == -ENOENT && path.ends_with(kDeleted)) return Outcome::kNameless;
  return done->error();
}

}  // namespace tarn
