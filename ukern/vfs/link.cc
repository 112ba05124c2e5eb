// SPDX-License-Identifier: GPL-2.0
// Reading symbolic links.
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/namei.h>
#include <linux/string.h>
#include <asm/uaccess.h>

extern "C" {

// Cuts a text that is longer than the buffer; never terminates it.
int vfs_readlink(struct dentry *, char __user *buffer, int buflen, const char *link) {
  if (IS_ERR(link)) return static_cast<int>(PTR_ERR(link));
  unsigned len = static_cast<unsigned>(strlen(link));
  if (len > static_cast<unsigned>(buflen)) len = static_cast<unsigned>(buflen);
  return copy_to_user(buffer, link, len) ? -EFAULT : static_cast<int>(len);
}

// For links whose follow_link uses only the text in the nameidata.
int generic_readlink(struct dentry *dentry, char __user *buffer, int buflen) {
  struct inode_operations *op = dentry->d_inode->i_op;
  struct nameidata nd;
  nd.depth = 0;
  void *cookie = op->follow_link(dentry, &nd);
  if (IS_ERR(cookie)) return static_cast<int>(PTR_ERR(cookie));
  const int result = vfs_readlink(dentry, buffer, buflen, nd_get_link(&nd));
  if (op->put_link) op->put_link(dentry, &nd, cookie);
  return result;
}

}  // extern "C"
