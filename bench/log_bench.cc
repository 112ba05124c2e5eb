// SPDX-License-Identifier: GPL-2.0
// What chose the log of mirrord: entries appended to it and to embedded stores of Debian, on the
// disk after every 1000th. Writes below $TMPDIR, which should be on the disk in question.
#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

#include "mirrord/log/log.h"

namespace {

constexpr int kBatch = 1000;
constexpr int kBatches = 60;

void require(bool good, const std::string &what) {
  if (good) return;
  fprintf(stderr, "log_bench: %s\n", what.c_str());
  _Exit(1);
}

class Folder {
 public:
  Folder() : path_(std::filesystem::temp_directory_path() / "tarn-log-bench-XXXXXX") {
    require(mkdtemp(path_.data()) != nullptr, path_);
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

std::int64_t now_ns() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * std::int64_t{1000000000} + now.tv_nsec;
}

/* When a reader sees an entry: with its batch, or when it is appended, as the targets want it. */
enum class Seen { kWithBatch, kAtOnce };

/* Stores are handed batches, each of which is on the disk when append() returns. */
class OwnLog {
 public:
  explicit OwnLog(const std::string &folder) {
    auto log = tarn::Log::open(folder + "/log", {std::uint64_t{4} << 30, 16 << 20});
    require(log.ok(), "log");
    log_ = std::move(*log);
  }
  void append(const std::string &payload) {
    const tarn::Bytes part = std::as_bytes(std::span(payload));
    for (int i = 0; i < kBatch; ++i) require(log_->append(1, std::span(&part, 1)).ok(), "append");
    require(log_->sync().ok(), "sync");
  }

 private:
  std::unique_ptr<tarn::Log> log_;
};

template <Seen seen>
class Sqlite {
 public:
  explicit Sqlite(const std::string &folder) {
    require(sqlite3_open((folder + "/log.db").c_str(), &db_) == SQLITE_OK, "sqlite3_open");
    run("PRAGMA journal_mode=WAL");
    // Without a sync at each commit the batch is on the disk by a checkpoint, which syncs the log.
    run(seen == Seen::kAtOnce ? "PRAGMA synchronous=NORMAL" : "PRAGMA synchronous=FULL");
    run("CREATE TABLE log(position INTEGER PRIMARY KEY, time INTEGER, kind INTEGER, payload BLOB)");
    require(sqlite3_prepare_v2(db_, "INSERT INTO log(time, kind, payload) VALUES(?, ?, ?)", -1,
                               &insert_, nullptr) == SQLITE_OK,
            "sqlite3_prepare");
  }
  ~Sqlite() {
    sqlite3_finalize(insert_);
    sqlite3_close(db_);
  }
  Sqlite(const Sqlite &) = delete;
  Sqlite &operator=(const Sqlite &) = delete;
  void append(const std::string &payload) {
    if (seen == Seen::kWithBatch) run("BEGIN");
    for (int i = 0; i < kBatch; ++i) {
      sqlite3_bind_int64(insert_, 1, now_ns());
      sqlite3_bind_int(insert_, 2, 1);
      sqlite3_bind_blob(insert_, 3, payload.data(), static_cast<int>(payload.size()),
                        SQLITE_STATIC);
      require(sqlite3_step(insert_) == SQLITE_DONE, "insert");
      sqlite3_reset(insert_);
    }
    run(seen == Seen::kWithBatch ? "COMMIT" : "PRAGMA wal_checkpoint(FULL)");
  }

 private:
  void run(const char *statement) {
    require(sqlite3_exec(db_, statement, nullptr, nullptr, nullptr) == SQLITE_OK, statement);
  }
  sqlite3 *db_ = nullptr;
  sqlite3_stmt *insert_ = nullptr;
};

template <Seen seen>
class Lmdb {
 public:
  explicit Lmdb(const std::string &folder) {
    require(mdb_env_create(&env_) == 0, "mdb_env_create");
    require(mdb_env_set_mapsize(env_, std::size_t{4} << 30) == 0, "mdb_env_set_mapsize");
    const unsigned flags = seen == Seen::kAtOnce ? MDB_NOSYNC : 0;
    require(mdb_env_open(env_, folder.c_str(), flags, 0600) == 0, "mdb_env_open");
    MDB_txn *transaction = begin();
    require(mdb_dbi_open(transaction, nullptr, MDB_INTEGERKEY, &table_) == 0, "mdb_dbi_open");
    require(mdb_txn_commit(transaction) == 0, "mdb_txn_commit");
  }
  ~Lmdb() { mdb_env_close(env_); }
  Lmdb(const Lmdb &) = delete;
  Lmdb &operator=(const Lmdb &) = delete;
  void append(const std::string &payload) {
    MDB_txn *transaction = begin();
    for (int i = 0; i < kBatch; ++i) {
      std::size_t position = ++end_;
      MDB_val key{sizeof(position), &position};
      std::string entry(16, '\0'); /* time and kind */
      const std::int64_t time = now_ns();
      entry.replace(0, sizeof(time), reinterpret_cast<const char *>(&time), sizeof(time));
      entry += payload;
      MDB_val value{entry.size(), entry.data()};
      require(mdb_put(transaction, table_, &key, &value, MDB_APPEND) == 0, "mdb_put");
      if (seen == Seen::kWithBatch && i + 1 < kBatch) continue;
      require(mdb_txn_commit(transaction) == 0, "mdb_txn_commit");
      if (i + 1 < kBatch) transaction = begin();
    }
    if (seen == Seen::kAtOnce) require(mdb_env_sync(env_, 1) == 0, "mdb_env_sync");
  }

 private:
  MDB_txn *begin() {
    MDB_txn *transaction = nullptr;
    require(mdb_txn_begin(env_, nullptr, 0, &transaction) == 0, "mdb_txn_begin");
    return transaction;
  }
  MDB_env *env_ = nullptr;
  MDB_dbi table_ = 0;
  std::size_t end_ = 0;
};

template <class Store>
void append_entries(benchmark::State &state) {
  const Folder folder;
  Store store(folder.path());
  const std::string payload(static_cast<std::size_t>(state.range(0)), 'x');
  for (auto _ : state) store.append(payload);
  state.SetItemsProcessed(state.iterations() * kBatch);
}

#define LOG_BENCHMARK(store) \
  BENCHMARK(append_entries<store>)->Arg(200)->Arg(4200)->Iterations(kBatches)->UseRealTime()
LOG_BENCHMARK(OwnLog);
LOG_BENCHMARK(Sqlite<Seen::kAtOnce>);
LOG_BENCHMARK(Lmdb<Seen::kAtOnce>);
LOG_BENCHMARK(Sqlite<Seen::kWithBatch>);
LOG_BENCHMARK(Lmdb<Seen::kWithBatch>);

}  // namespace

BENCHMARK_MAIN();
