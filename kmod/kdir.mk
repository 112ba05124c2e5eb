# SPDX-License-Identifier: GPL-2.0
# What KDIR must be: a configured and built Linux 2.6.18 tree for x86-64. It is only read.

ifeq ($(findstring clean,$(MAKECMDGOALS)),)
ifeq ($(KDIR),)
$(error KDIR is not set. Name a built Linux 2.6.18 x86-64 tree: make -C kmod KDIR=/path/to/linux-2.6.18)
endif
ifeq ($(wildcard $(KDIR)/include/linux/fs.h),)
$(error KDIR=$(KDIR) is not a kernel tree: it has no include/linux/fs.h)
endif
ifeq ($(wildcard $(KDIR)/include/linux/autoconf.h),)
$(error $(KDIR) is not configured: it has no include/linux/autoconf.h. Run "make oldconfig" and "make" there)
endif
ifeq ($(wildcard $(KDIR)/include/linux/version.h),)
$(error $(KDIR) is not prepared: it has no include/linux/version.h. Run "make" there)
endif
# 132626 is 2.6.18 as the kernel counts versions.
version := $(shell sed -n 's/.*LINUX_VERSION_CODE //p' $(KDIR)/include/linux/version.h)
ifneq ($(version),132626)
$(error $(KDIR) is another version: LINUX_VERSION_CODE is $(version), 2.6.18 is 132626)
endif
ifneq ($(notdir $(realpath $(KDIR)/include/asm)),asm-x86_64)
$(error $(KDIR) is configured for another machine: include/asm does not lead to asm-x86_64)
endif
ifeq ($(wildcard $(KDIR)/include/asm/asm-offsets.h),)
$(error $(KDIR) is not prepared: it has no include/asm/asm-offsets.h. Run "make" there)
endif
ifeq ($(shell grep -c '^.define CONFIG_NETFILTER 1' $(KDIR)/include/linux/autoconf.h),0)
$(error $(KDIR) is configured without CONFIG_NETFILTER, which the socket options need)
endif
ifeq ($(shell grep -c '^.define CONFIG_MODULES 1' $(KDIR)/include/linux/autoconf.h),0)
$(error $(KDIR) is configured without CONFIG_MODULES: its kernel loads no modules)
endif
ifeq ($(wildcard $(KDIR)/vmlinux),)
$(error $(KDIR) is not built: it has no vmlinux. Run "make" there)
endif
ifeq ($(wildcard $(KDIR)/Module.symvers),)
$(error $(KDIR) has no Module.symvers, the list of what its kernel exports. Run "make modules" there)
endif
endif
