// SPDX-License-Identifier: GPL-2.0
// Every allocation of every captured change fails once, with three rules to serve: of the builders
// called directly, and of the whole call on a mount. What must come of it: nothing is captured, or
// one rule is stopped, or one record is lost; the log says which, all other rules get what is
// theirs, the change itself stands, and a stopped rule says so again at every later change.
#include "tests/module/fault_driver.h"
#include "rule_set.h"

namespace {

constexpr int kRules = 3;

constexpr char kNoBuffer[] = "Failed to allocate socket buffer";
constexpr char kLost[] = "tarn_send_netlink OX_OP_COLLECT fail";
constexpr char kNoPages[] = "tarn_wrtrans_alloc: trans_allocpages failed, rc=-12";
constexpr char kNoName[] = "tarn_para_sync: tarn_para_alloc fail";
constexpr char kNoAttr[] = "__tarn_attr_sync: tarn_var_alloc fail";
constexpr char kNoWrite[] = "tarn_write_sync: tarn_wrtrans_alloc fail";

char data[9000];

/* ---- the rules ---- */

/* The three rules, new. */
void fresh_rules() {
  do_flush(0);
  for (char id = 1; id <= kRules; id++) EXPECT_EQ(install_rule(id, "/lower"), 0);
}

/* The rule that is stopped, 0 if none is; it is an error if more than one is. */
int stopped_rule() {
  int stopped = 0;
  for (int id = 1; id <= kRules; id++) {
    prule_ref rule(lookup_rule(id));
    if (rule->status != PRULE_STOPPED) continue;
    EXPECT_EQ(stopped, 0);
    stopped = id;
  }
  return stopped;
}

/* Only the set has them. */
void expect_rules_at_rest() {
  EXPECT_EQ(get_prule_set()->rulenum, kRules);
  for (int id = 1; id <= kRules; id++) {
    prule_ref rule(lookup_rule(id));
    REQUIRE_TRUE(rule);
    EXPECT_EQ(atomic_read(&rule->refcnt), 2);
    EXPECT_TRUE(list_empty(&rule->transq));
  }
}

/* ---- what the daemon got ---- */

struct tally {
  int records[kRules + 1] = {}; /* whole ones, and pages */
  int notices[kRules + 1] = {};

