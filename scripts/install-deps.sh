#!/usr/bin/env bash
# Installs every Debian package that building and testing hotplugd need; fast when all are present.
set -euo pipefail

packages=(
  cmake make g++ clang clang-format
  libclang-rt-dev  # the sanitizers' and libFuzzer's runtimes: only recommended by clang
  googletest libgtest-dev
  python3 python3-pytest
  g++-mipsel-linux-gnu qemu-user-static
  util-linux mount fdisk e2fsprogs dosfstools mtools disktype ntfs-3g tar
  file
  valgrind  # the C programs' view of the containers is checked for leaks
  musl-tools musl-dev:mipsel
  qemu-system-x86 qemu-system-mips cpio kmod  # the test machines (scripts/vm/)
)

# The appliance's 32-bit MIPS little-endian target: musl's mipsel C library comes from Debian's
# mipsel architecture, which dpkg must know before its packages can be installed.
foreign_arch_missing() {
  ! dpkg --print-foreign-architectures | grep -qx mipsel
}

missing=()
for p in "${packages[@]}"; do
  # dpkg-query prints "install ok installed" only for a fully installed package.
  if [ "$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null)" != "install ok installed" ]; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: need root to install: ${missing[*]}" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
if foreign_arch_missing; then
  dpkg --add-architecture mipsel
fi
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
