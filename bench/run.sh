#!/usr/bin/env bash
# Benchmarks: builds the release build and the measuring tools, runs bench/bench.py in the
# sandbox (the daemon's fixed paths are its own there) and prints one table, then the programs'
# stripped sizes. Each ratio is measured side by side with its floor in the same run.
#
# usage: bash bench/run.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" >build-release.log 2>&1 ||
    { tail -n 40 build-release.log; exit 1; }
tools=build-bench
mkdir -p "$tools"
cc -O2 -Wall -Wextra -Werror -pthread bench/query.c -o "$tools/query"
cc -O2 -Wall -Wextra -Werror bench/echo.c -o "$tools/echo"
echo "machine: $(nproc) cores, $(sed -n 's/^model name\s*: //p' /proc/cpuinfo | head -n 1), $(uname -r)"
scripts/sandbox/run -- /usr/bin/python3 bench/bench.py "$PWD/build-release" "$PWD/$tools"
# Stripped sizes, as installed (the appliance's build when it has been built).
for build in release mipsel-release; do
    strip=strip
    [ "$build" = release ] || strip=mipsel-linux-gnu-strip
    for program in daemon/hotplugd client/hotplugctl; do
        [ -f "build-$build/$program" ] || continue
        "$strip" -o "$tools/stripped" "build-$build/$program"
        echo "size, $build $(basename $program): $(stat -c %s "$tools/stripped") bytes stripped"
    done
done
