// SPDX-License-Identifier: GPL-2.0
#include "mirrord/applier.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <optional>
#include <string_view>

#include <fmt/format.h>

#include "base/text.h"
#include "client/paths.h"
#include "mirrord/attributes.h"
#include "mirrord/failures.h"
#include "mirrord/path_map.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

constexpr int kLinkRounds = 4;

const Error kAbsent{-ENOENT, "No such file or directory"};

/* Something else may have taken the place of a directory on the path. */
bool leads_nowhere(const Error &error) {
  return error.code == -ENOENT || error.code == -ENOTDIR;
}

/* As the kernel's name of a removed file, with what it adds to it, may be. */
bool has_long_name(std::string_view path) {
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    if (end > NAME_MAX) return true;
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return false;
}

/* Relative to the source; "" is the source itself. */
bool is_possible(std::string_view path) {
  return path.empty() || (plain_relative(path) && !has_long_name(path));
}

}  // namespace

/* One function per kind of change; each returns the replica's result, or nothing if the change is
 * outside the source or the rule. */
struct Applier::Visitor {
  using Did = Result<Replica::Done>;
  using Done = std::optional<Did>;

  Applier &applier;
  const Record &record;
  Replica &replica = applier.replica_;
  Reconciler &reconciler = applier.reconciler_;

  std::optional<std::string> below(std::string_view path) const {
    return path_below(applier.source_, path);
  }
  /* The path in the replica, if the rule includes it. */
  std::optional<std::string> inside(std::string_view path) const {
    auto found = below(path);
    if (found && !applier.scopes_.includes(record, path)) found.reset();
    return found;
  }

  Unexplained unexplained(std::string_view path) const {
    return {record.rule, record.wseq,
            fmt::format("{} {}", change_name(record.change), printable(applier.absolute(path)))};
  }

  /* The replica is not in the state that the record expects. Copies the source's present state,
   * which is better than none, and returns the failure. */
  Did replace_from_source(const std::string &path, const Error &error) {
    if (const auto replaced = reconciler.reconcile(path); !replaced)
      return Error{error.code,
                   error.text + "; and it cannot be copied anew: " + replaced.error().text};
    return error;
  }

  /* The replica lacks the changed object. It may be one whose creation is not recorded, by
   * mknod(2): fetches it. */
  Did apply_to_missing(const std::string &path, const Error &error) {
    const auto above = replica.find(parent_of(path));
    if (!above || !*above || !reconciler.source().available()) return error;
    const auto found = reconciler.source().find(path);
    if (!found) return error;
    const auto reconciled = reconciler.reconcile(path);
    if (reconciled && !*found) reconciler.expect_explanation(path, unexplained(path));
    return reconciled;
  }

  Did create(const std::string &path, const Create &c) {
    if (reconciler.follows_source(path)) return reconciler.reconcile(path);
    reconciler.records_change(path);
    const auto done = replica.create(path, c.mode);
    if (!done) return done.error().code == -ENOENT ? done : replace_from_source(path, done.error());
    reconciler.removed(path);
    return done;
  }
  Did mkdir(const std::string &path, const Mkdir &c) {
    if (reconciler.follows_source(path)) return reconciler.reconcile(path);
    const auto done = replica.mkdir(path, c.mode);
    if (!done) return done.error().code == -ENOENT ? done : replace_from_source(path, done.error());
    if (*done == Replica::Done::kChanged || !reconciler.source().available()) return done;
    // A new directory is empty: what is in this one is of an older one of that name, whose end was
    // not recorded, and a walk had come by before the new one was there.
    const auto names = replica.names(path);
    if (!names) return names.error();
    return names->empty() ? done : reconciler.reconcile(path);
  }
  /* A record removed or renamed the object of a path that follows the source. */
  Did reconcile_removed(const std::string &path) {
    reconciler.explained(path);
    return reconciler.reconcile(path);
  }
  Did unlink(const std::string &path) {
    if (reconciler.follows_source(path)) return reconcile_removed(path);
    if (const auto left = reconciler.before_removal(path); !left) return left.error();
    const auto done = replica.unlink(path);
    if (done) reconciler.removed(path);
    return done;
  }