  explicit tally(test_daemon &daemon) {
    for (;;) {
      const test_message &record = daemon.next();
      if (record.type() < 0) return;
      const int id = record.msg()->uuid[0];
      REQUIRE_TRUE(id >= 1 && id <= kRules);
      const bool notice = record.type() == OX_OP_STOP_RULE;
      if (notice) EXPECT_EQ(record.length(), OX_UUID_LEN);
      notice ? notices[id]++ : records[id]++;
    }
  }
  bool all_are(int number) const {
    for (int id = 1; id <= kRules; id++) {
      if (records[id] != number || notices[id]) return false;
    }
    return true;
  }
};

/* Messages of a write to /lower/w, whose path field has 16 bytes. */
int messages_of_write(long bytes) {
  const long first = OX_PAGE_DATA - 16;
  return bytes <= first ? 1
                        : 1 + static_cast<int>((bytes - first + OX_PAGE_DATA - 1) / OX_PAGE_DATA);
}

/* A change without a fault while `stopped` is stopped (0: none): it announces itself, the others
 * are served. */
template <typename Change>
void expect_later_changes(test_daemon &daemon, int stopped, int calls, int messages,
                          Change change) {
  for (int again = 0; again < 2; again++) {
    EXPECT_GE(change(), 0);
    const tally got(daemon);
    for (int id = 1; id <= kRules; id++) {
      EXPECT_EQ(got.records[id], id == stopped ? 0 : calls * messages);
      EXPECT_EQ(got.notices[id], id == stopped ? calls : 0);
    }
  }
}

/* ---- the builders ---- */

struct direct_change {
  long (*run)(struct dentry *file, struct dentry *other);
  const char *failure;
  int paths;    /* lower paths that it takes */
  int messages; /* per rule */
  int charge;   /* of the record of a paged write */
  bool names;   /* a change of names: all records are made before the first is sent */
};

/* The places at which a builder can fail, in the order in which it comes to them. */
enum place { kPath, kHits, kRecordOfFirst, kPlaces = kRecordOfFirst + 2 * kRules };

int place_of_record(const direct_change &change, int id) {
  return kRecordOfFirst + (change.names ? 1 : 2) * (kRules - id);
}
int place_of_sending(const direct_change &change, int id) {
  return place_of_record(change, id) + (change.names ? kRules : 1);
}

/* Judges what one run of a builder did; where it failed, or -1. */
int judge_direct(const struct direct_change &change, const struct fault_run &run, const tally &got,
                 int mem_used) {
  const int stopped = stopped_rule();
  if (stopped) {
    EXPECT_EQ(run.result, -ENOMEM);
    const bool pages = log_count(run.log, kNoPages) != 0;
    const char *const lines[] = {pages ? kNoPages : change.failure,
                                 pages ? change.failure : nullptr};
    EXPECT_TRUE(log_is(run.log, lines));
    EXPECT_EQ(run.allocated, pages ? 0 : 1); /* a block that was not to be had stays counted */
    EXPECT_EQ(mem_used, pages ? change.charge : 0);
    for (int id = 1; id <= kRules; id++) {
      EXPECT_EQ(got.records[id], id == stopped ? 0 : change.messages);
      EXPECT_EQ(got.notices[id], id == stopped);
      prule_ref rule(lookup_rule(id));
      EXPECT_EQ(atomic_read(&rule->transnr), id == stopped ? 0 : 1);
    }
    return place_of_record(change, stopped);
  }
  EXPECT_EQ(run.allocated, 0);
  EXPECT_EQ(mem_used, 0);
  if (log_count(run.log, kNoBuffer)) {
    EXPECT_EQ(run.result, 0);
    const char *const lines[] = {kNoBuffer, kLost};
    EXPECT_TRUE(log_is(run.log, lines));
    int lost = 0;
    for (int id = 1; id <= kRules; id++) {
      prule_ref rule(lookup_rule(id));
      EXPECT_EQ(atomic_read(&rule->transnr), 1);
      EXPECT_EQ(got.notices[id], 0);
      if (got.records[id] == 1) continue;
      EXPECT_EQ(lost, 0);
      lost = id;
    }
    EXPECT_NE(lost, 0);
    return place_of_sending(change, lost);
  }
  EXPECT_EQ(log_length(run.log), 0);
  if (got.all_are(0)) {
    EXPECT_TRUE(run.result == 0 || run.result == -ENOMEM);
    for (int id = 1; id <= kRules; id++) { /* the loss shows in the numbers */
      prule_ref rule(lookup_rule(id));
      EXPECT_EQ(atomic_read(&rule->transnr), 1);
    }
    return run.result == 0 ? kPath : kHits;
  }
  EXPECT_EQ(run.result, 0);
  EXPECT_TRUE(got.all_are(change.messages));
  return -1;
}

void fail_direct(const struct direct_change &change) {
  test_mount mount;
  EXPECT_EQ(test_put("/mnt/f", ""), 0);
  EXPECT_EQ(test_put("/mnt/g", ""), 0);
  {
    test_walk file("/mnt/f"), other("/mnt/g");
    REQUIRE_TRUE(!file.error() && !other.error());
    test_daemon daemon;
    int used = 0, last = -1, runs_at_path = 0;
    unsigned seen = 0;
    const auto once = [&] { return change.run(file.dentry(), other.dentry()); };
    fail_each(
        [&] {
          fresh_rules();
          daemon.drain();
          used = atomic_read(&g_option.mem_used);
        },
        once,
        [&](const struct fault_run &run) {
          const int at =
              judge_direct(change, run, tally(daemon), atomic_read(&g_option.mem_used) - used);
          expect_rules_at_rest();
          if (!run.failed) EXPECT_EQ(at, -1);
          if (at >= 0) {
            EXPECT_GE(at, last);
            last = at;
            seen |= 1u << at;
            runs_at_path += at == kPath;
          }
          expect_later_changes(daemon, stopped_rule(), 1, change.messages, once);
          expect_rules_at_rest();
        });
    /* It failed at every place, in order; pages are sent without any memory. */
    unsigned expected = (1u << kPlaces) - 1;
    if (change.paths == 0) expected &= ~(1u << kPath);
    for (int id = 1; change.messages > 1 && id <= kRules; id++)
      expected &= ~(1u << place_of_sending(change, id));
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(runs_at_path, change.paths);
    do_flush(0);
  }
}

long capture_write(struct dentry *file, size_t count) {
  kernel_ds_guard kernel_addresses;
  return tarn_write_sync(file, data, count, 0);
}

/* ---- calls on the mount ---- */

struct mounted_change {
  void (*prepare)();
  long (*run)();
  int calls; /* of builders, each with a record */
  /* Messages per record, by the result. */
  int (*messages)(long result) = [](long) { return 1; };
};

struct mounted_seen {
  bool refused, uncaptured, served;
  bool stopped[kRules + 1], lost[kRules + 1];
};

void judge_mounted(const struct mounted_change &change, const struct fault_run &run,
                   const tally &got, struct mounted_seen *seen) {
  const int all = change.calls * change.messages(run.result);
  const int stopped = stopped_rule();
  if (run.result < 0) { /* the call failed outside of capture: all or none */
    EXPECT_EQ(stopped, 0);
    EXPECT_EQ(log_length(run.log), 0);
    EXPECT_TRUE(got.all_are(0) || got.all_are(change.calls));
    seen->refused = true;
    return;
  }
  if (stopped) {
    EXPECT_EQ(
        log_count(run.log, kNoName) + log_count(run.log, kNoAttr) + log_count(run.log, kNoWrite),
        1);
    EXPECT_EQ(log_length(run.log), 1 + log_count(run.log, kNoPages));
    for (int id = 1; id <= kRules; id++) {
      if (id != stopped) EXPECT_EQ(got.records[id], all);
      if (id != stopped) EXPECT_EQ(got.notices[id], 0);
    }
    EXPECT_GE(got.notices[stopped], 1);
    EXPECT_EQ(got.records[stopped] + got.notices[stopped], change.calls);
    seen->stopped[stopped] = true;
    return;
  }
  if (log_count(run.log, kNoBuffer)) {
    const char *const lines[] = {kNoBuffer, kLost};
    EXPECT_TRUE(log_is(run.log, lines));
    int lost = 0;
    for (int id = 1; id <= kRules; id++) {
      EXPECT_EQ(got.notices[id], 0);
      if (got.records[id] == all) continue;
      EXPECT_EQ(got.records[id], all - 1);
      EXPECT_EQ(lost, 0);
      lost = id;
    }
    seen->lost[lost] = true;
    return;
  }
  EXPECT_EQ(log_length(run.log), 0);
  if (got.all_are(all)) {
    seen->served = true;
  } else {
    EXPECT_TRUE(got.all_are((change.calls - 1) * change.messages(run.result)));
    seen->uncaptured = true;
  }
}

void fail_mounted(const struct mounted_change &change) {
  test_mount mount;
  {
    test_daemon daemon;
    struct mounted_seen seen = {};
    fail_each(
        [&] {
          do_flush(0);
          change.prepare();
          fresh_rules();
          daemon.drain();
        },
        change.run,
        [&](const struct fault_run &run) {
          judge_mounted(change, run, tally(daemon), &seen);
          expect_rules_at_rest();
          if (!run.failed) EXPECT_TRUE(seen.served);
          if (!run.failed) EXPECT_GE(run.result, 0);
          expect_later_changes(daemon, stopped_rule(), 1, 1,
                               [] { return tarn_para_sync(OX_OP_UNLINK, "/lower/x", nullptr, 0); });
          expect_rules_at_rest();
        });
    EXPECT_TRUE(seen.refused);
    EXPECT_TRUE(seen.uncaptured);
    const bool pages = change.messages(sizeof(data)) > 1;
    for (int id = 1; id <= kRules; id++) {
      EXPECT_TRUE(seen.stopped[id]);
      EXPECT_EQ(seen.lost[id], !pages);
    }
    do_flush(0);
  }
}

void without(const char *path) {
  if (test_exists(path)) EXPECT_EQ(test_unlink(path), 0);
}

void with_file(const char *path) {
  without(path);
  EXPECT_EQ(test_put(path, ""), 0);
}

long write_to_w(unsigned long size) {
  test_file file("/mnt/w", O_WRONLY);
  return file.get() ? file.write(data, size, 0) : file.error();
}

}  // namespace

