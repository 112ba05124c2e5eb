// SPDX-License-Identifier: GPL-2.0
#include "mirrord/stream/publisher.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/stream/publish_reply.h"

namespace tarn {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kInFlightMax = 256, kBytesInFlightMax = 16 << 20;
constexpr milliseconds kSlice{100}, kIdleSlice{200}, kRetryPause{500}, kLookAgainPause{50};
/* A message that has no answer then is lost, or its answer is. */
constexpr std::chrono::seconds kAnswerTime{10};
/* While nothing is sent, nobody would notice that the stream has lost its end. */
constexpr std::chrono::seconds kLookPause{5}, kPurgePause{2};

}  // namespace

StreamPublisher::StreamPublisher(Connection &connection, EntryReader &entries, Options options)
    : connection_(connection),
      entries_(entries),
      options_(std::move(options)),
      run_(options_.run) {}

StreamPublisher::~StreamPublisher() = default;

StreamPublisher::Status StreamPublisher::status() const {
  MutexLock lock(mutex_);
  return status_;
}

void StreamPublisher::run() {
  while (!stop_) step();
  detach();
}

void StreamPublisher::step() {
  if (!engine_) {
    if (const auto attached = attach(); !attached) {
      fail(State::kAway, attached.error().text);
      return pause(kRetryPause);
    }
  }
  if (engine_->losses() != connection_.losses())
    return fail(State::kAway, "the connection was lost");
  if (asked_again()) return detach();
  Result<void> done;
  if (Clock::now() - purged_ > kPurgePause) {
    purged_ = Clock::now();
    done = purge();
  }
  if (done) done = take_replies(has_room() ? milliseconds(0) : kSlice);
  if (done && has_room()) {
    const auto message = next_message();
    if (!message)
      done = message.error();
    else if (*message)
      done = send(**message);
    else
      done = idle();
  }
  if (done) return;
  // The rest of what was there twice has no room.
  if (done.error().code == -ENOSPC && status().position < back_until_) make_room_ = !made_room_;
  if (done.error().code == -EAGAIN && !taken_ && !in_flight_.empty()) first_refused();
  fail(done.error().code == -ENOSPC ? State::kFull : State::kAway, done.error().text);
  // Another message at the predecessor's place: looking at the stream settles it.
  pause(done.error().code == -EAGAIN ? kLookAgainPause : kRetryPause);
}

void StreamPublisher::pause(milliseconds time) {
  const auto end = Clock::now() + time;
  while (!stop_ && Clock::now() < end) std::this_thread::sleep_for(milliseconds(50));
}

void StreamPublisher::detach() {
  if (engine_) end_subscription(engine_->connection(), std::move(replies_));
  engine_.reset();
  in_flight_.clear();
  bytes_in_flight_ = 0;
}

void StreamPublisher::fail(State state, const std::string &error) {
  detach();
  if (error != said_) options_.say(error);
  said_ = error;
  MutexLock lock(mutex_);
  status_.state = state;
  status_.error = error;
}

Result<void> StreamPublisher::attach() {
  auto engine = Engine::open(connection_);
  if (!engine) return engine.error();
  engine_ = std::move(*engine);
  if (const auto there = engine_->ensure_stream(); !there) return there;
  if (const auto found = find_place(); !found) return found;
  found_place_ = true;
  if (const auto back = go_back(); !back) return back;
  if (const auto heard = listen(); !heard) return heard;
  const Packing packing = connection_.config().compress ? Packing::kZstd : Packing::kNone;
  packer_.emplace(entries_.epoch(), run_, engine_->message_max(), packing);
  answered_ = last_;
  taken_ = false;
  looked_ = Clock::now();
  MutexLock lock(mutex_);
  status_.position = place_.position;
  return {};
}

