// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/session_loop.h"

#include <linux/fuse.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <thread>

#include "base/mutex.h"
#include "tests/tarnd/booted_test.h"

namespace tarnd {
namespace {

using tarn::Condition;
using tarn::Mutex;
using tarn::MutexLock;

ssize_t write_answer(int fd, iovec *parts, int count, void *) {
  return writev(fd, parts, count);
}
ssize_t read_request(int fd, void *buf, size_t size, void *) {
  return read(fd, buf, size);
}
constexpr fuse_custom_io kSocket = {.writev = write_answer,
                                    .read = read_request,
                                    .splice_receive = nullptr,
                                    .splice_send = nullptr};

// A session whose host is the test, at the other end of a socket. A request is to get the
// attributes of a node, whose number is the request's too.
class SessionLoopTest : public BootedTest {
 protected:
  using Serve = std::function<void(fuse_ino_t node)>;

  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(BootedTest::SetUp());
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    host_ = ends[0];
    fuse_args args = FUSE_ARGS_INIT(0, nullptr);
    ASSERT_EQ(fuse_opt_add_arg(&args, "session_loop_test"), 0);
    fuse_lowlevel_ops operations{};
    operations.getattr = get_attributes;
    session_ = fuse_session_new(&args, &operations, sizeof(operations), this);
    fuse_opt_free_args(&args);
    ASSERT_TRUE(session_);
    ASSERT_EQ(fuse_session_custom_io(session_, &kSocket, ends[1]), 0);
  }
  void TearDown() override {
    if (loop_) {
      loop_->stop();
      runner_.join();
    }
    fuse_session_destroy(session_);
    close(host_);
    BootedTest::TearDown();
  }

  // `serve` runs in the worker that has taken the request, before it is answered.
  void start(Serve serve) {
    serve_ = std::move(serve);
    loop_ = std::make_unique<SessionLoop>(session_);
    runner_ = std::thread([this] { loop_->run(); });
    fuse_init_in init{};
    init.major = FUSE_KERNEL_VERSION;
    init.minor = FUSE_KERNEL_MINOR_VERSION;
    init.max_readahead = 4096;
    send(FUSE_INIT, 0, &init, sizeof(init));
    ASSERT_EQ(answer(), kInit);
  }
  void begin_to_stop() { loop_->stop(); }

  void ask(fuse_ino_t node) {
    const fuse_getattr_in get{};
    send(FUSE_GETATTR, node, &get, sizeof(get));
  }
  // The number of the next request that is answered.
  fuse_ino_t answer() {
    fuse_out_header head{};
    char rest[256];
    iovec parts[] = {{&head, sizeof(head)}, {rest, sizeof(rest)}};
    const ssize_t got = readv(host_, parts, 2);
    EXPECT_GE(got, static_cast<ssize_t>(sizeof(head)));
    EXPECT_EQ(head.error, 0);
    return head.unique;
  }

  static constexpr fuse_ino_t kInit = 1'000'000;

 private:
  void send(std::uint32_t opcode, fuse_ino_t node, const void *body, size_t size) const {
    fuse_in_header head{};
    head.len = static_cast<std::uint32_t>(sizeof(head) + size);
    head.opcode = opcode;
    head.unique = node ? node : kInit;
    head.nodeid = node;
    iovec parts[] = {{&head, sizeof(head)}, {const_cast<void *>(body), size}};
    ASSERT_EQ(writev(host_, parts, 2), static_cast<ssize_t>(head.len));
  }
  static void get_attributes(fuse_req_t req, fuse_ino_t node, fuse_file_info *) {
    static_cast<SessionLoopTest *>(fuse_req_userdata(req))->serve_(node);
    struct stat attributes {};
    attributes.st_ino = node;
    fuse_reply_attr(req, &attributes, 0);
  }

  int host_ = -1;
  fuse_session *session_ = nullptr;
  std::unique_ptr<SessionLoop> loop_;
  std::thread runner_;
  Serve serve_;
};

// Requests that wait for something; the others do not.
class Gate {
 public:
  // Returns when the node was let through.
  void pass(fuse_ino_t node) {
    MutexLock lock(mutex_);
    while (closed_.contains(node)) changed_.wait(lock);
  }
  void close_for(fuse_ino_t node) {
    const MutexLock lock(mutex_);
    closed_.insert(node);
  }
  void open_for(fuse_ino_t node) {
    const MutexLock lock(mutex_);
    closed_.erase(node);
    changed_.notify_all();
  }

