// SPDX-License-Identifier: GPL-2.0
#include "packaging/mount/umount_note.h"

#include <libmount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>

#include "base/text.h"

namespace tarn {
namespace {

constexpr char kNote[] = "uhelper=fuse.tarn";

struct FreeFs {
  void operator()(libmnt_fs *fs) const { mnt_unref_fs(fs); }
};
struct FreeUpdate {
  void operator()(libmnt_update *update) const { mnt_free_update(update); }
};

/* Carries out an update that mnt_update_set_fs() has prepared. */
Result<void> write_notes(libmnt_update *update, int prepared) {
  if (prepared == 1) return {};  // nothing to do, or libmount keeps no notes here
  const int rc = prepared < 0 ? prepared : mnt_update_table(update, nullptr);
  if (rc >= 0) return {};
  return system_error(-rc, "cannot write libmount's notes for umount(8), /run/mount/utab");
}

Error no_memory() {
  return system_error(ENOMEM, "cannot write a note for umount(8)");
}

}  // namespace

Result<void> note_umount_helper(const std::string &lower, const std::string &mountpoint) {
  if (geteuid() != 0) return {};
  std::error_code error;
  const auto from = std::filesystem::canonical(lower, error);
  if (error) return system_error(error.value(), printable(lower));
  const auto at = std::filesystem::canonical(mountpoint, error);
  if (error) return system_error(error.value(), printable(mountpoint));
  if (const auto removed = remove_umount_note(at.string()); !removed) return removed;
  const std::unique_ptr<libmnt_fs, FreeFs> fs(mnt_new_fs());
  const std::unique_ptr<libmnt_update, FreeUpdate> update(mnt_new_update());
  if (!fs || !update) return no_memory();
  if (mnt_fs_set_source(fs.get(), from.c_str()) != 0 ||
      mnt_fs_set_target(fs.get(), at.c_str()) != 0 || mnt_fs_set_options(fs.get(), kNote) != 0)
    return no_memory();
  return write_notes(update.get(), mnt_update_set_fs(update.get(), 0, nullptr, fs.get()));
}

Result<void> remove_umount_note(const std::string &mountpoint) {
  if (geteuid() != 0) return {};
  const std::unique_ptr<libmnt_update, FreeUpdate> update(mnt_new_update());
  if (!update) return no_memory();
  return write_notes(update.get(), mnt_update_set_fs(update.get(), 0, mountpoint.c_str(), nullptr));
}

}  // namespace tarn