/* What is in the stream says where to go on. */
Result<void> StreamPublisher::find_place() {
  const auto extent = engine_->extent();
  if (!extent) return extent.error();
  const auto last = engine_->last(*extent);
  if (!last) return last.error();
  last_ = extent->last;
  last_id_.clear();
  // What the log has got since it was opened may have the positions of what it has lost.
  const LogPosition end =
      found_place_ ? entries_.end() : std::min(entries_.end(), options_.log_end);
  if (!*last) {
    place_ = {entries_.first(), 0};
    return {};
  }
  const Engine::Stored &stored = **last;
  // What is behind the log's end cannot be of it.
  const LogPosition needed = stored.behind.position + (stored.behind.offset > 0 ? 1 : 0);
  if (stored.is_of(stream_epoch(entries_.epoch(), run_)) && needed <= end) {
    place_ = stored.behind;
    return {};
  }
  return begin_run(stored);
}

Result<void> StreamPublisher::begin_run(const Engine::Stored &last) {
  std::uint32_t run = run_;
  if (last.readable && last.log == entries_.epoch()) run = std::max(run, last.run);
  ++run;
  if (const auto kept = options_.keep_run(run); !kept) return kept;
  run_ = run;
  released_ = 0;
  place_ = {entries_.first(), 0};
  gap(fmt::format(
      "GAP: the last message of stream {}, {}, is not of this log, which ends before "
      "entry {}: it goes on with entry {} in run {}, and its replicas compare all",
      connection_.config().stream, last.id.empty() ? "without an id" : printable(last.id),
      entries_.end(), place_.position, run_));
  return {};
}

void StreamPublisher::send_again(LogPosition from, std::uint64_t seen) {
  MutexLock lock(mutex_);
  if (again_at_ > seen && again_from_ <= from) return;
  begin_again_ = std::min(begin_again_.value_or(from), from);
}

bool StreamPublisher::asked_again() const {
  MutexLock lock(mutex_);
  return begin_again_ && !going_back_;
}

/* To where a replica has asked for. From the first message of it on, the stream's last one says
 * where to go on, whatever happens. */
Result<void> StreamPublisher::go_back() {
  std::optional<LogPosition> from;
  {
    MutexLock lock(mutex_);
    if (again_at_ > last_) again_at_ = 0;
    from = begin_again_;
  }
  if (from && from != going_back_) {
    back_until_ = std::max(back_until_, place_.position);
    made_room_ = false;
    options_.say(
        fmt::format("the servers have lost entry {}, which a replica needs: stream {} "
                    "gets it again, with all that follow",
                    *from, connection_.config().stream));
  }
  if (make_room_) {
    // What waits in the stream for others, and has to go, is in the log too.
    const LogPosition needed = std::max<LogPosition>(release_, entries_.first());
    from = std::min(from.value_or(place_.position), needed);
    MutexLock lock(mutex_);
    begin_again_ = std::min(begin_again_.value_or(*from), *from);
  }
  going_back_ = from;
  if (going_back_) place_ = std::min(place_, StreamPlace{*going_back_, 0});
  if (!make_room_) return {};
  if (const auto purged = engine_->purge(last_); !purged) return purged;
  make_room_ = false;
  made_room_ = true;
  return {};
}

void StreamPublisher::went_back() {
  again_from_ = *going_back_;
  again_at_ = answered_ + 1;
  if (begin_again_ == going_back_) begin_again_.reset();
  going_back_.reset();
}

Result<void> StreamPublisher::listen() {
  natsInbox *inbox = nullptr;
  if (const natsStatus status = natsInbox_Create(&inbox); status != NATS_OK)
    return Error{-ENOTCONN, nats_text(status)};
  inbox_ = inbox;
  natsInbox_Destroy(inbox);
  natsSubscription *replies = nullptr;
  const natsStatus status =
      natsConnection_SubscribeSync(&replies, engine_->connection(), (inbox_ + ".*").c_str());
  replies_.reset(replies);
  if (status != NATS_OK) return Error{-ENOTCONN, nats_text(status)};
  return {};
}

void StreamPublisher::following() {
  if (!said_.empty()) options_.say("goes on");
  said_.clear();
  MutexLock lock(mutex_);
  status_.state = State::kFollowing;
  status_.error.clear();
}

