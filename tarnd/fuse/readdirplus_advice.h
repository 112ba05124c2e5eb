/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Tells which listings should bring the attributes of the names: those of a program that has looked
 * up a fair part of the files of a directory after it had listed it without. Attributes cost some
 * 12 us a name, a look-up of its own three times as much, a name alone next to nothing; the host
 * asks for attributes at the beginning of every directory, whatever the program does. So `find` and
 * a program that looks for one name in each directory get names, `find -ls` attributes.
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
  /* So many directories are listed with attributes until it is tried without again: with them,
   * nothing shows whether the program still wants them. */
  static constexpr int kDirectories = 64;
  /* One file in so many that are listed is a fair part: about where both ways cost the same. */
  static constexpr unsigned kFairPart = 4;

  /* `thread`, of a program, begins to list the directory. Should the listing bring attributes? */
  bool begun(pid_t thread, const uk_node *directory) {
    Slot &slot = slot_of(thread);
    if (slot.thread.load(kRelaxed) != thread) {
      slot.thread.store(thread, kRelaxed);
      slot.directories.store(0, kRelaxed);
    }
    const int left = slot.directories.load(kRelaxed);
    slot.directories.store(left > 0 ? left - 1 : 0, kRelaxed);
    slot.files.store(0, kRelaxed);
    slot.looked_up.store(0, kRelaxed);
    slot.without.store(left > 0 ? nullptr : directory, kRelaxed);
    return left > 0;
  }
  /* And the next part of it? */
  bool goes_on(pid_t thread, const uk_node *directory) {
    const Slot &slot = slot_of(thread);
    return slot.thread.load(kRelaxed) == thread && slot.without.load(kRelaxed) != directory;
  }
  /* A part of the directory was listed without attributes; `files` of its names are not those of
   * directories, which are looked up by everybody who goes down a tree. */
  void listed(pid_t thread, const uk_node *directory, unsigned files) {
    Slot &slot = slot_of(thread);
    if (is_without(slot, thread, directory)) slot.files.fetch_add(files, kRelaxed);
  }
  /* The thread has looked up something that is not a directory. */
  void looked_up(pid_t thread, const uk_node *directory) {
    Slot &slot = slot_of(thread);
    if (!is_without(slot, thread, directory)) return;
    const unsigned count = slot.looked_up.fetch_add(1, kRelaxed) + 1;
    if (count * kFairPart < slot.files.load(kRelaxed)) return;
    slot.without.store(nullptr, kRelaxed);
    slot.directories.store(kDirectories, kRelaxed);
  }

 private:
  static constexpr auto kRelaxed = std::memory_order_relaxed;
  struct Slot {
    std::atomic<pid_t> thread = 0;
    std::atomic<int> directories = 0;                // still to be listed with attributes
    std::atomic<const uk_node *> without = nullptr;  // listed last, without
    std::atomic<unsigned> files = 0, looked_up = 0;  // of that directory
  };
  static bool is_without(const Slot &slot, pid_t thread, const uk_node *directory) {
    return slot.without.load(kRelaxed) == directory && slot.thread.load(kRelaxed) == thread;
  }
  Slot &slot_of(pid_t thread) { return slots_[static_cast<std::size_t>(thread) % slots_.size()]; }

  std::array<Slot, 256> slots_;
};

}  // namespace tarnd

#endif
