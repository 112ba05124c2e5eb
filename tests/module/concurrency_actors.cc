// SPDX-License-Identifier: GPL-2.0
#include "tests/module/concurrency_actors.h"

#include "netlink.h"
#include "rule_set.h"
#include "dir_set.h"
#include "tests/module/kit/programs.h"
#include "ukern/testing/uk_fault.h"

namespace concurrency {

namespace {

constexpr const char *kDaemonProgram = "/sbin/mirrord";
constexpr const char *kReplicated = "/lower/p";

void pause_briefly() {
  schedule_timeout_uninterruptible(1);
}

/* ---- programs that write ---- */

void change_file(storm &s, unsigned round, char *data) {
  model &notes = s.notes;
  const round_path path("/mnt", notes.dir_of(round, 0), 'f', round);
  const auto create = [&] {
    noted create_note(s, notes.change(round, kCreate));
    noted attr_note(s, notes.change(round, kCreateAttr));
    return test_put(path.text, "");
  };
  EXPECT_EQ(create(), 0);
  test_file file(path.text, O_RDWR);
  REQUIRE_EQ(file.error(), 0);
  {
    fill_written(data, round * kSteps + kSmallWrite, kSmallBytes);
    noted note(s, notes.change(round, kSmallWrite));
    EXPECT_EQ(file.write(data, kSmallBytes, 0), kSmallBytes);
  }
  {
    fill_written(data, round * kSteps + kLargeWrite, kLargeBytes);
    noted note(s, notes.change(round, kLargeWrite));
    EXPECT_EQ(file.write(data, kLargeBytes, kLargeAt), kLargeBytes);
  }
  struct uk_stat stat = {};
  stat.mode = 0640;
  noted note(s, notes.change(round, kChmod));
  EXPECT_EQ(uk_setattr(file.node(), nullptr, UK_SET_MODE, &stat, &stat), 0);
}

void change_names(storm &s, unsigned round) {
  model &notes = s.notes;
  const unsigned a = notes.dir_of(round, 0), b = notes.dir_of(round, 1);
  const round_path f("/mnt", a, 'f', round), g("/mnt", b, 'g', round), l("/mnt", a, 'l', round);
  const round_path link("/mnt", a, 's', round), d("/mnt", a, 'd', round);
  const auto noting = [&](step which, auto change) {
    noted note(s, notes.change(round, which));
    EXPECT_EQ(change(), 0);
  };
  noting(kRename, [&] { return test_rename(f.text, g.text); });
  noting(kLink, [&] { return test_link(g.text, l.text); });
  noting(kSymlink, [&] { return test_symlink("../target", link.text); });
  noting(kUnlinkLink, [&] { return test_unlink(l.text); });
  noting(kUnlinkSymlink, [&] { return test_unlink(link.text); });
  noting(kUnlinkFile, [&] { return test_unlink(g.text); });
  {
    noted attr_note(s, notes.change(round, kMkdirAttr));
    noting(kMkdir, [&] { return test_mkdir(d.text); });
  }
  noting(kRmdir, [&] { return test_rmdir(d.text); });
}

void write_files(storm &s) {
  test_buffer data(kLargeBytes);
  for (int i = 0; i < s.rounds; ++i) {
    const unsigned a = static_cast<unsigned>(current->pid + i) % kShared;
    const unsigned round = s.notes.new_round(a, (a + 1) % kShared);
    change_file(s, round, data.get());
    change_names(s, round);
  }
  atomic_dec(&s.writers);
}

/* ---- programs that configure ---- */

/* The record of a rule that covers a set of directories, in user memory of the thread. */
class rule_text {
 public:
  struct prule *of(unsigned number, unsigned covers) {
    auto *rule = reinterpret_cast<struct prule *>(memory_.get());
    memset(rule, 0, sizeof(*rule));
    model::name_rule(rule->uuid, number);
    char *end = rule->workdir;
    for (unsigned dir = 0; dir < ARRAY_SIZE(kDirs); ++dir) {
      if (!(covers & 1u << dir)) continue;
      char path[32];
      snprintf(path, sizeof(path), "/lower/%s", kDirs[dir]);
      ox_s32_t size = 64;
      Base64Encode(path, static_cast<ox_s32_t>(strlen(path)), end, &size, 0);
      end += size;
      *end++ = ',';
    }
    return rule;
  }

