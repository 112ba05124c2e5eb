// SPDX-License-Identifier: GPL-2.0
// Socket options by registration.
#include <linux/completion.h>
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/kthread.h>
#include <linux/netfilter.h>
#include <linux/sched.h>
#include <linux/socket.h>
#include <linux/string.h>

#include "tests/harness/case.h"

namespace {

struct Call {
  int sets, gets;
  int option;
  void *user;
  unsigned len;
  struct sock *sk;
} last;

int on_set(struct sock *sk, int option, void __user *user, unsigned int len) {
  last.sets++;
  last.sk = sk;
  last.option = option;
  last.user = user;
  last.len = len;
  return option == 1001 ? 17 : option == 1002 ? -1004 : 0;
}

int on_get(struct sock *sk, int option, void __user *user, int *len) {
  last.gets++;
  last.sk = sk;
  last.option = option;
  last.user = user;
  last.len = *len;
  *len = 77;
  return option == 1011 ? 5 : 0;
}

struct nf_sockopt_ops options(int set_min, int set_max, int get_min, int get_max) {
  struct nf_sockopt_ops ops;
  memset(&ops, 0, sizeof(ops));
  ops.pf = PF_INET;
  ops.set_optmin = set_min;
  ops.set_optmax = set_max;
  ops.set = on_set;
  ops.get_optmin = get_min;
  ops.get_optmax = get_max;
  ops.get = on_get;
  memset(&last, 0, sizeof(last));
  return ops;
}

char value[8];

}  // namespace

CASE(sockopt, unregistered_is_unknown) {
  int len = 8;
  EXPECT_EQ(nf_setsockopt(NULL, PF_INET, 1000, value, 8), -ENOPROTOOPT);
  EXPECT_EQ(nf_getsockopt(NULL, PF_INET, 1000, value, &len), -ENOPROTOOPT);
  EXPECT_EQ(len, 8);
}

CASE(sockopt, handlers_get_the_arguments_and_give_the_result) {
  struct nf_sockopt_ops ops = options(1000, 1005, 1010, 1015);
  REQUIRE_EQ(nf_register_sockopt(&ops), 0);
  EXPECT_EQ(nf_setsockopt(NULL, PF_INET, 1000, value, 8), 0);
  EXPECT_EQ(last.sets, 1);
  EXPECT_EQ(last.option, 1000);
  EXPECT_TRUE(last.user == value);
  EXPECT_EQ(last.len, 8u);
  EXPECT_TRUE(last.sk == NULL);
  EXPECT_EQ(nf_setsockopt(NULL, PF_INET, 1001, value, 8), 17);
  EXPECT_EQ(nf_setsockopt(NULL, PF_INET, 1002, value, 8), -1004);
  int len = 6;
  EXPECT_EQ(nf_getsockopt(NULL, PF_INET, 1011, value, &len), 5);
  EXPECT_EQ(last.gets, 1);
  EXPECT_EQ(last.len, 6u);
  EXPECT_EQ(len, 77);
  EXPECT_EQ(ops.use, 0u);
  nf_unregister_sockopt(&ops);
  EXPECT_EQ(nf_setsockopt(NULL, PF_INET, 1000, value, 8), -ENOPROTOOPT);
}

CASE(sockopt, the_maximum_is_outside_the_range) {
  struct nf_sockopt_ops ops = options(1000, 1005, 1010, 1015);
  REQUIRE_EQ(nf_register_sockopt(&ops), 0);
  int len = 0;
  EXPECT_EQ(nf_setsockopt(NULL, PF_INET, 999, value, 0), -ENOPROTOOPT);
  EXPECT_EQ(nf_setsockopt(NULL, PF_INET, 1004, value, 0), 0);
  EXPECT_EQ(nf_setsockopt(NULL, PF_INET, 1005, value, 0), -ENOPROTOOPT);
  EXPECT_EQ(nf_getsockopt(NULL, PF_INET, 1000, value, &len), -ENOPROTOOPT);
  EXPECT_EQ(nf_getsockopt(NULL, PF_INET, 1014, value, &len), 0);
  EXPECT_EQ(nf_getsockopt(NULL, PF_INET, 1015, value, &len), -ENOPROTOOPT);
  EXPECT_EQ(nf_setsockopt(NULL, PF_NETLINK, 1000, value, 0), -ENOPROTOOPT);
  nf_unregister_sockopt(&ops);
}

CASE(sockopt, ranges_must_not_meet) {
  struct nf_sockopt_ops first = options(1000, 1005, 1010, 1015);
  REQUIRE_EQ(nf_register_sockopt(&first), 0);
  struct nf_sockopt_ops same_set = options(1004, 1006, 0, 0);
  EXPECT_EQ(nf_register_sockopt(&same_set), -EBUSY);
  struct nf_sockopt_ops same_get = options(0, 0, 1005, 1011);
  EXPECT_EQ(nf_register_sockopt(&same_get), -EBUSY);
  struct nf_sockopt_ops next = options(1005, 1006, 1015, 1016);
  EXPECT_EQ(nf_register_sockopt(&next), 0);
  struct nf_sockopt_ops other_family = options(1000, 1005, 1010, 1015);
  other_family.pf = PF_NETLINK;
  EXPECT_EQ(nf_register_sockopt(&other_family), 0);
  nf_unregister_sockopt(&other_family);
  nf_unregister_sockopt(&next);
  nf_unregister_sockopt(&first);
}

namespace {

struct completion inside, go_on;

int wait_inside(struct sock *, int, void __user *, unsigned int) {
  complete(&inside);
  wait_for_completion(&go_on);
  return 3;
}

int set_and_wait(void *) {
  const int result = nf_setsockopt(NULL, PF_INET, 1000, value, 0);
  while (!kthread_should_stop()) msleep(1);
  return result;
}

struct nf_sockopt_ops *slow_ops;
int unregistered;

int unregister_slow(void *) {
  nf_unregister_sockopt(slow_ops);
  __atomic_store_n(&unregistered, 1, __ATOMIC_RELEASE);
  while (!kthread_should_stop()) msleep(1);
  return 0;
}

}  // namespace

CASE(sockopt, unregister_waits_for_the_call_inside) {
  struct nf_sockopt_ops ops = options(1000, 1001, 0, 0);
  ops.set = wait_inside;
  slow_ops = &ops;
  unregistered = 0;
  init_completion(&inside);
  init_completion(&go_on);
  REQUIRE_EQ(nf_register_sockopt(&ops), 0);

  struct task_struct *caller = kthread_run(set_and_wait, NULL, "sockopt_caller");
  REQUIRE_TRUE(!IS_ERR(caller));
  wait_for_completion(&inside);
  EXPECT_EQ(ops.use, 1u);
  struct task_struct *remover = kthread_run(unregister_slow, NULL, "sockopt_remover");
  REQUIRE_TRUE(!IS_ERR(remover));
  msleep(30);
  EXPECT_EQ(__atomic_load_n(&unregistered, __ATOMIC_ACQUIRE), 0);
  complete(&go_on);
  EXPECT_EQ(kthread_stop(caller), 3);
  kthread_stop(remover);
  EXPECT_EQ(__atomic_load_n(&unregistered, __ATOMIC_ACQUIRE), 1);
  EXPECT_EQ(nf_setsockopt(NULL, PF_INET, 1000, value, 0), -ENOPROTOOPT);
}
