#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# stress-ng's file-system stressors, all at once, as root and as another user, each checking what it does. In the middle
# of it they are stopped and the replica is compared; then they go on.
. "$(dirname "$0")/common.bash"
require stress-ng setpriv
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can be somebody else" >&2; exit 77; }

# Left out: what is about other objects than files on a mount (binderfs, bind-mount, eventfd, procfs), what syncs the
# whole machine (io, iomix), what needs calls newer than Linux 2.6.18 (chattr, fallocate, fpunch, inode-flags, verity),
# and fsize, which insists on EFBIG where the layer reports every failed lower write as EINVAL.
STRESSORS=(access chdir chmod chown copy-file dentry dir dirdeep dirmany dup fcntl fiemap filename flock fstat getdent
  handle hdd inotify lease link locka lockf lockofd mknod open rename seek sendfile symlink sync-file
  touch utime xattr)

# What depends on who does it.
USER_STRESSORS=(access chmod chown dentry dir hdd link mknod open rename symlink touch utime xattr)

options=(--timeout $((3 * SCALE)) --verify --quiet --mmap 1 --mmap-file --mmap-bytes 4m --hdd-bytes 4m --dentries 200
  --dir-dirs 200)
root_options=("${options[@]}" --msync 1 --msync-bytes 1m --aio 1 --readahead 1 --readahead-bytes 4m --seek-size 1m
  --sendfile-size 1m --dirdeep-inodes 400 --dirmany-bytes 64k --copy-file-bytes 128m)
for stressor in "${STRESSORS[@]}"; do root_options+=(--"$stressor" 1); done
for stressor in "${USER_STRESSORS[@]}"; do options+=(--"$stressor" 1); done

cat >"$T/programs" <<EOF
stress-ng --temp-path "$T/mnt/root" ${root_options[*]} & root=\$!
setpriv --reuid=65534 --regid=65534 --clear-groups stress-ng --temp-path "$T/mnt/user" ${options[*]} & user=\$!
wait \$root && wait \$user
EOF

start_soak
chmod 755 "$T"
mkdir "$T/mnt/root"
install -d -o 65534 -g 65534 "$T/mnt/user"
soak_beside "$T/programs" no-times