 private:
  test_buffer memory_{sizeof(struct prule)};
  user_memory user_{memory_.get(), sizeof(struct prule)};
};

struct request {
  storm &s;
  int (*send)(int code, struct prule *rule, void *arg);
  void *arg;

  int operator()(int code, struct prule *rule) const { return send(code, rule, arg); }
};

/* Has a few rules at a time, over one directory set after another. */
void change_rules(const request &ask) {
  constexpr unsigned kAtATime = 3;
  model &notes = ask.s.notes;
  rule_text text;
  unsigned held[kAtATime], covers = 0;
  unsigned count = 0;
  const auto remove = [&](unsigned number) {
    struct rule_life &life = notes.rule(number);
    struct prule *record = text.of(number, 0);
    noted note(ask.s, life.removed);
    life.removal = ask(OX_SO_REP_DEL, record);
  };
  for (; ask.s.goes_on() && notes.may_add_rules(); ++count) {
    if (count >= kAtATime) remove(held[count % kAtATime]);
    unsigned number;
    covers = covers % 15 + 1;
    struct rule_life &life = notes.new_rule(covers, &number);
    struct prule *record = text.of(number, covers);
    {
      noted note(ask.s, life.added);
      EXPECT_EQ(ask(OX_SO_REP_ADD, record), 0);
    }
    life.node = findnode_byuuid(record->uuid);
    held[count % kAtATime] = number;
    pause_briefly();
  }
  for (unsigned i = 0; i < kAtATime && i < count; ++i) remove(held[i]);
}

int by_option(int code, struct prule *rule, void *) {
  return uk_setsockopt(PF_INET, code, rule, sizeof(*rule));
}

void change_rules_by_option(storm &s) {
  change_rules({s, by_option, nullptr});
}

/* Rule messages; the answers go to the daemon. */
struct messenger {
  storm &s;
  test_daemon channel{test_daemon::kSilent};

