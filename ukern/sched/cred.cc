// SPDX-License-Identifier: GPL-2.0
// A task's capabilities and groups.
#include <linux/capability.h>
#include <linux/netlink.h>
#include <linux/sched.h>
#include <linux/security.h>
#include <linux/slab.h>

extern "C" {

int capable(int cap) {
  if (!cap_raised(current->cap_effective, cap)) return 0;
  current->flags |= PF_SUPERPRIV;
  return 1;
}

int cap_netlink_recv(struct sk_buff *skb, int cap) {
  return cap_raised(NETLINK_CB(skb).eff_cap, cap) ? 0 : -EPERM;
}

struct group_info *groups_alloc(int gidsetsize) {
  const size_t size = sizeof(struct group_info) + static_cast<size_t>(gidsetsize) * sizeof(gid_t);
  auto *info = static_cast<struct group_info *>(kmalloc(size, GFP_USER));
  if (!info) return nullptr;
  info->ngroups = gidsetsize;
  atomic_set(&info->usage, 1);
  return info;
}

void groups_free(struct group_info *info) {
  kfree(info);
}

int groups_search(struct group_info *info, gid_t grp) {
  int low = 0, high = info ? info->ngroups : 0;
  while (low < high) {
    const int middle = (low + high) / 2;
    if (info->gids[middle] == grp) return 1;
    if (info->gids[middle] < grp)
      low = middle + 1;
    else
      high = middle;
  }
  return 0;
}

int in_group_p(gid_t grp) {
  return grp == current->fsgid || groups_search(current->group_info, grp);
}
}
