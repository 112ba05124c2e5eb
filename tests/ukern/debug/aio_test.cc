// SPDX-License-Identifier: GPL-2.0
// Asynchronous requests: when they are done, who lets go of them, and what an operation that queues
// one, or wants it again, may rely on.
#include "tests/harness/case.h"
#include "tests/ukern/debug/submission.h"
#include "tests/ukern/open_file.h"
#include "tests/ukern/threads.h"
#include "ukern/fs/memfs.h"
#include "ukern/door/uk_core.h"
#include "ukern/testing/uk_fault.h"
#include "ukern/door/uk_fs.h"

namespace {

constexpr int kDirect = O_RDWR | O_CREAT | O_DIRECT;
constexpr __u64 kCookie = 0x1234567890;

struct super_block *root_sb() {
  return current->fs->rootmnt->mnt_sb;
}

// A file of which the device has `size` bytes 'd'.
void put_bytes(const char *path, size_t size) {
  open_file file(path);
  REQUIRE_EQ(file.error(), 0);
  static char bytes[8192];
  memset(bytes, 'd', sizeof(bytes));
  REQUIRE_EQ(file.write(bytes, size, 0), (long)size);
  REQUIRE_EQ(do_fsync(file.get(), 0), 0);
}

void complete_one(void *) {
  memfs_complete(root_sb());
}

struct file_operations with_read(ssize_t (*read)(struct kiocb *, char __user *, size_t, loff_t)) {
  struct file_operations ops = {};
  ops.aio_read = read;
  return ops;
}

int tries;
struct kiocb *waiting;

ssize_t kicked_at_once(struct kiocb *iocb, char __user *, size_t, loff_t) {
  if (++tries == 3) return 11;
  kick_iocb(iocb);
  return -EIOCBRETRY;
}

ssize_t kicked_later(struct kiocb *iocb, char __user *, size_t, loff_t) {
  if (++tries == 2) return 12;
  __atomic_store_n(&waiting, iocb, __ATOMIC_RELEASE);
  return -EIOCBRETRY;
}

void kick_what_waits(void *) {
  struct kiocb *iocb;
  while (!(iocb = __atomic_load_n(&waiting, __ATOMIC_ACQUIRE))) msleep(1);
  kick_iocb(iocb);
}

}  // namespace

CASE(aio, request_that_was_done_at_once_is_an_event) {
  submission program;
  REQUIRE_TRUE(program.good());
  kernel_buffers kernel;
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(program.write(file.get(), "text", 4, 2, kCookie), 0);
  EXPECT_TRUE(program.has_event());
  const struct io_event event = program.next();
  EXPECT_EQ(event.data, kCookie);
  EXPECT_EQ(event.res, 4ll);
  EXPECT_EQ(event.res2, 0ll);
  EXPECT_FALSE(program.has_event());
  EXPECT_EQ(program.context()->reqs_active, 0);
  EXPECT_EQ(atomic_read(&program.context()->users), 1);
  EXPECT_EQ(atomic_read(&file.get()->f_count), 1);

  char seen[16];
  EXPECT_EQ(program.read(file.get(), seen, sizeof(seen), 2, 0), 0);
  EXPECT_EQ(program.next().res, 4ll);  // what there was, in two reads
  EXPECT_EQ(memcmp(seen, "text", 4), 0);
}

CASE(aio, error_is_an_event_and_what_may_not_be_is_none) {
  submission program;
  kernel_buffers kernel;
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  memfs_fail(root_sb(), MEMFS_OP_PREPARE_WRITE, -EDQUOT, 1);
  EXPECT_EQ(program.write(file.get(), "text", 4, 0, 0), 0);
  EXPECT_EQ(program.next().res, (long long)-EDQUOT);
  open_file readable("/f", O_RDONLY);
  EXPECT_EQ(program.write(readable.get(), "text", 4, 0, 0), -EBADF);
  EXPECT_FALSE(program.has_event());
  EXPECT_EQ(atomic_read(&readable.get()->f_count), 1);
}

// The caller of a direct_IO that did all of it leaves the completion to it: one event, not two.
CASE(aio, direct_request_that_was_done_at_once_is_one_event) {
  put_bytes("/f", 1024);
  submission program;
  kernel_buffers kernel;
  open_file file("/f", kDirect);
  REQUIRE_EQ(file.error(), 0);
  static char page[4096];
  EXPECT_EQ(program.read(file.get(), page, 4096, 0, 0), 0);
  EXPECT_EQ(program.next().res, 1024ll);
  EXPECT_EQ(program.read(file.get(), page, 512, 4096, 0), 0);  // there is nothing
  EXPECT_EQ(program.next().res, 0ll);
  EXPECT_EQ(program.write(file.get(), page, 512, 512, 0), 0);
  EXPECT_EQ(program.next().res, 512ll);
  EXPECT_EQ(program.read(file.get(), page, 100, 0, 0), 0);
  EXPECT_EQ(program.next().res, (long long)-EINVAL);
  EXPECT_FALSE(program.has_event());
  EXPECT_EQ(program.context()->reqs_active, 0);
}

