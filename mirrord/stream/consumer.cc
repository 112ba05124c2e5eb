// SPDX-License-Identifier: GPL-2.0
#include "mirrord/stream/consumer.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "base/text.h"

namespace tarn {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/* Of 256 KiB each at most. */
constexpr int kPullCount = 32;
/* What the replica has taken and does not have on its disk yet; more stays at the servers. */
constexpr std::int64_t kUnacknowledgedMax = 20'000;
/* A position becomes durable when the replica's target is ready for it, which may take a day. What
 * did not arrive is noticed by its position. */
constexpr std::chrono::nanoseconds kAckWait = std::chrono::hours(24 * 30);
constexpr std::chrono::seconds kLookPause{5}, kPullTime{30};

Bytes data_of(const natsMsg &message) {
  return {reinterpret_cast<const std::byte *>(natsMsg_GetData(&message)),
          static_cast<std::size_t>(natsMsg_GetDataLength(&message))};
}

}  // namespace

StreamConsumer::StreamConsumer(Connection &connection, std::string replica,
                               std::optional<StreamPosition> next)
    : connection_(connection), replica_(std::move(replica)), assembler_(next) {}

StreamConsumer::~StreamConsumer() {
  detach();
}

void StreamConsumer::detach() {
  current_.reset();
  pulled_.clear();
  if (engine_) end_subscription(engine_->connection(), std::move(subscription_));
  engine_.reset();
  given_.clear();
}

Result<std::vector<LogEntry>> StreamConsumer::fetch(milliseconds timeout) {
  const auto end = steady_clock::now() + timeout;
  const auto failed = [this](Error error) {
    detach();
    return error;
  };
  for (;;) {
    if (assembler_.stopped()) return Error{-ENODATA, hole()->text};
    if (engine_ && engine_->losses() != connection_.losses()) {
      doubted_ = 0;
      detach();
    }
    if (!engine_) {
      if (auto attached = attach(); !attached) return failed(attached.error());
      continue;
    }
    if (pulled_.empty()) {
      const auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
      const auto came = pull(std::max(left, milliseconds(1)));
      if (!came) return failed(came.error());
      if (!*came) return std::vector<LogEntry>();
    }
    current_ = std::move(pulled_.front());
    pulled_.pop_front();
    std::vector<LogEntry> entries = assembler_.take(data_of(*current_));
    if (assembler_.stopped()) {
      pulled_.push_front(std::move(current_));
      if (hole()->kind == StreamHole::Kind::kMissing) doubt();
      continue;
    }
    const LogPosition next = assembler_.next() ? assembler_.next()->position : 0;
    const char *reply = natsMsg_GetReply(current_.get());
    if (reply) given_.push_back({next + (assembler_.partial() ? 1 : 0), reply});
    if (!entries.empty() || steady_clock::now() >= end) return entries;
  }
}

/* What was on its way may not have arrived: only what the servers do not have is a hole. */
void StreamConsumer::doubt() {
  if (doubted_ == hole()->wanted.position) return;
  doubted_ = hole()->wanted.position;
  assembler_.forget_hole();
  detach();
}

void StreamConsumer::go_on() {
  const bool by_message = !pulled_.empty() && !awaits();
  assembler_.go_on();
  given_.clear();
  if (!by_message) detach();
}

/* Where the wanted entry is. */
Result<std::uint64_t> StreamConsumer::place(const Engine::Extent &extent) {
  const auto last = engine_->last(extent);
  if (!last) return last.error();
  if (!next() || !*last || !(*last)->readable) return extent.last + 1;
  if ((*last)->is_of(next()->epoch)) return engine_->find(next()->epoch, next()->position);
  const auto first = engine_->find((*last)->epoch(), 0);
  if (!first) return first.error();
  const auto found = engine_->at(*first, extent.last);
  if (!found) return found.error();
  StreamHole hole{StreamHole::Kind::kOtherEpoch, *next(), {(*last)->epoch(), 1}, ""};
  if (*found) hole.found.position = (*found)->place.position;
  hole.text = hole_text(hole);
  assembler_.stop_at(std::move(hole));
  return *first;
}

Result<void> StreamConsumer::attach() {
  auto engine = Engine::open(connection_);
  if (!engine) return engine.error();
  engine_ = std::move(*engine);
  const auto extent = engine_->extent();
  if (!extent) return extent.error();
  const auto first = place(*extent);
  if (!first) return first.error();
  if (assembler_.stopped()) {
    detach();
    return {};
  }
  if (const auto made = make_consumer(*first); !made) return made;
  received_ = *first - 1;
  received_time_ = received_ == extent->last ? extent->last_time : 0;
  looked_ = steady_clock::now();
  return {};
}

Result<void> StreamConsumer::make_consumer(std::uint64_t first) {
  const std::string &stream = connection_.config().stream;
  if (const auto removed = remove(); !removed) return removed;
  jsConsumerConfig wanted;
  jsConsumerConfig_Init(&wanted);
  wanted.Durable = replica_.c_str();
  wanted.Description = "a replica of tarn's mirrord";
  wanted.DeliverPolicy = js_DeliverByStartSequence;
  wanted.OptStartSeq = first;
  wanted.AckPolicy = js_AckAll;
  wanted.AckWait = kAckWait.count();
  wanted.MaxAckPending = kUnacknowledgedMax;
  jsConsumerInfo *info = nullptr;
  jsErrCode code{};
  natsStatus status =
      js_AddConsumer(&info, engine_->context(), stream.c_str(), &wanted, nullptr, &code);
  const NatsOwner<jsConsumerInfo> owner(info);
  if (status != NATS_OK) return engine_->error("making the consumer " + replica_, status, code);
  natsInbox *inbox = nullptr;
  if ((status = natsInbox_Create(&inbox)) != NATS_OK)
    return engine_->error("listening to the consumer " + replica_, status, 0);
  inbox_ = inbox;
  natsInbox_Destroy(inbox);
  natsSubscription *subscription = nullptr;
  status = natsConnection_SubscribeSync(&subscription, engine_->connection(), inbox_.c_str());
  subscription_.reset(subscription);
  if (status != NATS_OK) return engine_->error("listening to the consumer " + replica_, status, 0);
  owed_ = 0;
  still_at_.reset();
  return {};
}

