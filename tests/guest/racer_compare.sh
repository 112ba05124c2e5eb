# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
# The lower file systems of the racer, where it has come to its end: "ok" or "FAILED" for each.
mapfile -t kinds < <(sed -n 's/^ok racer\.on_//p' "$work/results")
for kind in "${kinds[@]}"; do
  if ! grep "^image $kind " "$work/images" | "$here/image_lines.py" "$work/race_$kind.img"; then
    echo "FAILED racer.image_of_$kind"
  elif said=$(e2fsck -fn "$work/race_$kind.img" 2>&1); then
    echo "ok racer.e2fsck_of_$kind"
  else
    printf '%s\n' "$said" | sed 's/^/  /'
    echo "FAILED racer.e2fsck_of_$kind"
  fi
done
