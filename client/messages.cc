// SPDX-License-Identifier: GPL-2.0
#include "client/messages.h"

#include <linux/netlink.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>

#include <fmt/format.h>

#include "base/text.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

static_assert(sizeof(nlmsghdr) == OX_NLMSG_HDRLEN);

template <class... Args>
Error malformed(fmt::format_string<Args...> format, Args &&...args) {
  return {-EBADMSG, "malformed message: " + fmt::format(format, std::forward<Args>(args)...)};
}

/* The fixed part of a record; the caller has checked that the payload is long enough. */
template <class T>
T load(Bytes payload) {
  T record;
  std::memcpy(&record, payload.data(), sizeof(record));
  return record;
}

Uuid load_uuid(Bytes payload) {
  Uuid uuid;
  std::memcpy(uuid.bytes.data(), payload.data(), uuid.bytes.size());
  return uuid;
}

std::string_view as_text(Bytes bytes) {
  return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

/* A string field with exactly one NUL, at its end. */
Result<std::string_view> terminated(Bytes field, const char *name) {
  const std::string_view text = as_text(field);
  if (text.empty() || text.back() != '\0') return malformed("{} does not end in a NUL", name);
  const std::size_t nul = text.find('\0');
  if (nul + 1 != text.size())
    return malformed("{} holds a NUL at byte {} of {}", name, nul, text.size());
  return text.substr(0, nul);
}

Result<std::string_view> absolute_path(Bytes field, const char *name) {
  auto path = terminated(field, name);
  if (!path) return path;
  if (path->empty() || path->front() != '/') return malformed("{} is not absolute", name);
  if (field.size() > OX_PATH_MAX)
    return malformed("{} has {} bytes, more than {}", name, field.size(), OX_PATH_MAX);
  return path;
}

Result<Change> decode_name_change(Bytes payload, std::uint8_t op) {
  const auto head = load<ox_msg_para>(payload);
  const std::uint32_t mode = head.mode;
  const std::size_t length1 = head.dlen1, length2 = head.dlen2;
  if (OX_MSG_PARA_LEN + length1 + length2 != payload.size())
    return malformed("a name record of {} + {} + {} bytes in a payload of {}", OX_MSG_PARA_LEN,
                     length1, length2, payload.size());
  const bool has_two = op == OX_OP_SYMLINK || op == OX_OP_LINK || op == OX_OP_RENAME;
  if (has_two != (length2 != 0))
    return malformed("operation {} with {} bytes of a second string", op, length2);
  auto path = absolute_path(payload.subspan(OX_MSG_PARA_LEN, length1), "the path");
  if (!path) return path.error();
  const Bytes second = payload.subspan(OX_MSG_PARA_LEN + length1);
  switch (op) {
    case OX_OP_CREATE:
      return Change{Create{*path, mode}};
    case OX_OP_MKDIR:
      return Change{Mkdir{*path, mode}};
    case OX_OP_UNLINK:
      return Change{Unlink{*path}};
    case OX_OP_RMDIR:
      return Change{Rmdir{*path}};
    case OX_OP_SYMLINK: {
      auto target = terminated(second, "the link's target");
      if (!target) return target.error();
      return Change{Symlink{*path, *target, mode}};
    }
  }
  auto path2 = absolute_path(second, "the second path");
  if (!path2) return path2.error();
  if (op == OX_OP_LINK) return Change{Link{*path, *path2}};
  return Change{Rename{*path, *path2, mode}};
}

/* The field holds the bits of a signed number: times before 1970 are negative. */
std::int64_t signed_time(std::uint64_t field) {
  return static_cast<std::int64_t>(field);
}

Result<Change> decode_attributes(Bytes payload) {
  if (payload.size() < sizeof(ox_msg_attr))
    return malformed("an attribute record of {} bytes, at least {} expected", payload.size(),
                     sizeof(ox_msg_attr));
  const auto head = load<ox_msg_attr>(payload);
  const std::uint32_t length1 = head.dlen1, length2 = head.dlen2;
  const int block = head.com.len;
  if (length1 != sizeof(lin_sec))
    return malformed("an owner block of {} bytes, not {}", length1, sizeof(lin_sec));
  if (block != OX_ATTR_LEN)
    return malformed("attribute blocks of {} bytes, not {}", block, OX_ATTR_LEN);
  if (length2 != payload.size() - sizeof(ox_msg_attr))
    return malformed("a path of {} bytes in an attribute record that has {} for it", length2,
                     payload.size() - sizeof(ox_msg_attr));
  auto path = absolute_path(payload.subspan(sizeof(ox_msg_attr)), "the path");
  if (!path) return path.error();
  return Change{SetAttr{*path, static_cast<std::uint32_t>(head.com.ia_valid),
                        static_cast<std::uint32_t>(head.com.ia_mode), head.sec.ia_uid,
                        head.sec.ia_gid, head.com.ia_size, signed_time(head.com.ia_atime),
                        signed_time(head.com.ia_mtime), signed_time(head.com.ia_ctime)}};
}

/* The path field of a write: the path, its NUL, and filler up to a multiple of 8. */
Result<std::string_view> padded_path(Bytes field) {
  const std::size_t nul = as_text(field).find('\0');
  if (nul == std::string_view::npos) return malformed("the path field of a write holds no NUL");
  if ((nul + 1 + 7) / 8 * 8 != field.size())
    return malformed("a path of {} bytes in a field of {}", nul, field.size());
  return absolute_path(field.first(nul + 1), "the path");
}

Result<Change> decode_write(Bytes payload, std::uint16_t netlink_type) {
  if (payload.size() < OX_MSG_WR_LEN)
    return malformed("a write record of {} bytes, at least {} expected", payload.size(),
                     OX_MSG_WR_LEN);
  if (payload.size() > OX_PAGE_PAYLOAD)
    return malformed("a write record of {} bytes, at most {} expected", payload.size(),
                     OX_PAGE_PAYLOAD);
  const auto head = load<ox_msg_wr>(payload);
  const std::uint16_t type = head.type;
  const std::uint32_t page = head.pagenr, pages = head.pages, data_length = head.dlen2;
  const std::uint64_t offset = head.off;
  const std::size_t path_length = head.dlen1;
  const bool paged = netlink_type == OX_OP_WRITE;
  if (type != (paged ? OX_WRITE_PAGED : OX_WRITE_WHOLE))
    return malformed("a write of type {} in a message of type {}", type, netlink_type);
  if (paged ? pages < 2 || page >= pages : pages != 1 || page != 0)
    return malformed("page {} of {} in a write of type {}", page, pages, type);
  if (OX_MSG_WR_LEN + path_length + std::uint64_t{data_length} != payload.size())
    return malformed("a write of {} + {} + {} bytes in a payload of {}", OX_MSG_WR_LEN, path_length,
                     data_length, payload.size());
  if (page != 0 && path_length != 0) return malformed("page {} carries a path", page);
  if (page + 1 < pages && payload.size() != OX_PAGE_PAYLOAD)
    return malformed("page {} of {} is not full: {} bytes", page, pages, payload.size());
  if (paged && page != 0 && data_length == 0)
    return malformed("page {} of {} is empty", page, pages);
  if (offset > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) - data_length)
    return malformed("a write of {} bytes at offset {}", data_length, offset);

  std::string_view path;
  if (page == 0) {
    auto found = padded_path(payload.subspan(OX_MSG_WR_LEN, path_length));
    if (!found) return found.error();
    path = *found;
  }
  const Bytes data = payload.subspan(OX_MSG_WR_LEN + path_length);
  if (paged) return Change{WritePage{path, offset, data, page, pages}};
  return Change{Write{path, offset, data}};
}