void StreamPublisher::gap(const std::string &text) {
  options_.say(text);
  MutexLock lock(mutex_);
  ++status_.gaps;
}

/* An old copy of the stream's storage may end before what the log keeps. */
void StreamPublisher::skipped(LogPosition end) {
  const std::string text =
      fmt::format("the log has no entries {} to {} any more: stream {} goes on behind them",
                  place_.position, end - 1, connection_.config().stream);
  if (release_ >= end)
    options_.say(text + ", which every replica has");
  else
    gap("GAP: " + text + ", and replicas that lack them compare all");
}

/* The first one behind a look at the stream goes alone: what it names may be refused. */
bool StreamPublisher::has_room() const {
  if (!taken_) return in_flight_.empty();
  return in_flight_.size() < kInFlightMax && bytes_in_flight_ < kBytesInFlightMax;
}

Result<std::optional<PackedMessage>> StreamPublisher::next_message() {
  for (;;) {
    const auto entry = entries_.read(place_.position);
    if (!entry) return entry.error();
    if (!*entry) break;
    if ((*entry)->position != place_.position) {
      if (!packer_->empty()) break;
      skipped((*entry)->position);
      place_ = {(*entry)->position, 0};
    }
    if (place_.offset == 0 && packer_->add(**entry)) {
      ++place_.position;
      continue;
    }
    if (!packer_->empty()) break;
    PackedMessage piece = packer_->piece(**entry, place_.offset);
    place_ = piece.behind;
    return std::optional<PackedMessage>(std::move(piece));
  }
  if (packer_->empty()) return std::optional<PackedMessage>();
  return std::optional<PackedMessage>(packer_->take());
}

Result<void> StreamPublisher::send(const PackedMessage &message) {
  const std::string reply = fmt::format("{}.{}", inbox_, last_ + 1);
  natsMsg *made = nullptr;
  natsStatus status = natsMsg_Create(&made, engine_->subject().c_str(), reply.c_str(),
                                     reinterpret_cast<const char *>(message.bytes.data()),
                                     static_cast<int>(message.bytes.size()));
  const NatsOwner<natsMsg> owner(made);
  const auto header = [&](const char *key, const std::string &value) {
    if (status == NATS_OK) status = natsMsgHeader_Set(made, key, value.c_str());
  };
  header("Nats-Msg-Id", message.id);
  header("Nats-Expected-Stream", connection_.config().stream);
  if (last_id_.empty())
    header("Nats-Expected-Last-Sequence", std::to_string(last_));
  else
    header("Nats-Expected-Last-Msg-Id", last_id_);
  if (status == NATS_OK) status = natsConnection_PublishMsg(engine_->connection(), made);
  if (status != NATS_OK) return Error{-ENOTCONN, "a message was not sent: " + nats_text(status)};
  in_flight_.push_back({message.behind, message.bytes.size(), Clock::now()});
  bytes_in_flight_ += message.bytes.size();
  last_id_ = message.id;
  ++last_;
  return {};
}

Result<void> StreamPublisher::take_replies(milliseconds time) {
  while (!in_flight_.empty()) {
    natsMsg *message = nullptr;
    const natsStatus status = natsSubscription_NextMsg(&message, replies_.get(), time.count());
    const NatsOwner<natsMsg> owner(message);
    if (status == NATS_TIMEOUT) break;
    if (status != NATS_OK) return Error{-ENOTCONN, "no answers come: " + nats_text(status)};
    if (const auto taken = take_reply(*message); !taken) return taken;
    time = milliseconds(0);
  }
  if (!in_flight_.empty() && Clock::now() - in_flight_.front().sent > kAnswerTime)
    return Error{-ETIMEDOUT, fmt::format("stream {}: no answer to a message; look at the servers",
                                         connection_.config().stream)};
  return {};
}

