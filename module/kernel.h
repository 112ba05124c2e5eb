/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The only header that includes kernel headers. It may contain nothing but includes: the build for
 * a real kernel brackets this file to separate C++ keywords.
 */
#ifndef TARN_KERNEL_H
#define TARN_KERNEL_H

#include <linux/linkage.h>
#include <linux/kernel.h>
#include <linux/init.h>
#include <linux/module.h>
#include <linux/string.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/mutex.h>
#include <linux/completion.h>
#include <linux/wait.h>
#include <linux/sched.h>
#include <linux/kthread.h>
#include <linux/time.h>
#include <linux/rtc.h>
#include <linux/slab.h>
#include <linux/gfp.h>
#include <linux/mm.h>
#include <linux/highmem.h>
#include <linux/pagemap.h>
#include <linux/swap.h>
#include <linux/writeback.h>
#include <linux/backing-dev.h>
#include <linux/fs.h>
#include <linux/dcache.h>
#include <linux/file.h>
#include <linux/namei.h>
#include <linux/mount.h>
#include <linux/seq_file.h>
#include <linux/statfs.h>
#include <linux/uio.h>
#include <linux/aio.h>
#include <linux/capability.h>
#include <linux/security.h>
#include <linux/socket.h>
#include <linux/skbuff.h>
#include <linux/netlink.h>
#include <linux/netfilter.h>
#include <net/sock.h>
#include <asm/uaccess.h>

#endif
