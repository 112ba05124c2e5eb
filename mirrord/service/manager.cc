// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/manager.h"

#include <systemd/sd-daemon.h>

namespace tarn {

void tell_manager(const std::string &state) {
  // An error means that the manager has gone: it will not be told the next time either.
  (void)sd_notify(0, state.c_str());
}

}  // namespace tarn
