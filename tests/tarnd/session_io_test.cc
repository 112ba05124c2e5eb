// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/session_io.h"

#include <gtest/gtest.h>
#include <linux/fuse.h>

namespace tarnd {
namespace {

struct InitRequest {
  fuse_in_header head{};
  fuse_init_in init{};

  InitRequest(std::uint64_t unique, std::uint32_t flags) {
    head.opcode = FUSE_INIT;
    head.unique = unique;
    init.flags = flags;
  }
};

struct InitAnswer {
  fuse_out_header head{};
  fuse_init_out init{};
  iovec parts[2];

  explicit InitAnswer(std::uint64_t unique) : parts{{&head, sizeof(head)}, {&init, sizeof(init)}} {
    head.unique = unique;
    init.flags = FUSE_ATOMIC_O_TRUNC;
  }
};

TEST(SessionIo, the_promise_is_made_where_it_is_understood) {
  SessionIo io;
  const InitRequest request(7, FUSE_HANDLE_KILLPRIV_V2);
  InitAnswer answer(7);
  io.on_request(&request, sizeof(request));
  io.on_reply(answer.parts);
  EXPECT_EQ(answer.init.flags, unsigned{FUSE_ATOMIC_O_TRUNC | FUSE_HANDLE_KILLPRIV_V2});
}

TEST(SessionIo, the_flags_may_be_the_last_of_a_request) {
  SessionIo io;
  const InitRequest request(7, FUSE_HANDLE_KILLPRIV_V2);
  InitAnswer answer(7);
  io.on_request(&request, sizeof(fuse_in_header) + offsetof(fuse_init_in, flags2));
  io.on_reply(answer.parts);
  EXPECT_TRUE(answer.init.flags & FUSE_HANDLE_KILLPRIV_V2);
}

TEST(SessionIo, it_is_not_made_to_a_host_that_does_not_know_it) {
  SessionIo io;
  const InitRequest request(7, FUSE_HANDLE_KILLPRIV);
  InitAnswer answer(7);
  io.on_request(&request, sizeof(request));
  io.on_reply(answer.parts);
  EXPECT_EQ(answer.init.flags, unsigned{FUSE_ATOMIC_O_TRUNC});
}

TEST(SessionIo, short_requests_and_other_answers_are_left_alone) {
  SessionIo io;
  const InitRequest request(7, FUSE_HANDLE_KILLPRIV_V2);
  InitAnswer answer(7);
  io.on_request(&request, sizeof(fuse_in_header) + offsetof(fuse_init_in, flags));
  io.on_reply(answer.parts);
  EXPECT_EQ(answer.init.flags, unsigned{FUSE_ATOMIC_O_TRUNC});

  io.on_request(&request, sizeof(request));
  InitAnswer other(8), failed(7);
  io.on_reply(other.parts);
  EXPECT_EQ(other.init.flags, unsigned{FUSE_ATOMIC_O_TRUNC});
  failed.head.error = -EPROTO;
  io.on_reply(failed.parts);
  EXPECT_EQ(failed.init.flags, unsigned{FUSE_ATOMIC_O_TRUNC});
}

TEST(SessionIo, only_the_first_answer_is_changed) {
  SessionIo io;
  const InitRequest request(7, FUSE_HANDLE_KILLPRIV_V2);
  InitAnswer first(7), again(7);
  io.on_request(&request, sizeof(request));
  io.on_reply(first.parts);
  io.on_reply(again.parts);
  EXPECT_EQ(again.init.flags, unsigned{FUSE_ATOMIC_O_TRUNC});
}

}  // namespace
}  // namespace tarnd
