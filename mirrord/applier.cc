// SPDX-License-Identifier: GPL-2.0
#include "mirrord/applier.h"

#include <cerrno>
#include <optional>
#include <string_view>

#include <fmt/format.h>

#include "base/text.h"
#include "client/paths.h"
#include "mirrord/attributes.h"
#include "mirrord/path_map.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

constexpr int kLookRounds = 4;

const Error kAbsent{-ENOENT, "No such file or directory"};

}  // namespace

/* One function per kind of change; each gives what the replica said, or nothing if the change is
 * not its business. */
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
  /* The path in the replica, if the rule has it there. */
  std::optional<std::string> inside(std::string_view path) const {
    auto found = below(path);
    if (found && !applier.scopes_.includes(record, path)) found.reset();
    return found;
  }

  Unexplained unexplained(std::string_view path) const {
    return {record.rule, record.wseq,
            fmt::format("{} {}", change_name(record.change), printable(applier.absolute(path)))};
  }

  /* The replica has what the record does not expect. That is a failure, but what the source has
   * there now is better than what is. */
  Did heal(const std::string &path, const Error &error) {
    if (const auto healed = reconciler.reconcile(path); !healed)
      return Error{error.code,
                   error.text + "; and it cannot be copied anew: " + healed.error().text};
    return error;
  }

  /* The replica lacks the object that changed. Special files and those that mknod(2) made are not
   * captured, so that is how the replica comes to know them. */
  Did absent(const std::string &path, const Error &error) {
    const auto above = replica.find(parent_of(path));
    if (!above || !*above || !reconciler.source().available()) return error;
    const auto found = reconciler.source().find(path);
    if (!found) return error;
    const auto reconciled = reconciler.reconcile(path);
    if (reconciled && !*found) reconciler.expect(path, unexplained(path));
    return reconciled;
  }

  Did create(const std::string &path, const Create &c) {
    if (reconciler.follows_source(path)) return reconciler.reconcile(path);
    reconciler.records_change(path);
    const auto done = replica.create(path, c.mode);
    if (!done) return done.error().code == -ENOENT ? done : heal(path, done.error());
    reconciler.removed(path);
    return done;
  }
  Did mkdir(const std::string &path, const Mkdir &c) {
    if (reconciler.follows_source(path)) return reconciler.reconcile(path);
    const auto done = replica.mkdir(path, c.mode);
    if (!done) return done.error().code == -ENOENT ? done : heal(path, done.error());
    return done;
  }
  /* The name was taken from its object, by a path that follows the source. */
  Did leave(const std::string &path) {
    reconciler.explained(path);
    return reconciler.reconcile(path);
  }
  Did unlink(const std::string &path) {
    if (reconciler.follows_source(path)) return leave(path);
    if (const auto left = reconciler.leaving(path); !left) return left.error();
    const auto done = replica.unlink(path);
    if (done) reconciler.removed(path);
    return done;
  }

  /* A directory that has something in it was not removed; one that is empty may have been, and have
   * been made anew: it is empty either way, and follows the source from now on. */
  Did rmdir(const std::string &path) {
    if (reconciler.follows_source(path) || reconciler.follows_source_below(path))
      return leave(path);
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
    } else if (mine && *mine) {  // not empty, and yet not in the source: something must follow
      reconciler.expect(path, unexplained(path));
    }
    return done;
  }

  Did symlink(const std::string &path, const Symlink &c) {
    if (reconciler.follows_source(path)) return reconciler.reconcile(path);
    const auto done = replica.symlink(std::string(c.target), path);
    if (!done) return done.error().code == -ENOENT ? done : heal(path, done.error());
    reconciler.removed(path);
    if (!reconciler.source().available()) return done;
    const auto found = reconciler.source().find(path);
    if (!found) return found.error();
    if (!*found || !S_ISLNK((*found)->status.st_mode) || (*found)->target != c.target) {
      reconciler.doubt(path, PendingPaths::kNoData);
      return done;
    }
    const auto like = reconciler.fetcher().set_like(path, (*found)->status);
    return like ? done : Did(like.error());
  }

  Did link(const std::optional<std::string> &existing, const std::string &path) {
    if (!existing) return reconciler.reconcile(path);
    const bool follows = reconciler.follows_source(path);
    if (!follows && !reconciler.follows_source(*existing)) return link_as_recorded(*existing, path);
    if (follows && !reconciler.follows_source(*existing)) {
      const auto gone = replica.remove_tree(path);
      if (!gone && gone.error().code != -ENOENT) return gone;
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
    return code == -ENOENT || code == -ENOTDIR ? absent(path, done.error())
                                               : heal(path, done.error());
  }

  /* From a place that the replica does not have. What the new name stood for before is replaced. */
  Did come_in(const std::string &to) {
    const auto mine = replica.find(to);
    if (mine && *mine && !S_ISDIR((*mine)->st_mode)) {
      if (const auto gone = replica.unlink(to); !gone) return gone;
      reconciler.fetcher().origins().removed(to);
    }
    return reconciler.reconcile(to);
  }
  Did go_out(const std::string &from) {
    if (reconciler.follows_source(from) || reconciler.follows_source_below(from))
      return leave(from);
    const auto above = replica.find(parent_of(from));
    if (!above) return above.error();
    if (!*above) return kAbsent;
    if (const auto left = reconciler.leaving(from); !left) return left.error();
    const auto done = replica.remove_tree(from);
    if (done) reconciler.removed(from);
    return done;
  }
  /* One of the names, or both, follow the source. */
  Did rename_pending(const std::string &from, const std::string &to) {
    const bool clean = !reconciler.follows_source(from);
    if (const auto left = reconciler.leaving(from); !left) return left.error();
    const auto mine = replica.find(from);
    if (!mine) return mine.error();
    const auto found = reconciler.source().find(from);
    if (!found) return found.error();
    // Where the old name still stands, the object is moved rather than copied again; what is there
    // is compared with the source in any case.
    if (*mine && (clean || !*found)) {
      const auto gone = replica.remove_tree(to);
      if (!gone && gone.error().code != -ENOENT) return gone;
      reconciler.fetcher().origins().removed(to);
      const auto done = replica.rename(from, to);
      if (!done && done.error().code != -ENOENT) return done;
      if (done) reconciler.fetcher().origins().moved(from, to);
    }
    if (!clean || !*mine) {
      if (const auto old = leave(from); !old) return old;
    } else {
      reconciler.removed(from);
      reconciler.follow_source(from);
    }
    return *mine ? reconciler.reconcile(to) : come_in(to);
  }
  Did rename(const std::string &from, const std::string &to) {
    if (reconciler.follows_source(from) || reconciler.follows_source(to) ||
        reconciler.follows_source_below(to))
      return rename_pending(from, to);
    const auto mine = replica.find(from);
    if (!mine) return mine.error();
    if (!*mine) return rename_absent(from, to);
    if (const auto left = reconciler.leaving(to); !left) return left.error();
    const auto done = replica.rename(from, to);
    if (!done) return heal(to, done.error());
    const auto moved = reconciler.moved(from, to);
    return moved ? done : Did(moved.error());
  }
  Did rename_absent(const std::string &from, const std::string &to) {
    const Error &error = kAbsent;
    const auto above = replica.find(parent_of(from));
    if (!above || !*above) return heal(to, error);
    if (!reconciler.source().available()) return error;
    const auto found = reconciler.source().find(to);
    if (!found) return error;
    const auto reconciled = come_in(to);
    if (reconciled && !*found) reconciler.expect(to, unexplained(to));
    return reconciled;
  }

  /* The lists name places, not objects: what lay in an excluded place below a renamed directory may
   * be included now, and the other way round. */
  Result<void> mend_border(const std::optional<std::string> &from,
                           const std::optional<std::string> &to) {
    const Scopes::Life life(record.rule, record.generation);
    Result<void> first;
    const auto note = [&first](const Did &did) {
      if (first.ok() && !did) first = Result<void>(did.error());
    };
    const auto listed = [&](const std::optional<std::string> &path) {
      return path ? applier.scopes_.listed_below(life, applier.absolute(*path))
                  : std::vector<std::string>();
    };
    for (const std::string &rest : listed(from)) {
      const auto mine = replica.find(*from + "/" + rest);
      if (mine && *mine) note(reconciler.reconcile(*from + "/" + rest));
      if (to && applier.scopes_.includes(life, applier.absolute(*to + "/" + rest)))
        note(reconciler.reconcile(*to + "/" + rest));
    }
    for (const std::string &rest : listed(to)) {
      const std::string path = *to + "/" + rest;
      if (applier.scopes_.includes(life, applier.absolute(path))) continue;
      reconciler.removed(path);
      const auto above = replica.find(parent_of(path));
      note(replica.remove_tree(path));
      if (above && *above) {
        const auto restored = reconciler.restore_times(parent_of(path), **above);
        if (first.ok() && !restored) first = restored;
      }
    }
    return first;
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
      // From now on it changes by a name of which no record tells.
      if (record.naming == Naming::kUnplaced) return Done(applier.unplaced(record));
      if (const auto existing = inside(c.existing); existing && record.naming == Naming::kNamed)
        reconciler.watch(*existing, record.ts);
      return Done();
    }
    // A file that is open without a name of its own got one again, or its name is not known.
    return link(record.naming == Naming::kNamed ? inside(c.existing) : std::nullopt, *path);
  }
  Done operator()(const Rename &c) {
    auto from = inside(c.from), to = inside(c.to);
    if (!from && !to) {
      // Not as the rule's lists say: they are another's, of the same UUID.
      from = below(c.from);
      to = below(c.to);
    }
    if (!from && !to) return Done();
    Done done;
    if (!from || record.naming != Naming::kNamed)
      done = to ? Done(come_in(*to)) : Done();
    else
      done = to ? rename(*from, *to) : go_out(*from);
    if (!done || !done->ok()) return done;
    const auto mended = mend_border(below(c.from), to);
    return mended ? done : Done(mended.error());
  }
  Done operator()(const SetAttr &c) {
    const auto path = below(c.path);
    if (!path) return Done();
    const auto mine = replica.find(*path);
    if (mine && !*mine && !reconciler.follows_source(*path)) return absent(*path, kAbsent);
    return AttributeChange{reconciler, replica, record.ts}.apply(*path, c);
  }
  Did write(const std::string &path, std::uint64_t offset, Bytes data) {
    if (reconciler.follows_source(path))
      return refresh_written(reconciler, replica, path, offset, data.size());
    if (const auto safe = drop_set_id(reconciler, replica, path); !safe) return safe.error();
    reconciler.records_change(path);
    const auto done = replica.write(path, offset, data);
    if (done) return done;
    const int code = done.error().code;
    return code == -ENOENT || code == -EINVAL ? absent(path, done.error()) : done;
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
  reconciler_.note_unrecorded(record.ts);
  return Error{-ESTALE,
               "the file has another name, which the module does not know: the replica's copy is "
               "no longer right, until it is found by 'mirrord --catch-up'"};
}

