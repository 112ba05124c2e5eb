// SPDX-License-Identifier: GPL-2.0
#include "ukern/host/host_fs.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// The capabilities for file access. The program needs none of them to switch identities.
constexpr unsigned bit(int capability) {
  return 1u << capability;
}
constexpr unsigned kFileCapabilities =
    bit(CAP_CHOWN) | bit(CAP_DAC_OVERRIDE) | bit(CAP_DAC_READ_SEARCH) | bit(CAP_FOWNER) |
    bit(CAP_FSETID) | bit(CAP_LINUX_IMMUTABLE) | bit(CAP_SYS_ADMIN) | bit(CAP_SYS_RESOURCE) |
    bit(CAP_MKNOD) | bit(CAP_LEASE) | bit(CAP_SETFCAP);

bool program_is_root() {
  static const bool root = geteuid() == 0;
  return root;
}

// The calling thread's identity for the host's file systems. Only what differs is changed, so that
// a thread that serves one user makes no extra system call.
class ThreadIdentity {
 public:
  void become(const host_identity *as) {
    if (!prepared_) prepare();
    if (!program_is_root()) return;
    if (as == nullptr) {
      // Groups do not matter to the superuser: a thread that has its rights already is not
      // switched.
      if (!own_ && (uid_ != own_uid_ || capabilities_ != own_file_capabilities())) {
        set(own_uid_, own_gid_, own_groups_.data(), own_groups_.size(), own_file_capabilities());
        own_ = true;
      }
      return;
    }
    static const unsigned no_group = 0;
    const unsigned *groups = as->ngroups ? as->groups : &no_group;  // never null
    const unsigned capabilities = as->capabilities & own_file_capabilities();
    const bool same_groups =
        as->ngroups == groups_.size() &&
        (groups_.empty() || std::equal(groups_.begin(), groups_.end(), groups));
    const bool same =
        !own_ && as->uid == uid_ && as->gid == gid_ && capabilities == capabilities_ && same_groups;
    if (same) return;
    set(as->uid, as->gid, groups, as->ngroups, capabilities);
    groups_.assign(groups, groups + as->ngroups);
    uid_ = as->uid;
    gid_ = as->gid;
    capabilities_ = capabilities;
    own_ = false;
  }

 private:
  void prepare() {
    // The kernel has applied the caller's umask already; the thread's own must not apply as well.
    if (unshare(CLONE_FS) == 0) umask(0);
    own_uid_ = geteuid();
    own_gid_ = getegid();
    own_groups_.resize(static_cast<size_t>(getgroups(0, nullptr)));
    own_groups_.resize(
        static_cast<size_t>(getgroups(static_cast<int>(own_groups_.size()), own_groups_.data())));
    __user_cap_header_struct head = {_LINUX_CAPABILITY_VERSION_3, 0};
    if (syscall(SYS_capget, &head, own_capabilities_) != 0) give_up("capget");
    prepared_ = true;
  }

  // The most that a thread can have: in a container the program may lack some itself.
  unsigned own_file_capabilities() const {
    return own_capabilities_[0].effective & kFileCapabilities;
  }

  // By system call: libc's setgroups would change every thread of the program. setfsuid changes
  // file capabilities itself, so they are set after it.
  void set(unsigned uid, unsigned gid, const unsigned *groups, size_t ngroups,
           unsigned capabilities) {
    syscall(SYS_setgroups, ngroups, groups);
    setfsgid(gid);
    setfsuid(uid);
    __user_cap_data_struct wanted[2] = {own_capabilities_[0], own_capabilities_[1]};
    wanted[0].effective &= ~kFileCapabilities | capabilities;
    __user_cap_header_struct head = {_LINUX_CAPABILITY_VERSION_3, 0};
    // Going on would give the caller another identity's rights.
    if (syscall(SYS_capset, &head, wanted) != 0) give_up("capset");
  }

  [[noreturn]] static void give_up(const char *call) {
    std::fprintf(stderr, "a thread cannot be given its caller's rights: %s: %s\n", call,
                 std::strerror(errno));
    std::abort();
  }

  bool prepared_ = false;
  bool own_ = true;
  unsigned uid_ = 0, gid_ = 0, capabilities_ = 0;
  std::vector<unsigned> groups_;
  unsigned own_uid_ = 0, own_gid_ = 0;
  std::vector<gid_t> own_groups_;
  __user_cap_data_struct own_capabilities_[2] = {};
};

thread_local ThreadIdentity identity;

template <typename T>
T result(T value) {
  return value < 0 ? static_cast<T>(-errno) : value;
}

