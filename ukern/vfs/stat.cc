// SPDX-License-Identifier: GPL-2.0
// Reading an inode's attributes.
#include <linux/fs.h>
#include <linux/mount.h>
#include <linux/stat.h>

extern "C" {

void generic_fillattr(struct inode *inode, struct kstat *stat) {
  stat->dev = inode->i_sb->s_dev;
  stat->ino = inode->i_ino;
  stat->mode = inode->i_mode;
  stat->nlink = inode->i_nlink;
  stat->uid = inode->i_uid;
  stat->gid = inode->i_gid;
  stat->rdev = inode->i_rdev;
  stat->atime = inode->i_atime;
  stat->mtime = inode->i_mtime;
  stat->ctime = inode->i_ctime;
  stat->size = i_size_read(inode);
  stat->blocks = inode->i_blocks;
  stat->blksize = inode->i_blksize;
}

int vfs_getattr(struct vfsmount *mnt, struct dentry *dentry, struct kstat *stat) {
  struct inode *inode = dentry->d_inode;
  if (inode->i_op->getattr) return inode->i_op->getattr(mnt, dentry, stat);

  generic_fillattr(inode, stat);
  if (!stat->blksize) {
    // A file system without block counts: derives them from the size.
    struct super_block *sb = inode->i_sb;
    const unsigned long long blocks =
        (static_cast<unsigned long long>(stat->size) + sb->s_blocksize - 1) >> sb->s_blocksize_bits;
    stat->blocks = (sb->s_blocksize / 512) * blocks;
    stat->blksize = sb->s_blocksize;
  }
  return 0;
}

}  // extern "C"
