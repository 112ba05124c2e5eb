/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Who keeps a daemon's channel open while no daemon runs, so that a restart loses no record: the
 * module goes on sending, and what it sends waits in the socket for the next process. The lock of
 * the daemon is kept with it, so that nobody else becomes the daemon meanwhile.
 *
 * One thread at a time; any thread may ask keeps().
 */
#ifndef TARN_CLIENT_CHANNEL_STORE_H
#define TARN_CLIENT_CHANNEL_STORE_H

#include <vector>

#include "base/unique_fd.h"

namespace tarn {

class ChannelStore {
 public:
  virtual ~ChannelStore() = default;

  /* Of the processes before this one, the oldest first. */
  struct Former {
    UniqueFd lock;
    std::vector<UniqueFd> channels;
  };
  /* Returns them once. They are kept until drop_former(). */
  virtual Former take() = 0;

  /* Is there any that take() has not returned? */
  virtual bool has_former() const = 0;

  /* Keeps a duplicate of each. */
  virtual void keep(int channel, int lock) = 0;
  /* Does it, and has nothing gone wrong? */
  virtual bool keeps() const = 0;

  /* The former channels have been read to their end. */
  virtual void drop_former() = 0;
  /* Keeps nothing more; returns when all is closed. */
  virtual void clear() = 0;
};

}  // namespace tarn

#endif