  int send(int code, const void *payload, unsigned size) {
    const int kind = code == OX_SO_REP_ADD ? 0 : code == OX_SO_REP_DEL ? 1 : 2;
    ++s.messages_sent[kind];
    EXPECT_EQ(channel.send(code, payload, size), static_cast<long>(OX_NLMSG_HDRLEN + size));
    wait_until_served();
    return 0;
  }
};

void change_rules_by_message(storm &s) {
  messenger m = {s};
  const auto send = [](int code, struct prule *rule, void *arg) {
    return static_cast<messenger *>(arg)->send(code, rule, sizeof(*rule));
  };
  change_rules({s, send, &m});
}

/* Now and then. */
template <typename Flush>
void flush_rules(storm &s, int pauses, Flush flush) {
  for (unsigned i = 0; s.goes_on() && i < kFlushes / 2; ++i) {
    for (int j = 0; j < pauses; ++j) pause_briefly();
    noted note(s, s.notes.new_flush());
    flush();
  }
}

void flush_by_option(storm &s) {
  flush_rules(s, 31, [] { EXPECT_EQ(uk_setsockopt(PF_INET, OX_SO_REP_FLUSH, nullptr, 0), 0); });
}

void flush_by_message(storm &s) {
  messenger m = {s};
  flush_rules(s, 33, [&m] { m.send(OX_SO_REP_FLUSH, nullptr, 0); });
}

/* Every rule that is listed is as it was added. */
void list_rules(storm &s) {
  constexpr unsigned kRoom = 16;
  test_buffer memory(kRoom * sizeof(struct prule));
  user_memory user(memory.get(), kRoom * sizeof(struct prule));
  auto *info = reinterpret_cast<struct prule_info *>(memory.get());
  const auto *listed = reinterpret_cast<const struct prule *>(memory.get());
  rule_text text;
  while (s.goes_on()) {
    int len = sizeof(*info);
    *info = {OX_INFO_COUNT, 0, {}};
    EXPECT_EQ(uk_getsockopt(PF_INET, OX_SO_GET_INFO, info, &len), 0);
    const int result = uk_getsockopt(PF_INET, OX_SO_GET_RULES, info, &len);
    EXPECT_TRUE(result == 0 || result == OX_ERR_COUNT);
    const unsigned count = result ? 0 : static_cast<unsigned>(len) / sizeof(*listed);
    for (unsigned i = 0; i < count; ++i) {
      const int number = s.notes.rule_named(listed[i].uuid);
      REQUIRE_NE(number, -1);
      const struct prule *added = text.of(number, s.notes.rule(number).covers);
      EXPECT_EQ(memcmp(added, &listed[i], sizeof(*added)), 0);
    }
    pause_briefly();
  }
}

/* A rule of its own directory is stopped by an allocation that fails, and from then on hit by all.
 */
void stop_rules(storm &s) {
  model &notes = s.notes;
  test_buffer data(kLargeBytes);
  rule_text text;
  for (int i = 0; s.goes_on() && i < 20; ++i) {
    unsigned number;
    struct rule_life &life = notes.new_rule(1u << kOwn, &number);
    struct prule *record = text.of(number, life.covers);
    {
      noted note(s, life.added);
      EXPECT_EQ(by_option(OX_SO_REP_ADD, record, nullptr), 0);
    }
    life.node = findnode_byuuid(record->uuid);
    const unsigned round = notes.new_round(kOwn, kOwn);
    change_file(s, round, data.get());
    {
      noted note(s, life.stopped);
      uk_fault_arm(2); /* the first one is that of the hits */
      life.stop = tarn_para_sync(OX_OP_UNLINK, "/lower/s/x", nullptr, 0);
      uk_fault_arm(0);
    }
    change_names(s, round);
    pause_briefly();
    noted note(s, life.removed);
    life.removal = by_option(OX_SO_REP_DEL, record, nullptr);
  }
}

/* ---- replicated directories and what they forbid ---- */

void change_directories(storm &s) {
  struct dir record = {};
  memset(record.uuid, 'p', sizeof(record.uuid));
  strcpy(record.repdir, kReplicated);
  char program[64];
  strcpy(program, kDaemonProgram);
  user_memory users_record(&record, sizeof(record)), users_program(program, sizeof(program));
  for (; s.goes_on() && s.life_count < kMoves; ++s.life_count) {
    directory_life &life = s.lives[s.life_count];
    // First: a directory that is replicated while no daemon is known is closed to all.
    EXPECT_EQ(uk_setsockopt(PF_INET, OX_SO_SET_DAEMON, program, sizeof(program)),
              static_cast<int>(sizeof(program)));
    {
      noted note(s, life.added);
      EXPECT_EQ(uk_setsockopt(PF_INET, OX_SO_DIR_ADD, &record, sizeof(record)), 0);
    }
    pause_briefly();
    noted note(s, life.removed);
    const int code = s.life_count % 2 ? OX_SO_DIR_FLUSH : OX_SO_DIR_DEL;
    EXPECT_EQ(uk_setsockopt(PF_INET, code, &record, sizeof(record)), 0);
  }
}

/* The paths of a rename that changes direction whenever it was made. */
struct there_and_back {
  const char *paths[2];
  unsigned at;

