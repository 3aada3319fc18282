#!/usr/bin/env bash
# Fetches what a test machine of ARCH (x86_64 or mipsel) runs, as Debian packages of that
# architecture, and unpacks them into DIR/root: the kernel and its modules, BusyBox, the C
# library with its gconv modules (mlabel converts code pages), disktype, mtools and ntfslabel.
# Nothing is installed on the host. Fast when DIR/root is already there.
#
# usage: scripts/vm/fetch.sh ARCH DIR
set -euo pipefail
arch=$1 dir=$2
case $arch in
x86_64) deb_arch=amd64 kernel=linux-image-amd64 ;;
mipsel) deb_arch=mipsel kernel=linux-image-4kc-malta ;;
*) echo "fetch: unknown architecture $arch" >&2; exit 2 ;;
esac
[ -f "$dir/root/.fetched" ] && exit 0
rm -rf "$dir/debs"
mkdir -p "$dir/debs"
# The meta package names the versioned kernel package, which holds the kernel itself.
versioned=$(apt-cache depends "$kernel:$deb_arch" | sed -n 's/^ *Depends: \(linux-image-[^ :]*\).*/\1/p' | head -n 1)
[ -n "$versioned" ] || { echo "fetch: no kernel package behind $kernel:$deb_arch" >&2; exit 1; }
packages=("$versioned" busybox-static libc6 disktype mtools ntfs-3g libntfs-3g89)
(cd "$dir/debs" && apt-get -o APT::Sandbox::User=root download -qq "${packages[@]/%/:$deb_arch}")
rm -rf "$dir/root"
mkdir -p "$dir/root"
for deb in "$dir"/debs/*.deb; do
    dpkg-deb -x "$deb" "$dir/root"
done
# The module dependency files, for modprobe --show-depends to pick what the initramfs needs.
depmod -b "$dir/root" "$(ls "$dir/root/lib/modules")"
touch "$dir/root/.fetched"
