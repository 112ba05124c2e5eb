// SPDX-License-Identifier: GPL-2.0
// umount.fuse.tarn: what umount(8) runs for a mount of tarnd. It returns when tarnd has let go of
// the lower directory, so that the file system below can be unmounted next.
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>

#include <fmt/format.h>

#include "base/print_error.h"
#include "base/standard_fds.h"
#include "base/text.h"
#include "client/control.h"
#include "client/paths.h"
#include "client/site.h"
#include "packaging/mount/mount_call.h"
#include "packaging/mount/umount_note.h"

namespace tarn {
namespace {

int fail(const Error &error, MountExit status) {
  print_error("umount.fuse.tarn: {}\n", error.text);
  return status;
}

/* Past tarnd: the mount is one of a killed tarnd, or of one that serves another run directory. */
Result<void> unmount_here(const std::string &mountpoint, const UmountCall &call) {
  if (geteuid() != 0) {
    execlp("fusermount3", "fusermount3", call.lazy ? "-uz" : "-u", "--", mountpoint.c_str(),
           nullptr);
    return system_error(errno, "cannot start fusermount3");
  }
  const int flags = UMOUNT_NOFOLLOW | (call.lazy ? MNT_DETACH : 0) | (call.force ? MNT_FORCE : 0);
  if (umount2(mountpoint.c_str(), flags) == 0) return {};
  const std::string what = "cannot unmount " + printable(mountpoint);
  if (errno == EBUSY)
    return Error{-EBUSY, what + ": programs use it: end them, or unmount it with --lazy"};
  return system_error(errno, what);
}

Result<void> unmount(const std::string &mountpoint, const UmountCall &call) {
  if (call.force) return unmount_here(mountpoint, call);
  auto channel = ControlChannel::connect(find_site());
  if (!channel) return unmount_here(mountpoint, call);
  const auto unmounted = channel->umount(mountpoint, call.lazy ? Umount::kLazily : Umount::kIfIdle);
  if (unmounted) return {};
  const int error = unmounted.error().code;
  if (error != -EINVAL && error != -EPIPE) return unmounted;
  const auto here = unmount_here(mountpoint, call);
  // A tarnd that ends unmounts all that it can, perhaps this mount too.
  if (!here && error == -EPIPE && here.error().code == -EINVAL) return {};
  return here;
}

int run(int argc, char **argv) {
  const auto call = read_umount_call(argc, argv);
  if (!call) return fail(call.error(), kMountUsage);
  if (!*call) return kMountOk;
  const std::string mountpoint = whole_mountpoint((*call)->mountpoint);
  if (const auto unmounted = unmount(mountpoint, **call); !unmounted)
    return fail(unmounted.error(), kMountFailed);
  if (const auto removed = remove_umount_note(mountpoint); !removed)
    print_error("umount.fuse.tarn: note: {}\n", removed.error().text);
  return kMountOk;
}

}  // namespace
}  // namespace tarn

int main(int argc, char **argv) {
  tarn::hold_standard_descriptors();
  return tarn::run(argc, argv);
}