 private:
  Mutex mutex_;
  Condition changed_;
  std::set<fuse_ino_t> closed_ GUARDED_BY(mutex_);
};

bool has_processors(int count) {
  cpu_set_t set;
  return sched_getaffinity(0, sizeof(set), &set) == 0 && CPU_COUNT(&set) >= count;
}

TEST_F(SessionLoopTest, one_worker_serves_a_program_that_waits_for_each_answer) {
  struct {
    Mutex mutex;
    std::set<std::thread::id> ids GUARDED_BY(mutex);
  } workers;
  start([&](fuse_ino_t) {
    const MutexLock lock(workers.mutex);
    workers.ids.insert(std::this_thread::get_id());
  });
  // A machine that is busy with something else makes requests look slow, and adds a worker for them
  // and for a while after. Two would hardly ever leave all to one, let alone so often in a row.
  constexpr int kInARow = 30;
  int in_a_row = 0;
  for (int round = 0; round < 1000 && in_a_row < kInARow; round++) {
    {
      const MutexLock lock(workers.mutex);
      workers.ids.clear();
    }
    for (fuse_ino_t node = 1; node <= 100; node++) {
      ask(node);
      ASSERT_EQ(answer(), node);
    }
    const MutexLock lock(workers.mutex);
    in_a_row = workers.ids.size() == 1 ? in_a_row + 1 : 0;
  }
  EXPECT_EQ(in_a_row, kInARow);
}

TEST_F(SessionLoopTest, requests_that_wait_bring_in_another) {
  if (!has_processors(2)) GTEST_SKIP() << "one processor";
  // Too quick to be slow, and often: each waits until another worker is in here too, but not long.
  struct {
    Mutex mutex;
    Condition changed;
    int count GUARDED_BY(mutex) = 0;
    bool together GUARDED_BY(mutex) = false;
  } in_work;
  start([&](fuse_ino_t) {
    MutexLock lock(in_work.mutex);
    in_work.together |= ++in_work.count == 2;
    in_work.changed.notify_all();
    const auto limit = Condition::Clock::now() + std::chrono::milliseconds(1);
    while (!in_work.together && in_work.changed.wait_until(lock, limit)) {
    }
    in_work.count--;
  });
  const auto asked = [&] {
    const MutexLock lock(in_work.mutex);
    return in_work.together;
  };
  for (fuse_ino_t node = 1; node <= 8; node++) ask(node);
  int more = 20'000;
  for (; more > 0 && !asked(); more--) ask(answer());
  for (int i = 0; i < 8; i++) answer();
  EXPECT_GT(more, 0);
}

TEST_F(SessionLoopTest, slow_requests_keep_no_other_from_being_served) {
  Gate gate;
  start([&](fuse_ino_t node) { gate.pass(node); });
  constexpr fuse_ino_t kSlow = 40;
  for (fuse_ino_t slow = 1; slow <= kSlow; slow++) {
    gate.close_for(slow);
    ask(slow);
    ask(1000 + slow);
    EXPECT_EQ(answer(), 1000 + slow);
  }
  std::set<fuse_ino_t> answered;
  for (fuse_ino_t slow = 1; slow <= kSlow; slow++) gate.open_for(slow);
  for (fuse_ino_t slow = 1; slow <= kSlow; slow++) answered.insert(answer());
  EXPECT_EQ(answered.size(), kSlow);
}

TEST_F(SessionLoopTest, a_slow_request_after_a_lull_is_seen_too) {
  Gate gate;
  start([&](fuse_ino_t node) { gate.pass(node); });
  for (int i = 0; i < 5; i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    gate.close_for(1);
    ask(1);
    ask(2);
    EXPECT_EQ(answer(), 2u);
    gate.open_for(1);
    EXPECT_EQ(answer(), 1u);
  }
}

TEST_F(SessionLoopTest, what_is_in_work_is_finished_before_the_end) {
  Gate gate;
  gate.close_for(1);
  start([&](fuse_ino_t node) { gate.pass(node); });
  ask(1);
  ask(2);
  EXPECT_EQ(answer(), 2u);
  begin_to_stop();
  gate.open_for(1);
  EXPECT_EQ(answer(), 1u);
}

}  // namespace
}  // namespace tarnd
