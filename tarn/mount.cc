// SPDX-License-Identifier: GPL-2.0
// mount, umount and stop.
#include <cerrno>
#include <cstdio>

#include "base/text.h"
#include "client/control.h"
#include "client/paths.h"
#include "client/site.h"
#include "tarn/commands.h"
#include "tarn/mounting.h"
#include "tarn/request.h"
#include "tarn/start_tarnd.h"

namespace tarn {
namespace {

/* Unmounts all idle mounts in reverse order, as a mount may lie on or above an earlier one. Prints
 * a note for each busy one, which tarnd aborts when it ends. */
void unmount_idle(const std::string &run_dir) {
  auto channel = ControlChannel::connect(tarnd_site(run_dir));
  if (!channel) return;
  const auto mounts = channel->mounts();
  if (!mounts) return;
  for (auto mount = mounts->rbegin(); mount != mounts->rend(); ++mount) {
    const auto unmounted = channel->umount(mount->mountpoint, Umount::kIfIdle);
    if (!unmounted && unmounted.error().code == -EBUSY)
      std::fprintf(stderr,
                   "tarn: note: programs use %s: it is unmounted all the same, and they get errors "
                   "from now on\n",
                   printable(mount->mountpoint).c_str());
  }
}

}  // namespace

int mount_command(const std::string &lower, const std::string &mountpoint,
                  std::optional<double> cache) {
  const auto mounted = mount_at(find_site(), lower, mountpoint, cache);
  if (mounted) return kExitOk;
  const Error &error = mounted.error();
  if (error.code != kNotStarted) return fail(error);
  // The text may be tarnd's; its lines begin with its name then.
  std::fprintf(stderr, "%s%s\n",
               error.text.starts_with("tarnd:") ? "" : "tarn: ", error.text.c_str());
  return kExitCannotStart;
}

int umount_command(const std::string &mountpoint, bool lazily) {
  const auto how = lazily ? Umount::kLazily : Umount::kIfIdle;
  return ask_module(
      [&](ControlChannel &channel) { return channel.umount(whole_mountpoint(mountpoint), how); });
}

int stop_command() {
  const Site site = find_site();
  if (site.in_kernel())
    return fail({-EOPNOTSUPP,
                 "no tarnd runs that could be stopped; the module is in the running kernel: take "
                 "its mounts away with 'tarn umount' and unload it with 'rmmod tarn'"});
  unmount_idle(site.run_dir);
  const auto stopped = stop_tarnd(site.run_dir);
  return stopped ? kExitOk : fail(stopped.error());
}

}  // namespace tarn