  /* A source directory of this name with entries was not removed. An empty one may have been
   * removed and made anew: it is empty either way, and follows the source from now on. */
  Did rmdir(const std::string &path) {
    if (reconciler.follows_source(path) || reconciler.follows_source_below(path))
      return reconcile_removed(path);
    const auto mine = replica.find(path);
    if (mine && *mine && reconciler.source().available()) {
      const auto found = reconciler.source().find(path);
      if (!found) return found.error();
      if (*found && S_ISDIR((*found)->status.st_mode)) {
        const auto names = replica.names(path);
        if (!names) return names.error();
        if (names->empty()) reconciler.follow_source(path);
        return Replica::Done::kAlready;
      }
    }
    const auto done = replica.rmdir(path);
    if (!done || !reconciler.source().available()) return done;
    if (*done == Replica::Done::kChanged) {
      reconciler.removed(path);
      reconciler.follow_source(path);
    } else if (mine && *mine) {  // not empty, though the source's was: records must follow
      reconciler.expect_explanation(path, unexplained(path));
    }
    return done;
  }

  Did symlink(const std::string &path, const Symlink &c) {
    if (reconciler.follows_source(path)) return reconciler.reconcile(path);
    const auto done = replica.symlink(std::string(c.target), path);
    if (!done) return done.error().code == -ENOENT ? done : replace_from_source(path, done.error());
    reconciler.removed(path);
    if (!reconciler.source().available()) return done;
    const auto found = reconciler.source().find(path);
    if (!found) return found.error();
    if (!*found || !S_ISLNK((*found)->status.st_mode) || (*found)->target != c.target) {
      reconciler.doubt(path, PendingPaths::kNoData);
      return done;
    }
    const auto like = reconciler.fetcher().set_all_attributes(path, (*found)->status);
    return like ? done : Did(like.error());
  }

  Did link(const std::optional<std::string> &existing, const std::string &path) {
    if (!existing) return reconciler.reconcile(path);
    const bool follows = reconciler.follows_source(path);
    if (!follows && !reconciler.follows_source(*existing)) return link_as_recorded(*existing, path);
    if (follows && !reconciler.follows_source(*existing)) {
      const auto gone = replica.remove_tree(path);
      if (!gone && !leads_nowhere(gone.error())) return gone;
      if (replica.link(*existing, path)) {
        reconciler.linked(*existing, path);
        reconciler.assume_linked(*existing, path);
      }
    }
    auto reconciled = reconciler.reconcile(path);
    reconciler.watch_if_apart(*existing, path);
    return reconciled;
  }
  Did link_as_recorded(const std::string &existing, const std::string &path) {
    const auto done = replica.link(existing, path);
    if (done) {
      reconciler.linked(existing, path);
      return done;
    }
    const int code = done.error().code;
    return code == -ENOENT || code == -ENOTDIR ? apply_to_missing(path, done.error())
                                               : replace_from_source(path, done.error());
  }

