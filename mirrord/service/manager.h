/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Tells the service manager how the service does, if one has started it, and has it keep the
 * daemon's channel while the service is restarted.
 */
#ifndef TARN_MIRRORD_SERVICE_MANAGER_H
#define TARN_MIRRORD_SERVICE_MANAGER_H

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "client/channel_store.h"

namespace tarn {

/* `state` as in sd_notify(3), for example "READY=1". Without a manager nothing happens. */
void tell_manager(const std::string &state);

/* The service manager's store of descriptors, which outlives the process until the unit has been
 * stopped. */
class ManagerStore : public ChannelStore {
 public:
  /* With what the manager has kept. Nothing without a manager. Call it once, before there are
   * threads. */
  static std::unique_ptr<ManagerStore> open();

  Former take() override;
  bool has_former() const override { return !former_.channels.empty(); }
  void keep(int channel, int lock) override;
  bool keeps() const override { return keeps_; }
  void drop_former() override;
  void clear() override;

 private:
  ManagerStore() = default;
  void remove(const std::string &name);

  Former former_;
  std::vector<std::string> former_names_;
  std::string name_; /* of this process's channel */
  bool has_lock_ = false;
  std::atomic<bool> keeps_ = false;
};

}  // namespace tarn

#endif
