// SPDX-License-Identifier: GPL-2.0
// mount.tarn: what mount(8) runs for 'mount -t tarn LOWER MOUNTPOINT' and for lines of fstab.
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "base/print_error.h"
#include "base/standard_fds.h"
#include "client/site.h"
#include "packaging/mount/mount_call.h"
#include "packaging/mount/umount_note.h"
#include "tarn/mounting.h"
#include "tarn/start_tarnd.h"

namespace tarn {
namespace {

int fail(const Error &error, MountExit status) {
  const bool tarnd_s = error.text.starts_with("tarnd:");
  print_error("{}{}\n", tarnd_s ? "" : "mount.tarn: ", error.text);
  return status;
}

std::string joined(const std::vector<std::string> &options) {
  std::string text;
  for (const std::string &option : options) text += (text.empty() ? "" : ",") + option;
  return text;
}

/* The module is in the running kernel: mount(8) mounts it like every other file system, with the
 * options as they are. */
int mount_in_kernel(const MountCall &call) {
  std::vector<std::string> words = {"mount", "-i", "-t", "tarn"};
  if (call.fake) words.emplace_back("-f");
  if (call.no_mtab) words.emplace_back("-n");
  if (call.sloppy) words.emplace_back("-s");
  if (call.verbose) words.emplace_back("-v");
  if (!call.options.empty()) words.insert(words.end(), {"-o", joined(call.options)});
  words.insert(words.end(), {"--", call.lower, call.mountpoint});
  std::vector<char *> arguments;
  for (std::string &word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  return fail(system_error(errno, "cannot start mount(8)"), kMountSystem);
}

int mount_in_tarnd(const Site &site, const MountCall &call) {
  const auto cache = check_options(call, geteuid() == 0);
  if (!cache) return fail(cache.error(), kMountUsage);
  if (call.fake) {
    for (const auto &found : {mount_directory(call.lower, "lower directory"),
                              mount_directory(call.mountpoint, "mount point")})
      if (!found) return fail(found.error(), kMountFailed);
    return kMountOk;
  }
  const auto mounted = mount_at(site, call.lower, call.mountpoint, *cache);
  if (!mounted) return fail(mounted.error(), kMountFailed);
  if (const auto noted = note_umount_helper(call.lower, call.mountpoint); !noted)
    print_error("mount.tarn: note: umount(8) will not wait for tarnd: {}\n", noted.error().text);
  return kMountOk;
}

int run(int argc, char **argv) {
  const auto call = read_mount_call(argc, argv);
  if (!call) return fail(call.error(), kMountUsage);
  if (!*call) return kMountOk;
  const Site site = find_site();
  return site.in_kernel() ? mount_in_kernel(**call) : mount_in_tarnd(site, **call);
}

}  // namespace
}  // namespace tarn

int main(int argc, char **argv) {
  tarn::hold_standard_descriptors();
  return tarn::run(argc, argv);
}
