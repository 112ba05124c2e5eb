// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/caller.h"

#include <cerrno>

#include "module/os_public/Include/ox_msg.h"
#include "tests/tarnd/booted_test.h"
#include "ukern/door/uk_net.h"

namespace tarnd {
namespace {

class CallerTaskTest : public BootedTest {
 protected:
  // Waits for a message that does not come, as the current task.
  static long wait_for_a_message() {
    uk_nlsock *sock = nullptr;
    if (const int err = uk_nl_open(OX_NETLINK_UNIT, 0, 0, &sock); err != 0) return err;
    char message[16];
    const long got = uk_nl_recv(sock, message, sizeof(message), 20);
    uk_nl_close(sock);
    return got;
  }
};

// The reply frees the request. The one here is no valid pointer: to register a callback on it would
// crash.
TEST_F(CallerTaskTest, no_interrupt_callback_is_registered_after_the_reply) {
  CallerTask caller;
  const ActAs act(caller.task());
  const InterruptScope interrupts(caller, reinterpret_cast<fuse_req_t>(1));
  CallerTask::reply_due();
  EXPECT_EQ(wait_for_a_message(), -EAGAIN);
}

TEST_F(CallerTaskTest, a_wait_without_an_interrupt_scope_times_out) {
  CallerTask caller;
  const ActAs act(caller.task());
  EXPECT_EQ(wait_for_a_message(), -EAGAIN);
}

}  // namespace
}  // namespace tarnd
