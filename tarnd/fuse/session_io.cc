// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/session_io.h"

#include <linux/fuse.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "tarnd/fuse/caller.h"
#include "tarnd/fuse/mount.h"

namespace tarnd {

void SessionIo::on_request(const void *request, size_t size) {
  const auto *head = static_cast<const fuse_in_header *>(request);
  if (size < sizeof(*head) || head->opcode != FUSE_INIT) return;
  // Old kernels send no fields after the flags.
  constexpr size_t kFlagsEnd = offsetof(fuse_init_in, flags) + sizeof(fuse_init_in::flags);
  if (size < sizeof(*head) + kFlagsEnd) return;
  fuse_init_in init{};
  std::memcpy(&init, head + 1, kFlagsEnd);
  if (init.flags & FUSE_HANDLE_KILLPRIV_V2) first_ = head->unique;
}

void SessionIo::on_reply(std::span<iovec> parts) {
  const std::uint64_t first = first_;
  if (first == 0 || parts.size() != 2 || parts[0].iov_len != sizeof(fuse_out_header)) return;
  const auto *head = static_cast<const fuse_out_header *>(parts[0].iov_base);
  if (head->unique != first) return;
  first_ = 0;
  constexpr size_t kFlagsEnd = offsetof(fuse_init_out, flags) + sizeof(fuse_init_out::flags);
  if (head->error != 0 || parts[1].iov_len < kFlagsEnd) return;
  static_cast<fuse_init_out *>(parts[1].iov_base)->flags |= FUSE_HANDLE_KILLPRIV_V2;
}

static SessionIo *io_of(void *mount) {
  return &static_cast<Mount *>(mount)->session_io();
}

// Not libc's read and write: these are cancellation points and cost four atomic operations each. No
// thread here is ever cancelled.
static ssize_t transfer(long call, int fd, const void *buf, size_t count) {
  return syscall(call, fd, buf, count);
}

static ssize_t read_request(int fd, void *buf, size_t size, void *mount) {
  const ssize_t got = transfer(SYS_read, fd, buf, size);
  if (got > 0) io_of(mount)->on_request(buf, static_cast<size_t>(got));
  return got;
}

// A short reply is copied into one buffer: a second iovec costs the host more than the copy.
static constexpr size_t kShort = 256;

static bool is_short(const iovec *parts, int count) {
  return count == 2 && parts[0].iov_len + parts[1].iov_len <= kShort;
}

static ssize_t write_short(int fd, const iovec &head, const iovec &body) {
  alignas(kShort) char answer[kShort];  // must not cross a page boundary
  std::memcpy(answer, head.iov_base, head.iov_len);
  std::memcpy(answer + head.iov_len, body.iov_base, body.iov_len);
  return transfer(SYS_write, fd, answer, head.iov_len + body.iov_len);
}

// Notifications have no request id.
static bool is_reply(const iovec &head) {
  return static_cast<const fuse_out_header *>(head.iov_base)->unique != 0;
}

static ssize_t write_reply(int fd, iovec *parts, int count, void *mount) {
  if (is_reply(parts[0])) CallerTask::reply_due();
  io_of(mount)->on_reply({parts, static_cast<size_t>(count)});
  if (is_short(parts, count)) return write_short(fd, parts[0], parts[1]);
  return transfer(SYS_writev, fd, parts, static_cast<size_t>(count));
}

int interpose_session_io(fuse_session *session) {
  static constexpr fuse_custom_io io = {.writev = write_reply,
                                        .read = read_request,
                                        .splice_receive = nullptr,
                                        .splice_send = nullptr};
  return fuse_session_custom_io(session, &io, fuse_session_fd(session));
}

}  // namespace tarnd
