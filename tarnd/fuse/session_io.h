/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The I/O between libfuse and the host kernel for one session. It changes one message: the reply to
 * FUSE_INIT gets FUSE_HANDLE_KILLPRIV_V2, which this version of libfuse does not know. The flag
 * promises that a write clears set-user-id bits; without it the host kernel reads an extended
 * attribute before every write.
 */
#ifndef TARND_FUSE_SESSION_IO_H
#define TARND_FUSE_SESSION_IO_H

#include <sys/uio.h>

#include <atomic>
#include <cstdint>
#include <span>

#include "tarnd/fuse/fuse_api.h"

namespace tarnd {

class SessionIo {
 public:
  /* Call it for each received request. Any thread. */
  void on_request(const void *request, size_t size);
  /* Call it before each reply is sent; changes the one to FUSE_INIT in place. Any thread. */
  void on_reply(std::span<iovec> parts);

 private:
  /* The unique id of the FUSE_INIT request until its reply, else 0. */
  std::atomic<std::uint64_t> first_ = 0;
};

/*
 * Inserts the Mount's SessionIo between the mounted session, whose user data is the Mount, and the
 * device. Returns 0 or -errno.
 */
int interpose_session_io(fuse_session *session);

}  // namespace tarnd

#endif
