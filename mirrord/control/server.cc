// SPDX-License-Identifier: GPL-2.0
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <list>
#include <system_error>
#include <thread>

#include <fmt/format.h>

#include "base/mutex.h"
#include "base/run_dir.h"
#include "client/pipe.h"
#include "mirrord/control/control.h"
#include "mirrord/control/line_stream.h"
#include "mirrord/control/protocol.h"
#include "mirrord/control/socket.h"

namespace tarn {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kProgressPause{200};   /* between two lines of progress */
constexpr milliseconds kAcceptPause{100};     /* after a failure to accept */
constexpr milliseconds kRefusalPatience{100}; /* of the thread that accepts */

/* The client of one connection, whose requests are served one after the other. */
class Session {
 public:
  Session(LineStream stream, ServiceControl &service, const ControlLimits &limits)
      : stream_(std::move(stream)), service_(service), patience_(limits.patience) {}

  /* Until the client has gone, has asked for something that is no request, or is too slow. */
  void run() {
    for (;;) {
      const auto line = stream_.read_line(kRequestMax, LineStream::Clock::now() + patience_);
      if (!line) return refuse(line.error());
      if (!*line) return;
      const auto request = parse_request(**line);
      const auto served =
          request ? serve(*request) : stream_.write(error_line(request.error()), patience_);
      if (!served) return;
    }
  }

 private:
  void refuse(const Error &error) {
    std::string text = "the request cannot be read: " + error.text;
    if (error.code == -ECANCELED) text = "the mirrord service is ending";
    if (error.code == -ETIMEDOUT)
      text = fmt::format("no whole request has come within {} ms", patience_.count());
    // The connection ends in either case.
    static_cast<void>(stream_.write(refusal_line(text), kRefusalPatience));
  }

  /* An error: the connection is of no use any more. */
  Result<void> serve(const Request &request) {
    switch (request.verb) {
      case Verb::kStatus:
        return answer(report_json(service_.report()));
      case Verb::kMetrics:
        return answer({{"text", metrics_text(service_.report())}});
      case Verb::kWait:
        return answer(service_.wait(request.name, request.timeout, progress()));
      case Verb::kPause:
        return answer(service_.pause(request.name));
      case Verb::kResume:
        return answer(service_.resume(request.name));
      case Verb::kResync:
        return answer(service_.resync(request.name));
      case Verb::kSkip:
        return skip(request.name);
      case Verb::kVerify:
      case Verb::kRepair:
        return verify(request);
      case Verb::kRetire:
        return answer(service_.retire(request.name));
    }
    return answer(Error{-ENOSYS, "the verb is not served"});
  }

  Result<void> skip(const TargetName &name) {
    const auto skipped = service_.skip(name);
    if (!skipped) return answer(skipped.error());
    return answer({{"skipped", *skipped}});
  }

  Result<void> verify(const Request &request) {
    const auto found = service_.verify(request.name, request.verb == Verb::kRepair, progress());
    if (!found) return answer(found.error());
    for (const Difference &difference : *found) {
      if (auto told = stream_.write(difference_line(difference), patience_); !told) return told;
    }
    return answer({{"differences", found->size()}});
  }

  /* Lines of progress, and the news that nobody wants to know any more. */
  ServiceControl::Progress progress() {
    {
      const MutexLock lock(progress_mutex_);
      next_progress_ = {};  // a new request's first line is not left out
    }
    return [this](double done, const std::string &what) {
      const MutexLock lock(progress_mutex_);
      if (stream_.gone()) return false;
      const auto now = LineStream::Clock::now();
      if (now < next_progress_) return true;
      next_progress_ = now + kProgressPause;
      stream_.offer(progress_line(done, what));
      return true;
    };
  }

  Result<void> answer(const nlohmann::ordered_json &result) {
    return stream_.write(result_line(result), patience_);
  }
  Result<void> answer(const Result<void> &result) {
    return result ? answer(nlohmann::ordered_json::object()) : answer(result.error());
  }
  Result<void> answer(const Error &error) {
    if (error.code != -ECANCELED || !stream_.gone())
      return stream_.write(error_line(error), patience_);
    refuse(error);
    return error;
  }