  /* A rename from outside the replica; replaces the object of the new name. */
  Did rename_in(const std::string &to) {
    if (const auto left = reconciler.before_removal(to); !left) return left.error();
    const auto mine = replica.find(to);
    if (mine && *mine && !S_ISDIR((*mine)->st_mode)) {
      if (const auto gone = replica.unlink(to); !gone) return gone;
      reconciler.fetcher().origins().removed(to);
    }
    return reconciler.reconcile(to);
  }
  Did rename_out(const std::string &from) {
    if (reconciler.follows_source(from) || reconciler.follows_source_below(from))
      return reconcile_removed(from);
    const auto above = replica.find(parent_of(from));
    if (!above) return above.error();
    if (!*above) return kAbsent;
    if (const auto left = reconciler.before_removal(from); !left) return left.error();
    const auto done = replica.remove_tree(from);
    if (done) reconciler.removed(from);
    return done;
  }
  /* A rename of which one or both names follow the source. */
  Did rename_pending(const std::string &from, const std::string &to) {
    const bool clean = !reconciler.follows_source(from);
    if (const auto left = reconciler.before_removal(from); !left) return left.error();
    const auto mine = replica.find(from);
    if (!mine) return mine.error();
    const auto found = reconciler.source().find(from);
    if (!found) return found.error();
    // If the replica has the old name, moves the object rather than copy it again; the new name is
    // compared with the source in any case.
    if (*mine && (clean || !*found)) {
      const auto gone = replica.remove_tree(to);
      if (!gone && !leads_nowhere(gone.error())) return gone;
      reconciler.fetcher().origins().removed(to);
      const auto done = replica.rename(from, to);
      if (!done && !leads_nowhere(done.error())) return done;
      if (done) reconciler.fetcher().origins().moved(from, to);
    }
    if (!clean || !*mine) {
      if (const auto old = reconcile_removed(from); !old) return old;
    } else {
      reconciler.removed(from);
      reconciler.follow_source(from);
    }
    return *mine ? reconciler.reconcile(to) : rename_in(to);
  }
  Did rename(const std::string &from, const std::string &to) {
    if (reconciler.follows_source(from) || reconciler.follows_source(to) ||
        reconciler.follows_source_below(to))
      return rename_pending(from, to);
    const auto mine = replica.find(from);
    if (!mine) return mine.error();
    if (!*mine) return rename_missing(from, to);
    if (const auto left = reconciler.before_removal(to); !left) return left.error();
    const auto done = replica.rename(from, to);
    if (!done) return replace_from_source(to, done.error());
    const auto moved = reconciler.moved(from, to);
    return moved ? done : Did(moved.error());
  }
  Did rename_missing(const std::string &from, const std::string &to) {
    const Error &error = kAbsent;
    const auto above = replica.find(parent_of(from));
    if (!above || !*above) return replace_from_source(to, error);
    if (!reconciler.source().available()) return error;
    const auto found = reconciler.source().find(to);
    if (!found) return error;
    const auto reconciled = rename_in(to);
    if (reconciled && !*found) reconciler.expect_explanation(to, unexplained(to));
    return reconciled;
  }

  /* A rule's lists name paths, not objects: a rename of a directory may move subdirectories into
   * the rule or out of it. */
  Result<void> reconcile_listed_paths(const std::optional<std::string> &from,
                                      const std::optional<std::string> &to) {
    const Scopes::Instance instance(record.rule, record.generation);
    Result<void> worst;
    const auto listed = [&](const std::optional<std::string> &path) {
      return path ? applier.scopes_.listed_below(instance, applier.absolute(*path))
                  : std::vector<std::string>();
    };
    for (const std::string &rest : listed(from)) {
      const auto mine = replica.find(*from + "/" + rest);
      if (mine && *mine) keep_worst(worst, reconciler.reconcile(*from + "/" + rest));
      if (to && applier.scopes_.includes(instance, applier.absolute(*to + "/" + rest)))
        keep_worst(worst, reconciler.reconcile(*to + "/" + rest));
    }
    for (const std::string &rest : listed(to)) {
      const std::string path = *to + "/" + rest;
      if (applier.scopes_.includes(instance, applier.absolute(path))) continue;
      reconciler.removed(path);
      const auto above = replica.find(parent_of(path));
      keep_worst(worst, replica.remove_tree(path));
      if (above && *above) {
        const auto restored = reconciler.restore_times(parent_of(path), **above);
        keep_worst(worst, restored);
      }
    }
    return worst;
  }

