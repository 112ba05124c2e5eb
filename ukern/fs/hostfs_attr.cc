// SPDX-License-Identifier: GPL-2.0
// hostfs: attributes, permissions, extended attributes, symbolic links.
#include "ukern/fs/hostfs_internal.h"

#include <linux/err.h>
#include <linux/limits.h>
#include <linux/mm.h>
#include <linux/namei.h>
#include <linux/signal.h>
#include <linux/slab.h>

struct host_identity hostfs_caller(void) {
  const struct group_info *groups = current->group_info;
  struct host_identity as = {current->fsuid, current->fsgid, 0, nullptr, current->cap_effective};
  if (groups) {
    as.ngroups = static_cast<unsigned>(groups->ngroups);
    as.groups = groups->gids;
  }
  return as;
}

int hostfs_permission(struct inode *inode, int mask, struct nameidata *nd) {
  mask &= MAY_READ | MAY_WRITE | MAY_EXEC;
  if (!mask) return 0;
  const host_identity as = hostfs_caller();
  if (host_fs_can_be(&as)) {
    // The host checks more than the mode: access control lists, security modules, mounts. The
    // superuser may search every directory and change every name in it; if the host refuses, the
    // operation that follows fails. With `nd` a check for more than search may be access(2), which
    // no operation follows.
    const bool step = S_ISDIR(inode->i_mode) && (mask == MAY_EXEC || !nd);
    if (step && as.uid == 0 && capable(CAP_DAC_OVERRIDE)) return 0;
    // One call through stacked layers repeats checks on a directory; the host is asked once.
    unsigned long *granted = &hostfs_i(inode)->granted;
    if (request_is_granted(&current->request, granted, mask)) return 0;
    const hostfs_held held(inode);
    if (held.fd() < 0) return held.fd();
    const int error = host_fs_access(&as, held.fd(), mask);
    if (!error) request_grant(&current->request, granted, mask);
    if (error != -ENOSYS) return error;
  }
  return generic_permission(inode, mask, nullptr);
}

int hostfs_getattr(struct vfsmount *, struct dentry *dentry, struct kstat *stat) {
  struct inode *inode = dentry->d_inode;
  if (int error = hostfs_refresh_once(inode)) return error;
  generic_fillattr(inode, stat);
  return 0;
}

namespace {

int check_new_size(struct inode *inode, loff_t size) {
  const unsigned long limit = current->signal->rlim[RLIMIT_FSIZE].rlim_cur;
  if (size <= i_size_read(inode) || limit == RLIM_INFINITY ||
      static_cast<unsigned long>(size) <= limit)
    return 0;
  send_sig(SIGXFSZ, current, 0);
  return -EFBIG;
}

int set_size(const host_identity *as, struct inode *inode, int fd, loff_t size) {
  if (int error = check_new_size(inode, size)) return error;
  if (int error = host_fs_truncate(as, fd, static_cast<unsigned long long>(size))) return error;
  unmap_mapping_range(inode->i_mapping, size + PAGE_SIZE - 1, 0, 1);
  truncate_inode_pages(inode->i_mapping, size);
  return 0;
}

uk_time time_to_set(const struct timespec &time, bool given) {
  if (!given) return {0, HOST_TIME_NOW};
  return {time.tv_sec, static_cast<unsigned>(time.tv_nsec)};
}

int set_times(const host_identity *as, int fd, const struct iattr *attr) {
  const unsigned valid = attr->ia_valid;
  const bool atime = valid & ATTR_ATIME;
  // A truncation has set the modification time already.
  const bool mtime = (valid & ATTR_MTIME_SET) || ((valid & ATTR_MTIME) && !(valid & ATTR_SIZE));
  if (!atime && !mtime) return 0;
  const uk_time new_atime = time_to_set(attr->ia_atime, valid & ATTR_ATIME_SET);
  const uk_time new_mtime = time_to_set(attr->ia_mtime, valid & ATTR_MTIME_SET);
  return host_fs_utimes(as, fd, atime ? &new_atime : nullptr, mtime ? &new_mtime : nullptr);
}

// Owner before mode: a change of owner clears mode bits.
int apply(const host_identity *as, struct inode *inode, const struct iattr *attr) {
  const unsigned valid = attr->ia_valid;
  const hostfs_held held(inode);
  const int fd = held.fd();
  if (fd < 0) return fd;
  int error = 0;
  if (valid & (ATTR_UID | ATTR_GID))
    error = host_fs_chown(as, fd, valid & ATTR_UID ? attr->ia_uid : ~0u,
                          valid & ATTR_GID ? attr->ia_gid : ~0u);
  if (!error && (valid & ATTR_MODE)) error = host_fs_chmod(as, fd, attr->ia_mode & 07777u);
  if (!error && (valid & ATTR_SIZE)) error = set_size(as, inode, fd, attr->ia_size);
  if (!error) error = set_times(as, fd, attr);
  return error;
}

}  // namespace