  int move() {
    const int result = test_rename(paths[at], paths[1 - at]);
    if (!result) at = 1 - at;
    return result;
  }
};

void move_as_anyone(storm &s) {
  there_and_back names = {{"/mnt/p/a", "/mnt/p/b"}, 0};
  for (; s.goes_on() && s.move_count < kMoves; ++s.move_count) {
    move &m = s.moves[s.move_count];
    {
      noted note(s, m.when);
      m.result = names.move();
    }
    if (!m.result) s.notes.new_other() = m.when;
    pause_briefly();
  }
}

void move_as_the_daemon(storm &s) {
  const running daemon(kDaemonProgram);
  there_and_back names = {{"/mnt/p/c", "/mnt/p/d"}, 0};
  for (unsigned i = 0; s.goes_on() && i < kMoves; ++i) {
    noted note(s, s.notes.new_other());
    EXPECT_EQ(names.move(), 0);
    pause_briefly();
  }
}

/* ---- another mount beside ---- */

void mount_beside(storm &s) {
  for (int i = 0; s.goes_on() && i < 100; ++i) {
    REQUIRE_EQ(uk_fs_mount("/lower/m", "/mnt2", "tarn", 0, nullptr), 0);
    {
      noted create_note(s, s.notes.new_other());
      noted attr_note(s, s.notes.new_other());
      EXPECT_EQ(test_put("/mnt2/file", ""), 0);
    }
    {
      noted note(s, s.notes.new_other());
      EXPECT_EQ(test_unlink("/mnt2/file"), 0);
    }
    EXPECT_EQ(uk_fs_umount("/mnt2", 0), 0);
    pause_briefly();
  }
}

typedef void (*actor)(storm &s);

struct start_of {
  storm &s;
  actor body;
  struct completion begun;
};

int run(void *arg) {
  auto *how = static_cast<start_of *>(arg);
  storm &s = how->s;
  const actor body = how->body;
  complete(&how->begun);
  body(s);
  atomic_dec(&s.threads);
  return 0;
}

void judge_moves(storm &s) {
  for (unsigned i = 0; i < s.move_count; ++i) {
    const move &m = s.moves[i];
    bool covered = false, maybe_covered = false;
    for (unsigned j = 0; j < s.life_count; ++j) {
      const directory_life &life = s.lives[j];
      covered |= m.when.begin > life.added.end && m.when.end < life.removed.begin;
      maybe_covered |= m.when.end > life.added.begin && m.when.begin < life.removed.end;
    }
    if (covered) EXPECT_EQ(m.result, -EACCES);
    if (!maybe_covered) EXPECT_EQ(m.result, 0);
    EXPECT_TRUE(m.result == 0 || m.result == -EACCES);
  }
}

/* False if there is no thread. */
bool start(storm &s, actor body) {
  start_of how = {s, body, {}};
  init_completion(&how.begun);
  atomic_inc(&s.threads);
  if (IS_ERR(kthread_run(run, &how, "storm"))) {
    atomic_dec(&s.threads);
    return false;
  }
  wait_for_completion(&how.begun);
  return true;
}

}  // namespace

void wait_until_served() {
  while (atomic_read(&tarn_nl_sock->sk_rmem_alloc)) pause_briefly();
}

bool start_all(storm &s, int writers, int rounds, flushing flush) {
  for (const char *dir : kDirs) {
    char path[32];
    snprintf(path, sizeof(path), "/mnt/%s", dir);
    test_mkdir(path);
  }
  const char *const others[] = {"/mnt/p", "/mnt/m", "/mnt2", "/sbin"};
  for (const char *dir : others) EXPECT_EQ(test_mkdir(dir), 0);
  EXPECT_EQ(test_put("/mnt/p/a", "a"), 1);
  EXPECT_EQ(test_put("/mnt/p/c", "c"), 1);
  EXPECT_EQ(test_put(kDaemonProgram, "#"), 1);

  s.rounds = rounds;
  atomic_set(&s.writers, writers);
  const actor others_do[] = {
      change_rules_by_option, change_rules_by_message, list_rules,         stop_rules,
      change_directories,     move_as_anyone,          move_as_the_daemon, mount_beside};
  bool started = true;
  for (const actor body : others_do) started &= start(s, body);
  if (flush == kFlushesToo) {
    started &= start(s, flush_by_option);
    started &= start(s, flush_by_message);
  }
  for (int i = 0; i < writers; ++i) started &= start(s, write_files);
  return started;
}

void finish(storm &s) {
  judge_moves(s);
  for (unsigned i = 0; i < s.notes.rule_count(); ++i) {
    if (s.notes.rule(i).node) prule_node_put(s.notes.rule(i).node);
  }
  EXPECT_EQ(get_prule_set()->rulenum, 0);
  EXPECT_EQ(get_dir_set()->dirnum, 0);
  EXPECT_EQ(atomic_read(&g_option.mem_used), 0);
}

}  // namespace concurrency
