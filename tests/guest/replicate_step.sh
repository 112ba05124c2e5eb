# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
# tarn and mirrord, built to run there, with the module in the kernel. The C++ library for them is kept in build/guest,
# which one run at a time builds in.
mkdir -p "$top/build/guest"
flock "$top/build/guest" make -s -f "$here/replicate_static.mk" -j "$(nproc)" OUT="$top/build/guest" \
  >"$work/static.log" 2>&1 ||
  { tail -n 40 "$work/static.log" >&2; die "tarn and mirrord cannot be built for the guest"; }
cp "$top/build/guest/bin/tarn" "$top/build/guest/bin/mirrord" "$root/"
mkdir -p "$root/var/run"
guest_program replicate -isystem "$top/build/guest/headers" "$here/replicate.c" "$here/replicate_run.c" "$here/guest.c" \
  "$here/image.c"
guest_image ext3 12M
step /replicate
