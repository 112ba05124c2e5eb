// SPDX-License-Identifier: GPL-2.0
// Debug builds: the reference logs of dentries, inodes, mounts and super blocks, and reports of
// those that are in use when they should be gone, with the call stacks of their references.

#include "ukern/vfs/dcache_internal.h"
#include "ukern/vfs/inode_internal.h"
#include "ukern/vfs/mount_internal.h"
#include "ukern/vfs/super_internal.h"

#include <linux/string.h>
#include <linux/writeback.h>

#include "ukern/sync/guard.h"
#include "ukern/sync/reflog.h"

static const int kMaxShown = 16;  // objects per report; the rest are only counted

// The path of a dentry inside its file system, cut at the front if it is very long.
struct fs_path {
  char text[200];
  const char *start;

  explicit fs_path(struct dentry *dentry) {
    char *at = text + sizeof(text) - 1;
    *at = 0;
    for (; !IS_ROOT(dentry); dentry = dentry->d_parent) {
      const unsigned len = dentry->d_name.len;
      if (static_cast<size_t>(at - text) < len + 1) break;
      at -= len;
      memcpy(at, dentry->d_name.name, len);
      *--at = '/';
    }
    start = *at ? at : "/";
  }
};

// One report that begins when the first object is found.
struct busy_list {
  const char *title;
  struct super_block *sb;
  struct bug_report *report = nullptr;
  int count = 0;

  busy_list(const char *title_, struct super_block *sb_) : title(title_), sb(sb_) {}
  // Counts an object; true if it is to be shown.
  bool add() {
    if (!report) {
      report = sb ? report_begin("%s after unmount of %s", title, sb->s_id)
                  : report_begin("%s at shutdown", title);
    }
    return ++count <= kMaxShown;
  }
  int end() {
    if (count > kMaxShown) report_line(report, "and %d more", count - kMaxShown);
    if (report) report_end(report);
    return count;
  }
};

static const char *kind_of(struct inode *inode) {
  if (!inode) return "negative";
  if (S_ISDIR(inode->i_mode)) return "directory";
  return S_ISREG(inode->i_mode) ? "file" : "special";
}

static void report_underflow(const char *what, const struct reflog *log) {
  struct bug_report *report = report_begin("%s: a reference is dropped that nobody holds", what);
  report_here(report);
  report_reflog(report, log);
  report_end(report);
}

// A drop is logged before the count changes, a take after.
static int count_after(atomic_t *count, int change) {
  return atomic_read(count) - (change < 0 ? 1 : 0);
}

void ukern_dentry_ref(struct dentry *dentry, int change) {
  const int count = count_after(&dentry->d_count, change);
  if (count < 0) {
    char what[64];
    snprintf(what, sizeof(what), "dentry \"%s\"",
             reinterpret_cast<const char *>(dentry->d_name.name));
    report_underflow(what, dentry->d_reflog);
  }
  reflog_note(&dentry->d_reflog, change, count);
}

void ukern_dentry_forget(struct dentry *dentry) {
  reflog_free(dentry->d_reflog);
}

void ukern_inode_ref(struct inode *inode, int change) {
  const int count = count_after(&inode->i_count, change);
  if (count < 0) {
    char what[64];
    snprintf(what, sizeof(what), "inode %lu of %s", inode->i_ino, inode->i_sb->s_id);
    report_underflow(what, inode->i_reflog);
  }
  reflog_note(&inode->i_reflog, change, count);
}

void ukern_inode_forget(struct inode *inode) {
  reflog_free(inode->i_reflog);
  inode->i_reflog = nullptr;
}

void ukern_vfsmount_ref(struct vfsmount *mnt, int change) {
  const int count = count_after(&mnt->mnt_count, change);
  if (count < 0) {
    char what[64];
    snprintf(what, sizeof(what), "mount of %s", mnt->mnt_devname ? mnt->mnt_devname : "none");
    report_underflow(what, mnt->mnt_reflog);
  }
  reflog_note(&mnt->mnt_reflog, change, count);
}

void ukern_vfsmount_forget(struct vfsmount *mnt) {
  reflog_free(mnt->mnt_reflog);
}

void ukern_super_ref(struct super_block *sb, int change) {
  reflog_note(&sb->s_reflog, change, count_after(&sb->s_active, change));
}

void ukern_super_forget(struct super_block *sb) {
  reflog_free(sb->s_reflog);
}

static int children(struct dentry *dentry) {
  struct dentry *child;
  int count = 0;
  list_for_each_entry(child, &dentry->d_subdirs, d_u.d_child) count++;
  return count;
}

int dcache_report_busy(struct dentry *root, int spare) {
  struct busy_list busy("dentries in use", root->d_sb);

  {
    SpinGuard guard(dcache_lock);
    for (struct dentry *at = root; at; at = dentry_next_below(root, at)) {
      // Each child has a reference; any other has a user.
      const int users = atomic_read(&at->d_count) - children(at) - (at == root ? spare : 0);
      if (users <= 0 || !busy.add()) continue;
      const struct fs_path path(at);
      report_line(busy.report, "dentry %s (%s, inode %lu%s): %d reference%s not dropped",
                  path.start, kind_of(at->d_inode), at->d_inode ? at->d_inode->i_ino : 0,
                  d_unhashed(at) && !IS_ROOT(at) ? ", unhashed" : "", users, users > 1 ? "s" : "");
      report_reflog(busy.report, at->d_reflog);
    }
  }
  return busy.end();
}

int inode_report_busy(struct super_block *sb) {
  struct busy_list busy("inodes in use", sb);
  struct inode *inode;
  struct dentry *alias;

  {
    SpinGuard guard(dcache_lock);
    SpinGuard inode_guard(inode_lock);
    list_for_each_entry(inode, &sb->s_inodes, i_sb_list) {
      if (!busy.add()) continue;
      report_line(busy.report, "inode %lu (%s, %u links): %d references not dropped", inode->i_ino,
                  kind_of(inode), static_cast<unsigned>(inode->i_nlink),
                  atomic_read(&inode->i_count));
      list_for_each_entry(alias, &inode->i_dentry, d_alias)
          report_line(busy.report, "one by its dentry %s", fs_path(alias).start);
      report_reflog(busy.report, inode->i_reflog);
    }
  }
  return busy.end();
}

int mount_report_busy(void) {
  struct busy_list busy("mounts in use", nullptr);
  struct vfsmount *mnt;

  {
    SpinGuard guard(vfsmount_lock);
    list_for_each_entry(mnt, &ukern_all_mounts, mnt_all) {
      if (!busy.add()) continue;
      report_line(busy.report, "mount of %s (%s): %d references not dropped",
                  mnt->mnt_devname ? mnt->mnt_devname : "none",
                  mnt->mnt_sb ? mnt->mnt_sb->s_id : "no file system", atomic_read(&mnt->mnt_count));
      report_reflog(busy.report, mnt->mnt_reflog);
    }
  }
  return busy.end();
}

int super_report_busy(void) {
  struct busy_list busy("super blocks in use", nullptr);
  struct super_block *sb;

  {
    SpinGuard guard(sb_lock);
    list_for_each_entry(sb, &super_blocks, s_list) {
      if (!busy.add()) continue;
      report_line(busy.report, "super block of %s: active %d", sb->s_id,
                  atomic_read(&sb->s_active));
      report_reflog(busy.report, sb->s_reflog);
    }
  }
  return busy.end();
}
