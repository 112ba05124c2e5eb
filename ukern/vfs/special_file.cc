// SPDX-License-Identifier: GPL-2.0
// The open operations of special files.

#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/stat.h>

// There are no devices, pipes or local sockets here, so opening one fails as it does where no
// driver is bound.
static int open_nothing(struct inode *, struct file *) {
  return -ENXIO;
}

const struct file_operations def_chr_fops = {.open = open_nothing};
const struct file_operations def_blk_fops = {.open = open_nothing};
const struct file_operations def_fifo_fops = {.open = open_nothing};
const struct file_operations bad_sock_fops = {.open = open_nothing};

void init_special_inode(struct inode *inode, umode_t mode, dev_t rdev) {
  inode->i_mode = mode;
  if (S_ISCHR(mode)) {
    inode->i_fop = &def_chr_fops;
    inode->i_rdev = rdev;
  } else if (S_ISBLK(mode)) {
    inode->i_fop = &def_blk_fops;
    inode->i_rdev = rdev;
  } else if (S_ISFIFO(mode)) {
    inode->i_fop = &def_fifo_fops;
  } else if (S_ISSOCK(mode)) {
    inode->i_fop = &bad_sock_fops;
  } else {
    printk(KERN_DEBUG "init_special_inode: bogus i_mode (%o)\n", mode);
  }
}
