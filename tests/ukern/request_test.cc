// SPDX-License-Identifier: GPL-2.0
// Requests: how the calls that wait deal with an operation that only queues one or wants it again,
// and reading by an actor instead of into a buffer.
#include "tests/harness/case.h"
#include "tests/ukern/open_file.h"
#include "tests/ukern/threads.h"

namespace {

struct kiocb *queued;
ssize_t queued_result;
struct ThreadTeam finisher;
int tries;

void finish(void *) {
  aio_complete(queued, queued_result, 0);
}

// Queues the request; another thread finishes it, maybe before this one has returned.
ssize_t queue_it(struct kiocb *iocb) {
  queued = iocb;
  return thread_team_start(&finisher, 1, finish, NULL) ? -EIOCBQUEUED : -EIO;
}

ssize_t queueing_read(struct kiocb *iocb, char __user *, size_t, loff_t pos) {
  iocb->ki_pos = pos + 7;
  return queue_it(iocb);
}

ssize_t queueing_write(struct kiocb *iocb, const char __user *, size_t, loff_t pos) {
  iocb->ki_pos = pos + 5;
  return queue_it(iocb);
}

ssize_t retried_read(struct kiocb *iocb, char __user *, size_t, loff_t) {
  if (++tries == 3) return 11;
  kiocbSetKicked(iocb);
  return -EIOCBRETRY;
}

struct taken {
  unsigned long bytes, calls, limit;
  char text[64];
};

// Takes at most `limit` bytes of each piece.
int take(read_descriptor_t *desc, struct page *page, unsigned long offset, unsigned long size) {
  struct taken *t = (struct taken *)desc->arg.data;
  if (size > desc->count) size = desc->count;
  if (t->limit && size > t->limit) size = t->limit;
  const char *text = (const char *)page_address(page) + offset;
  for (unsigned long i = 0; i < size && t->bytes + i < sizeof(t->text); i++)
    t->text[t->bytes + i] = text[i];
  t->calls++;
  t->bytes += size;
  desc->written += size;
  desc->count -= size;
  return (int)size;
}

}  // namespace

CASE(request, queued_one_is_waited_for) {
  struct file_operations ops = {};
  ops.aio_read = queueing_read;
  ops.aio_write = queueing_write;
  file_with file(&ops);
  char byte;
  loff_t pos = 100;
  queued_result = 3;
  EXPECT_EQ(do_sync_read(file.get(), (char __user *)&byte, 1, &pos), 3);
  EXPECT_EQ(pos, 107);
  thread_team_wait(&finisher, 1);
  queued_result = -EIO;
  EXPECT_EQ(do_sync_write(file.get(), (const char __user *)&byte, 1, &pos), (ssize_t)-EIO);
  EXPECT_EQ(pos, 112);
  thread_team_wait(&finisher, 1);
}

CASE(request, wanted_again_once_it_is_kicked) {
  struct file_operations ops = {};
  ops.aio_read = retried_read;
  file_with file(&ops);
  char byte;
  loff_t pos = 0;
  tries = 0;
  EXPECT_EQ(do_sync_read(file.get(), (char __user *)&byte, 1, &pos), 11);
  EXPECT_EQ(tries, 3);
}

CASE(request, a_synchronous_one_knows_its_task) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  struct kiocb iocb;
  init_sync_kiocb(&iocb, file.get());
  EXPECT_TRUE(is_sync_kiocb(&iocb));
  EXPECT_EQ(iocb.ki_obj.tsk, current);
  EXPECT_EQ(iocb.ki_filp, file.get());
  EXPECT_EQ(iocb.ki_users, 1);
  EXPECT_EQ(aio_complete(&iocb, 42, 0), 1);
  EXPECT_EQ(iocb.ki_users, 0);
  EXPECT_EQ(wait_on_sync_kiocb(&iocb), 42);
}

CASE(request, sendfile_gives_the_pages_piece_by_piece) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  static char data[10000];
  fill_pattern(data, sizeof(data), 9);
  EXPECT_EQ(file.write(data, sizeof(data), 0), (long)sizeof(data));
  struct taken t = {};
  loff_t pos = 4090;
  EXPECT_EQ(generic_file_sendfile(file.get(), &pos, 4200, take, &t), 4200);
  EXPECT_EQ(pos, 8290);
  EXPECT_EQ(t.bytes, 4200ul);
  EXPECT_EQ(t.calls, 3ul);
  EXPECT_EQ(memcmp(t.text, data + 4090, sizeof(t.text)), 0);

  // Ends with the file, and where the actor takes less than it is given.
  t = {};
  pos = 9990;
  EXPECT_EQ(generic_file_sendfile(file.get(), &pos, 1000, take, &t), 10);
  EXPECT_EQ(generic_file_sendfile(file.get(), &pos, 1000, take, &t), 0);
  EXPECT_EQ(pos, 10000);
  t = {};
  t.limit = 100;
  pos = 0;
  EXPECT_EQ(generic_file_sendfile(file.get(), &pos, 5000, take, &t), 100);
  EXPECT_EQ(pos, 100);
  EXPECT_EQ(t.calls, 1ul);
  pos = 0;
  EXPECT_EQ(generic_file_sendfile(file.get(), &pos, 0, take, &t), 0);
}
