// SPDX-License-Identifier: GPL-2.0
#include "mirrord/stream/connection.h"

#include <cerrno>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "base/text.h"

namespace tarn {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kConnectTime{2000}, kReconnectPause{200}, kJitter{200};
constexpr std::chrono::seconds kPingInterval{5}, kRetryPause{1};
constexpr std::chrono::seconds kFlushTime{1};
constexpr int kPingsUnanswered = 2;
constexpr int kBufferedWhileAway = 64 << 10;
/* What is written to a server that takes nothing. */
constexpr std::chrono::seconds kWriteTime{10};
constexpr char kTls13Suites[] =
    "TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256";
/* The library offers TLS 1.2, too. These suites of it want a key that both sides have from
 * elsewhere; as there is none, no server can choose TLS 1.2. */
constexpr char kNoTls12Suites[] = "PSK-AES256-GCM-SHA384";

struct OptionsDeleter {
  void operator()(natsOptions *options) const { natsOptions_Destroy(options); }
};
using Options = std::unique_ptr<natsOptions, OptionsDeleter>;

template <class Time>
std::int64_t ms(Time time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

}  // namespace

/* A connection of the library, which calls back from threads of its own until it is closed. */
struct Connection::Link {
  explicit Link(std::atomic<std::uint64_t> &counter) : losses(counter) {}
  Link(const Link &) = delete;
  Link &operator=(const Link &) = delete;

  ~Link() {
    if (!connection) return;
    natsConnection_Close(connection);
    {
      MutexLock lock(mutex);
      while (!closed) changed.wait(lock);
    }
    natsConnection_Destroy(connection);
  }

  static void on_disconnected(natsConnection *, void *self) { ++static_cast<Link *>(self)->losses; }
  static void on_closed(natsConnection *, void *self) {
    Link &link = *static_cast<Link *>(self);
    MutexLock lock(link.mutex);
    link.closed = true;
    link.changed.notify_all();
  }
  /* The library would print it. What matters shows where it is used. */
  static void on_error(natsConnection *, natsSubscription *, natsStatus, void *) {}

