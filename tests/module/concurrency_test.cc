// SPDX-License-Identifier: GPL-2.0
// All that can be done to the module, at once. What each thread has done and when decides what the
// daemon must have received.
#include "tests/module/concurrency_actors.h"
#include "tests/module/kit/programs.h"
#include "dir_set.h"

using namespace concurrency;

namespace {

/* A process that can be the daemon, with the socket it may have. */
class receiver {
 public:
  receiver(int pid, unsigned long rcvbuf)
      : program_(pid, ~0u), port_(static_cast<unsigned>(pid)), rcvbuf_(rcvbuf) {}
  ~receiver() { close(); }
  receiver(const receiver &) = delete;
  receiver &operator=(const receiver &) = delete;

  void open() {
    as_itself([&] { EXPECT_EQ(uk_nl_open(OX_NETLINK_UNIT, port_, rcvbuf_, &sock_), 0); });
  }
  void close() {
    if (sock_) as_itself([&] { uk_nl_close(sock_); });
    sock_ = nullptr;
  }
  void send(int type) {
    struct nlmsghdr head = {};
    head.nlmsg_len = sizeof(head);
    head.nlmsg_type = static_cast<ox_u16_t>(type);
    as_itself([&] { EXPECT_EQ(uk_nl_send(sock_, &head, sizeof(head)), OX_NLMSG_HDRLEN); });
    wait_until_served();
  }
  /* Takes all that waits. */
  void receive(model &notes) {
    auto *m = reinterpret_cast<test_message *>(message_.get());
    for (;;) {
      as_itself([&] { m->received = uk_nl_recv(sock_, m->bytes, sizeof(m->bytes), 0); });
      if (m->received == -ENOBUFS) continue; /* said once; the log has each */
      if (m->received == -EAGAIN) return;
      notes.take(*m, port_);
      if (m->received < 0) return;
    }
  }
  void close_after_all(model &notes) {
    if (sock_) receive(notes);
    close();
  }
  bool signalled() const { return program_.signalled(); }
  unsigned port() const { return port_; }

 private:
  template <typename Do>
  void as_itself(Do act) {
    const acting_as itself(program_);
    act();
  }

  const other_program program_;
  const unsigned port_;
  const unsigned long rcvbuf_;
  struct uk_nlsock *sock_ = nullptr;
  test_buffer message_{sizeof(test_message)};
};

/* The log lines of sends that failed, counted as they come. */
class lost_sends {
 public:
  void count(model &notes) {
    struct uk_klog_line line;
    char text[160];
    while (uk_klog_read(next_, 0, &line, text, sizeof(text)) == 1) {
      if (line.number != next_) notes.fail("every line of the log", line.number, next_);
      next_ = line.number + 1;
      records_ += !strcmp(text, "tarn_send_netlink OX_OP_COLLECT fail") ||
                  !strcmp(text, "tarn_send_netlink OX_OP_WRITE page fail");
      gone_ += strstr(text, "process not existed") != nullptr;
    }
  }
  unsigned records() const { return records_; }
  unsigned gone() const { return gone_; }

 private:
  unsigned long long next_ = 0;
  unsigned records_ = 0, gone_ = 0;
};

struct stormy {
  test_mount mount;
  test_buffer memory{sizeof(storm)};
  storm &s = *reinterpret_cast<storm *>(memory.get());
};

void pause_briefly() {
  schedule_timeout_uninterruptible(1);
}

/* Two threads that flush the directories in the same moment, round after round. */
struct flush_race {
  atomic_t arrived, done, threads;
};
constexpr int kFlushers = 2, kFlushRounds = 300, kDirectories = 4;

int flush_each_round(void *arg) {
  auto &race = *static_cast<flush_race *>(arg);
  const bool adds = atomic_inc_return(&race.threads) == 1;
  for (int round = 1; round <= kFlushRounds; ++round) {
    for (char id = 1; adds && id <= kDirectories; ++id)
      EXPECT_EQ(install_directory(id, "/lower/x"), 0);
    atomic_inc(&race.arrived);
    for (int spins = 1; atomic_read(&race.arrived) < kFlushers * round; ++spins) {
      if (spins % 10000 == 0) yield();
    }
    EXPECT_EQ(dir_flush(0), 0);
    atomic_inc(&race.done);
    while (atomic_read(&race.done) < kFlushers * round) yield();
    if (adds) EXPECT_EQ(get_dir_set()->dirnum, 0);
  }
  atomic_dec(&race.threads);
  return 0;
}

}  // namespace

