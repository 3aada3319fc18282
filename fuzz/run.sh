#!/usr/bin/env bash
# Builds the fuzz preset, makes the seed corpora and runs every fuzz target (or those named);
# prints each target's executions and coverage, and fails when a target found anything.
#
# usage: fuzz/run.sh [--seconds N] [--runs N] [--jobs N] [TARGET...]
#   --seconds N  stop each target after N seconds (default 3 when --runs is not given)
#   --runs N     stop each target after N executions (both limits may be given)
#   --jobs N     run N targets at once (default 1)
# Inputs that add coverage are kept in build-fuzz/corpus/<target>; a finding is written to
# build-fuzz/findings/<target>/ and the log to build-fuzz/logs/<target>.log. Each run starts
# from the kept corpus, the seeds (build-fuzz/seeds) and fuzz/regressions/<target>.
set -uo pipefail
cd "$(dirname "$0")/.."

seconds="" runs="" jobs=1 targets=()
while [ $# -gt 0 ]; do
    case $1 in
    --seconds) seconds=$2; shift 2 ;;
    --runs) runs=$2; shift 2 ;;
    --jobs) jobs=$2; shift 2 ;;
    -*) echo "usage: $0 [--seconds N] [--runs N] [--jobs N] [TARGET...]" >&2; exit 2 ;;
    *) targets+=("$1"); shift ;;
    esac
done
[ -n "$seconds$runs" ] || seconds=3
all=(receive ktcfg sysconf probe_text utf8 drivename proc_words sysfs uevent reply)
[ ${#targets[@]} -gt 0 ] || targets=("${all[@]}")

build=build-fuzz
cmake --preset fuzz >/dev/null && cmake --build --preset fuzz -j 2 >"$build.log" 2>&1 ||
    { tail -n 40 "$build.log"; exit 1; }
bash fuzz/seeds.sh "$build/seeds" || exit 1

run_target() {
    local t=${1#fuzz_} options=()
    case $t in
    receive) options+=(-max_len=2000) ;;          # what a local user may send, and more
    ktcfg | uevent) options+=(-max_len=10000) ;;  # lines and paths past the buffers' sizes
    esac
    [ -z "$seconds" ] || options+=("-max_total_time=$seconds")
    [ -z "$runs" ] || options+=("-runs=$runs")
    mkdir -p "$build/corpus/$t" "$build/findings/$t" "$build/logs"
    local dirs=("$build/corpus/$t" "$build/seeds/$t")
    [ -d "fuzz/regressions/$t" ] && dirs+=("fuzz/regressions/$t")
    "$build/fuzz/fuzz_$t" -print_final_stats=1 -timeout=10 -artifact_prefix="$build/findings/$t/" \
        "${options[@]}" "${dirs[@]}" >"$build/logs/$t.log" 2>&1
    echo $? >"$build/logs/$t.status"
}

for t in "${targets[@]}"; do
    while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do
        wait -n
    done
    run_target "$t" &
done
wait

failed=0
printf '%-12s %12s %6s %7s  %s\n' target executions cov ft result
for t in "${targets[@]}"; do
    t=${t#fuzz_}
    log=$build/logs/$t.log
    execs=$(sed -n 's/^stat::number_of_executed_units: //p' "$log" | tail -n 1)
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1)
    ft=$(grep -o 'ft: [0-9]*' "$log" | tail -n 1)
    result=ok
    if [ "$(cat "$build/logs/$t.status")" != 0 ]; then
        result="FOUND: $(grep -m 1 -E 'ERROR|SUMMARY' "$log" || tail -n 1 "$log"); see $log"
        failed=1
    fi
    printf '%-12s %12s %6s %7s  %s\n' "$t" "${execs:-?}" "${cov#cov: }" "${ft#ft: }" "$result"
done
exit $failed
