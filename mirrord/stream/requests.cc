// SPDX-License-Identifier: GPL-2.0
#include "mirrord/stream/requests.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "mirrord/stream/nats_owner.h"

namespace tarn {
namespace {

/* How soon the end of a server and a new connection are noticed. */
constexpr std::int64_t kSliceMs = 200;
constexpr std::chrono::milliseconds kRetryPause{500};

Bytes data_of(const natsMsg &message) {
  return {reinterpret_cast<const std::byte *>(natsMsg_GetData(&message)),
          static_cast<std::size_t>(natsMsg_GetDataLength(&message))};
}

}  // namespace

Result<std::vector<std::byte>> RequestSender::ask(Bytes request,
                                                  std::chrono::milliseconds timeout) {
  const auto connection = connection_.get();
  if (!connection) return connection.error();
  natsMsg *reply = nullptr;
  const natsStatus status =
      natsConnection_Request(&reply, connection->get(), subject_.c_str(), request.data(),
                             static_cast<int>(request.size()), timeout.count());
  const NatsOwner<natsMsg> owner(reply);
  switch (status) {
    case NATS_OK:
      break;
    case NATS_NO_RESPONDERS:
      return Error{-EHOSTUNREACH, fmt::format("nobody there: no process serves {}; look at mirrord "
                                              "on the source's host",
                                              subject_)};
    case NATS_TIMEOUT:
      return Error{-ETIMEDOUT, fmt::format("no reply from {} within {} ms; look at mirrord on the "
                                           "source's host",
                                           subject_, timeout.count())};
    case NATS_MAX_PAYLOAD:
      return Error{-EMSGSIZE, fmt::format("a request of {} bytes is more than the servers take; "
                                          "raise their max_payload",
                                          request.size())};
    default:
      return Error{-ENOTCONN, fmt::format("a request to {} failed: {}; it is tried again when the "
                                          "connection is there",
                                          subject_, nats_text(status))};
  }
  const Bytes bytes = data_of(*reply);
  return std::vector<std::byte>(bytes.begin(), bytes.end());
}

RequestServer::RequestServer(Connection &connection, std::string subject, Handler handler)
    : connection_(connection), subject_(std::move(subject)), handler_(std::move(handler)) {
  thread_ = std::thread([this] { run(); });
}

RequestServer::~RequestServer() {
  ending_ = true;
  {
    MutexLock lock(mutex_);
    stop_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

std::string RequestServer::problem() const {
  MutexLock lock(mutex_);
  return problem_;
}

void RequestServer::set_problem(const std::string &text) {
  MutexLock lock(mutex_);
  problem_ = text;
}

/* False: it ends. */
bool RequestServer::sleep() {
  MutexLock lock(mutex_);
  if (!stop_) changed_.wait_for(lock, kRetryPause);
  return !stop_;
}

void RequestServer::run() {
  do {
    const auto connection = connection_.get();
    if (!connection) {
      set_problem(connection.error().text);
      continue;
    }
    natsSubscription *made = nullptr;
    const natsStatus status =
        natsConnection_QueueSubscribeSync(&made, connection->get(), subject_.c_str(), "servers");
    NatsOwner<natsSubscription> subscription(made);
    if (status != NATS_OK) {
      set_problem(fmt::format("cannot listen to {}: {}", subject_, nats_text(status)));
      continue;
    }
    // Until the server knows of it, whoever asks is told that nobody is there.
    if (natsConnection_FlushTimeout(connection->get(), kRetryPause.count()) == NATS_OK) {
      set_problem("");
      while (serve(**connection, *subscription)) {
      }
      set_problem("the connection was lost");
    }
    end_subscription(connection->get(), std::move(subscription));
  } while (sleep());
}

/* False: it ends, or the connection is closed for good. */
bool RequestServer::serve(natsConnection &connection, natsSubscription &subscription) {
  if (ending_) return false;
  natsMsg *message = nullptr;
  const natsStatus status = natsSubscription_NextMsg(&message, &subscription, kSliceMs);
  const NatsOwner<natsMsg> request(message);
  if (status == NATS_OK) answer(connection, *message);
  if (status == NATS_OK || status == NATS_TIMEOUT) return !natsConnection_IsClosed(&connection);
  return status == NATS_SLOW_CONSUMER;  // requests were dropped: their senders ask again
}

void RequestServer::answer(natsConnection &connection, natsMsg &request) {
  const char *to = natsMsg_GetReply(&request);
  if (!to) return;
  const std::vector<std::byte> reply = handler_(data_of(request));
  // Whoever asked notices a reply that is lost.
  const natsStatus status =
      natsConnection_Publish(&connection, to, reply.data(), static_cast<int>(reply.size()));
  set_problem(status == NATS_OK ? ""
                                : fmt::format("a reply of {} bytes on {} was not sent: {}",
                                              reply.size(), subject_, nats_text(status)));
}

}  // namespace tarn