// Of a write that direct_IO did in part the caller does the rest, and tells of both.
CASE(aio, direct_write_that_is_short_is_one_event) {
  memfs_set_capacity(root_sb(), PAGE_SIZE);
  submission program;
  kernel_buffers kernel;
  open_file file("/f", kDirect);
  REQUIRE_EQ(file.error(), 0);
  static char pages[2 * PAGE_SIZE];
  memfs_fail(root_sb(), MEMFS_OP_PREPARE_WRITE, -EDQUOT, 1);
  EXPECT_EQ(program.submit(file.get(), pages, sizeof(pages), 0, 0,
                           [](struct kiocb *iocb) -> ssize_t {
                             return iocb->ki_filp->f_op->aio_write(iocb, iocb->ki_buf,
                                                                   iocb->ki_left, iocb->ki_pos);
                           }),
            0);
  EXPECT_EQ(program.next().res, (long long)PAGE_SIZE);
  EXPECT_FALSE(program.has_event());
  EXPECT_EQ(memfs_calls(root_sb(), MEMFS_OP_DIRECT_IO), 1ul);
  EXPECT_EQ(program.context()->reqs_active, 0);
}

CASE(aio, queued_request_is_an_event_when_another_thread_has_done_it) {
  put_bytes("/f", 1024);
  memfs_set_switches(root_sb(), MEMFS_QUEUE);
  submission program;
  kernel_buffers kernel;
  open_file file("/f", kDirect);
  REQUIRE_EQ(file.error(), 0);
  static char page[1024];
  EXPECT_EQ(program.read(file.get(), page, 1024, 0, kCookie), 0);
  EXPECT_EQ(program.read(file.get(), page, 512, 512, 2), 0);
  EXPECT_FALSE(program.has_event());
  EXPECT_EQ(program.context()->reqs_active, 2);
  EXPECT_EQ(atomic_read(&file.get()->f_count), 3);
  struct ThreadTeam device;
  REQUIRE_TRUE(thread_team_start(&device, 2, complete_one, nullptr));
  const struct io_event first = program.next();
  EXPECT_EQ(first.res, (long long)(first.data == kCookie ? 1024 : 512));
  const struct io_event second = program.next();
  EXPECT_NE(second.data, first.data);
  EXPECT_EQ(second.res, (long long)(second.data == kCookie ? 1024 : 512));
  thread_team_wait(&device, 2);
  EXPECT_EQ(program.context()->reqs_active, 0);
  EXPECT_EQ(atomic_read(&file.get()->f_count), 1);
}

// The device may be through before the operation has told that it was queued.
CASE(aio, request_outlives_a_completion_before_its_submission_is_over) {
  put_bytes("/f", 1024);
  memfs_set_switches(root_sb(), MEMFS_QUEUE);
  submission program;
  kernel_buffers kernel;
  open_file file("/f", kDirect);
  REQUIRE_EQ(file.error(), 0);
  static char page[512];
  static int users;
  EXPECT_EQ(program.submit(file.get(), page, 512, 0, 0,
                           [](struct kiocb *iocb) -> ssize_t {
                             const ssize_t result = iocb->ki_filp->f_op->aio_read(
                                 iocb, iocb->ki_buf, iocb->ki_left, iocb->ki_pos);
                             memfs_complete(root_sb());
                             users = iocb->ki_users;
                             return result;
                           }),
            0);
  EXPECT_EQ(users, 1);
  EXPECT_EQ(program.next().res, 512ll);
  EXPECT_EQ(program.context()->reqs_active, 0);
}

// A program may close what it has requests on; the file goes with the last of them.
CASE(aio, request_keeps_its_file) {
  put_bytes("/f", 1024);
  memfs_set_switches(root_sb(), MEMFS_QUEUE);
  submission program;
  kernel_buffers kernel;
  static char page[512];
  static int released;
  released = 0;
  struct file_operations ops;
  {
    open_file file("/f", kDirect);
    REQUIRE_EQ(file.error(), 0);
    ops = *file.get()->f_op;
    ops.release = [](struct inode *, struct file *) -> int { return released++, 0; };
    file.get()->f_op = &ops;
    EXPECT_EQ(program.read(file.get(), page, 512, 0, 0), 0);
  }
  EXPECT_EQ(released, 0);
  memfs_complete(root_sb());
  EXPECT_EQ(released, 1);
  EXPECT_EQ(program.next().res, 512ll);
}

