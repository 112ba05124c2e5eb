// SPDX-License-Identifier: GPL-2.0
#include "mirrord/control/line_stream.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace tarn {

using std::chrono::milliseconds;

/* 0 or an error number. */
int LineStream::wait_for(short events, Deadline deadline) const {
  for (;;) {
    milliseconds left{-1};
    if (deadline) {
      left = std::chrono::ceil<milliseconds>(*deadline - Clock::now());
      if (left.count() <= 0) return ETIMEDOUT;
      left = std::min<milliseconds>(left, std::chrono::minutes(1));
    }
    pollfd fds[] = {{socket_.get(), events, 0}, {stop_, POLLIN, 0}};
    const int ready = poll(fds, 2, static_cast<int>(left.count()));
    if (ready < 0 && errno != EINTR) return errno;
    if (ready <= 0) continue;
    return fds[1].revents != 0 ? ECANCELED : 0;
  }
}

Result<std::optional<std::string>> LineStream::read_line(std::size_t limit, Deadline deadline) {
  for (std::size_t looked = taken_;;) {
    const std::size_t end = in_.find('\n', looked);
    if (std::min(end, in_.size()) - taken_ > limit)
      return Error{-EMSGSIZE, "a line is longer than " + std::to_string(limit) + " bytes"};
    if (end != std::string::npos) {
      std::string line = in_.substr(taken_, end - taken_);
      taken_ = end + 1;
      return std::optional(std::move(line));
    }
    in_.erase(0, taken_);
    taken_ = 0;
    looked = in_.size();
    std::array<char, 65536> part;
    const ssize_t got = recv(socket_.get(), part.data(), part.size(), MSG_DONTWAIT);
    if (got > 0) {
      in_.append(part.data(), static_cast<std::size_t>(got));
    } else if (got == 0) {
      if (in_.empty()) return std::optional<std::string>();
      return Error{-EBADMSG, "the connection ended in the middle of a line"};
    } else if (errno == EAGAIN) {
      if (const int err = wait_for(POLLIN, deadline); err != 0)
        return system_error(err, "waiting for a line");
    } else if (errno != EINTR) {
      return system_error(errno, "reading a line");
    }
  }
}

/* Sends what there is room for. 0 or an error number. */
int LineStream::send_some() {
  while (!out_.empty()) {
    const ssize_t sent = send(socket_.get(), out_.data(), out_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return errno;
    out_.erase(0, static_cast<std::size_t>(sent));
  }
  return 0;
}

Result<void> LineStream::write(std::string_view line, milliseconds patience) {
  out_ += line;
  for (;;) {
    const std::size_t before = out_.size();
    int err = send_some();
    if (err == 0) return {};
    if (err == EAGAIN) err = wait_for(POLLOUT, Clock::now() + patience);
    // A peer that takes something is given the time anew.
    if (err != 0 && (err != ETIMEDOUT || out_.size() == before))
      return system_error(err, "writing a line");
  }
}

void LineStream::offer(std::string_view line) {
  // An error comes again with the answer, and gone() tells of a peer that is not there.
  static_cast<void>(send_some());
  if (!out_.empty()) return;
  out_ = line;
  static_cast<void>(send_some());
}

bool LineStream::gone() const {
  pollfd fds[] = {{socket_.get(), 0, 0}, {stop_, POLLIN, 0}};
  if (poll(fds, 2, 0) <= 0) return false;
  return (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 || fds[1].revents != 0;
}

}  // namespace tarn
