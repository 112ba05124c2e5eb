/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The messages that the module sends to the daemon, as typed values, and the one decoder that makes
 * them from bytes. docs/wire_format.md describes the bytes.
 *
 * The decoder trusts nothing: every length is checked against the packet and against every other
 * length, every string against its terminator, and whatever does not fit is an error that names the
 * field. Decoded strings and data are views into the packet: they live as long as it does.
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
/* Also sent when the removal failed because the directory was not empty. */
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

/* What the path of a record (of a rename or a link, the first) is to the object that changed. */
enum class Naming {
  kNamed,    /* its name */
  kNameless, /* a text for people: the object has no name any more, a program has it open */
  kUnplaced, /* a former name: the object has another one, which the module does not know */
};

struct Record {
  Uuid rule;
  std::uint64_t ts;   /* when it was captured, microseconds */
  std::uint32_t wseq; /* its number within the rule */
  Change change;
  Naming naming = Naming::kNamed;
  /* The same in all records between a rule's adding and its deletion, another one for a rule of the
   * same UUID that is added later. 0: a module that does not tell. */
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

/* Decodes one packet: a netlink header and its payload, with up to three pad bytes behind. Error
 * code -EBADMSG. */
Result<Message> decode(Bytes packet);

/* The change in words for a person, without the rule: "create /d/f mode 0644". */
std::string describe(const Change &change);

/* The word that describe() begins with. */
std::string_view change_name(const Change &change);

/* The path that the change is about: of a rename and a link, the first. Empty for a later page. */
std::string_view change_path(const Change &change);

}  // namespace tarn

#endif
