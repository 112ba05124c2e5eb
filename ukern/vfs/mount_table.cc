// SPDX-License-Identifier: GPL-2.0
// The mount table as text, one line per mount.

#include "ukern/vfs/mount_internal.h"

#include <linux/seq_file.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "ukern/sync/guard.h"

static char kBlanks[] = " \t\n\\";  // escaped in a field

struct flag_text {
  unsigned long flag;
  const char *text;
};

static const struct flag_text fs_flags[] = {
    {MS_SYNCHRONOUS, ",sync"},
    {MS_DIRSYNC, ",dirsync"},
    {MS_MANDLOCK, ",mand"},
};

static const struct flag_text mnt_flags[] = {
    {MNT_NOSUID, ",nosuid"},   {MNT_NODEV, ",nodev"},           {MNT_NOEXEC, ",noexec"},
    {MNT_NOATIME, ",noatime"}, {MNT_NODIRATIME, ",nodiratime"},
};

static int show_mount(struct seq_file *m, struct vfsmount *mnt) {
  struct super_block *sb = mnt->mnt_sb;
  int err = 0;

  seq_escape(m, mnt->mnt_devname ? mnt->mnt_devname : "none", kBlanks);
  seq_putc(m, ' ');
  seq_path(m, mnt, mnt->mnt_root, kBlanks);
  seq_putc(m, ' ');
  seq_escape(m, sb->s_type->name, kBlanks);
  seq_puts(m, sb->s_flags & MS_RDONLY ? " ro" : " rw");
  for (const struct flag_text &entry : fs_flags)
    if (sb->s_flags & entry.flag) seq_puts(m, entry.text);
  for (const struct flag_text &entry : mnt_flags)
    if (static_cast<unsigned long>(mnt->mnt_flags) & entry.flag) seq_puts(m, entry.text);
  if (sb->s_op->show_options) err = sb->s_op->show_options(m, mnt);
  seq_puts(m, " 0 0");
  return err;
}

static struct vfsmount *mount_number(unsigned index) {
  struct vfsmount *mnt;
  list_for_each_entry(mnt, &ukern_namespace->list, mnt_list) {
    if (!index--) return mnt;
  }
  return nullptr;
}

// Writes the line to a buffer of `size` bytes. Returns its length, or -EAGAIN if that is too small.
static long show_line(struct vfsmount *mnt, char *buf, unsigned long size) {
  struct seq_file m = {};
  int err;

  m.buf = buf;
  m.size = size;
  err = show_mount(&m, mnt);
  if (err) return err;
  return m.count >= m.size ? -EAGAIN : static_cast<long>(m.count);
}

int mount_table_line(unsigned index, char *line, unsigned long size) {
  struct vfsmount *mnt;
  char *buf = nullptr;
  long len = -ENOENT;

  {
    SharedGuard guard(namespace_sem);
    mnt = mount_number(index);
    if (mnt) {
      unsigned long room = PAGE_SIZE;
      do {
        kfree(buf);
        buf = static_cast<char *>(kmalloc(room, GFP_KERNEL));
        len = buf ? show_line(mnt, buf, room) : -ENOMEM;
        room *= 2;
      } while (len == -EAGAIN);
    }
  }
  if (len >= 0 && static_cast<unsigned long>(len) >= size) len = -ERANGE;
  if (len >= 0) {
    memcpy(line, buf, static_cast<size_t>(len));
    line[len] = 0;
  }
  kfree(buf);
  return len < 0 ? static_cast<int>(len) : 0;
}
