# SPDX-License-Identifier: GPL-2.0
# make demo   everything from nothing: install what is missing, build, mount, replicate, compare
# make demo-cluster  the same through a cluster of three servers to two replicas, of which a leader and a replica are killed
# make test   unit tests under the address, undefined-behaviour and thread sanitizers, and end to end
# make one CASE=rename.two_names_of_one_file  tests whose name contains that, under the address and undefined sanitizers
# make check  the presubmit checks: format, shellcheck, headers, both compilers, clang-tidy, aarch64, include arrows,
#             unused declarations, stack sizes
# make fuzz   each fuzzer for FUZZ_SECONDS, under the address and undefined-behaviour sanitizers
# make soak   real programs on a mount for long, SOAK_SCALE times the work that they are given in make test
# make bench  measure, and keep the tables in docs/benchmarks.md; PASSTHROUGH_HP=FILE: also on libfuse's passthrough_hp,
#             whose source Debian does not have
# make deb    Debian packages in build/packages, checked by lintian
# make deb-arm64      the same for arm64 by cross compilation, in build/packages-arm64; as root
# make test-reproducible  build the committed tree's packages twice, in other circumstances, and compare them
# make test-packages  install, use, upgrade and remove those in a Debian of their own, by docs/guide.md; as root
# KDIR=...    with check: also build the module for a built Linux 2.6.18 tree, and check what is in it

SHELL := /bin/bash
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
FUZZ_SECONDS ?= 60
SOAK_SCALE ?= 10
TESTJOBS ?= $(shell echo $$(( 2 * $$(nproc) )))

.PHONY: all deps demo demo-cluster test test-asan test-tsan one check fuzz soak bench deb deb-arm64 test-reproducible
.PHONY: test-packages install clean

# What is shipped; tests build in their own folders.
all: build/release/build.ninja
	cmake --build build/release -j $(JOBS) --target shipped

build/%/build.ninja: CMakeLists.txt CMakePresets.json
	cmake --preset $*

deps:
	@tools/deps.sh

demo: deps all
	@tools/demo.sh build/release

demo-cluster: deps all
	@tools/demo_cluster.sh build/release

test: deps test-asan test-tsan

test-asan: build/asan/build.ninja
	cmake --build build/asan -j $(JOBS)
	ctest --test-dir build/asan -j $(TESTJOBS) --output-on-failure --no-tests=error

# The thread sanitizer's own run: the kernel's and the module's cases, where the locks are.
test-tsan: build/tsan/build.ninja
	cmake --build build/tsan -j $(JOBS) --target ukern_test module_test
	ctest --test-dir build/tsan -j $(TESTJOBS) --output-on-failure --no-tests=error -R '^(ukern|module)_test/'

one: build/asan/build.ninja
	@[ -n "$(CASE)" ] || { echo "make one CASE=part of a test's name; 'ctest --test-dir build/asan -N' lists them" >&2; exit 2; }
	cmake --build build/asan -j $(JOBS)
	ctest --test-dir build/asan --output-on-failure --no-tests=error -R "$(CASE)"

check:
	@tools/deps.sh check
	@tools/check.sh

fuzz: deps build/fuzz/build.ninja
	cmake --build build/fuzz -j $(JOBS) --target fuzz
	@tools/fuzz.sh build/fuzz $(FUZZ_SECONDS)

# With the sanitizers and the lock checker, then as it is shipped.
soak: deps all build/asan/build.ninja
	cmake --build build/asan -j $(JOBS) --target tarnd tarn mirrord soak_clock
	cmake --build build/release -j $(JOBS) --target soak_clock
	@SOAK_SCALE=$(SOAK_SCALE) tools/soak.sh build/asan build/release

bench:
	@tools/deps.sh bench
	cmake --preset release
	cmake --build build/release -j $(JOBS) --target bench

# Into build/packages, from a copy of what git knows: the tree is left as it is.
deb:
	@tools/deps.sh deb
	@tools/deb.sh

# With a Debian of its own for the compiler and the libraries of the other machine.
deb-arm64:
	@tools/deps.sh deb
	@tools/deps.sh packages
	@tools/deb.sh arm64

test-reproducible:
	@tools/deps.sh deb
	@tools/test_reproducible.sh

test-packages:
	@tools/deps.sh packages
	@tools/test_packages.sh

install: all
	cmake --install build/release --prefix $(PREFIX)

clean:
	rm -rf build
