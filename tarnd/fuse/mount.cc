// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/mount.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "base/mount_table.h"
#include "base/print_error.h"
#include "tarnd/fuse/fuse_ops.h"
#include "tarnd/process/task.h"

namespace tarnd {

using tarn::Error;
using tarn::Result;
using tarn::system_error;
using tarn::UniqueFd;

static constexpr char kType[] = "tarn";
static constexpr int kDetach = 2;  // MNT_DETACH of umount2

// libfuse reports the reason of a failed mount only to its log function.
static thread_local std::string last_fuse_message;

static void log_fuse_message(fuse_log_level, const char *format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof(text), format, args);
  last_fuse_message = text;
  while (!last_fuse_message.empty() && last_fuse_message.back() == '\n')
    last_fuse_message.pop_back();
  tarn::print_error("{}\n", last_fuse_message);
}

// For users other than root the mount helper prints the reason to our standard error.
static std::string mount_failure(int err) {
  if (!last_fuse_message.empty()) return last_fuse_message;
  return geteuid() == 0 ? std::strerror(err)
                        : "fusermount3 refused; its reason is in tarnd.log, or on the terminal of "
                          "a tarnd in the foreground";
}

static Result<void> require_directory(const std::string &what, const std::string &path) {
  struct stat st;
  int err = 0;
  if (stat(path.c_str(), &st) != 0) {
    err = errno;
  } else if (!S_ISDIR(st.st_mode)) {
    err = ENOTDIR;
  }
  return err ? system_error(err, what + " " + path) : Result<void>();
}

Result<std::unique_ptr<Mount>> Mount::make(const std::string &lower, const std::string &mountpoint,
                                           std::chrono::milliseconds cache, Guardian *guardian) {
  std::unique_ptr<Mount> mount(new Mount(lower, mountpoint, cache, guardian));
  if (auto started = mount->start(); !started) return started.error();
  return mount;
}

Result<void> Mount::start() {
  if (auto taken = remove_dead_mount(); !taken) return taken;
  if (auto lower = require_directory("lower directory", lower_); !lower) return lower;
  if (auto place = require_directory("mount point", mountpoint_); !place) return place;
  if (auto below = mount_kernel(); !below) return below;
  return mount_host();
}

// Removes the dead mount of a killed tarnd.
Result<void> Mount::remove_dead_mount() {
  if (!is_dead_tarn_mount(mountpoint_)) return {};
  if (const int err = unmount_host(mountpoint_, Detach::kLazily); err != 0)
    return system_error(-err, "cannot unmount the dead mount of a killed tarnd on " + mountpoint_);
  return {};
}

void Mount::end() {
  if (evictor_) evictor_->stop();
  if (listings_) listings_->stop();
  close_session();
  unmount_kernel();
}

Result<void> Mount::mount_kernel() {
  const Task task(service_identity());
  const ActAs act(task);
  int err = uk_fs_mount(lower_.c_str(), mountpoint_.c_str(), kType, 0, nullptr);
  if (err == 0) {
    err = uk_node_at(mountpoint_.c_str(), &root_);
    if (err) uk_fs_umount(mountpoint_.c_str(), kDetach);
  }
  if (err) return system_error(-err, "cannot mount " + lower_ + " on " + mountpoint_);
  return {};
}

void Mount::unmount_kernel() {
  if (!root_) return;
  const Task task(service_identity());
  const ActAs act(task);
  lookups_.clear();
  uk_node_put(root_, 1);
  root_ = nullptr;
  int err = uk_fs_umount(mountpoint_.c_str(), 0);
  if (err == -EBUSY) {
    // Unused dentries may pin it, if the lower directory contains the mount point.
    uk_drop_caches();
    err = uk_fs_umount(mountpoint_.c_str(), 0);
  }
  // Another mount whose lower directory is in this one keeps it busy: it goes with that mount.
  if (err == -EBUSY) err = uk_fs_umount(mountpoint_.c_str(), kDetach);
  if (err)
    tarn::print_error("tarnd: {}\n", system_error(-err, mountpoint_ + " is not unmounted").text);
  // Unused dentries of the lower directory have descriptors, which would keep the host's file
  // system there mounted.
  uk_drop_caches();
}

namespace {

class Arguments {
 public:
  Arguments() { add("tarnd"); }
  ~Arguments() { fuse_opt_free_args(&args_); }
  Arguments(const Arguments &) = delete;
  Arguments &operator=(const Arguments &) = delete;

  void add(const std::string &argument) {
    if (fuse_opt_add_arg(&args_, argument.c_str()) != 0) throw std::bad_alloc();
  }
  fuse_args *get() { return &args_; }