// The path of a descriptor's object in /proc, for calls that need a path.
struct FdPath {
  explicit FdPath(int fd) { std::snprintf(text, sizeof text, "/proc/self/fd/%d", fd); }
  char text[32];
};

// A path descriptor of an open object, even if its name is gone.
int path_descriptor(int fd) {
  const int path = open_tree(fd, "", AT_EMPTY_PATH | OPEN_TREE_CLOEXEC);
  return path >= 0 ? path : result(open(FdPath(fd).text, O_PATH | O_CLOEXEC));
}

uk_time time_from(const statx_timestamp &time) {
  return {time.tv_sec, time.tv_nsec};
}

int stat_of(int dir, const char *name, int flags, uk_stat *to) {
  struct statx from;
  constexpr unsigned kWanted = STATX_BASIC_STATS | STATX_MNT_ID;
  if (statx(dir, name, flags | AT_NO_AUTOMOUNT, kWanted, &from) != 0) return -errno;
  *to = {};
  to->dev = makedev(from.stx_dev_major, from.stx_dev_minor);
  to->ino = from.stx_ino;
  to->size = from.stx_size;
  to->blocks = from.stx_blocks;
  to->mount = from.stx_mask & STATX_MNT_ID ? from.stx_mnt_id : 0;
  to->mode = from.stx_mode;
  to->nlink = from.stx_nlink;
  to->uid = from.stx_uid;
  to->gid = from.stx_gid;
  to->blksize = from.stx_blksize;
  to->rdev = makedev(from.stx_rdev_major, from.stx_rdev_minor);
  to->atime = time_from(from.stx_atime);
  to->mtime = time_from(from.stx_mtime);
  to->ctime = time_from(from.stx_ctime);
  return 0;
}

timespec time_of(const uk_time *time) {
  if (time == nullptr) return {0, UTIME_OMIT};
  if (time->nsec == HOST_TIME_NOW) return {0, UTIME_NOW};
  return {static_cast<time_t>(time->sec), static_cast<long>(time->nsec)};
}

// Whether the file system's handles are valid as long as the object exists. Others have none, or
// handles that are valid only while the object is in memory, and cannot be told apart.
bool has_lasting_handles(int fd) {
  struct statfs st;
  if (fstatfs(fd, &st) != 0) return false;
  switch (static_cast<unsigned>(st.f_type)) {
    case EXT4_SUPER_MAGIC:  // and ext2, ext3
    case XFS_SUPER_MAGIC:
    case BTRFS_SUPER_MAGIC:
    case F2FS_SUPER_MAGIC:
    case TMPFS_MAGIC:
      return true;
    default:
      return false;
  }
}

// A handle in the system calls' format.
union HandleBuffer {
  file_handle handle;
  char bytes[sizeof(file_handle) + HOST_HANDLE_ROOM];
};

// Repeats a call that a signal to the program interrupted before it did anything.
template <typename Call>
auto uninterrupted(Call call) {
  for (;;) {
    auto value = call();
    if (value >= 0 || errno != EINTR) return result(value);
  }
}

// The system's limit of descriptors per program; 0 if unknown.
rlim_t system_descriptor_limit() {
  unsigned long most = 0;
  if (FILE *file = std::fopen("/proc/sys/fs/nr_open", "re")) {
    if (std::fscanf(file, "%lu", &most) != 1) most = 0;
    std::fclose(file);
  }
  return most;
}

}  // namespace