Result<void> StreamConsumer::remove() {
  if (!engine_) {
    auto engine = Engine::open(connection_);
    if (!engine) return engine.error();
    engine_ = std::move(*engine);
  }
  jsErrCode code{};
  const natsStatus status = js_DeleteConsumer(
      engine_->context(), connection_.config().stream.c_str(), replica_.c_str(), nullptr, &code);
  if (status == NATS_OK || code == JSConsumerNotFoundErr) return {};
  return engine_->error("removing the consumer " + replica_, status, code);
}

/* False: nothing came within the time. */
Result<bool> StreamConsumer::pull(milliseconds timeout) {
  const auto now = steady_clock::now();
  if (owed_ <= kPullCount / 2 || now > asked_ + kPullTime) {
    if (const auto asked = ask(kPullCount); !asked) return asked.error();
  }
  if (now - looked_ > kLookPause) {
    if (const auto looked = look(); !looked) return looked.error();
  }
  natsMsg *message = nullptr;
  const natsStatus status =
      natsSubscription_NextMsg(&message, subscription_.get(), timeout.count());
  NatsOwner<natsMsg> owner(message);
  if (status == NATS_TIMEOUT) return false;
  if (status != NATS_OK) return fetching_failed(nats_text(status));
  const char *code = nullptr;
  if (natsMsg_GetDataLength(message) > 0 ||
      natsMsgHeader_Get(message, "Status", &code) != NATS_OK || !code) {
    --owed_;
    looked_ = now;
    note_received(*owner);
    pulled_.push_back(std::move(owner));
    return true;
  }
  // 404, 408: the request has ended; anything else: the consumer has.
  const std::string_view ended(code);
  if (ended != "404" && ended != "408")
    return fetching_failed("the servers say " + escape_controls(ended));
  owed_ = 0;
  return false;
}

/* Messages are sent as they come, until that many were or the time is over. */
Result<void> StreamConsumer::ask(int count) {
  const std::string request = fmt::format(R"({{"batch":{},"expires":{}}})", count,
                                          std::chrono::nanoseconds(kPullTime).count());
  const std::string subject =
      fmt::format("$JS.API.CONSUMER.MSG.NEXT.{}.{}", connection_.config().stream, replica_);
  const natsStatus status = natsConnection_PublishRequestString(
      engine_->connection(), subject.c_str(), inbox_.c_str(), request.c_str());
  if (status != NATS_OK) return fetching_failed(nats_text(status));
  owed_ = std::max(owed_, 0) + count;
  asked_ = steady_clock::now();
  return {};
}

Error StreamConsumer::fetching_failed(const std::string &why) const {
  return Error{-ENOTCONN, fmt::format("stream {}: fetching messages: {}; it is tried again",
                                      connection_.config().stream, why)};
}

void StreamConsumer::note_received(natsMsg &message) {
  jsMsgMetaData *made = nullptr;
  if (natsMsg_GetMetaData(&made, &message) != NATS_OK) return;  // no consumer has sent it
  const NatsOwner<jsMsgMetaData> data(made);
  received_ = data->Sequence.Stream;
  received_time_ = data->Timestamp;
}

/* While nothing comes, nobody would notice that the consumer is gone, or does not give what the
 * stream has: a server whose own copy stands still, or went another way, may lead it, and what is
 * lost between servers is not sent again. Made anew, it may be another server's. */
Result<void> StreamConsumer::look() {
  looked_ = steady_clock::now();
  jsConsumerInfo *info = nullptr;
  jsErrCode code{};
  const natsStatus status =
      js_GetConsumerInfo(&info, engine_->context(), connection_.config().stream.c_str(),
                         replica_.c_str(), nullptr, &code);
  const NatsOwner<jsConsumerInfo> owner(info);
  if (status != NATS_OK)
    return Error{-ENOTCONN,
                 engine_->error("looking at the consumer " + replica_, status, code).text};
  const auto extent = engine_->extent();
  if (!extent) return extent.error();
  const bool all = extent->last == received_ && extent->last_time == received_time_;
  if (all || info->NumAckPending >= kUnacknowledgedMax) {
    still_at_.reset();
    return {};
  }
  if (std::exchange(still_at_, received_) != received_) return {};
  return fetching_failed(
      fmt::format("the consumer {} stands still at message {}, and the stream ends with {}",
                  replica_, received_, extent->last));
}

void StreamConsumer::acknowledge(LogPosition before) {
  const std::string *reply = nullptr;
  std::string last;
  while (!given_.empty() && given_.front().needs <= before) {
    last = std::move(given_.front().reply);
    given_.pop_front();
    reply = &last;
  }
  // One that is lost is covered by the next one.
  if (reply && engine_)
    (void)natsConnection_PublishString(engine_->connection(), reply->c_str(), "+ACK");
}

}  // namespace tarn
