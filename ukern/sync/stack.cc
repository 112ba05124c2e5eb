// SPDX-License-Identifier: GPL-2.0
#include "ukern/sync/stack.h"

#include "ukern/host/host.h"

namespace {

struct Bounds {
  unsigned long low, high;
};

__thread Bounds bounds __attribute__((tls_model("initial-exec")));

struct Frame {
  const Frame *caller;
  unsigned long return_address;
};

}  // namespace

// The walk reads frames of other functions, which the sanitizers would report.
extern "C" __attribute__((noinline, no_sanitize("address", "thread", "undefined"))) void
call_stack_save(struct call_stack *stack, unsigned skip) {
  if (!bounds.high) host_stack_bounds(&bounds.low, &bounds.high);

  const Frame *frame = static_cast<const Frame *>(__builtin_frame_address(0));
  unsigned depth = 0;
  bool first = true;
  while (depth < UKERN_STACK_DEPTH) {
    const unsigned long at = reinterpret_cast<unsigned long>(frame);
    if (at < bounds.low || at + sizeof(Frame) > bounds.high || at % sizeof(long)) break;
    if (frame->return_address < 4096) break;
    // The first address is in the calling function; the stack begins at its caller.
    if (first)
      first = false;
    else if (skip)
      skip--;
    else
      stack->pc[depth++] = frame->return_address;
    if (frame->caller <= frame) break;
    frame = frame->caller;
  }
  stack->depth = depth;
}
