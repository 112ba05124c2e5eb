# SPDX-License-Identifier: GPL-2.0
# Static builds of tarn and mirrord that run on Linux 2.6.18, where programs of today's C library do not start: musl
# for the C library, and the compiler's own C++ library built for it, for which there is no package.
#
#   make -f tests/guest/replicate_static.mk OUT=build/guest      makes $(OUT)/bin/tarn, $(OUT)/bin/mirrord
#
# Needs the packages of `tools/deps.sh guest`. The C++ library is built once per OUT and takes some minutes.

ROOT := $(abspath $(dir $(lastword $(MAKEFILE_LIST)))/../..)
ifndef OUT
  $(error OUT is missing: name the folder to build in, OUT=...)
endif
override OUT := $(abspath $(OUT))

GCC := 12
GCC_SOURCE := $(firstword $(wildcard /usr/src/gcc-$(GCC)/gcc-$(GCC)*.tar.xz))
SPECS := /usr/lib/x86_64-linux-musl/musl-gcc.specs
ifeq ($(GCC_SOURCE)$(filter clean,$(MAKECMDGOALS)),)
  $(error the source of gcc-$(GCC) is not in /usr/src: run `tools/deps.sh guest`)
endif
ifeq ($(wildcard $(SPECS)),)
  $(error $(SPECS) is missing: run `tools/deps.sh guest`)
endif

CC := gcc-$(GCC) -specs $(SPECS)
CXX := g++-$(GCC) -specs $(SPECS)

# Headers that belong to no C library, one link each, so that nothing else of /usr/include is seen.
HEADERS := $(OUT)/headers
LINKS := linux asm-generic asm fmt nats nlohmann CLI spdlog toml++ xxhash.h
link_linux := /usr/include/linux
link_asm-generic := /usr/include/asm-generic
link_asm := /usr/include/x86_64-linux-gnu/asm
link_fmt := /usr/include/fmt
link_nats := /usr/include/nats
link_nlohmann := /usr/include/nlohmann
link_CLI := /usr/include/CLI
link_spdlog := /usr/include/spdlog
link_toml++ := /usr/include/toml++
link_xxhash.h := /usr/include/xxhash.h

LIBRARY := $(OUT)/libstdc++
SOURCE := $(OUT)/gcc
VERSION := $(shell awk '/^project/ { print $$3 }' $(ROOT)/CMakeLists.txt)
CXXFLAGS := -std=gnu++20 -O2 -Wall -Wextra -Werror -DFMT_HEADER_ONLY -DSPDLOG_FMT_EXTERNAL -DXXH_INLINE_ALL= -I$(ROOT) \
  -DTARN_VERSION='"$(VERSION)"' -DTARN_COMMIT='"unknown"' -DTARN_BUILD='"static build"' \
  -isystem $(LIBRARY)/include/c++ -isystem $(LIBRARY)/include/c++/x86_64-linux-musl -isystem $(HEADERS)

sources = $(patsubst $(ROOT)/%,%,$(wildcard $(ROOT)/$(1)/*.cc))
objects = $(patsubst %.cc,$(OUT)/%.o,$(call sources,$(1)))
BASE := $(call objects,base)
CLIENT := $(call objects,client)
TARN := $(call objects,tarn)
STREAMS := $(foreach part,answering connection_problem replica_control replica_service source_contact stream_intake stream_target,%/service/$(part).o)
# There is no service manager in a system of 2006, and no library that reaches streams.
MIRRORD := $(filter-out %/service/manager.o $(STREAMS),$(foreach folder,mirrord $(addprefix mirrord/,config control log service verify),\
  $(call objects,$(folder))))
UNWIND := $(OUT)/tests/guest/replicate_unwind.o

.PHONY: all
all: $(OUT)/bin/tarn $(OUT)/bin/mirrord

$(OUT)/bin/tarn: $(BASE) $(CLIENT) $(TARN) $(UNWIND)
$(OUT)/bin/mirrord: $(BASE) $(CLIENT) $(MIRRORD) $(UNWIND)
$(OUT)/bin/tarn $(OUT)/bin/mirrord:
	@mkdir -p $(@D)
	$(CXX) -static -s -Wl,--eh-frame-hdr -o $@ $^ -L$(LIBRARY)/x86_64-linux-musl/lib

$(BASE) $(CLIENT) $(TARN) $(MIRRORD): $(OUT)/%.o: $(ROOT)/%.cc $(LIBRARY)/done $(HEADERS)/done
	@mkdir -p $(@D)
	$(CXX) $(CXXFLAGS) -MMD -MP -c -o $@ $<
$(UNWIND): $(OUT)/%.o: $(ROOT)/%.c
	@mkdir -p $(@D)
	$(CC) -O2 -Wall -Wextra -Werror -c -o $@ $<
-include $(BASE:.o=.d) $(CLIENT:.o=.d) $(TARN:.o=.d) $(MIRRORD:.o=.d)

$(HEADERS)/done:
	@mkdir -p $(@D)
	$(foreach name,$(LINKS),ln -sfn $(link_$(name)) $(HEADERS)/$(name) &&) touch $@

# Just what the C++ library is built from.
PARTS := libstdc++-v3/* libgcc/* config/* include/* libiberty/* gcc/BASE-VER gcc/DATESTAMP gcc/DEV-PHASE config.guess \
  config.sub config-ml.in depcomp install-sh libtool-ldflags ltmain.sh missing mkinstalldirs move-if-change
$(SOURCE)/done: $(GCC_SOURCE)
	@mkdir -p $(@D)
	tar -C $(@D) -xf $< --strip-components=1 --wildcards $(foreach part,$(PARTS),'gcc-*/$(part)')
	# Where the build of the whole compiler puts its threads; without it the library has none.
	ln -sfn gthr-posix.h $(@D)/libgcc/gthr-default.h
	touch $@

$(LIBRARY)/done: $(SOURCE)/done $(HEADERS)/done
	rm -rf $(LIBRARY)
	mkdir -p $(LIBRARY)/build
	cd $(LIBRARY)/build && CC='$(CC)' CXX='$(CXX)' CFLAGS='-O2 -isystem $(HEADERS)' CXXFLAGS='-O2 -isystem $(HEADERS)' \
	  $(SOURCE)/libstdc++-v3/configure --build=x86_64-pc-linux-gnu --host=x86_64-linux-musl --with-cross-host \
	  --prefix=$(LIBRARY) --with-gxx-include-dir=$(LIBRARY)/include/c++ --disable-shared --disable-multilib --disable-nls \
	  --disable-libstdcxx-pch >$(LIBRARY)/log 2>&1 || { tail $(LIBRARY)/log >&2; exit 1; }
	for goal in all install; do \
	  $(MAKE) -C $(LIBRARY)/build SUBDIRS='include libsupc++ src' $$goal >>$(LIBRARY)/log 2>&1 || \
	    { tail $(LIBRARY)/log >&2; exit 1; }; \
	done
	rm -rf $(LIBRARY)/build
	touch $@