/* ---- directly ---- */

MODULE_CASE(fault_capture, builder_of_a_creation) {
  fail_direct({[](struct dentry *file, struct dentry *) -> long {
                 return tarn_sync_1dentry(OX_OP_CREATE, file, 0100644);
               },
               kNoName, 1, 1, 0});
}

MODULE_CASE(fault_capture, builder_of_a_directory) {
  fail_direct({[](struct dentry *file, struct dentry *) -> long {
                 return tarn_sync_1dentry(OX_OP_MKDIR, file, 0755);
               },
               kNoName, 1, 1, 0});
}

MODULE_CASE(fault_capture, builder_of_a_removed_name) {
  fail_direct({[](struct dentry *, struct dentry *) -> long {
                 return tarn_para_sync(OX_OP_UNLINK, "/lower/f", nullptr, 0);
               },
               kNoName, 0, 1, 0, true});
}

MODULE_CASE(fault_capture, builder_of_a_removed_directory) {
  fail_direct({[](struct dentry *, struct dentry *) -> long {
                 return tarn_para_sync(OX_OP_RMDIR, "/lower/f", nullptr, 0);
               },
               kNoName, 0, 1, 0, true});
}

MODULE_CASE(fault_capture, builder_of_a_symbolic_link) {
  fail_direct({[](struct dentry *file, struct dentry *) -> long {
                 return tarn_sym_sync(file, "target", 4095);
               },
               kNoName, 1, 1, 0});
}

