// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/caller.h"

#include <cerrno>

#include "tests/tarnd/booted_test.h"
#include "ukern/door/uk_net.h"

namespace tarnd {
namespace {

class CallerTaskTest : public BootedTest {
 protected:
  // What waits for a message that does not come, in the task that is current.
  static long wait_for_a_message() {
    constexpr int kUnit = 29;
    uk_nlsock *sock = nullptr;
    if (const int err = uk_nl_open(kUnit, 0, 0, &sock); err != 0) return err;
    char message[16];
    const long got = uk_nl_recv(sock, message, sizeof(message), 20);
    uk_nl_close(sock);
    return got;
  }
};

// A request is gone with its answer. That one is none at all: whoever asks to be told of its
// interruption does not come back.
TEST_F(CallerTaskTest, AnAnsweredRequestIsNotListenedTo) {
  CallerTask caller;
  const ActAs act(caller.task());
  const Listening listening(caller, reinterpret_cast<fuse_req_t>(1));
  CallerTask::answered();
  EXPECT_EQ(wait_for_a_message(), -EAGAIN);
}

TEST_F(CallerTaskTest, WhatDoesNotListenWaitsAsWell) {
  CallerTask caller;
  const ActAs act(caller.task());
  EXPECT_EQ(wait_for_a_message(), -EAGAIN);
}

}  // namespace
}  // namespace tarnd
