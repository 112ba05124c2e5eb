/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What passes between libfuse and the host kernel for one session. All of it passes as it is, but
 * for the answer to the session's first request: there the host kernel is told that set-user-id
 * bits go where the write is made, as its newer versions want to know, a promise for which this
 * libfuse has no word. Without it the host kernel asks for an extended attribute before every
 * write.
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
  /* A request as it came; any thread. */
  void see_request(const void *request, size_t size);
  /* An answer on its way; changed in place where it is the first one. Any thread. */
  void see_answer(std::span<iovec> parts);

 private:
  /* The first request's number while its answer is to be changed, else 0. */
  std::atomic<std::uint64_t> first_ = 0;
};

/*
 * Puts the Mount's SessionIo between the session, whose user data is that Mount and which is
 * mounted, and the device. 0 or -errno.
 */
int interpose_session_io(fuse_session *session);

}  // namespace tarnd

#endif