Result<void> StreamPublisher::take_reply(natsMsg &reply) {
  const std::string_view subject = natsMsg_GetSubject(&reply);
  const std::string_view number = subject.substr(std::min(subject.size(), inbox_.size() + 1));
  std::uint64_t sent = 0;
  std::from_chars(number.data(), number.data() + number.size(), sent);
  if (sent <= answered_ || sent > last_) return {};
  const auto sequence =
      natsMsg_IsNoResponders(&reply)
          ? Result<std::uint64_t>(Error{-ENOTCONN, "nobody takes messages"})
          : parse_publish_reply(
                {natsMsg_GetData(&reply), static_cast<std::size_t>(natsMsg_GetDataLength(&reply))});
  if (!sequence)
    return Error{sequence.error().code,
                 fmt::format("stream {}: {}", connection_.config().stream, sequence.error().text)};
  // An earlier message with this id, which was removed a moment ago: the servers forget it soon.
  if (*sequence != sent)
    return Error{-EBUSY, fmt::format("stream {}: message {} became {}: it is sent again in a while",
                                     connection_.config().stream, sent, *sequence)};
  in_flight_[sent - answered_ - 1].acknowledged = true;
  taken_ = true;
  following();
  MutexLock lock(mutex_);
  while (!in_flight_.empty() && in_flight_.front().acknowledged) {
    const InFlight &front = in_flight_.front();
    if (going_back_) went_back();
    status_.entries += front.behind.position - status_.position;
    status_.position = front.behind.position;
    ++status_.messages;
    status_.bytes += front.bytes;
    bytes_in_flight_ -= front.bytes;
    ++answered_;
    in_flight_.pop_front();
  }
  return {};
}

/* Behind what the servers have just called the last message. Another publisher may have sent one
 * meanwhile, but then that is the last one at the next look. */
void StreamPublisher::first_refused() {
  const auto now = Clock::now();
  if (refused_behind_ != answered_ || now - refused_ > options_.patience) {
    refused_since_ = now;
    refused_behind_ = answered_;
    asked_for_leader_ = false;
  }
  refused_ = now;
  if (now - refused_since_ < options_.patience) return;
  const std::string text = fmt::format(
      "the servers say that stream {} ends with message {}, and refuse what comes behind it",
      connection_.config().stream, answered_);
  if (!asked_for_leader_) {
    asked_for_leader_ = true;
    options_.say(text + ": another of them is asked to lead");
    if (const auto asked = engine_->change_leader(); !asked) options_.say(asked.error().text);
  } else if (now - refused_since_ > 4 * options_.patience) {
    options_.say(text + fmt::format(": it is made anew from entry {} on", entries_.first()));
    if (const auto removed = engine_->remove_stream(); !removed) options_.say(removed.error().text);
    asked_for_leader_ = false;
    refused_since_ = now;
    released_ = 0;
  }
}

/* Keeps the last message, which says where to go on. When all have that one, what lies before it
 * may have been sent twice. */
Result<void> StreamPublisher::purge() {
  const LogPosition sent = status().position, before = std::min(release_.load(), sent);
  if (before <= released_ || answered_ == 0) return {};
  Result<std::uint64_t> first = answered_;
  if (before < sent) first = engine_->find(stream_epoch(entries_.epoch(), run_), before);
  if (!first) return first.error();
  if (const auto purged = engine_->purge(std::min(*first, answered_)); !purged) return purged;
  released_ = before;
  return {};
}

Result<void> StreamPublisher::idle() {
  if (!in_flight_.empty()) return take_replies(milliseconds(5));
  following();
  if (Clock::now() - looked_ > kLookPause) {
    looked_ = Clock::now();
    const auto extent = engine_->extent();
    if (!extent) return extent.error();
    if (extent->last != last_)
      return Error{-EAGAIN, fmt::format("stream {} ends with message {}; expected {}",
                                        connection_.config().stream, extent->last, last_)};
  }
  entries_.wait(place_.position, kIdleSlice);
  return {};
}

}  // namespace tarn
