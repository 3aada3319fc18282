#!/usr/bin/env bash
# The main job: installs what is needed, builds the programs as they go onto the appliance and
# the same build natively, installs them, shows what the appliance build needs and weighs, and
# shows hotplugd at work in the test sandbox (scripts/demo.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
jobs=$(nproc)
for preset in release mipsel-release; do
    cmake --preset "$preset" >/dev/null &&
        cmake --build --preset "$preset" -j "$jobs" >"build-$preset.log" 2>&1 ||
        { tail -n 30 "build-$preset.log"; exit 1; }
done
stage=build-release/stage
appliance=build-mipsel-release/stage
rm -rf "$stage" "$appliance"
DESTDIR="$PWD/$stage" cmake --install build-release --prefix /usr --strip >/dev/null
DESTDIR="$PWD/$appliance" cmake --install build-mipsel-release --prefix /usr --strip >/dev/null

echo "Installed for the appliance with DESTDIR=$appliance and prefix /usr:"
(cd "$appliance" && find . -type f | sort | sed 's|^\.|  |')
for f in usr/sbin/hotplugd usr/bin/hotplugctl usr/share/man/man8/hotplugd.8 \
         usr/share/man/man1/hotplugctl.1 usr/share/doc/hotplugd/PROTOCOL.md \
         usr/share/doc/hotplugd/examples/udev/99-hotplugd.rules; do
    [ -f "$appliance/$f" ] || { echo "run: $f was not installed" >&2; exit 1; }
done
echo
echo "The programs, stripped, for the appliance and natively (the budget is in cmake/program.cmake):"
for exe in "$appliance"/usr/sbin/hotplugd "$appliance"/usr/bin/hotplugctl \
           "$stage"/usr/sbin/hotplugd "$stage"/usr/bin/hotplugctl; do
    needs=$(readelf -d "$exe" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | paste -sd, -)
    printf '  %-46s %6d bytes  %s, needs %s\n' "$exe" "$(stat -c %s "$exe")" \
        "$(file -b "$exe" | cut -d, -f1-2)" "$needs"
done
echo "The appliance's hotplugctl, run by qemu-mipsel-static with the mipsel C library:"
echo "  $(qemu-mipsel-static -L /usr/mipsel-linux-gnu "$appliance"/usr/bin/hotplugctl --version)"
echo
# -f wants a ROM device: a character device node, bound at /dev/kteeprom in the sandbox only.
[ -c build-release/kteeprom ] || mknod build-release/kteeprom c 1 3
scripts/sandbox/run --eeprom build-release/kteeprom -- \
    bash scripts/demo.sh "$PWD/$stage/usr/sbin/hotplugd" "$PWD/$stage/usr/bin/hotplugctl"
echo
echo "Run every test with: bash scripts/test.sh"
