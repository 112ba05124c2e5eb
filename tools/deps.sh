#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Installs the Debian 12 packages that building, testing and the demo need; with an argument also those of the presubmit
# checks (`check`), of the benchmarks (`bench`), of Debian packages (`deb`), of their test (`packages`) or of the tests in a real
# kernel (`guest`). Does nothing when all are there.
set -euo pipefail

packages=(
  attr binutils build-essential clang cmake coreutils e2fsprogs fio fuse3 git groff-base iproute2 libcap2-bin libclang-rt-14-dev
  libcli11-dev libfmt-dev libfuse3-dev libgtest-dev libmount-dev libnats-dev librapidcheck-dev libspdlog-dev libsystemd-dev
  libtomlplusplus-dev libxxhash-dev libzstd-dev man-db mandoc mount
  nats-server ninja-build nlohmann-json3-dev openssl pkg-config procps python3 rsync sqlite3
  stress-ng systemd tar util-linux zsh
)
[ "${1:-}" != check ] || packages+=(clang-format clang-tidy g++-aarch64-linux-gnu shellcheck)
[ "${1:-}" != bench ] || packages+=(bindfs libbenchmark-dev libhyperscan-dev liblmdb-dev libre2-dev libsqlite3-dev lsyncd postgresql)
[ "${1:-}" != deb ] || packages+=(debhelper fakeroot lintian)
[ "${1:-}" != packages ] || packages+=(mmdebstrap systemd-container)
[ "${1:-}" != guest ] || packages+=(cpio gcc-12-source musl-tools qemu-system-x86)

missing=()
for package in "${packages[@]}"; do
  state=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$state" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

echo "installing: ${missing[*]}"
as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || {
    echo "deps: these packages are missing and only root can install them: ${missing[*]}" >&2
    exit 1
  }
  as_root=(sudo)
fi
case " ${missing[*]} " in
  *" postgresql "*)
    # The benchmarks run a server of their own; Debian's would be made and started by the installation. Who wants that one
    # too: pg_createcluster.
    "${as_root[@]}" install -d /etc/postgresql-common/createcluster.d
    echo 'create_main_cluster = false' | "${as_root[@]}" tee /etc/postgresql-common/createcluster.d/tarn.conf >/dev/null
    ;;
esac
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
  "${missing[@]}" >/dev/null