Result<Change> decode_change(Bytes payload, std::uint16_t netlink_type, std::uint8_t op) {
  if (netlink_type == OX_OP_WRITE && op != OX_OP_WRITE)
    return malformed("operation {} in a message of type {}", op, netlink_type);
  switch (op) {
    case OX_OP_CREATE:
    case OX_OP_MKDIR:
    case OX_OP_UNLINK:
    case OX_OP_RMDIR:
    case OX_OP_SYMLINK:
    case OX_OP_LINK:
    case OX_OP_RENAME:
      return decode_name_change(payload, op);
    case OX_OP_SETATTR:
      return decode_attributes(payload);
    case OX_OP_WRITE:
      return decode_write(payload, netlink_type);
  }
  return malformed("unknown operation {}", op);
}

Result<Naming> decode_naming(std::uint16_t cp) {
  switch (cp) {
    case OX_CP_NAMED:
      return Naming::kNamed;
    case OX_CP_NAMELESS:
      return Naming::kNameless;
    case OX_CP_UNPLACED:
      return Naming::kUnplaced;
  }
  return malformed("a record whose path is {} to its object, at most {} expected", cp,
                   int{OX_CP_UNPLACED});
}

Result<Message> decode_record(Bytes payload, const nlmsghdr &netlink) {
  if (payload.size() < OX_MSG_LEN)
    return malformed("a change record of {} bytes, at least {} expected", payload.size(),
                     OX_MSG_LEN);
  const auto head = load<ox_msg>(payload);
  const std::uint8_t op = head.op, os = head.os;
  const std::uint32_t wseq = head.wseq;
  if (os != OX_OS_LINUX) return malformed("a record of system {}, not {}", os, OX_OS_LINUX);
  if (wseq != netlink.nlmsg_seq)
    return malformed("number {} in the record and {} in the header", wseq, netlink.nlmsg_seq);
  const auto naming = decode_naming(head.cp);
  if (!naming) return naming.error();
  auto change = decode_change(payload, netlink.nlmsg_type, op);
  if (!change) return change.error();
  return Message{Record{load_uuid(payload), head.ts, wseq, std::move(*change), *naming, head.seq}};
}

}  // namespace