MODULE_CASE(fault_capture, builder_of_a_link) {
  fail_direct({[](struct dentry *file, struct dentry *other) -> long {
                 return tarn_sync_2dentry(OX_OP_LINK, file, other);
               },
               kNoName, 2, 1, 0, true});
}

MODULE_CASE(fault_capture, builder_of_a_rename) {
  fail_direct({[](struct dentry *, struct dentry *) -> long {
                 return tarn_para_sync(OX_OP_RENAME, "/lower/f", "/lower/g", 0100644);
               },
               kNoName, 0, 1, 0, true});
}

MODULE_CASE(fault_capture, builder_of_changed_attributes) {
  fail_direct({[](struct dentry *file, struct dentry *) -> long {
                 struct iattr attr = {};
                 return tarn_attr_sync(file, &attr);
               },
               kNoAttr, 1, 1, 0});
}

MODULE_CASE(fault_capture, builder_of_a_small_write) {
  fail_direct({[](struct dentry *file, struct dentry *) { return capture_write(file, 100); },
               kNoWrite, 1, 1, 0});
}

MODULE_CASE(fault_capture, builder_of_a_paged_write) {
  const int charge = TARN_TRANS_FIELDS + OX_MSG_WR_LEN + 16 + 9000;
  fail_direct({[](struct dentry *file, struct dentry *) { return capture_write(file, 9000); },
               kNoWrite, 1, 3, charge});
}

/* ---- on a mount ---- */

/* Each run makes a new file: one that was made below but could not be bound is in the way of
 * another creation of its name. */
MODULE_CASE(fault_capture, creation_on_a_mount) {
  static char path[32];
  static unsigned number;
  number = 0;
  fail_mounted({[] { snprintf(path, sizeof(path), "/mnt/n%u", number++); },
                [] { return static_cast<long>(test_file(path, O_CREAT | O_WRONLY).error()); }, 2});
}

MODULE_CASE(fault_capture, directory_on_a_mount) {
  fail_mounted({[] {
                  if (test_exists("/mnt/d")) EXPECT_EQ(test_rmdir("/mnt/d"), 0);
                },
                [] { return static_cast<long>(test_mkdir("/mnt/d")); }, 2});
}

MODULE_CASE(fault_capture, removed_name_on_a_mount) {
  fail_mounted(
      {[] { with_file("/mnt/f"); }, [] { return static_cast<long>(test_unlink("/mnt/f")); }, 1});
}

MODULE_CASE(fault_capture, removed_directory_on_a_mount) {
  fail_mounted({[] {
                  if (!test_exists("/mnt/d")) EXPECT_EQ(test_mkdir("/mnt/d"), 0);
                },
                [] { return static_cast<long>(test_rmdir("/mnt/d")); }, 1});
}

MODULE_CASE(fault_capture, symbolic_link_on_a_mount) {
  fail_mounted({[] { without("/mnt/s"); },
                [] { return static_cast<long>(test_symlink("target", "/mnt/s")); }, 1});
}

MODULE_CASE(fault_capture, link_on_a_mount) {
  fail_mounted({[] {
                  with_file("/mnt/f");
                  without("/mnt/g");
                },
                [] { return static_cast<long>(test_link("/mnt/f", "/mnt/g")); }, 1});
}

MODULE_CASE(fault_capture, rename_on_a_mount) {
  fail_mounted({[] {
                  with_file("/mnt/f");
                  without("/mnt/g");
                },
                [] { return static_cast<long>(test_rename("/mnt/f", "/mnt/g")); }, 1});
}

MODULE_CASE(fault_capture, changed_attributes_on_a_mount) {
  fail_mounted({[] { with_file("/mnt/f"); },
                [] { return static_cast<long>(test_chmod("/mnt/f", 0600)); }, 1});
}

MODULE_CASE(fault_capture, small_write_on_a_mount) {
  fail_mounted({[] { with_file("/mnt/w"); }, [] { return write_to_w(100); }, 1});
}

MODULE_CASE(fault_capture, paged_write_on_a_mount) {
  fail_mounted(
      {[] { with_file("/mnt/w"); }, [] { return write_to_w(sizeof(data)); }, 1, messages_of_write});
}
