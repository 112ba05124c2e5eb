/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Tells which listings should bring the attributes of the names: those of a program that has looked
 * up the files of a directory after it had listed it without. Attributes cost several times as much
 * as names; a look-up of its own for each name costs more than both. The host itself asks for
 * attributes at the beginning of every directory, whatever the program does.
 *
 * What is remembered is a hint: programs may share a slot. Any thread may call; nothing blocks.
 */
#ifndef TARND_FUSE_READDIRPLUS_ADVICE_H
#define TARND_FUSE_READDIRPLUS_ADVICE_H

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>

#include "ukern/door/uk_fs.h"

namespace tarnd {

class ReaddirplusAdvice {
 public:
  /* So many directories are listed with attributes until it is tried without again. */
  static constexpr int kDirectories = 64;

  /* `thread`, of a program, begins to list the directory. Should the listing bring attributes? */
  bool begun(pid_t thread, const uk_node *directory) {
    Slot &slot = slot_of(thread);
    if (slot.thread.load(kRelaxed) != thread) {
      slot.thread.store(thread, kRelaxed);
      slot.directories.store(0, kRelaxed);
    }
    const int left = slot.directories.load(kRelaxed);
    slot.directories.store(left > 0 ? left - 1 : 0, kRelaxed);
    slot.without.store(left > 0 ? nullptr : directory, kRelaxed);
    return left > 0;
  }
  /* And the next part of it? */
  bool goes_on(pid_t thread, const uk_node *directory) {
    const Slot &slot = slot_of(thread);
    return slot.thread.load(kRelaxed) == thread && slot.without.load(kRelaxed) != directory;
  }
  /* The thread has looked up something that is not a directory. */
  void looked_up(pid_t thread, const uk_node *directory) {
    Slot &slot = slot_of(thread);
    if (slot.without.load(kRelaxed) != directory || slot.thread.load(kRelaxed) != thread) return;
    slot.without.store(nullptr, kRelaxed);
    slot.directories.store(kDirectories, kRelaxed);
  }

 private:
  static constexpr auto kRelaxed = std::memory_order_relaxed;
  struct Slot {
    std::atomic<pid_t> thread = 0;
    std::atomic<int> directories = 0;                // still to be listed with attributes
    std::atomic<const uk_node *> without = nullptr;  // listed last, without
  };
  Slot &slot_of(pid_t thread) { return slots_[static_cast<std::size_t>(thread) % slots_.size()]; }

  std::array<Slot, 256> slots_;
};

}  // namespace tarnd

#endif
