/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Tells the service manager how the service does, if one has started it, and has it keep the
 * daemon's channel while the service is restarted. manager_none.cc takes the place of manager.cc on
 * systems without one.
 */
#ifndef TARN_MIRRORD_SERVICE_MANAGER_H
#define TARN_MIRRORD_SERVICE_MANAGER_H

#include <memory>
#include <string>

#include "client/channel_store.h"

namespace tarn {

/* `state` as in sd_notify(3), for example "READY=1". Without a manager nothing happens. */
void tell_manager(const std::string &state);

/* The service manager's store of descriptors, with what it has kept; it outlives the process until
 * the unit has been stopped. Nothing without a manager. Call it once, before there are threads. */
std::unique_ptr<ChannelStore> open_manager_store();

}  // namespace tarn

#endif
