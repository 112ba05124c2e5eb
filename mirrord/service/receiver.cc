// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/receiver.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include <fmt/format.h>

#include "mirrord/file_status.h"
#include "mirrord/service/journal.h"
#include "mirrord/touch.h"

namespace tarn {
namespace {

using Milliseconds = DaemonChannel::Milliseconds;
using std::chrono::steady_clock;

constexpr steady_clock::duration kRetry = std::chrono::seconds(1);
constexpr steady_clock::duration kKeepRules = std::chrono::seconds(10);
constexpr steady_clock::duration kMarkInterval = std::chrono::seconds(1);
constexpr steady_clock::duration kQuiet = std::chrono::milliseconds(5);
constexpr Milliseconds kDrained{100}; /* with no packet for this long, all have come */
constexpr std::chrono::seconds kLeaveTime{10};
constexpr std::chrono::seconds kPassOnTime{2};

}  // namespace

Result<std::unique_ptr<Receiver>> Receiver::open(Site site, RuleKeeper keeper,
                                                 const std::vector<FromSource> &sources,
                                                 Channel channel) {
  auto wake = make_pipe("the receiver");
  if (!wake) return wake.error();
  std::unique_ptr<Receiver> receiver(
      new Receiver(std::move(site), std::move(keeper), std::move(*wake), std::move(channel)));
  // Numbers of marks grow from one start to the next, whatever the clock does.
  std::uint64_t last = static_cast<std::uint64_t>(now_us());
  for (const FromSource &source : sources) {
    last = std::max(last, source.intake->last_mark());
    receiver->sources_[source.intake->rule()] = source;
  }
  MutexLock lock(receiver->mutex_);
  receiver->mark_wanted_ = receiver->mark_sent_ = last;
  return receiver;
}

void Receiver::run() {
  while (!stop_) {
    const bool connected = channel_ || connect();
    note_attempt();
    if (!connected) {
      pollfd waits{wake_.read_end.get(), POLLIN, 0};
      poll(&waits, 1, static_cast<int>(std::chrono::ceil<Milliseconds>(kRetry).count()));
      drain_wake();
      continue;
    }
    receive();
  }
  leave();
}

void Receiver::note_attempt() {
  MutexLock lock(mutex_);
  if (std::exchange(attempted_, true)) return;
  attempted_changed_.notify_all();
}

void Receiver::wait_for_attempt() {
  MutexLock lock(mutex_);
  while (!attempted_) attempted_changed_.wait(lock);
}

void Receiver::stop() {
  stop_ = true;
  (void)!write(wake_.write_end.get(), "", 1);  // a full pipe wakes as well
}

std::optional<std::uint64_t> Receiver::request_mark() {
  MutexLock lock(mutex_);
  if (!problem_.empty()) return std::nullopt;
  const std::uint64_t number = ++mark_wanted_;
  (void)!write(wake_.write_end.get(), "", 1);
  return number;
}

std::string Receiver::problem() const {
  MutexLock lock(mutex_);
  return problem_;
}

bool Receiver::stopped(const Uuid &rule) const {
  MutexLock lock(mutex_);
  return stopped_.contains(rule);
}

void Receiver::set_problem(const std::string &problem) {
  MutexLock lock(mutex_);
  if (problem == problem_) return;
  problem_ = problem;
  say(problem.empty() ? Level::kNotice : Level::kWarning, "",
      problem.empty() ? "registered with the module" : problem);
}

void Receiver::drain_wake() {
  char bytes[64];
  (void)!read(wake_.read_end.get(), bytes, sizeof bytes);
}

bool Receiver::connect() {
  const Claim claim = std::exchange(claim_, Claim::kRefuseIfTaken);
  auto channel = early_ ? Result(std::move(early_)) : DaemonChannel::open(site_, claim, store_);
  if (!channel) {
    set_problem("not connected to the module: " + channel.error().text);
    return false;
  }
  channel_ = std::move(*channel);
  Sequencer::Limits limits;
  // A program may have been waiting for room in the former channel while others used the new one.
  if (channel_->goes_on()) limits.settle = limits.hold;
  sequencer_.emplace(static_cast<Sequencer::Sink &>(*this), limits);
  unfinished_writes_.clear();
  barriers_.clear();
  const auto changed = keeper_.keep();
  if (!changed) {
    disconnect("the module's rules cannot be set: " + changed.error().text);
    return false;
  }
  kept_at_ = Clock::now();
  note_added(*changed);
  find_missing(changed->kept);
  set_problem("");
  send_barrier();
  return channel_ != nullptr;
}

/* A rule that is new to the module: what changed before it was added was not captured. */
void Receiver::note_added(const RuleKeeper::Changed &changed) {
  for (const Uuid &rule : changed.added) {
    unfinished_writes_.erase(rule);
    const auto source = sources_.find(rule);
    if (source == sources_.end()) continue;
    // No target has begun with a new log: each will be compared as a whole.
    if (source->second.intake->log().end() == 1) continue;
    source->second.intake->gap(Intake::Missing::kSinceLastRecord,
                               "the module had no rule for the source until now");
  }
}

/* Records that the module could not deliver while nobody was registered: the next number tells, so
 * one is caused. Where that is impossible, they are taken to be missing. */
void Receiver::find_missing(const std::vector<Uuid> &kept) {
  std::vector<Mount> mounts;
  std::map<Uuid, Rule> rules;
  if (auto control = ControlChannel::connect(site_)) {
    if (auto list = control->mounts()) mounts = std::move(*list);
    if (auto list = control->list_rules()) {
      for (Rule &rule : *list) rules[rule.uuid] = std::move(rule);
    }
  }
  for (const Uuid &uuid : kept) {
    const auto source = sources_.find(uuid);
    if (source == sources_.end()) continue;
    const auto position = source->second.intake->received();
    if (position) sequencer_->resume(uuid, *position);
    const auto rule = rules.find(uuid);
    const auto touched = rule == rules.end() ? Result<void>(Error{-ENOENT, "the rule is gone"})
                                             : touch(rule->second, mounts);
    if (!touched)
      source->second.intake->gap(
          Intake::Missing::kSinceLastRecord,
          "it is unknown what changed while mirrord was away: " + touched.error().text);
  }
}

void Receiver::disconnect(const std::string &why) {
  set_problem(why);
  if (sequencer_) sequencer_->finish();
  sequencer_.reset();
  channel_.reset();
  if (store_) store_->clear();
  barriers_.clear();
}

/* From time to time and before a mark that somebody asked for, because somebody else may have
 * changed them. */
Result<void> Receiver::keep_rules() {
  renew_stopped();
  const auto changed = keeper_.keep();
  kept_at_ = Clock::now();
  if (!changed) return changed.error();
  note_added(*changed);
  return {};
}

void Receiver::renew_stopped() {
  std::set<Uuid> stopped;
  {
    MutexLock lock(mutex_);
    stopped = std::exchange(stopped_, {});
  }
  if (stopped.empty()) return;
  auto control = ControlChannel::connect(site_);
  for (const Uuid &rule : stopped) {
    Result<void> deleted = control ? control->delete_rule(rule) : Result<void>(control.error());
    if (deleted) continue;
    say(Level::kWarning, sources_[rule].name,
        "the stopped rule cannot be added anew: " + deleted.error().text);
    MutexLock lock(mutex_);
    stopped_.insert(rule);
  }
}

void Receiver::receive() {
  const auto timeout = std::chrono::ceil<Milliseconds>(until_next());
  const auto received = channel_->receive(std::max(timeout, Milliseconds(0)), wake_.read_end.get());
  if (!received) return disconnect("not connected to the module: " + received.error().text);
  if (received->woken) drain_wake();
  take(*received);
  sequencer_->expire(received->arrived_until);
  if (!channel_) return;  // tarnd has ended meanwhile
  append_marks(received->barriers);
  if (received->closed) return disconnect("not connected to the module: tarnd has ended");
  if (received->packets.empty() && !received->woken && channel_->taken_over())
    return disconnect("another daemon has taken over: no records come here");
  bool wanted;
  {
    MutexLock lock(mutex_);
    wanted = mark_wanted_ > mark_sent_;
  }
  const auto now = Clock::now();
  const bool by_itself = barriers_.empty() && changed_since_mark() &&
                         (received->packets.empty() || now - marked_at_ >= kMarkInterval);
  if (wanted || now - kept_at_ >= kKeepRules) {
    const auto kept = keep_rules();
    // Without the rules the mark would tell of changes that were not captured.
    if (!kept && wanted) return take_rest("the module's rules cannot be set: " + kept.error().text);
    if (!kept) say(Level::kWarning, "", kept.error().text);
  }
  if (wanted || by_itself) send_barrier();
}

Receiver::Clock::duration Receiver::until_next() const {
  const auto now = Clock::now();
  auto wait = kKeepRules - (now - kept_at_);
  if (const auto deadline = sequencer_->next_deadline()) wait = std::min(wait, *deadline - now);
  if (barriers_.empty() && changed_since_mark()) wait = std::min(wait, kQuiet);
  return wait;
}

bool Receiver::changed_since_mark() const {
  return std::any_of(sources_.begin(), sources_.end(),
                     [](const auto &source) { return !source.second.intake->marked(); });
}

void Receiver::take(const DaemonChannel::Received &received) {
  for (const Bytes bytes : received.packets) packet(bytes, received.arrived_until);
  losses(received);
}

void Receiver::packet(Bytes packet, Clock::time_point now) {
  const auto message = decode(packet);
  if (!message) {
    ++malformed_;
    return say(Level::kError, "", "a message is malformed: " + message.error().text);
  }
  if (const auto *record = std::get_if<Record>(&*message)) {
    if (sources_.contains(record->rule)) sequencer_->add(*record, packet, now);
  } else if (const auto *stop = std::get_if<StopRule>(&*message)) {
    const auto source = sources_.find(stop->rule);
    if (source == sources_.end()) return;
    {
      // The module repeats it with each change that it does not capture.
      MutexLock lock(mutex_);
      if (!stopped_.insert(stop->rule).second) return;
    }
    source->second.intake->gap(
        Intake::Missing::kSinceLastRecord,
        "the module has stopped capturing (no memory, or written data that could not be read); "
        "its rule is added anew");
    kept_at_ = Clock::now() - kKeepRules + kRetry;
  }
}

void Receiver::losses(const DaemonChannel::Received &received) {
  // Any program can send any number of them.
  if (received.foreign != 0 && !std::exchange(foreign_said_, true))
    say(Level::kWarning, "",
        "a program other than the module sends messages here; they are ignored");
  if (received.oversized != 0)
    say(Level::kError, "", fmt::format("{} packets were too long", received.oversized));
  // A record may have been among them, whose number tells nothing before the next one comes.
  const std::size_t unread = received.oversized + std::exchange(malformed_, 0);
  for (const auto &[rule, source] : sources_) {
    if (unread != 0)
      source.intake->gap(Intake::Missing::kSinceLastRecord,
                         fmt::format("{} messages of the module could not be read", unread));
    if (received.lost != 0)
      source.intake->gap(Intake::Missing::kSinceLastRecord,
                         fmt::format("the module could not deliver {} messages", received.lost));
  }
  if (received.lost == 0) return;
  // The answer to a barrier may be lost too: a new barrier replaces it.
  if (!barriers_.empty()) send_barrier();
}

void Receiver::record(const Record &record, Bytes packet, Sequencer::Order order) {
  const FromSource &source = sources_[record.rule];
  if (order == Sequencer::Order::kInOrder) {
    const auto *page = std::get_if<WritePage>(&record.change);
    // A process that was killed may have read some without logging them.
    if (page && page->page != 0 && !unfinished_writes_.contains(record.rule))
      source.intake->gap(
          Intake::Missing::kSinceLastRecord,
          fmt::format("pages of record {} before page {} are missing", record.wseq, page->page));
    if (record.last())
      unfinished_writes_.erase(record.rule);
    else
      unfinished_writes_.insert(record.rule);
  }
  source.intake->record(record, packet);
}

void Receiver::event(const Uuid &rule, const Sequencer::Event &event) {
  const auto source = sources_.find(rule);
  if (source == sources_.end()) return;
  std::string what;
  if (const auto *joined = std::get_if<Sequencer::Joined>(&event))
    what = fmt::format("records before number {} were not sent here", joined->first);
  else if (const auto *missing = std::get_if<Sequencer::Missing>(&event))
    what = fmt::format("records {} to {} are missing", missing->first, missing->last);
  else if (const auto *pages = std::get_if<Sequencer::MissingPages>(&event))
    what = fmt::format("record {} ends after {} of its pages", pages->wseq, pages->arrived);
  else if (const auto *restarted = std::get_if<Sequencer::Restarted>(&event))
    what = fmt::format("the rule was deleted and added again after record {}", restarted->last);
  else
    return;  // a duplicate is not passed on
  unfinished_writes_.erase(rule);
  source->second.intake->gap(Intake::Missing::kSinceLastRecord, what);
}

/* Whoever asks for a mark from now on gets a higher number: what was changed before may come behind
 * the barrier. */
MarkEntry Receiver::next_mark() {
  MutexLock lock(mutex_);
  mark_sent_ = mark_wanted_ = std::max(mark_wanted_, mark_sent_ + 1);
  return {mark_sent_, now_us()};
}

void Receiver::send_barrier() {
  const MarkEntry mark = next_mark();
  const auto barrier = channel_->send_barrier();
  if (!barrier) return take_rest("not connected to the module: " + barrier.error().text);
  barriers_.push_back({*barrier, mark});
}

/* Whoever does not take anything any more may have sent something before. */
void Receiver::take_rest(std::string why) {
  barriers_.clear();
  if (drain()) why = "not connected to the module: tarnd has ended";
  disconnect(why);
}

/* Takes what has been sent, until nothing more comes. Is the channel closed? */
bool Receiver::drain() {
  for (const auto end = Clock::now() + kLeaveTime; Clock::now() < end;) {
    const auto received = channel_->receive(kDrained);
    if (!received) return false;
    take(*received);
    if (received->closed) return true;
    if (received->packets.empty()) return false;
  }
  return false;
}

/* A mark between the pages of a write would part them for a target that begins there. */
void Receiver::append_marks(std::uint64_t barriers) {
  const auto come = [&] { return !barriers_.empty() && barriers_.front().barrier <= barriers; };
  if (!come() || !sequencer_->holds_nothing() || !unfinished_writes_.empty()) return;
  MarkEntry mark;
  for (; come(); barriers_.pop_front()) mark = barriers_.front().mark;
  for (const auto &[rule, source] : sources_) source.intake->mark(mark);
  marked_at_ = Clock::now();
}

/* Takes what the module sends until it answers. False: it does not. */
bool Receiver::take_all() {
  barriers_.clear();
  const auto barrier = channel_->send_barrier();
  const auto end = Clock::now() + kLeaveTime;
  while (barrier && Clock::now() < end) {
    const auto received = channel_->receive(kDrained);
    if (!received) return false;
    take(*received);
    if (received->barriers >= *barrier) return true;
    if (received->closed) return false;
  }
  return false;
}

/* What the module has sent before the end of the registration is still taken. */
void Receiver::leave() {
  if (!channel_) return;
  if (store_ && store_->keeps()) return pass_on();
  // What is changed behind the end of the registration is not in the log before the mark.
  const MarkEntry mark = next_mark();
  const bool all = take_all();
  if (!all) say(Level::kWarning, "", "the module does not say whether it has sent all");
  const auto left = channel_->leave();
  if (!left) say(Level::kWarning, "", left.error().text);
  (void)drain();
  sequencer_->finish();
  note_stopped();
  if (all && left) {
    for (const auto &[rule, source] : sources_) source.intake->mark(mark);
  }
  channel_.reset();
}

/*
 * The next process begins behind the last record in the log, so the end is where none is held and
 * no write is parted. There is no mark: what is still in the channel was changed before it.
 */
void Receiver::pass_on() {
  channel_->pass_on();
  barriers_.clear();
  const auto end = Clock::now() + kPassOnTime;
  const auto parted = [&] { return !sequencer_->holds_nothing() || !unfinished_writes_.empty(); };
  while (!channel_->all_received() || (parted() && Clock::now() < end)) {
    const auto received = channel_->receive(kDrained);
    if (!received) break;
    take(*received);
    if (received->closed) break;
  }
  sequencer_->finish();
  note_stopped();
  channel_.reset();
}

/* Nobody can ask for a mark any more. */
void Receiver::note_stopped() {
  MutexLock lock(mutex_);
  problem_ = "stopped";
}

}  // namespace tarn
