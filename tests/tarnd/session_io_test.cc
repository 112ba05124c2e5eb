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

TEST(SessionIo, ThePromiseIsMadeWhereItIsUnderstood) {
  SessionIo io;
  const InitRequest request(7, FUSE_HANDLE_KILLPRIV_V2);
  InitAnswer answer(7);
  io.on_request(&request, sizeof(request));
  io.on_reply(answer.parts);
  EXPECT_EQ(answer.init.flags, unsigned{FUSE_ATOMIC_O_TRUNC | FUSE_HANDLE_KILLPRIV_V2});
}

TEST(SessionIo, TheFlagsMayBeTheLastOfARequest) {
  SessionIo io;
  const InitRequest request(7, FUSE_HANDLE_KILLPRIV_V2);
  InitAnswer answer(7);
  io.on_request(&request, sizeof(fuse_in_header) + offsetof(fuse_init_in, flags2));
  io.on_reply(answer.parts);
  EXPECT_TRUE(answer.init.flags & FUSE_HANDLE_KILLPRIV_V2);
}

TEST(SessionIo, ItIsNotMadeToAHostThatDoesNotKnowIt) {
  SessionIo io;
  const InitRequest request(7, FUSE_HANDLE_KILLPRIV);
  InitAnswer answer(7);
  io.on_request(&request, sizeof(request));
  io.on_reply(answer.parts);
  EXPECT_EQ(answer.init.flags, unsigned{FUSE_ATOMIC_O_TRUNC});
}

TEST(SessionIo, ShortRequestsAndOtherAnswersAreLeftAlone) {
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

TEST(SessionIo, OnlyTheFirstAnswerIsChanged) {
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
