/* SPDX-License-Identifier: GPL-2.0 */
/* For commands that send one request to the module and print nothing on success. */
#ifndef TARN_TARN_REQUEST_H
#define TARN_TARN_REQUEST_H

#include "client/control.h"
#include "client/site.h"
#include "tarn/commands.h"

namespace tarn {

/* Calls request(channel), which returns Result<void>. Prints an error and returns the exit code. */
template <typename Request>
int ask_module(Request request) {
  auto channel = ControlChannel::connect(find_site());
  if (!channel) return fail(channel.error());
  const auto done = request(*channel);
  return done ? kExitOk : fail(done.error());
}

}  // namespace tarn

#endif