CASE(aio, synchronous_caller_waits_for_what_was_queued) {
  put_bytes("/f", 1024);
  memfs_set_switches(root_sb(), MEMFS_QUEUE);
  open_file file("/f", kDirect);
  REQUIRE_EQ(file.error(), 0);
  struct ThreadTeam device;
  static char page[512];
  REQUIRE_TRUE(thread_team_start(&device, 1, complete_one, nullptr));
  EXPECT_EQ(file.read(page, 512, 512), 512);
  EXPECT_EQ(page[511], 'd');
  thread_team_wait(&device, 1);
  REQUIRE_TRUE(thread_team_start(&device, 1, complete_one, nullptr));
  EXPECT_EQ(file.write(page, 512, 0), 512);
  thread_team_wait(&device, 1);
}

CASE(aio, no_more_requests_than_results_fit) {
  put_bytes("/f", 1024);
  memfs_set_switches(root_sb(), MEMFS_QUEUE);
  submission program(2);
  kernel_buffers kernel;
  open_file file("/f", kDirect);
  REQUIRE_EQ(file.error(), 0);
  static char page[512];
  EXPECT_EQ(program.read(file.get(), page, 512, 0, 1), 0);
  EXPECT_EQ(program.read(file.get(), page, 512, 0, 2), 0);
  EXPECT_EQ(program.read(file.get(), page, 512, 0, 3), -EAGAIN);
  memfs_complete(root_sb());
  EXPECT_EQ(program.read(file.get(), page, 512, 0, 3), -EAGAIN);  // a result that nobody has taken
  EXPECT_EQ(program.next().data, 1ull);
  EXPECT_EQ(program.read(file.get(), page, 512, 0, 3), 0);
  memfs_complete(root_sb());
  memfs_complete(root_sb());
  EXPECT_EQ(program.next().data, 2ull);
  EXPECT_EQ(program.next().data, 3ull);
  EXPECT_EQ(atomic_read(&file.get()->f_count), 1);
}

CASE(aio, kicked_request_runs_again) {
  const struct file_operations at_once = with_read(kicked_at_once), later = with_read(kicked_later);
  submission program;
  char bytes[12];
  {
    file_with file(&at_once);
    tries = 0;
    EXPECT_EQ(program.submit(file.get(), bytes, sizeof(bytes), 0, 0,
                             [](struct kiocb *iocb) -> ssize_t {
                               return iocb->ki_filp->f_op->aio_read(iocb, iocb->ki_buf,
                                                                    iocb->ki_left, iocb->ki_pos);
                             }),
              0);
    EXPECT_EQ(tries, 1);
    EXPECT_EQ(program.next().res, 11ll);
    EXPECT_EQ(tries, 3);
  }
  file_with file(&later);
  tries = 0;
  waiting = nullptr;
  struct ThreadTeam device;
  REQUIRE_TRUE(thread_team_start(&device, 1, kick_what_waits, nullptr));
  EXPECT_EQ(program.read(file.get(), bytes, sizeof(bytes), 0, 0), 0);
  EXPECT_EQ(program.next().res, 12ll);
  thread_team_wait(&device, 1);
  EXPECT_EQ(program.context()->reqs_active, 0);
}

CASE(aio, kick_wakes_a_synchronous_caller) {
  const struct file_operations later = with_read(kicked_later);
  file_with file(&later);
  tries = 0;
  waiting = nullptr;
  struct ThreadTeam device;
  REQUIRE_TRUE(thread_team_start(&device, 1, kick_what_waits, nullptr));
  char byte;
  loff_t pos = 0;
  EXPECT_EQ(do_sync_read(file.get(), (char __user *)&byte, 1, &pos), 12);
  thread_team_wait(&device, 1);
}

CASE(aio, putting_what_is_gone_is_a_bug) {
  EXPECT_REPORT(
      [] {
        submission program;
        open_file file("/f");
        program.submit(file.get(), nullptr, 0, 0, 0, [](struct kiocb *iocb) -> ssize_t {
          aio_put_req(iocb);
          iocb->ki_users = 0;
          aio_put_req(iocb);
          return 0;
        });
      },
      "BUG");
}

CASE(aio, context_that_goes_before_its_requests_is_a_bug) {
  EXPECT_REPORT(
      [] {
        struct kioctx *ctx = ukern_ioctx_alloc(1);
        open_file file("/f");
        get_file(file.get());
        ukern_aio_get_req(ctx, file.get());
        put_ioctx(ctx);
        put_ioctx(ctx);
      },
      "BUG");
}

CASE(aio, every_failing_allocation_refuses_the_request) {
  kernel_buffers kernel;
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  for (unsigned long n = 1; n <= 2; n++) {
    uk_fault_arm(n);
    const submission program;
    uk_fault_arm(0);
    EXPECT_FALSE(program.good());
  }
  submission program;
  uk_fault_arm(1);
  const int error = program.write(file.get(), "x", 1, 0, 0);
  uk_fault_arm(0);
  EXPECT_EQ(error, -EAGAIN);
  EXPECT_EQ(atomic_read(&file.get()->f_count), 1);
}
