#!/bin/bash
# Builds the fuzz target in build-fuzz and runs it for the given number of seconds on one
# core, starting from a copy of the seed corpus (fuzz/corpus-run/, not kept in git) plus
# the repository's small test files. Inputs that crash, hang or leak land in
# build-fuzz/findings/, the whole log in build-fuzz/fuzz.log; the last lines show the
# executions and the coverage reached.
#   fuzz/run.sh SECONDS [extra libFuzzer options...]
set -euo pipefail
seconds=${1:?usage: fuzz/run.sh SECONDS [libFuzzer options...]}
shift
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build-fuzz"
run="$root/fuzz/corpus-run"
findings="$build/findings"
log="$build/fuzz.log"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DSARVELINTH_FUZZ=ON \
    -DSARVELINTH_TESTS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >&2
ninja -C "$build" -j2 sarvelinth-fuzz >&2

mkdir -p "$run" "$findings"
cp -n "$root"/fuzz/corpus/* "$run"/ 2>/dev/null || true
# Real files up to 64 KiB make good seeds; larger ones only slow every execution.
for file in "$root"/samples/*.mp4 "$root"/tests/data/*.{mp4,m4a,mov,3gp,m4s} \
    "$root"/tests/data/regressions/*; do
    if [ -f "$file" ] && [ "$(stat -c %s "$file")" -le 65536 ]; then
        cp -n "$file" "$run/$(basename "$(dirname "$file")")-$(basename "$file")"
    fi
done

"$build/bin/sarvelinth-fuzz" "$run" \
    -dict="$root/fuzz/mp4.dict" \
    -max_total_time="$seconds" \
    -max_len=65536 \
    -timeout=5 \
    -rss_limit_mb=2048 \
    -malloc_limit_mb=64 \
    -print_final_stats=1 \
    -artifact_prefix="$findings/" \
    "$@" >"$log" 2>&1 || true
grep -E 'INITED|pulse|DONE|^stat::|^==[0-9]+==ERROR|^SUMMARY|CheckingSink|report nodes|samples for|report not ended|Test unit written' \
    "$log" || true
echo "--- last status line:"
grep -E '^#[0-9]+' "$log" | tail -1
echo "--- findings in $findings:"
ls "$findings"
