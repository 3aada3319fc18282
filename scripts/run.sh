#!/usr/bin/env bash
# The main job: installs what is needed, builds and installs the release binaries, and shows
# hotplugd at work in the test sandbox (scripts/demo.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
jobs=$(nproc)
for preset in release mipsel; do
    cmake --preset "$preset" >/dev/null &&
        cmake --build --preset "$preset" -j "$jobs" >"build-$preset.log" 2>&1 ||
        { tail -n 30 "build-$preset.log"; exit 1; }
done
stage=build-release/stage
rm -rf "$stage" "$stage-mipsel"
DESTDIR="$PWD/$stage" cmake --install build-release --prefix /usr >/dev/null
DESTDIR="$PWD/$stage-mipsel" cmake --install build-mipsel --prefix /usr >/dev/null

echo "Installed with DESTDIR=$stage and prefix /usr:"
(cd "$stage" && find . -type f | sort | sed 's|^\.|  |')
for f in usr/sbin/hotplugd usr/bin/hotplugctl usr/share/man/man8/hotplugd.8 \
         usr/share/man/man1/hotplugctl.1 usr/share/doc/hotplugd/PROTOCOL.md \
         usr/share/doc/hotplugd/examples/udev/99-hotplugd.rules; do
    [ -f "$stage/$f" ] || { echo "run: $f was not installed" >&2; exit 1; }
done
echo
echo "The programs, natively and for the appliance:"
for exe in "$stage"/usr/sbin/hotplugd "$stage"/usr/bin/hotplugctl "$stage-mipsel"/usr/sbin/hotplugd \
           "$stage-mipsel"/usr/bin/hotplugctl; do
    printf '  %-44s %8d bytes  %s\n' "$exe" "$(stat -c %s "$exe")" "$(file -b "$exe" | cut -d, -f1-2)"
done
echo
# -f wants a ROM device: a character device node, bound at /dev/kteeprom in the sandbox only.
[ -c build-release/kteeprom ] || mknod build-release/kteeprom c 1 3
tests/sandbox/run --eeprom build-release/kteeprom -- \
    bash scripts/demo.sh "$PWD/$stage/usr/sbin/hotplugd" "$PWD/$stage/usr/bin/hotplugctl"
echo
echo "Run every test with: bash scripts/test.sh"