  LineStream stream_;
  ServiceControl &service_;
  const milliseconds patience_;
  Mutex progress_mutex_;
  LineStream::Clock::time_point next_progress_ GUARDED_BY(progress_mutex_){};
};

struct Connection {
  std::thread thread;
  std::atomic<bool> ended = false;
};

/* Nothing if the peer may ask. */
std::optional<std::string> why_refused(int connection) {
  const auto peer = peer_credentials(connection);
  if (!peer) return peer.error().text;
  if (peer->uid == 0 || peer->uid == geteuid()) return std::nullopt;
  return fmt::format("user {} may not ask this mirrord: only root and user {} may", peer->uid,
                     geteuid());
}

}  // namespace

class ControlServer::Impl {
 public:
  Impl(ListeningSocket socket, ServiceControl &service, const ControlLimits &limits, Pipe stop,
       Pipe ended)
      : socket_(std::move(socket)),
        service_(service),
        limits_(limits),
        stop_(std::move(stop)),
        ended_(std::move(ended)) {}

  ~Impl() {
    raise_pipe(stop_.write_end.get());
    if (acceptor_.joinable()) acceptor_.join();
    for (Connection &connection : connections_) connection.thread.join();
  }

  Result<void> start() {
    try {
      acceptor_ = std::thread([this] { accept_connections(); });
    } catch (const std::system_error &error) {
      return system_error(error.code().value(), "cannot start the thread of the control socket");
    }
    return {};
  }

 private:
  void accept_connections() {
    for (;;) {
      pollfd fds[] = {{socket_.fd(), POLLIN, 0},
                      {stop_.read_end.get(), POLLIN, 0},
                      {ended_.read_end.get(), POLLIN, 0}};
      if (poll(fds, 3, -1) < 0) continue;
      if (fds[1].revents != 0) return;
      if (fds[2].revents != 0) join_ended();
      if (fds[0].revents != 0 && !accept_one()) {
        // No descriptors, probably: the connection still waits, and poll() would return at once.
        pollfd stop{stop_.read_end.get(), POLLIN, 0};
        poll(&stop, 1, static_cast<int>(kAcceptPause.count()));
      }
    }
  }

  bool accept_one() {
    UniqueFd accepted(accept4(socket_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!accepted) return errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
    auto refused = why_refused(accepted.get());
    if (!refused && connections_.size() >= limits_.connections)
      refused = fmt::format("this mirrord serves {} connections already: try again later",
                            connections_.size());
    LineStream stream(std::move(accepted), stop_.read_end.get());
    if (refused)
      static_cast<void>(stream.write(refusal_line(*refused), kRefusalPatience));
    else
      serve(std::move(stream));
    return true;
  }

  void serve(LineStream stream) {
    Connection &connection = connections_.emplace_back();
    const auto client = std::make_shared<LineStream>(std::move(stream));
    try {
      connection.thread = std::thread([this, &connection, client] {
        Session(std::move(*client), service_, limits_).run();
        connection.ended = true;
        raise_pipe(ended_.write_end.get());
      });
    } catch (const std::system_error &error) {
      connections_.pop_back();
      static_cast<void>(client->write(
          refusal_line(system_error(error.code().value(), "cannot start a thread").text),
          kRefusalPatience));
    }
  }

  void join_ended() {
    char some[256];
    while (read(ended_.read_end.get(), some, sizeof(some)) > 0) {
    }
    connections_.remove_if([](Connection &connection) {
      if (!connection.ended) return false;
      connection.thread.join();
      return true;
    });
  }

  ListeningSocket socket_;
  ServiceControl &service_;
  const ControlLimits limits_;
  Pipe stop_;  /* readable once the server ends */
  Pipe ended_; /* readable when a connection's thread has ended */
  std::thread acceptor_;
  std::list<Connection> connections_; /* of the acceptor; after it, of the destructor */
};

Result<std::unique_ptr<ControlServer>> ControlServer::open(const std::string &socket,
                                                           ServiceControl &service,
                                                           const ControlLimits &limits) {
  auto stop = make_pipe("cannot make a pipe for the control socket");
  if (!stop) return stop.error();
  auto ended = make_pipe("cannot make a pipe for the control socket");
  if (!ended) return ended.error();
  auto listening = ListeningSocket::open(socket);
  if (!listening) return listening.error();
  auto impl = std::make_unique<Impl>(std::move(*listening), service, limits, std::move(*stop),
                                     std::move(*ended));
  if (auto started = impl->start(); !started) return started.error();
  return std::unique_ptr<ControlServer>(new ControlServer(std::move(impl)));
}

ControlServer::ControlServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
ControlServer::~ControlServer() = default;

}  // namespace tarn