Result<Applier::Outcome> Applier::apply(const Record &record) {
  page_path_.clear();
  if (std::holds_alternative<WritePage>(record.change)) {
    auto place = pages_.follow(record);
    if (!place) return place.error();
    page_path_ = std::move(place->path);
  }
  for (Unexplained &missing : reconciler_.expire(record.ts))
    unexplained_.push_back(std::move(missing));
  const bool gets_a_name =
      std::holds_alternative<Link>(record.change) || std::holds_alternative<Rename>(record.change);
  if (record.naming == Naming::kNameless && !gets_a_name) return Outcome::kNameless;
  if (record.naming == Naming::kUnplaced && !gets_a_name) return unplaced(record);
  const auto *link = std::get_if<Link>(&record.change);
  reconciler_.set_other_name(link ? std::string(link->existing) : std::string());
  reconciler_.set_included(
      [this, life = Scopes::Life(record.rule, record.generation)](const std::string &path) {
        return scopes_.includes(life, absolute(path));
      });
  touch(record);
  const auto done = std::visit(Visitor{*this, record}, record.change);
  if (!done) return Outcome::kOutside;
  if (!done->ok()) return done->error();
  return **done == Replica::Done::kChanged ? Outcome::kApplied : Outcome::kAlready;
}

Result<void> Applier::caught_up(std::int64_t asked) {
  look_for_any_rule();
  auto links = reconciler_.check_links();
  auto unrecorded = reconciler_.find_unrecorded(asked);
  auto changed = reconciler_.compare_changed(asked);
  // A look may take a name from its file and so leave another to be looked at.
  for (int rounds = 0; links && replica_.has_parted() && rounds < kLookRounds; ++rounds)
    links = reconciler_.check_links();
  return !links ? links : !unrecorded ? unrecorded : changed;
}

