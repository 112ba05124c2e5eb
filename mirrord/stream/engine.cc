// SPDX-License-Identifier: GPL-2.0
#include "mirrord/stream/engine.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include <fmt/format.h>

#include "base/text.h"

namespace tarn {
namespace {

constexpr std::int64_t kWaitMs = 5000;
/* How long the servers remember ids. What guards the order is the predecessor's id. */
constexpr std::chrono::nanoseconds kDuplicateWindow = std::chrono::seconds(10);
/* The header lines of a message, which count. */
constexpr std::size_t kHeaderMax = 1024;

jsOptions options() {
  jsOptions options;
  jsOptions_Init(&options);
  options.Wait = kWaitMs;
  return options;
}

}  // namespace

Engine::Engine(std::shared_ptr<natsConnection> connection, NatsOwner<jsCtx> context,
               std::uint64_t losses, const StreamConfig &config, std::string subject)
    : connection_(std::move(connection)),
      context_(std::move(context)),
      losses_(losses),
      config_(config),
      subject_(std::move(subject)) {}

Result<std::unique_ptr<Engine>> Engine::open(Connection &connection) {
  const std::uint64_t losses = connection.losses();
  auto link = connection.get();
  if (!link) return link.error();
  jsCtx *context = nullptr;
  jsOptions wait = options();
  if (const natsStatus status = natsConnection_JetStream(&context, link->get(), &wait);
      status != NATS_OK)
    return Error{-ENOTCONN, nats_text(status)};
  return std::unique_ptr<Engine>(new Engine(std::move(*link), NatsOwner<jsCtx>(context), losses,
                                            connection.config(), connection.subject("log")));
}

std::size_t Engine::message_max() const {
  const auto most = static_cast<std::size_t>(
      std::max<std::int64_t>(natsConnection_GetMaxPayload(connection_.get()), 0));
  return std::max(most, 2 * kHeaderMax) - kHeaderMax;
}

Error Engine::error(const std::string &what, natsStatus status, int code) const {
  std::string text =
      fmt::format("stream {}: {}: {}", printable(config_.stream), what, nats_text(status));
  switch (code) {
    case JSStreamNotFoundErr:
      return Error{-ENOENT, fmt::format("stream {}: the servers have none of this name; mirrord on "
                                        "the source's host makes it",
                                        printable(config_.stream))};
    case JSInsufficientResourcesErr:
    case JSStorageResourcesExceededErr:
    case JSStreamMaxStreamBytesExceededErr:
    case JSStreamStoreFailedErr:
      return Error{-ENOSPC, text + "; give the servers more storage, or lower 'max-bytes'"};
    case JSStreamReplicasNotSupportedErr:
    case JSClusterNoPeersErr:
      return Error{-EINVAL,
                   text + fmt::format("; the cluster has to have {} servers, or lower 'replicas'",
                                      config_.replicas)};
    case JSNotEnabledErr:
    case JSNotEnabledForAccountErr:
      return Error{-EINVAL, text + "; enable JetStream on the servers for this account"};
    case JSStreamSubjectOverlapErr:
      return Error{-EINVAL, text + fmt::format("; another stream has {}: give this one another "
                                               "name",
                                               subject_)};
    default:
      break;
  }
  if (status == NATS_NO_RESPONDERS)
    return Error{-ENOTCONN, text + "; JetStream is not enabled there, or its leader is away"};
  if (code != 0) return Error{-EIO, text + "; look at the servers"};
  return Error{-ENOTCONN, text + "; look at the servers"};
}

Result<NatsOwner<jsStreamInfo>> Engine::info() {
  jsStreamInfo *info = nullptr;
  jsErrCode code{};
  const natsStatus status =
      js_GetStreamInfo(&info, context_.get(), config_.stream.c_str(), nullptr, &code);
  NatsOwner<jsStreamInfo> owner(info);
  if (status == NATS_NOT_FOUND) return error("looking at it", status, JSStreamNotFoundErr);
  if (status != NATS_OK) return error("looking at it", status, code);
  return owner;
}

Result<void> Engine::check(const jsStreamConfig &there) const {
  std::string wrong;
  if (there.Storage != js_FileStorage)
    wrong = "keeps its messages in memory; expected storage file";
  else if (there.Discard != js_DiscardNew)
    wrong = "drops old messages for new ones; expected discard new";
  else if (there.Retention != js_LimitsPolicy)
    wrong = "removes messages by itself; expected retention limits";
  else if (there.MaxAge != 0 || there.MaxMsgs > 0 || there.MaxMsgsPerSubject > 0)
    wrong = "has a limit of age or messages; expected one of bytes only";
  else if (there.SubjectsLen != 1 || subject_ != there.Subjects[0])
    wrong = "has other subjects; expected " + subject_;
  else if (there.Sealed || there.NoAck || there.Mirror || there.SourcesLen != 0)
    wrong = "is a mirror, sealed or without acknowledgements; expected a plain one";
  else if (there.Replicas != static_cast<std::int64_t>(config_.replicas))
    wrong = fmt::format("has {} copies; expected {}, as 'replicas' says", there.Replicas,
                        config_.replicas);
  else if (there.MaxBytes != static_cast<std::int64_t>(config_.max_bytes))
    wrong = fmt::format("has room for {} bytes; expected {}, as 'max-bytes' says", there.MaxBytes,
                        config_.max_bytes);
  if (wrong.empty()) return {};
  return Error{-EINVAL, fmt::format("stream {} {}: change it at the servers, mend the "
                                    "configuration, or use another name",
                                    printable(config_.stream), wrong)};
}

Result<void> Engine::ensure_stream() {
  auto there = info();
  if (there) return check(*(*there)->Config);
  if (there.error().code != -ENOENT) return there.error();
  const char *subjects[] = {subject_.c_str()};
  jsStreamConfig wanted;
  jsStreamConfig_Init(&wanted);
  wanted.Name = config_.stream.c_str();
  wanted.Description = "a log of tarn's mirrord";
  wanted.Subjects = subjects;
  wanted.SubjectsLen = 1;
  wanted.Retention = js_LimitsPolicy;
  wanted.Discard = js_DiscardNew;
  wanted.Storage = js_FileStorage;
  wanted.Replicas = static_cast<std::int64_t>(config_.replicas);
  wanted.MaxBytes = static_cast<std::int64_t>(config_.max_bytes);
  wanted.Duplicates = kDuplicateWindow.count();
  jsStreamInfo *info = nullptr;
  jsErrCode code{};
  const natsStatus status = js_AddStream(&info, context_.get(), &wanted, nullptr, &code);
  const NatsOwner<jsStreamInfo> owner(info);
  if (status != NATS_OK) return error("making it", status, code);
  return {};
}

Result<Engine::Extent> Engine::extent() {
  const auto there = info();
  if (!there) return there.error();
  const jsStreamState &state = (*there)->State;
  return Extent{state.FirstSeq, state.LastSeq, state.Msgs, state.LastTime};
}

Engine::Stored Engine::read(natsMsg &message) {
  Stored stored;
  stored.sequence = natsMsg_GetSequence(&message);
  const char *id = nullptr;
  if (natsMsgHeader_Get(&message, "Nats-Msg-Id", &id) == NATS_OK && id) stored.id = id;
  const auto decoded =
      decoder_.decode({reinterpret_cast<const std::byte *>(natsMsg_GetData(&message)),
                       static_cast<std::size_t>(natsMsg_GetDataLength(&message))});
  if (!decoded) return stored;
  stored.readable = true;
  stored.log = decoded->log;
  stored.run = decoded->run;
  stored.place = decoded->place;
  stored.behind = decoded->behind;
  return stored;
}

Result<std::optional<Engine::Stored>> Engine::last(const Extent &extent) {
  // The very last ones may have been deleted one by one.
  for (std::uint64_t sequence = extent.last, left = extent.messages; left > 0 && sequence > 0;
       --sequence) {
    auto found = at(sequence, sequence);
    if (!found || *found) return found;
    if (sequence == extent.first) break;
  }
  return std::optional<Stored>();
}

Result<std::optional<Engine::Stored>> Engine::at(std::uint64_t sequence, std::uint64_t last) {
  for (; sequence <= last; ++sequence) {
    natsMsg *message = nullptr;
    jsErrCode code{};
    const natsStatus status =
        js_GetMsg(&message, context_.get(), config_.stream.c_str(), sequence, nullptr, &code);
    const NatsOwner<natsMsg> owner(message);
    if (status == NATS_OK) return std::optional<Stored>(read(*message));
    if (status != NATS_NOT_FOUND || code == JSStreamNotFoundErr)
      return error(fmt::format("reading its message {}", sequence), status, code);
  }
  return std::optional<Stored>();
}

Result<std::uint64_t> Engine::find(const Uuid &epoch, LogPosition position) {
  const auto there = extent();
  if (!there) return there.error();
  // An epoch's messages lie together, and their positions grow.
  std::uint64_t low = there->first, high = there->last + 1;
  while (low < high) {
    const std::uint64_t middle = low + (high - low) / 2;
    const auto found = at(middle, high - 1);
    if (!found) return found.error();
    if (!*found) {
      high = middle;
      continue;
    }
    const Stored &stored = **found;
    const LogPosition last_entry =
        stored.behind.offset > 0 ? stored.behind.position : stored.behind.position - 1;
    if (stored.is_of(epoch) && last_entry >= position)
      high = middle;
    else
      low = stored.sequence + 1;
  }
  return low;
}

Result<void> Engine::purge(std::uint64_t sequence) {
  jsOptions to = options();
  to.Stream.Purge.Sequence = sequence;
  jsErrCode code{};
  const natsStatus status = js_PurgeStream(context_.get(), config_.stream.c_str(), &to, &code);
  if (status != NATS_OK) return error("removing what every replica has", status, code);
  return {};
}

Result<void> Engine::change_leader() {
  natsMsg *reply = nullptr;
  const natsStatus status = natsConnection_RequestString(
      &reply, connection_.get(), ("$JS.API.STREAM.LEADER.STEPDOWN." + config_.stream).c_str(), "",
      kWaitMs);
  const NatsOwner<natsMsg> owner(reply);
  if (status != NATS_OK) return error("asking for another leader", status, 0);
  const std::string_view answer(natsMsg_GetData(reply),
                                static_cast<std::size_t>(natsMsg_GetDataLength(reply)));
  if (answer.find("\"success\"") != std::string_view::npos) return {};
  return Error{-EIO,
               fmt::format("stream {}: asking for another leader: {}", printable(config_.stream),
                           escape_controls(answer.substr(0, 500)))};
}

Result<void> Engine::remove_stream() {
  jsOptions wait = options();
  jsErrCode code{};
  const natsStatus status = js_DeleteStream(context_.get(), config_.stream.c_str(), &wait, &code);
  if (status != NATS_OK) return error("removing it", status, code);
  return {};
}

}  // namespace tarn
