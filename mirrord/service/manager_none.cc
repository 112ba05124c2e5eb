// SPDX-License-Identifier: GPL-2.0
// Where there is no service manager.
#include "mirrord/service/manager.h"

namespace tarn {

void tell_manager(const std::string & /*state*/) {}

std::unique_ptr<ChannelStore> open_manager_store() {
  return nullptr;
}

}  // namespace tarn