MODULE_CASE(concurrency, with_a_daemon_that_keeps_up_nothing_is_missing) {
  stormy here;
  storm &s = here.s;
  receiver daemon(2000, 256u << 20);
  daemon.open();
  daemon.send(OX_NL_HELO);
  REQUIRE_TRUE(start_all(s, 3, 40));
  while (atomic_read(&s.threads)) {
    daemon.receive(s.notes);
    daemon.send(OX_NL_HELO); /* the same once more changes nothing */
    pause_briefly();
  }
  daemon.receive(s.notes);
  EXPECT_EQ(s.notes.judge(model::kNothingLost), 0u);
  EXPECT_GT(s.notes.records(), 100u);
  EXPECT_EQ(s.notes.answers(OX_SO_REP_ADD), s.messages_sent[0]);
  EXPECT_EQ(s.notes.answers(OX_SO_REP_DEL), s.messages_sent[1]);
  EXPECT_EQ(s.notes.answers(OX_SO_REP_FLUSH), s.messages_sent[2]);
  EXPECT_FALSE(daemon.signalled());
  daemon.send(OX_NL_QUIT);
  finish(s);
}

/* Its queue is short and is seldom looked at: senders give up soon. */
MODULE_CASE(concurrency, every_hole_that_a_slow_daemon_finds_was_logged) {
  stormy here;
  storm &s = here.s;
  tarn_nl_sock->sk_sndtimeo = 1;
  receiver daemon(2000, 16384);
  daemon.open();
  daemon.send(OX_NL_HELO);
  lost_sends lost;
  REQUIRE_TRUE(start_all(s, 3, 20, kNoFlushes));
  while (atomic_read(&s.threads)) {
    lost.count(s.notes);
    if (lost.records()) daemon.receive(s.notes);
    for (int i = 0; i < 10; ++i) pause_briefly();
  }
  daemon.receive(s.notes);
  lost.count(s.notes);
  EXPECT_EQ(s.notes.judge(model::kSomeLost), lost.records());
  EXPECT_GT(lost.records(), 0u);
  EXPECT_GT(s.notes.records(), 0u);
  EXPECT_TRUE(daemon.signalled());
  EXPECT_EQ(lost.gone(), 0u);
  EXPECT_EQ(ox_load(daemon_pid), daemon.port());
  finish(s);
}

/* Two processes are the daemon by turns; they quit, they vanish, they are replaced. */
MODULE_CASE(concurrency, while_a_daemon_is_registered_nothing_is_missing) {
  enum ending { kQuits, kVanishes, kIsReplaced, kEndings };
  stormy here;
  storm &s = here.s;
  // A send that finds a daemon gone forgets whoever has its process id: none comes back soon.
  const unsigned room = 256u << 20;
  receiver daemons[] = {receiver(2000, room), receiver(2001, room), receiver(2002, room),
                        receiver(2003, room), receiver(2004, room), receiver(2005, room),
                        receiver(2006, room), receiver(2007, room)};
  const unsigned number = sizeof(daemons) / sizeof(*daemons);
  window *period = nullptr;
  lost_sends lost;
  REQUIRE_TRUE(start_all(s, 3, 25));
  for (unsigned turn = 0; s.goes_on() && turn < kPeriods; ++turn) {
    receiver &daemon = daemons[turn % number], &before = daemons[(turn + number - 1) % number];
    daemon.open();
    if (period && !period->end) period->end = s.notes.now();
    daemon.send(OX_NL_HELO);
    before.close_after_all(s.notes);
    period = &s.notes.new_period();
    period->begin = s.notes.now();
    for (int i = 0; i < 20; ++i) {
      daemon.receive(s.notes);
      pause_briefly();
    }
    const unsigned ends = turn % kEndings;
    if (ends == kIsReplaced) continue;
    period->end = s.notes.now();
    if (ends == kQuits) daemon.send(OX_NL_QUIT);
    daemon.close_after_all(s.notes);
    const unsigned gone = lost.gone();
    while (ends == kVanishes && s.goes_on() && lost.gone() == gone) {
      pause_briefly();
      lost.count(s.notes);
    }
  }
  while (atomic_read(&s.threads)) pause_briefly();
  if (!period->end) period->end = s.notes.now();
  bool signalled = false;
  for (receiver &daemon : daemons) {
    daemon.close_after_all(s.notes);
    signalled = signalled || daemon.signalled();
  }
  lost.count(s.notes);
  s.notes.judge(model::kBetweenDaemons);
  EXPECT_GT(s.notes.records(), 0u);
  EXPECT_EQ(lost.records(), 0u);
  EXPECT_EQ(signalled, lost.gone() > 0);
  finish(s);
}

/* Each holds the set's lock for reading only, and so do both at a time. */
MODULE_CASE(concurrency, two_flushes_at_once_remove_everything_once) {
  flush_race race = {};
  for (int i = 0; i < kFlushers; ++i) {
    REQUIRE_TRUE(!IS_ERR(kthread_run(flush_each_round, &race, "flush")));
  }
  while (atomic_read(&race.done) < kFlushers * kFlushRounds || atomic_read(&race.threads))
    pause_briefly();
  EXPECT_EQ(case_log_count("dir_flush: del dir 01010101-0101-0101-0101-010101010101."),
            kFlushRounds);
}
