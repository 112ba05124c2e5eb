// SPDX-License-Identifier: GPL-2.0
// Reading symbolic links.

#include "inode_ops.h"

int tarn_readlink(struct dentry *dentry, char __user *buf, int bufsiz) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  struct inode *lower = lower_dentry->d_inode;
  if (!lower->i_op || !lower->i_op->readlink) return -EINVAL;
  const int rc = lower->i_op->readlink(lower_dentry, buf, bufsiz);
  if (rc >= 0) dentry->d_inode->i_atime = lower->i_atime;
  return rc;
}

namespace {

constexpr int link_text_size = 4096;

// Returns the link's NUL-terminated text, which the caller frees, or an error pointer.
char *link_text(struct dentry *dentry) {
  ox_owner<char, kfree> text(static_cast<char *>(kmalloc(link_text_size, GFP_KERNEL)));
  if (!text) return static_cast<char *>(ERR_PTR(-ENOMEM));
  int rc;
  {
    kernel_ds_guard kernel_ds;
    rc = dentry->d_inode->i_op->readlink(dentry, reinterpret_cast<char __user *>(text.get()),
                                         link_text_size);
  }
  if (rc >= link_text_size) rc = -ENAMETOOLONG;  // no room for the NUL
  if (rc < 0) return static_cast<char *>(ERR_PTR(rc));
  text.get()[rc] = 0;
  return text.release();
}

}  // namespace

// The path walk owns the text until tarn_put_link. After an error pointer it does not release `nd`,
// so that is done here.
void *tarn_follow_link(struct dentry *dentry, struct nameidata *nd) {
  char *text = link_text(dentry);
  if (IS_ERR(text)) {
    path_release(nd);
    return text;
  }
  nd_set_link(nd, text);
  return nullptr;
}

void tarn_put_link(struct dentry *, struct nameidata *nd, void *) {
  kfree(nd_get_link(nd));
}