  Done operator()(const Create &c) {
    const auto path = below(c.path);
    return path ? Done(create(*path, c)) : Done();
  }
  Done operator()(const Mkdir &c) {
    const auto path = below(c.path);
    return path ? Done(mkdir(*path, c)) : Done();
  }
  Done operator()(const Unlink &c) {
    const auto path = below(c.path);
    return path ? Done(unlink(*path)) : Done();
  }
  Done operator()(const Rmdir &c) {
    const auto path = below(c.path);
    return path ? Done(rmdir(*path)) : Done();
  }
  Done operator()(const Symlink &c) {
    const auto path = below(c.path);
    return path ? Done(symlink(*path, c)) : Done();
  }
  Done operator()(const Link &c) {
    const auto path = inside(c.path);
    if (!path) {
      // Later changes by the new name are not recorded.
      if (record.naming == Naming::kUnplaced) return Done(applier.unplaced(record));
      if (const auto existing = inside(c.existing); existing && record.naming == Naming::kNamed) {
        reconciler.watch(*existing, record.ts);
        reconciler.named_outside(*existing);
      }
      return Done();
    }
    // If the file had no name, or an unknown one, there is no object to link to: it is fetched.
    const auto existing = record.naming == Naming::kNamed ? inside(c.existing) : std::nullopt;
    auto done = Done(link(existing, *path));
    if (!existing) reconciler.named_outside(*path);
    return done;
  }
  Done operator()(const Rename &c) {
    auto from = inside(c.from), to = inside(c.to);
    if (!from && !to) {
      // Against the rule's lists: these are of another rule with the same UUID.
      from = below(c.from);
      to = below(c.to);
    }
    if (!from && !to) return Done();
    Done done;
    if (!from || record.naming != Naming::kNamed)
      done = to ? Done(rename_in(*to)) : Done();
    else
      done = to ? rename(*from, *to) : rename_out(*from);
    // Also after a failure: no comparison comes by what a rule excludes.
    const auto listed = reconcile_listed_paths(below(c.from), to);
    return !done || !done->ok() || listed ? done : Done(listed.error());
  }
  Done operator()(const SetAttr &c) {
    const auto path = below(c.path);
    if (!path) return Done();
    const auto mine = replica.find(*path);
    if (mine && !*mine && !reconciler.follows_source(*path))
      return apply_to_missing(*path, kAbsent);
    return AttributeChange{reconciler, replica, record.ts}.apply(*path, c);
  }
  Did write(const std::string &path, std::uint64_t offset, Bytes data) {
    if (reconciler.follows_source(path))
      return refresh_written(reconciler, replica, path, offset, data.size());
    const auto mine = replica.find_written(path);
    if (!mine) return mine.error();
    if (*mine) {
      if (const auto safe = drop_set_id(reconciler, replica, path, **mine); !safe)
        return safe.error();
      reconciler.fetcher().origins().records_changed({(*mine)->st_dev, (*mine)->st_ino});
    }
    const auto done = replica.write(path, offset, data);
    if (done) return done;
    const int code = done.error().code;
    return code == -ENOENT || code == -EINVAL ? apply_to_missing(path, done.error()) : done;
  }
  Done operator()(const Write &c) {
    const auto path = below(c.path);
    return path ? Done(write(*path, c.offset, c.data)) : Done();
  }
  Done operator()(const WritePage &c) {
    const auto path = below(applier.page_path_);
    return path ? Done(write(*path, c.offset, c.data)) : Done();
  }
};

Error Applier::unplaced(const Record &record) {
  scopes_.learn(record);
  return Error{-ESTALE,
               "the file has another name, which the module does not know: its copy is not right "
               "until it has been looked for"};
}

/* Sets page_path_; to "" if the record is no page of a write. */
Result<void> Applier::follow_page(const Record &record) {
  const auto *change = std::get_if<WritePage>(&record.change);
  const auto page =
      change ? std::optional(Page{record.rule, record.wseq, change->page}) : std::optional<Page>();
  if (page && page == followed_) return {};
  followed_.reset();
  page_path_.clear();
  if (!page) return {};
  auto place = pages_.follow(record);
  if (!place) return place.error();
  page_path_ = std::move(place->path);
  followed_ = page;
  return {};
}

std::array<std::string_view, 2> Applier::named_paths(const Record &record) const {
  if (const auto *rename = std::get_if<Rename>(&record.change)) return {rename->from, rename->to};
  if (const auto *link = std::get_if<Link>(&record.change)) return {link->existing, link->path};
  if (std::holds_alternative<WritePage>(record.change)) return {page_path_};
  return {change_path(record.change)};
}

Result<Applier::Outcome> Applier::apply(const Record &record, std::optional<std::uint64_t> logged) {
  const PendingPaths::Time time{record.ts, logged.value_or(record.ts)};
  if (const auto followed = follow_page(record); !followed) return followed.error();
  for (Unexplained &missing : reconciler_.expire(time)) unexplained_.push_back(std::move(missing));
  const bool gets_a_name =
      std::holds_alternative<Link>(record.change) || std::holds_alternative<Rename>(record.change);
  if (record.naming == Naming::kNameless && !gets_a_name) return Outcome::kNameless;
  if (record.naming == Naming::kUnplaced && !gets_a_name) return unplaced(record);
  for (const std::string_view path : named_paths(record)) {
    const auto inside = path_below(source_, path);
    if (inside && !is_possible(*inside))
      return Error{-EXDEV, "no object can have the path " + printable(path)};
  }
  const auto *link = std::get_if<Link>(&record.change);
  reconciler_.set_other_name(link ? std::string(link->existing) : std::string());
  reconciler_.set_included(
      [this, instance = Scopes::Instance(record.rule, record.generation)](const std::string &path) {
        return scopes_.includes(instance, absolute(path));
      });
  note_changed_paths(record);
  if (distrusted_until_ && PendingPaths::is_behind(time, *distrusted_until_))
    distrusted_until_.reset();
  if (distrusted_until_) {
    for (const std::string &path : changed_by(record)) reconciler_.follow_source(path);
  }
  const auto done = std::visit(Visitor{*this, record}, record.change);
  if (!done) return Outcome::kOutside;
  if (!done->ok()) return done->error();
  return **done == Replica::Done::kChanged ? Outcome::kApplied : Outcome::kAlready;
}

