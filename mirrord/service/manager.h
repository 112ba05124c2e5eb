/* SPDX-License-Identifier: GPL-2.0 */
/* Tells the service manager how the service does, if one has started it. */
#ifndef TARN_MIRRORD_SERVICE_MANAGER_H
#define TARN_MIRRORD_SERVICE_MANAGER_H

#include <string>

namespace tarn {

/* `state` as in sd_notify(3), for example "READY=1". Without a manager nothing happens. */
void tell_manager(const std::string &state);

}  // namespace tarn

#endif