long host_fs_start(void) {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return -errno;
  // Only root may exceed the hard limit.
  for (const rlim_t wanted : {system_descriptor_limit(), limit.rlim_max}) {
    if (limit.rlim_cur >= wanted) continue;
    const rlimit raised = {wanted, std::max(wanted, limit.rlim_max)};
    if (setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
  }
  return limit.rlim_cur > LONG_MAX ? LONG_MAX : static_cast<long>(limit.rlim_cur);
}

int host_fs_can_be(const host_identity *as) {
  return program_is_root() || as->uid == geteuid();
}

int host_fs_root(const char *path) {
  return result(open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

int host_fs_lookup(const host_identity *as, int dir, const char *name) {
  identity.become(as);
  return result(openat(dir, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

void host_fs_close(int fd) {
  close(fd);
}

int host_fs_handle(int fd, host_handle *out) {
  HandleBuffer room = {};
  room.handle.handle_bytes = HOST_HANDLE_ROOM;
  int mount;
  if (name_to_handle_at(fd, "", &room.handle, &mount, AT_EMPTY_PATH) != 0) return -errno;
  *out = {};
  out->type = room.handle.handle_type;
  out->length = room.handle.handle_bytes;
  std::memcpy(out->bytes, room.handle.f_handle, out->length);
  return 0;
}

int host_fs_reopen(int origin, const host_handle *handle) {
  HandleBuffer room = {};
  room.handle.handle_type = handle->type;
  room.handle.handle_bytes = handle->length;
  std::memcpy(room.handle.f_handle, handle->bytes, handle->length);
  identity.become(nullptr);
  return result(open_by_handle_at(origin, &room.handle, O_PATH | O_CLOEXEC));
}

int host_fs_origin(int fd) {
  host_handle handle;
  if (!has_lasting_handles(fd) || host_fs_handle(fd, &handle) != 0) return -EOPNOTSUPP;
  const int origin = host_fs_open(fd, HOST_OPEN_DIR);
  if (origin < 0) return origin;
  const int again = host_fs_reopen(origin, &handle);
  if (again >= 0) {
    close(again);
    return origin;
  }
  close(origin);
  return -EOPNOTSUPP;
}

int host_fs_stat(int fd, uk_stat *out) {
  return stat_of(fd, "", AT_EMPTY_PATH, out);
}

int host_fs_stat_name(const host_identity *as, int dir, const char *name, uk_stat *out) {
  identity.become(as);
  return stat_of(dir, name, AT_SYMLINK_NOFOLLOW, out);
}

int host_fs_statfs(int fd, uk_statfs *out) {
  struct statfs st;
  if (fstatfs(fd, &st) != 0) return -errno;
  *out = {};
  out->blocks = st.f_blocks;
  out->bfree = st.f_bfree;
  out->bavail = st.f_bavail;
  out->files = st.f_files;
  out->ffree = st.f_ffree;
  std::memcpy(&out->fsid, &st.f_fsid, sizeof out->fsid);
  out->type = st.f_type;
  out->bsize = st.f_bsize;
  out->namelen = st.f_namelen;
  out->frsize = st.f_frsize;
  return 0;
}

int host_fs_access(const host_identity *as, int fd, int mask) {
  identity.become(as);
  // Not libc's function, which answers some cases without asking the kernel.
  return result(
      static_cast<int>(syscall(SYS_faccessat2, fd, "", mask, AT_EACCESS | AT_EMPTY_PATH)));
}

long host_fs_readlink(int fd, char *buf, unsigned long size) {
  return result(static_cast<long>(readlinkat(fd, "", buf, size)));
}

int host_fs_create(const host_identity *as, int dir, const char *name, unsigned mode, int *data) {
  identity.become(as);
  constexpr int kNew = O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  const int made = openat(dir, name, (data ? O_RDWR : O_RDONLY) | kNew, mode);
  if (made < 0) return -errno;
  const int fd = path_descriptor(made);
  if (data && fd >= 0) {
    *data = made;
  } else {
    close(made);
  }
  return fd;
}

int host_fs_mkdir(const host_identity *as, int dir, const char *name, unsigned mode) {
  identity.become(as);
  return result(mkdirat(dir, name, mode));
}

int host_fs_mknod(const host_identity *as, int dir, const char *name, unsigned mode, unsigned major,
                  unsigned minor) {
  identity.become(as);
  return result(mknodat(dir, name, mode, makedev(major, minor)));
}

int host_fs_symlink(const host_identity *as, int dir, const char *name, const char *target) {
  identity.become(as);
  return result(symlinkat(target, dir, name));
}

int host_fs_link(const host_identity *as, int fd, int dir, const char *name) {
  identity.become(as);
  return result(linkat(AT_FDCWD, FdPath(fd).text, dir, name, AT_SYMLINK_FOLLOW));
}

int host_fs_unlink(const host_identity *as, int dir, const char *name) {
  identity.become(as);
  return result(unlinkat(dir, name, 0));
}

int host_fs_rmdir(const host_identity *as, int dir, const char *name) {
  identity.become(as);
  return result(unlinkat(dir, name, AT_REMOVEDIR));
}

int host_fs_rename(const host_identity *as, int old_dir, const char *old_name, int new_dir,
                   const char *new_name) {
  identity.become(as);
  return result(renameat(old_dir, old_name, new_dir, new_name));
}

int host_fs_chmod(const host_identity *as, int fd, unsigned mode) {
  identity.become(as);
  // fchmodat2 needs no path; its number is the same on every architecture.
  constexpr long kFchmodat2 = 452;
  static std::atomic<bool> by_path = false;
  if (!by_path) {
    const long error = syscall(kFchmodat2, fd, "", mode & 07777, AT_EMPTY_PATH);
    if (error == 0 || (errno != ENOSYS && errno != EINVAL)) return result(static_cast<int>(error));
    by_path = true;
  }
  return result(chmod(FdPath(fd).text, mode & 07777));
}

int host_fs_chown(const host_identity *as, int fd, unsigned uid, unsigned gid) {
  identity.become(as);
  return result(fchownat(fd, "", uid, gid, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW));
}

int host_fs_truncate(const host_identity *as, int fd, unsigned long long size) {
  // The caller's permission was checked when the file was opened or the path walked.
  const int data = host_fs_open(fd, HOST_OPEN_WRITE);
  if (data < 0) return data;
  identity.become(as);
  const int error = uninterrupted([&] { return ftruncate(data, static_cast<off_t>(size)); });
  close(data);
  return error;
}

int host_fs_utimes(const host_identity *as, int fd, const uk_time *atime, const uk_time *mtime) {
  identity.become(as);
  const timespec times[2] = {time_of(atime), time_of(mtime)};
  // Without a path since Linux 5.8: a third of the time.
  static std::atomic<bool> by_path = false;
  if (!by_path) {
    const int error = utimensat(fd, "", times, AT_EMPTY_PATH);
    if (error == 0 || errno != EINVAL) return result(error);
    by_path = true;
  }
  return result(utimensat(AT_FDCWD, FdPath(fd).text, times, 0));
}

int host_fs_setxattr(const host_identity *as, int fd, const char *name, const void *value,
                     unsigned long size, int flags) {
  identity.become(as);
  return result(setxattr(FdPath(fd).text, name, value, size, flags));
}

long host_fs_getxattr(const host_identity *as, int fd, const char *name, void *value,
                      unsigned long size) {
  identity.become(as);
  return result(static_cast<long>(getxattr(FdPath(fd).text, name, value, size)));
}

long host_fs_listxattr(const host_identity *as, int fd, char *list, unsigned long size) {
  identity.become(as);
  return result(static_cast<long>(listxattr(FdPath(fd).text, list, size)));
}

int host_fs_removexattr(const host_identity *as, int fd, const char *name) {
  identity.become(as);
  return result(removexattr(FdPath(fd).text, name));
}

int host_fs_open(int fd, host_open_mode mode) {
  identity.become(nullptr);
  switch (mode) {
    case HOST_OPEN_DIR:
      return result(openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    case HOST_OPEN_READ:
      return result(open(FdPath(fd).text, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    case HOST_OPEN_WRITE:
      return result(open(FdPath(fd).text, O_WRONLY | O_CLOEXEC | O_NONBLOCK));
    case HOST_OPEN_READ_WRITE:
      return result(open(FdPath(fd).text, O_RDWR | O_CLOEXEC | O_NONBLOCK));
  }
  return -EINVAL;
}

int host_fs_make_writable(int fd, int data) {
  const int writable = host_fs_open(fd, HOST_OPEN_READ_WRITE);
  if (writable < 0) return writable;
  const int error = dup3(writable, data, O_CLOEXEC) < 0 ? -errno : 0;
  close(writable);
  return error;
}

// By system call, as below: libc's functions are cancellation points, which costs time.
long host_fs_pread(int fd, void *buf, unsigned long len, unsigned long long pos) {
  return uninterrupted([&] { return syscall(SYS_pread64, fd, buf, len, pos); });
}

long host_fs_pwrite(const host_identity *as, int fd, const void *buf, unsigned long len,
                    unsigned long long pos) {
  identity.become(as);
  return uninterrupted([&] { return syscall(SYS_pwrite64, fd, buf, len, pos); });
}

long host_fs_append(const host_identity *as, int fd, const void *buf, unsigned long len,
                    unsigned long long *end) {
  identity.become(as);
  const iovec part = {const_cast<void *>(buf), len};
  // Offset -1 advances the descriptor's own position, which then is the end of the data written.
  const long written =
      uninterrupted([&] { return static_cast<long>(pwritev2(fd, &part, 1, -1, RWF_APPEND)); });
  if (written < 0) return written;
  const off_t at = lseek(fd, 0, SEEK_CUR);
  if (at < 0) return -errno;
  *end = static_cast<unsigned long long>(at);
  return written;
}

int host_fs_sync(int fd, int datasync) {
  return uninterrupted([&] { return datasync ? fdatasync(fd) : fsync(fd); });
}

long host_fs_getdents(int fd, unsigned long long pos, void *buf, unsigned long size) {
  if (lseek(fd, static_cast<off_t>(pos), SEEK_SET) < 0) return -errno;
  return result(static_cast<long>(syscall(SYS_getdents64, fd, buf, size)));
}
