// SPDX-License-Identifier: GPL-2.0
#include "packaging/mount/mount_call.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "base/text.h"
#include "base/version.h"
#include "module/os_public/Include/ox_ctl.h"

namespace tarn {
namespace {

constexpr char kCache[] = "cache=";

/* What a mount of tarn is anyway, and what is meant for mount(8) and systemd. */
constexpr std::array<std::string_view, 15> kWithoutEffect = {
    "defaults", "rw",     "suid",  "dev",   "exec",  "async",   "auto",  "noauto",
    "user",     "nouser", "users", "owner", "group", "_netdev", "nofail"};
constexpr std::array<std::string_view, 5> kForOthers = {"x-", "X-", "comment=", "user=", "helper="};

/* What the lower file system decides. */
constexpr std::array<std::string_view, 20> kOfLower = {
    "ro",         "nosuid",     "nodev",       "noexec",        "sync",
    "dirsync",    "atime",      "noatime",     "diratime",      "nodiratime",
    "relatime",   "norelatime", "strictatime", "nostrictatime", "lazytime",
    "nolazytime", "mand",       "nomand",      "iversion",      "noiversion"};

template <class List>
bool has(const List &list, std::string_view option) {
  return std::find(list.begin(), list.end(), option) != list.end();
}

bool for_others(std::string_view option) {
  return std::any_of(kForOthers.begin(), kForOthers.end(),
                     [&](std::string_view start) { return option.starts_with(start); });
}

Error wrong(std::string text) {
  return {-EINVAL, std::move(text)};
}

Result<double> read_cache(const std::string &option) {
  const std::string value = option.substr(sizeof(kCache) - 1);
  char *end = nullptr;
  const double seconds = std::strtod(value.c_str(), &end);
  constexpr double kMost = OX_CTL_CACHE_MAX / 1000.0;
  // Only digits and a dot: strtod() also takes "inf", "0x1" and blanks.
  const bool plain = value.find_first_not_of("0123456789.") == std::string::npos;
  if (value.empty() || !plain || *end != '\0' || seconds > kMost)
    return wrong(fmt::format("{} is not possible: it is a number of seconds, from 0 to {}",
                             printable(option), kMost));
  return seconds;
}

/* Parses the arguments. Returns false if they were --help or --version. */
Result<bool> parse(CLI::App &app, int argc, char **argv) {
  try {
    app.parse(argc, argv);
    return true;
  } catch (const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) {
      app.exit(error);
      return false;
    }
    const auto unknown = app.remaining(true);
    std::string text =
        unknown.empty() ? error.what() : printable(unknown.front()) + " is not known here";
    std::replace(text.begin(), text.end(), '\n', ' ');
    return wrong(fmt::format("{}: '{} --help' shows the usage", text, app.get_name()));
  }
}

void add_common(CLI::App &app, std::string &name_space, std::string &type) {
  app.set_version_flag("-V,--version", version_line(app.get_name()));
  app.add_option("-N", name_space, "Not possible: tarnd mounts in its own mount namespace")
      ->type_name("NAMESPACE");
  app.add_option("-t", type, "The type: tarn or fuse.tarn")->type_name("TYPE");
}

Result<void> check_common(const std::string &name_space, const std::string &type) {
  if (!name_space.empty())
    return wrong(
        "another mount namespace (-N) is not possible: enter it with nsenter(1), and "
        "mount there");
  if (!type.empty() && type != "tarn" && type != "fuse.tarn")
    return wrong(fmt::format("the type {} is not tarn's: it is tarn", printable(type)));
  return {};
}

}  // namespace

std::vector<std::string> split_options(std::string_view text) {
  std::vector<std::string> options(1);
  bool quoted = false;
  for (const char c : text) {
    if (c == '"') quoted = !quoted;
    if (c == ',' && !quoted)
      options.emplace_back();
    else
      options.back() += c;
  }
  std::erase(options, "");
  return options;
}

Result<std::optional<MountCall>> read_mount_call(int argc, char **argv) {
  MountCall call;
  std::string name_space, type;
  CLI::App app("Called by mount(8): mounts LOWER through tarn at MOUNTPOINT.", "mount.tarn");
  add_common(app, name_space, type);
  app.add_option("LOWER", call.lower, "The directory that holds the files")->required();
  app.add_option("MOUNTPOINT", call.mountpoint, "An existing directory where they appear")
      ->required();
  const auto *options = app.add_option("-o", "Mount options; mount.tarn(8) lists them")
                            ->type_name("OPTIONS")
                            ->expected(1)
                            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_flag("-f", call.fake, "Do everything but mount");
  app.add_flag("-n", call.no_mtab, "Do not write /etc/mtab");
  app.add_flag("-s", call.sloppy, "Ignore unknown mount options");
  app.add_flag("-v", call.verbose, "Say more");
  const auto parsed = parse(app, argc, argv);
  if (!parsed) return parsed.error();
  if (!*parsed) return std::optional<MountCall>();
  if (const auto checked = check_common(name_space, type); !checked) return checked.error();
  for (const std::string &text : options->results()) {
    const auto some = split_options(text);
    call.options.insert(call.options.end(), some.begin(), some.end());
  }
  return std::optional(std::move(call));
}

Result<std::optional<UmountCall>> read_umount_call(int argc, char **argv) {
  UmountCall call;
  std::string name_space, type;
  bool ignored = false;
  CLI::App app("Called by umount(8): unmounts MOUNTPOINT, and waits until tarnd has let go of it.",
               "umount.fuse.tarn");
  add_common(app, name_space, type);
  app.add_option("MOUNTPOINT", call.mountpoint, "Where it is mounted")->required();
  app.add_flag("-f", call.force, "Fail what programs wait for on it");
  app.add_flag("-l", call.lazy, "Even if programs still use it");
  app.add_flag("-n", ignored, "No effect: there is no /etc/mtab to write");
  app.add_flag("-r", ignored, "No effect: tarn has no read-only mounts");
  app.add_flag("-v", ignored, "No effect");
  const auto parsed = parse(app, argc, argv);
  if (!parsed) return parsed.error();
  if (!*parsed) return std::optional<UmountCall>();
  if (const auto checked = check_common(name_space, type); !checked) return checked.error();
  return std::optional(std::move(call));
}

Result<std::optional<double>> check_options(const MountCall &call, bool as_root) {
  // First: mount(8) gives it the options that the mount has already, too.
  if (has(call.options, "remount"))
    return wrong(
        fmt::format("cannot remount {}: unmount it, and mount it with the options that it is to "
                    "have",
                    printable(call.mountpoint)));
  std::optional<double> cache;
  for (const std::string &option : call.options) {
    if (has(kWithoutEffect, option) || for_others(option)) continue;
    if (!as_root && (option == "nosuid" || option == "nodev")) continue;
    if (has(kOfLower, option))
      return wrong(
          fmt::format("the option {} is not possible: a mount of tarn is as its lower file system "
                      "is; set it there",
                      option));
    if (option.starts_with(kCache)) {
      const auto seconds = read_cache(option);
      if (!seconds) return seconds.error();
      cache = *seconds;
    } else if (!call.sloppy) {
      return wrong(fmt::format("tarn knows no mount option {}: mount.tarn(8) lists them",
                               printable(option)));
    }
  }
  return cache;
}

}  // namespace tarn
