/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The module's messages to the daemon as typed values, and their one decoder. docs/wire_format.md
 * describes the bytes.
 *
 * The decoder trusts nothing: it checks every length against the packet and the other lengths, and
 * every string for its terminator. An error names the field that does not fit. Decoded strings and
 * data are views into the packet and live as long as it does.
 */
#ifndef TARN_CLIENT_MESSAGES_H
#define TARN_CLIENT_MESSAGES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "base/result.h"
#include "client/uuid.h"

namespace tarn {

using Bytes = std::span<const std::byte>;

/* Paths are absolute paths of the lower directory tree, any bytes but NUL. */
struct Create {
  std::string_view path;
  std::uint32_t mode;
};
struct Mkdir {
  std::string_view path;
  std::uint32_t mode;
};
struct Unlink {
  std::string_view path;
};
/* Also sent when the removal was refused. */
struct Rmdir {
  std::string_view path;
};
struct Symlink {
  std::string_view path;
  std::string_view target; /* as the program gave it */
  std::uint32_t mode;
};
struct Link {
  std::string_view existing;
  std::string_view path;
};
struct Rename {
  std::string_view from;
  std::string_view to;
  std::uint32_t mode; /* of the renamed object */
};
struct SetAttr {
  std::string_view path;
  std::uint32_t valid; /* OX_ATTR_* bits: which of the following were set */
  std::uint32_t mode;
  std::uint32_t uid;
  std::uint32_t gid;
  std::uint64_t size;
  std::int64_t atime; /* microseconds since the epoch, negative before it */
  std::int64_t mtime;
  std::int64_t ctime;
};
struct Write {
  std::string_view path;
  std::uint64_t offset;
  Bytes data;
};
/* One page of a write that does not fit one message; only page 0 names the file. */
struct WritePage {
  std::string_view path;
  std::uint64_t offset;
  Bytes data;
  std::uint32_t page;
  std::uint32_t pages;
};

using Change =
    std::variant<Create, Mkdir, Unlink, Rmdir, Symlink, Link, Rename, SetAttr, Write, WritePage>;

/* How a record's path (the first one of a rename or a link) relates to the changed object. */
enum class Naming {
  kNamed,    /* its name */
  kNameless, /* for display only: the object has no name any more, but is open */
  kUnplaced, /* a former name: the module does not know the present one */
};

struct Record {
  Uuid rule;
  std::uint64_t ts;   /* capture time, microseconds since the epoch */
  std::uint32_t wseq; /* its number within the rule */
  Change change;
  Naming naming = Naming::kNamed;
  /* Constant from the addition of a rule to its deletion, and different for a rule of the same UUID
   * that is added later. 0: from a module that does not tell. */
  std::uint32_t generation = 0;

  /* Is it the last message of its number? */
  bool last() const {
    const auto *page = std::get_if<WritePage>(&change);
    return page == nullptr || page->page + 1 == page->pages;
  }
};

/* The module has stopped capturing for this rule: it could not make a record. */
struct StopRule {
  Uuid rule;
};

/* The answer to a request of the daemon. */
struct Reply {
  std::uint16_t request; /* OX_SO_REP_ADD, OX_SO_REP_DEL or OX_SO_REP_FLUSH */
  std::int32_t result;
};

using Message = std::variant<Record, StopRule, Reply>;

/* Decodes one packet: a netlink header and its payload, followed by up to three pad bytes. Error
 * code -EBADMSG. */
Result<Message> decode(Bytes packet);

/* A description for display, without the rule: "create /d/f mode 0644". */
std::string describe(const Change &change);

/* The word that describe() begins with. */
std::string_view change_name(const Change &change);

/* The path of the change, the first one of a rename and a link. Empty for a later page. */
std::string_view change_path(const Change &change);

}  // namespace tarn

#endif