Result<void> Applier::compare_changed(std::int64_t asked) {
  look_for_any_rule();
  return reconciler_.compare_changed(asked);
}

/* What is looked at next, no record asked for. */
void Applier::look_for_any_rule() {
  reconciler_.set_other_name("");
  reconciler_.set_included(
      [this](const std::string &path) { return scopes_.any_includes(absolute(path)); });
}

/* The paths of the replica that the record names, and the directories whose names it changes. */
void Applier::touch(const Record &record) {
  ChangedPaths &changed = reconciler_.changed_paths();
  scopes_.learn(record);  // what it excludes is left out when the paths are compared
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
    if (const auto path = below(page_path_)) changed.add(*path);
  } else if (std::holds_alternative<Write>(record.change) ||
             std::holds_alternative<SetAttr>(record.change)) {
    if (const auto path = below(change_path(record.change))) changed.add(*path);
  } else if (const auto *link = std::get_if<Link>(&record.change)) {
    add(below(link->path));
    add(below(link->existing));
  } else {
    add(below(change_path(record.change)));
  }
}

std::vector<Unexplained> Applier::take_unexplained(
    std::optional<std::chrono::microseconds> older_than) {
  auto missing = std::exchange(unexplained_, {});
  if (!older_than) return missing;
  for (Unexplained &more : reconciler_.take_missing(*older_than))
    missing.push_back(std::move(more));
  return missing;
}

}  // namespace tarn