Result<Message> decode(Bytes packet) {
  if (packet.size() < sizeof(nlmsghdr))
    return malformed("{} bytes, at least {} expected", packet.size(), sizeof(nlmsghdr));
  const auto header = load<nlmsghdr>(packet);
  // Pages have a buffer of fixed size, even if the last page does not fill it.
  constexpr std::size_t kPageBuffer = sizeof(nlmsghdr) + OX_PAGE_PAYLOAD;
  const bool page_buffer = header.nlmsg_type == OX_OP_WRITE && packet.size() == kPageBuffer;
  if (header.nlmsg_len < sizeof(header) || header.nlmsg_len > packet.size() ||
      (!page_buffer && packet.size() - header.nlmsg_len > 3))
    return malformed("a packet of {} bytes whose header says {}", packet.size(), header.nlmsg_len);
  const Bytes payload = packet.subspan(sizeof(header), header.nlmsg_len - sizeof(header));
  switch (header.nlmsg_type) {
    case OX_OP_WRITE:
    case OX_OP_COLLECT:
      return decode_record(payload, header);
    case OX_OP_STOP_RULE:
      if (payload.size() != OX_UUID_LEN)
        return malformed("a stop notice of {} bytes, not {}", payload.size(), OX_UUID_LEN);
      return Message{StopRule{load_uuid(payload)}};
    case OX_SO_REP_ADD:
    case OX_SO_REP_DEL:
    case OX_SO_REP_FLUSH:
      if (payload.size() != sizeof(std::int32_t))
        return malformed("an answer of {} bytes, not {}", payload.size(), sizeof(std::int32_t));
      return Message{Reply{header.nlmsg_type, load<std::int32_t>(payload)}};
  }
  return malformed("unknown type {}", header.nlmsg_type);
}

namespace {

std::string attribute_words(const SetAttr &c) {
  std::string words;
  if (c.valid & OX_ATTR_MODE) words += fmt::format(" mode {:04o}", c.mode & 07777);
  if (c.valid & OX_ATTR_UID) words += fmt::format(" uid {}", c.uid);
  if (c.valid & OX_ATTR_GID) words += fmt::format(" gid {}", c.gid);
  if (c.valid & OX_ATTR_SIZE) words += fmt::format(" size {}", c.size);
  if (c.valid & OX_ATTR_ATIME) words += fmt::format(" atime {}", utc_time(c.atime));
  if (c.valid & OX_ATTR_MTIME) words += fmt::format(" mtime {}", utc_time(c.mtime));
  return words;
}

struct Describe {
  std::string operator()(const Create &c) {
    return fmt::format("create {} mode {:04o}", printable(c.path), c.mode & 07777);
  }
  std::string operator()(const Mkdir &c) {
    return fmt::format("mkdir {} mode {:04o}", printable(c.path), c.mode & 07777);
  }
  std::string operator()(const Unlink &c) { return "unlink " + printable(c.path); }
  std::string operator()(const Rmdir &c) { return "rmdir " + printable(c.path); }
  std::string operator()(const Symlink &c) {
    return fmt::format("symlink {} -> {}", printable(c.path), printable(c.target));
  }
  std::string operator()(const Link &c) {
    return fmt::format("link {} as {}", printable(c.existing), printable(c.path));
  }
  std::string operator()(const Rename &c) {
    return fmt::format("rename {} to {}", printable(c.from), printable(c.to));
  }
  std::string operator()(const SetAttr &c) {
    return fmt::format("setattr {}{}", printable(c.path), attribute_words(c));
  }
  std::string operator()(const Write &c) {
    return fmt::format("write {} offset {} bytes {}", printable(c.path), c.offset, c.data.size());
  }
  std::string operator()(const WritePage &c) {
    return fmt::format("write {} offset {} bytes {} page {} of {}",
                       c.page == 0 ? printable(c.path) : "(as page 0)", c.offset, c.data.size(),
                       c.page, c.pages);
  }
};

}  // namespace

std::string describe(const Change &change) {
  return std::visit(Describe{}, change);
}

std::string_view change_name(const Change &change) {
  static constexpr std::string_view kNames[] = {"create", "mkdir",  "unlink",  "rmdir", "symlink",
                                                "link",   "rename", "setattr", "write", "write"};
  static_assert(std::size(kNames) == std::variant_size_v<Change>);
  return kNames[change.index()];
}

std::string_view change_path(const Change &change) {
  return std::visit(
      [](const auto &c) {
        if constexpr (requires { c.existing; })
          return c.existing;
        else if constexpr (requires { c.from; })
          return c.from;
        else
          return c.path;
      },
      change);
}

}  // namespace tarn
