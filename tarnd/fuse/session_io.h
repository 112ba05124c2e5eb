/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The I/O between libfuse and the host kernel for one session. One message is changed: the reply to
 * FUSE_INIT gets FUSE_HANDLE_KILLPRIV_V2, which this version of libfuse does not know. It promises
 * that a write clears set-user-id bits. Without it the host kernel reads an extended attribute
 * before every write.
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
  /* A request that has arrived; any thread. */
  void on_request(const void *request, size_t size);
  /* A reply that is about to be sent; the one to FUSE_INIT is changed in place. Any thread. */
  void on_reply(std::span<iovec> parts);

 private:
  /* The number of the FUSE_INIT request until it is replied to, else 0. */
  std::atomic<std::uint64_t> first_ = 0;
};

/*
 * Puts the Mount's SessionIo between the session, whose user data is that Mount and which is
 * mounted, and the device. 0 or -errno.
 */
int interpose_session_io(fuse_session *session);

}  // namespace tarnd

#endif