Result<void> Applier::caught_up(std::int64_t until) {
  use_all_rules();
  auto links = reconciler_.check_links();
  reconciler_.retry_failed();
  auto changed = reconciler_.compare_changed(until);
  // A fetch may remove a name of a file and so leave another to be checked.
  for (int rounds = 0; links && !replica_.partly_unlinked().empty() && rounds < kLinkRounds;
       ++rounds)
    links = reconciler_.check_links();
  keep_worst(links, changed);
  return links;
}

std::optional<std::string> Applier::object_path(std::string_view path) const {
  auto inside = path_below(source_, path);
  if (inside && (inside->empty() || !is_possible(*inside) || !scopes_.any_includes(path)))
    inside.reset();
  return inside;
}

std::vector<std::string> Applier::changed_by(const Record &record) const {
  // The others are the source's after the next comparison, whatever object they hit.
  const auto *attributes = std::get_if<SetAttr>(&record.change);
  if (attributes && !(attributes->valid & OX_ATTR_SIZE)) return {};
  if (std::holds_alternative<Mkdir>(record.change)) return {};
  std::vector<std::string> paths;
  for (const std::string_view path : named_paths(record)) {
    if (auto inside = object_path(path)) paths.push_back(std::move(*inside));
  }
  return paths;
}

std::optional<std::string> Applier::may_be_stale(const Record &record) const {
  const Change &change = record.change;
  std::optional<std::string> path;
  if (const auto *rename = std::get_if<Rename>(&change))
    path = object_path(rename->to);
  else if (const auto *link = std::get_if<Link>(&change))
    path = object_path(link->path);
  else if (std::holds_alternative<Create>(change) || std::holds_alternative<Mkdir>(change) ||
           std::holds_alternative<Symlink>(change))
    path = object_path(change_path(change));
  if (!path) return std::nullopt;
  if (std::holds_alternative<Rename>(change) || std::holds_alternative<Link>(change)) return path;
  const auto mine = replica_.find(*path);
  return mine && !*mine ? std::nullopt : path;
}

/* For fetches outside of a record: the scope of all rules together. */
void Applier::use_all_rules() {
  reconciler_.set_other_name("");
  reconciler_.set_included(
      [this](const std::string &path) { return scopes_.any_includes(absolute(path)); });
}

/* Notes the record's paths, and their parents if it changes names. */
void Applier::note_changed_paths(const Record &record) {
  ChangedPaths &changed = reconciler_.changed_paths();
  scopes_.learn(record);  // compare() must know the rule's scope
  const auto below = [this](std::string_view path) { return path_below(source_, path); };
  const auto add = [&](const std::optional<std::string> &path) {
    if (!path) return;
    changed.add(*path);
    changed.add(parent_of(*path));
  };
  if (const auto *rename = std::get_if<Rename>(&record.change)) {
    const auto from = below(rename->from), to = below(rename->to);
    if (from && to) changed.moved(*from, *to);
    add(from);
    add(to);
  } else if (std::holds_alternative<WritePage>(record.change)) {
    if (const auto path = below(page_path_)) changed.written(*path);
  } else if (std::holds_alternative<Write>(record.change) ||
             std::holds_alternative<SetAttr>(record.change)) {
    if (const auto path = below(change_path(record.change))) changed.written(*path);
  } else if (const auto *link = std::get_if<Link>(&record.change)) {
    const auto path = below(link->path), existing = below(link->existing);
    add(path);
    add(existing);
    if (path && existing) changed.linked(*existing, *path);
  } else {
    add(below(change_path(record.change)));
  }
}

}  // namespace tarn
