/* SPDX-License-Identifier: GPL-2.0 */
/* Commands that ask one thing of the module and have nothing to say when it is done. */
#ifndef TARN_TARN_REQUEST_H
#define TARN_TARN_REQUEST_H

#include "client/control.h"
#include "client/site.h"
#include "tarn/commands.h"

namespace tarn {

/* request(channel) is a Result<void>. The exit code; an error has been printed. */
template <typename Request>
int ask_module(Request request) {
  auto channel = ControlChannel::connect(find_site());
  if (!channel) return fail(channel.error());
  const auto done = request(*channel);
  return done ? kExitOk : fail(done.error());
}

}  // namespace tarn

#endif