 private:
  fuse_args args_ = FUSE_ARGS_INIT(0, nullptr);
};

}  // namespace

// The value of a mount option, with commas and backslashes escaped.
static std::string escaped(const std::string &value) {
  std::string out;
  for (const char c : value) {
    if (c == ',' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

// Does a mount inside the directory (a canonical path) have the option?
static bool forbidden_inside(std::string inside, const std::string &option) {
  if (inside != "/") inside += '/';
  for (const tarn::MountEntry &mount : tarn::mount_table())
    if (mount.mountpoint.starts_with(inside) && mount.has_option(option)) return true;
  return false;
}

// The noexec, nosuid and nodev options of the lower file system apply to our mount too. Further
// file systems mounted inside the lower directory are visible through our mount, which has one set
// of options: the strictest of all. For users other than root nosuid and nodev are always set.
static Result<std::string> forbidden_below(const std::string &lower) {
  struct statvfs st;
  if (statvfs(lower.c_str(), &st) != 0) return system_error(errno, "lower directory " + lower);
  const std::string options = st.f_flag & ST_NOEXEC ? ",noexec" : "";
  if (geteuid() != 0) return options;
  std::error_code error;
  const std::string whole = std::filesystem::canonical(lower, error).string();
  if (error) return system_error(error.value(), "lower directory " + lower);
  const bool no_suid = (st.f_flag & ST_NOSUID) || forbidden_inside(whole, "nosuid");
  const bool no_dev = (st.f_flag & ST_NODEV) || forbidden_inside(whole, "nodev");
  return options + (no_suid ? ",nosuid" : ",suid") + (no_dev ? ",nodev" : ",dev");
}

// A descriptor for which poll() returns POLLERR.
static Result<UniqueFd> pipe_without_reader() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return system_error(errno, "cannot make a pipe");
  close(ends[0]);
  return UniqueFd(ends[1]);
}

Result<void> Mount::mount_host() {
  auto ended = pipe_without_reader();
  if (!ended) return ended.error();
  ended_ = std::move(*ended);
  if (auto mounted = mount_session(); !mounted) return mounted;
  if (const int err = interpose_session_io(session_); err != 0)
    return system_error(-err, "cannot serve " + mountpoint_);
  loop_ = std::make_unique<SessionLoop>(session_);
  evictor_ = std::make_unique<Evictor>(this);
  const auto time =
      std::chrono::round<std::chrono::milliseconds>(std::chrono::duration<double>(timeouts_.entry));
  listings_ = std::make_unique<ListingCache>(time, [this](uk_node *directory) {
    fuse_lowlevel_notify_inval_inode(session_, ino_of(directory), 0, 0);
  });
  return {};
}

Result<void> Mount::mount_session() {
  const auto forbidden = forbidden_below(lower_);
  if (!forbidden) return forbidden.error();
  fuse_set_log_func(log_fuse_message);
  Arguments args;
  args.add("-ofsname=" + escaped(lower_));
  args.add(std::string("-osubtype=") + kType);
  // default_permissions: an open of a FIFO, a socket or a device sends no request, so only the host
  // can check it.
  args.add("-odefault_permissions" + *forbidden);
  // only root may allow other users
  if (geteuid() == 0) args.add("-oallow_other");

  last_fuse_message.clear();
  session_ = fuse_session_new(args.get(), &fuse_operations(), sizeof(fuse_lowlevel_ops), this);
  if (!session_) return Error{-EINVAL, "cannot create a session: " + last_fuse_message};
  guardian_->watch(mountpoint_);
  if (fuse_session_mount(session_, mountpoint_.c_str()) != 0) {
    const int err = errno ? errno : EIO;
    detached_ = true;
    return Error{-err, "cannot mount on " + mountpoint_ + ": " + mount_failure(err)};
  }
  return {};
}

void Mount::stop() {
  evictor_->stop();
  listings_->stop();
  loop_->stop();
}

// libfuse unmounts by path unless poll() reports an error on the session's descriptor. After a
// detach the path may have another mount, so the descriptor is replaced by one with that error.
bool Mount::end_connection(int fuse_fd) {
  while (dup3(ended_.get(), fuse_fd, O_CLOEXEC) < 0)
    if (errno != EINTR && errno != EBUSY) return false;
  return true;
}

void Mount::close_session() {
  if (!session_) return;
  const int fd = fuse_session_fd(session_);
  // On failure the session's copy of the path leaks, but no other mount is affected.
  if (!detached_ || fd < 0 || end_connection(fd)) fuse_session_unmount(session_);
  fuse_session_destroy(session_);
  session_ = nullptr;
  guardian_->forget(mountpoint_);
}

}  // namespace tarnd
