#!/usr/bin/env bash
# bench/batch.sh: files per second over many small files: ./batch on a local Dask cluster,
# beside the tool given every file in one process (its full report, and the summary lines
# that ./batch reads), the tool run once per file and ffprobe run once per file. The files (FILES, default 10,000, of a few KB) are copies of the
# FFmpeg test files in tests/data, made in a temporary directory. The runs once per file
# cost tens of milliseconds each, so they are timed over the first ONE_BY_ONE files
# (default 500), in one round; the others take the best of RUNS rounds (default 3).
# ./batch is timed twice: as a user runs it, starting a local cluster of one worker per
# core, and on a cluster already running on this machine (a scheduler and one worker
# process per core started here beforehand, stopped at the end). Uses the Release tree build-bench/, built
# when missing.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
count=${FILES:-10000}
oneByOne=${ONE_BY_ONE:-500}
runs=${RUNS:-3}

echo "== building build-bench (Release)" >&2
[ -f "$root/build-bench/build.ninja" ] ||
    cmake -S "$root" -B "$root/build-bench" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DSARVELINTH_TESTS=OFF -DSARVELINTH_BENCH=ON >&2
cmake --build "$root/build-bench" -j 2 >&2
tool=$root/build-bench/bin/sarvelinth

work=$(mktemp -d)
pids=()
cleanup() {
    local pid
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
# One folder of 100 files copied as a whole: a process per file would take minutes.
sources=("$root"/tests/data/*.mp4)
mkdir -p "$work/files/d0"
for ((i = 0; i < 100 && i < count; i++)); do
    cp "${sources[i % ${#sources[@]}]}" "$work/files/d0/f$i.mp4"
done
for ((i = 1; i < count / 100; i++)); do
    cp -r "$work/files/d0" "$work/files/d$i"
done
find "$work/files" -name '*.mp4' | sort >"$work/files.list"
mapfile -t files <"$work/files.list"
echo "machine: $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
echo "files:   ${#files[@]}, $(du -sh "$work/files" | cut -f1)"

# best ROUNDS NAME FILES COMMAND...: the best of the rounds: wall time, files per second,
# and the CPU time (user + system) of the command and the processes it waited for, per
# file. The CPU time does not depend on the load of the machine as much as the wall time;
# it misses the workers of a cluster that was already running.
best() {
    local rounds=$1 name=$2 n=$3 round wall user system fastest='' cpu='' TIMEFORMAT='%R %U %S'
    shift 3
    for ((round = 1; round <= rounds; round++)); do
        { time "$@" >/dev/null 2>&1 || true; } 2>"$work/time"
        read -r wall user system <"$work/time"
        if [ -z "$fastest" ] || [ "$(echo "$wall < $fastest" | bc)" = 1 ]; then
            fastest=$wall
            cpu=$(echo "($user + $system) * 1000 / $n" | bc -l)
        fi
    done
    printf '%-34s %6d files %8.2f s %9.1f files/s %7.3f ms CPU/file\n' "$name" "$n" \
        "$fastest" "$(echo "$n / $fastest" | bc -l)" "$cpu"
}

one_by_one_tool() {
    local file
    for file in "${files[@]:0:oneByOne}"; do "$tool" --format json --check "$file"; done
}
one_by_one_ffprobe() {
    local file
    for file in "${files[@]:0:oneByOne}"; do
        ffprobe -v error -show_format -show_streams "$file"
    done
}
batch() {
    rm -f "$work/rows.jsonl"
    "$root/batch" --tool "$tool" --no-progress --output "$work/rows.jsonl" "$@" "$work/files"
}

# xargs gives the tool as many files at a time as a command line takes: all 10,000 at once.
best "$runs" "sarvelinth json, one process" "${#files[@]}" \
    xargs -a "$work/files.list" "$tool" --format json --check --
best "$runs" "sarvelinth summary, one process" "${#files[@]}" \
    xargs -a "$work/files.list" "$tool" --format summary --check --
best "$runs" "./batch, local cluster" "${#files[@]}" batch
# The cluster that is already running: on 127.0.0.1 only, without the workers' profiler, as
# ./batch sets up its local cluster.
port=$((20000 + RANDOM % 20000))
export DASK_DISTRIBUTED__WORKER__PROFILE__ENABLED=False
dask scheduler --host 127.0.0.1 --port "$port" --no-dashboard >"$work/scheduler.log" 2>&1 &
pids+=($!)
dask worker "tcp://127.0.0.1:$port" --host 127.0.0.1 --nworkers "$(nproc)" --nthreads 1 \
    --no-dashboard >"$work/worker.log" 2>&1 &
pids+=($!)
# Its start (some seconds of CPU) is over before the rounds on it begin.
sleep 5
best "$runs" "./batch, cluster already running" "${#files[@]}" \
    batch --scheduler "tcp://127.0.0.1:$port"
best 1 "sarvelinth, once per file" "$oneByOne" one_by_one_tool
best 1 "ffprobe, once per file" "$oneByOne" one_by_one_ffprobe
echo "rows: $(wc -l <"$work/rows.jsonl")"
