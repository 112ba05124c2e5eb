// SPDX-License-Identifier: GPL-2.0
// Listings of directories.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "tarnd/fuse/fuse_ops.h"
#include "tarnd/fuse/translate.h"

namespace tarnd {

static void note_begin(fuse_req_t req, fuse_ino_t dir, off_t off) {
  if (off == 0) mount_of(req)->listings().begun(node_of(req, dir));
}

namespace {

// What one readdir reply has room for.
struct Listing {
  fuse_req_t req;
  char *buf;
  size_t size;
  size_t used = 0;
};

}  // namespace

static int add_name(void *arg, const char *name, unsigned long long ino, unsigned type,
                    unsigned long long next) {
  auto *listing = static_cast<Listing *>(arg);
  struct stat attr {};
  attr.st_ino = ino;
  attr.st_mode = to_entry_mode(type);
  const size_t room = listing->size - listing->used;
  const size_t needed = fuse_add_direntry(listing->req, listing->buf + listing->used, room, name,
                                          &attr, static_cast<off_t>(next));
  if (needed > room) return 1;
  listing->used += needed;
  return 0;
}

static void op_readdir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info *fi) {
  as_caller(req, Need::kBasic, [&] {
    note_begin(req, ino, off);
    Listing listing{req, reply_buffer(size), size};
    const int err =
        uk_readdir(file_of(fi), static_cast<unsigned long long>(off), add_name, &listing);
    // Names that were read before an error are returned first; the next call gets the error again.
    if (err && listing.used == 0) {
      reply_error(req, err);
    } else {
      fuse_reply_buf(req, listing.buf, listing.used);
    }
  });
}

namespace {

// A name of a listing, before its look-up.
struct Name {
  std::string text;
  unsigned long long ino;
  unsigned type;
  unsigned long long next;
};

// As many names as one readdirplus reply has room for.
struct Names {
  fuse_req_t req;
  size_t room;
  std::vector<Name> all;
};

}  // namespace

static int collect_name(void *arg, const char *text, unsigned long long ino, unsigned type,
                        unsigned long long next) {
  auto *names = static_cast<Names *>(arg);
  const size_t needed = fuse_add_direntry_plus(names->req, nullptr, 0, text, nullptr, 0);
  if (needed > names->room) return 1;
  names->room -= needed;
  names->all.push_back({text, ino, type, next});
  return 0;
}

// The host looks the name up when it needs it.
static fuse_entry_param without_node(const Name &name) {
  fuse_entry_param entry{};
  entry.attr.st_ino = name.ino;
  entry.attr.st_mode = to_entry_mode(name.type);
  return entry;
}

// No node for ".", ".." and names whose look-up fails.
static fuse_entry_param entry_of(fuse_req_t req, fuse_ino_t dir, const Name &name) {
  uk_node *node = nullptr;
  uk_stat stat{};
  const bool itself = name.text == "." || name.text == "..";
  if (!itself && uk_lookup(node_of(req, dir), name.text.c_str(), &node, &stat) == 0 &&
      count_lookup(req, node, stat))
    return to_entry(mount_of(req)->timeouts(), node, stat);
  return without_node(name);
}

static bool wants_attributes(fuse_req_t req, fuse_ino_t dir, off_t off) {
  Mount *mount = mount_of(req);
  // A host that keeps nothing looks each name up all the same. And the nodes of a listing come
  // faster than the host can be made to forget others.
  if (mount->timeouts().entry <= 0 || mount->lookups().crowded()) return false;
  ReaddirplusAdvice &advice = mount->readdirplus_advice();
  const pid_t thread = fuse_req_ctx(req)->pid;
  return off == 0 ? advice.begun(thread, node_of(req, dir))
                  : advice.goes_on(thread, node_of(req, dir));
}

// What was listed without attributes.
static void note_files(fuse_req_t req, fuse_ino_t dir, const Names &names) {
  const auto is_file = [](const Name &name) { return !S_ISDIR(to_entry_mode(name.type)); };
  const auto files = std::count_if(names.all.begin(), names.all.end(), is_file);
  mount_of(req)->readdirplus_advice().listed(fuse_req_ctx(req)->pid, node_of(req, dir),
                                             static_cast<unsigned>(files));
}

static void op_readdirplus(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off,
                           fuse_file_info *fi) {
  as_caller(req, Need::kRights, [&] {
    note_begin(req, ino, off);
    Names names{req, size, {}};
    const int err =
        uk_readdir(file_of(fi), static_cast<unsigned long long>(off), collect_name, &names);
    if (err && names.all.empty()) {
      reply_error(req, err);
      return;
    }
    char *buf = reply_buffer(size);
    std::vector<uk_node *> given;
    given.reserve(names.all.size());
    size_t used = 0;
    const bool names_only = !wants_attributes(req, ino, off);
    if (names_only) note_files(req, ino, names);
    for (const Name &name : names.all) {
      const fuse_entry_param entry = names_only ? without_node(name) : entry_of(req, ino, name);
      used += fuse_add_direntry_plus(req, buf + used, size - used, name.text.c_str(), &entry,
                                     static_cast<off_t>(name.next));
      if (entry.ino) given.push_back(reinterpret_cast<uk_node *>(entry.ino));
    }
    if (fuse_reply_buf(req, buf, used) == -ENOENT)
      for (uk_node *node : given) mount_of(req)->lookups().forget(node, 1);
  });
}

void add_readdir_operations(fuse_lowlevel_ops *ops) {
  ops->readdir = op_readdir;
  ops->readdirplus = op_readdirplus;
}

}  // namespace tarnd