int hostfs_setattr(struct dentry *dentry, struct iattr *attr) {
  struct inode *inode = dentry->d_inode;
  if (int error = hostfs_refresh_once(inode)) return error;
  if (int error = inode_change_ok(inode, attr)) return error;
  // A forced change is made by the kernel, not as the caller.
  const host_identity caller = hostfs_caller();
  const int error = apply(attr->ia_valid & ATTR_FORCE ? nullptr : &caller, inode, attr);
  const int refresh_error = hostfs_refresh(inode);
  __atomic_store_n(&hostfs_i(inode)->granted, 0, __ATOMIC_RELAXED);
  return error ? error : refresh_error;
}

// Access control lists can be read but not set. Programs that cannot set one (cp -p among them) set
// the mode instead, and a layer above can see a change of mode.
static bool is_access_list(const char *name) {
  static const char prefix[] = "system.posix_acl_";
  return strncmp(name, prefix, sizeof(prefix) - 1) == 0;
}

int hostfs_setxattr(struct dentry *dentry, const char *name, const void *value, size_t size,
                    int flags) {
  if (is_access_list(name)) return -EOPNOTSUPP;
  const hostfs_held held(dentry->d_inode);
  if (held.fd() < 0) return held.fd();
  const host_identity as = hostfs_caller();
  return host_fs_setxattr(&as, held.fd(), name, value, size, flags);
}

ssize_t hostfs_getxattr(struct dentry *dentry, const char *name, void *value, size_t size) {
  const hostfs_held held(dentry->d_inode);
  if (held.fd() < 0) return held.fd();
  const host_identity as = hostfs_caller();
  return host_fs_getxattr(&as, held.fd(), name, value, size);
}

ssize_t hostfs_listxattr(struct dentry *dentry, char *list, size_t size) {
  const hostfs_held held(dentry->d_inode);
  if (held.fd() < 0) return held.fd();
  const host_identity as = hostfs_caller();
  return host_fs_listxattr(&as, held.fd(), list, size);
}

int hostfs_removexattr(struct dentry *dentry, const char *name) {
  if (is_access_list(name)) return -EOPNOTSUPP;
  const hostfs_held held(dentry->d_inode);
  if (held.fd() < 0) return held.fd();
  const host_identity as = hostfs_caller();
  return host_fs_removexattr(&as, held.fd(), name);
}

static void *hostfs_follow_link(struct dentry *dentry, struct nameidata *nd) {
  // Errors are set as the link's text: a returned error pointer would mean that `nd` has been
  // released too.
  auto *text = static_cast<char *>(__getname());
  if (!text) {
    nd_set_link(nd, static_cast<char *>(ERR_PTR(-ENOMEM)));
    return nullptr;
  }
  const hostfs_held held(dentry->d_inode);
  const long length = held.fd() < 0 ? held.fd() : host_fs_readlink(held.fd(), text, PATH_MAX - 1);
  if (length < 0) {
    __putname(text);
    nd_set_link(nd, static_cast<char *>(ERR_PTR(length)));
    return nullptr;
  }
  text[length] = '\0';
  nd_set_link(nd, text);
  return text;
}

static void hostfs_put_link(struct dentry *, struct nameidata *, void *text) {
  if (text) __putname(text);
}

struct inode_operations hostfs_symlink_iops = {
    .readlink = generic_readlink,
    .follow_link = hostfs_follow_link,
    .put_link = hostfs_put_link,
    .permission = hostfs_permission,
    .setattr = hostfs_setattr,
    .getattr = hostfs_getattr,
    .setxattr = hostfs_setxattr,
    .getxattr = hostfs_getxattr,
    .listxattr = hostfs_listxattr,
    .removexattr = hostfs_removexattr,
};

struct inode_operations hostfs_file_iops = {
    .permission = hostfs_permission,
    .setattr = hostfs_setattr,
    .getattr = hostfs_getattr,
    .setxattr = hostfs_setxattr,
    .getxattr = hostfs_getxattr,
    .listxattr = hostfs_listxattr,
    .removexattr = hostfs_removexattr,
};