  std::atomic<std::uint64_t> &losses;
  natsConnection *connection = nullptr;
  Mutex mutex;
  Condition changed;
  bool closed GUARDED_BY(mutex) = false;
};

void end_subscription(natsConnection *connection, NatsOwner<natsSubscription> subscription) {
  if (!subscription) return;
  (void)natsSubscription_Unsubscribe(subscription.get());
  // Without an answer, nothing is read either.
  (void)natsConnection_FlushTimeout(connection, ms(kFlushTime));
}

std::string nats_text(natsStatus status) {
  natsStatus last = NATS_OK;
  const char *text = nats_GetLastError(&last);
  if (text && *text && last == status) return escape_controls(text);
  return natsStatus_GetText(status);
}

Connection::Connection(StreamConfig config, std::string client)
    : config_(std::move(config)), client_(std::move(client)) {}

Connection::~Connection() = default;

std::string Connection::subject(const std::string &what) const {
  return "tarn." + config_.stream + "." + what;
}

std::string Connection::servers() const {
  std::string all;
  for (const std::string &server : config_.servers) {
    if (!all.empty()) all += ", ";
    all += printable(server);
  }
  return all;
}

Error Connection::explain(natsStatus status, const std::string &detail) const {
  std::string advice = "start a server there, or mend 'servers'";
  // With TLS 1.3 a server that does not trust a client only hangs up.
  if (!config_.ca.empty()) advice += ", or have the servers trust 'certificate'";
  if (status == NATS_SSL_ERROR)
    advice =
        "look at 'ca', 'certificate' and 'key', and whether the server has TLS 1.3 and a "
        "certificate for its name";
  if (status == NATS_CONNECTION_AUTH_FAILED || status == NATS_NOT_PERMITTED)
    advice = "look at 'credentials' and 'certificate', and at the server's users";
  if (status == NATS_SECURE_CONNECTION_REQUIRED)
    advice = "the server wants TLS: set 'ca', 'certificate' and 'key'";
  if (status == NATS_SECURE_CONNECTION_WANTED)
    advice = "the server has no TLS: give it a certificate";
  return Error{-ENOTCONN, fmt::format("not connected to {}: {}; {}", servers(), detail, advice)};
}

Result<std::shared_ptr<Connection::Link>> Connection::connect() {
  natsOptions *made = nullptr;
  natsStatus status = natsOptions_Create(&made);
  if (status != NATS_OK) return explain(status, nats_text(status));
  const Options options(made);
  auto link = std::make_shared<Link>(losses_);
  std::vector<const char *> names;
  for (const std::string &server : config_.servers) names.push_back(server.c_str());
  std::string failed;
  const auto set = [&](natsStatus result, const std::string &what) {
    if (status != NATS_OK || result == NATS_OK) return;
    status = result;
    failed = what + nats_text(result);
  };
  natsOptions *to = options.get();
  set(natsOptions_SetServers(to, names.data(), static_cast<int>(names.size())), "");
  set(natsOptions_SetName(to, client_.c_str()), "");
  set(natsOptions_SetTimeout(to, ms(kConnectTime)), "");
  set(natsOptions_SetMaxReconnect(to, -1), "");
  set(natsOptions_SetReconnectWait(to, ms(kReconnectPause)), "");
  set(natsOptions_SetReconnectJitter(to, ms(kJitter), ms(kJitter)), "");
  set(natsOptions_SetReconnectBufSize(to, kBufferedWhileAway), "");
  set(natsOptions_SetFailRequestsOnDisconnect(to, true), "");
  set(natsOptions_SetPingInterval(to, ms(kPingInterval)), "");
  set(natsOptions_SetMaxPingsOut(to, kPingsUnanswered), "");
  set(natsOptions_SetWriteDeadline(to, ms(kWriteTime)), "");
  set(natsOptions_SetDisconnectedCB(to, Link::on_disconnected, link.get()), "");
  set(natsOptions_SetClosedCB(to, Link::on_closed, link.get()), "");
  set(natsOptions_SetErrorHandler(to, Link::on_error, link.get()), "");
  if (!config_.credentials.empty())
    set(natsOptions_SetUserCredentialsFromFiles(to, config_.credentials.c_str(), nullptr),
        printable(config_.credentials) + ": ");
  if (!config_.ca.empty()) {
    set(natsOptions_SetSecure(to, true), "");
    set(natsOptions_SetCiphers(to, kNoTls12Suites), "");
    set(natsOptions_SetCipherSuites(to, kTls13Suites), "");
    set(natsOptions_LoadCATrustedCertificates(to, config_.ca.c_str()),
        printable(config_.ca) + ": ");
    set(natsOptions_LoadCertificatesChain(to, config_.certificate.c_str(), config_.key.c_str()),
        printable(config_.certificate) + ", " + printable(config_.key) + ": ");
  }
  if (status != NATS_OK) return explain(status, failed);
  status = natsConnection_Connect(&link->connection, to);
  if (status != NATS_OK) return explain(status, nats_text(status));
  return link;
}

Result<std::shared_ptr<natsConnection>> Connection::get() {
  // A connection that the library has given up is closed outside of the lock.
  std::shared_ptr<Link> old;
  MutexLock lock(mutex_);
  if (link_ && natsConnection_IsClosed(link_->connection)) old = std::move(link_);
  if (!link_) {
    const auto now = steady_clock::now();
    if (now < next_try_) return Error{-ENOTCONN, error_};
    auto made = connect();
    next_try_ = steady_clock::now() + kRetryPause;
    if (!made) {
      error_ = made.error().text;
      return made.error();
    }
    link_ = std::move(*made);
  }
  if (natsConnection_Status(link_->connection) != NATS_CONN_STATUS_CONNECTED) {
    const char *text = nullptr;
    const natsStatus status = natsConnection_GetLastError(link_->connection, &text);
    return explain(status, text && *text ? escape_controls(text) : "the connection was lost");
  }
  return std::shared_ptr<natsConnection>(link_, link_->connection);
}

}  // namespace tarn
