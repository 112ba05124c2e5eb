// SPDX-License-Identifier: GPL-2.0
/* Records of changes of attributes. */

#include "capture.h"
#include "tarn.h"

/* ia_valid is sent unchanged. */
static_assert(OX_ATTR_MODE == ATTR_MODE && OX_ATTR_UID == ATTR_UID && OX_ATTR_GID == ATTR_GID &&
              OX_ATTR_SIZE == ATTR_SIZE && OX_ATTR_ATIME == ATTR_ATIME &&
              OX_ATTR_MTIME == ATTR_MTIME && OX_ATTR_CTIME == ATTR_CTIME);
static_assert(OX_ATTR_ATIME_SET == ATTR_ATIME_SET && OX_ATTR_MTIME_SET == ATTR_MTIME_SET &&
              OX_ATTR_FORCE == ATTR_FORCE && OX_ATTR_ATTR_FLAG == ATTR_ATTR_FLAG &&
              OX_ATTR_KILL_SUID == ATTR_KILL_SUID && OX_ATTR_KILL_SGID == ATTR_KILL_SGID &&
              OX_ATTR_FILE == ATTR_FILE);

static ox_u64_t microseconds(const struct timespec &time) {
  return static_cast<ox_u64_t>(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

static struct tarn_trans *attr_alloc(struct prule_node *rule, const tarn_record_path &at,
                                     const struct iattr *iattr) {
  const char *path = at.get();
  const ox_u32_t len = at.length() + 1;
  struct tarn_trans *trans =
      tarn_var_alloc(rule, OX_OP_SETATTR, len + static_cast<ox_u32_t>(sizeof(struct ox_msg_attr)));
  if (!trans) return nullptr;
  struct ox_msg_attr *attr = trans_attr(trans);
  attr->cp = at.naming();
  attr->com.ia_valid = static_cast<ox_s32_t>(iattr->ia_valid);
  attr->com.ia_mode = iattr->ia_mode;
  attr->com.ia_size = static_cast<ox_u64_t>(iattr->ia_size);
  attr->com.ia_atime = microseconds(iattr->ia_atime);
  attr->com.ia_mtime = microseconds(iattr->ia_mtime);
  attr->com.ia_ctime = microseconds(iattr->ia_ctime);
  attr->com.len = OX_ATTR_LEN;
  attr->sec.ia_modeshadow = iattr->ia_mode;
  attr->sec.ia_uid = iattr->ia_uid;
  attr->sec.ia_gid = iattr->ia_gid;
  attr->dlen1 = sizeof(struct lin_sec);
  attr->dlen2 = len;
  memcpy(attr->name, path, len);
  return trans;
}

int tarn_attr_sync(struct dentry *dentry, const struct iattr *iattr) {
  tarn_record_path path(dentry);
  return capture_change(path, "__tarn_attr_sync: tarn_var_alloc fail\n",
                        [&](struct prule_node *rule) { return attr_alloc(rule, path, iattr); });
}

void tarn_mode_sync(struct dentry *dentry, umode_t told) {
  struct inode *lower = tarn_lower_inode(dentry->d_inode);
  if (!((lower->i_mode ^ told) & S_IALLUGO)) return;
  struct iattr ia;
  memset(&ia, 0, sizeof(ia));
  ia.ia_valid = ATTR_MODE;
  ia.ia_mode = lower->i_mode;
  ia.ia_uid = lower->i_uid;
  ia.ia_gid = lower->i_gid;
  ia.ia_size = i_size_read(lower);
  ia.ia_atime = lower->i_atime;
  ia.ia_mtime = lower->i_mtime;
  ia.ia_ctime = lower->i_ctime;
  tarn_attr_sync(dentry, &ia);
}
