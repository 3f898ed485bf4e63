#!/usr/bin/env bash
# bench/compare.sh: times sarvelinth against the other inspectors installed here on the
# benchmark inputs, all in one run. Builds the Release tree build-bench/ and makes the
# inputs when they are missing, then checks that the reports are unchanged
# (bench/check-output.sh) before it times anything.
#
# Every round runs each command once, one after the other (A/B pair by pair), so that the
# load of the machine falls on all of them alike; ratios are the medians of the per-round
# ratios. Output goes to /dev/null, the cache is warm. Figures: median wall time, median
# CPU time (user + system) and the highest peak memory (max RSS) of all rounds.
#
# Environment: RUNS (rounds, default 5), INPUTS (default "a b c d"), BASELINE (the command of
# another build, an earlier commit's say, timed beside this one's to tell whether a change
# made it slower).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
runs=${RUNS:-5}
read -r -a inputs <<<"${INPUTS:-a b c d}"

echo "== building build-bench (Release)" >&2
cmake -S "$root" -B "$root/build-bench" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DSARVELINTH_TESTS=OFF -DSARVELINTH_BENCH=ON >&2
cmake --build "$root/build-bench" -j 2 >&2
tool=$root/build-bench/bin/sarvelinth
for input in a b c d; do
    [ -f "$here/inputs/$input.mp4" ] || { "$here/make-inputs.sh" >&2 && break; }
done
"$here/check-output.sh" "$tool" >&2

# name|command; the file name follows the command.
commands=(
    "sarvelinth json|$tool --format json"
    "sarvelinth text|$tool"
    "sarvelinth deep|$tool --format json --deep"
    "ffprobe packets|ffprobe -v error -show_packets -select_streams v -of json"
)
command -v mediainfo >/dev/null && commands+=("mediainfo full|mediainfo --Full")
if [ -n "${BASELINE:-}" ]; then
    commands+=("baseline json|$BASELINE --format json" "baseline text|$BASELINE"
        "baseline deep|$BASELINE --format json --deep")
fi
reference="sarvelinth json"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# median FILE: the median of the numbers in FILE, one per line.
median() {
    sort -g "$1" | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# One report record per line of the text report with samples: elements, fields, samples.
records() {
    "$tool" --samples "$1" 2>/dev/null | wc -l
}

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), load $(cut -d' ' -f1-3 /proc/loadavg)"
echo "date:    $(date -u '+%Y-%m-%d %H:%M UTC'), $runs rounds"
echo
printf '%-6s %-16s %9s %9s %9s %12s\n' input command wall_s cpu_s rss_MiB "wall_ratio"
for input in "${inputs[@]}"; do
    file=$here/inputs/$input.mp4
    for ((round = 1; round <= runs; round++)); do
        for entry in "${commands[@]}"; do
            name=${entry%%|*}
            key=${name// /_}
            # shellcheck disable=SC2086
            /usr/bin/time -f '%e %U %S %M' -o "$work/time" ${entry#*|} "$file" >/dev/null 2>&1 ||
                echo "warning: $name failed on $input.mp4" >&2
            read -r wall user system rss <"$work/time"
            echo "$wall" >>"$work/$input.$key.wall"
            echo "$user $system" | awk '{ print $1 + $2 }' >>"$work/$input.$key.cpu"
            echo "$rss" >>"$work/$input.$key.rss"
        done
    done
    referenceKey=${reference// /_}
    for entry in "${commands[@]}"; do
        name=${entry%%|*}
        key=${name// /_}
        paste "$work/$input.$key.wall" "$work/$input.$referenceKey.wall" |
            awk '{ print ($2 > 0) ? $1 / $2 : 0 }' >"$work/$input.$key.ratio"
        printf '%-6s %-16s %9.3f %9.3f %9.1f %11.2fx\n' "$input" "$name" \
            "$(median "$work/$input.$key.wall")" "$(median "$work/$input.$key.cpu")" \
            "$(sort -n "$work/$input.$key.rss" | tail -1 | awk '{ print $1 / 1024 }')" \
            "$(median "$work/$input.$key.ratio")"
    done
done

# Linearity: the cost of b against a, beside the ratio of their report records. The
# start-up of the process (loading Qt and the plugin) is measured on the smallest input
# there is, the repository's sample file, and taken off both.
if [[ " ${inputs[*]} " == *" a "* && " ${inputs[*]} " == *" b "* ]]; then
    for ((round = 1; round <= runs; round++)); do
        /usr/bin/time -f '%U %S' -o "$work/time" "$tool" --format json \
            "$root/samples/sample.mp4" >/dev/null 2>&1
        awk '{ print $1 + $2 }' "$work/time" >>"$work/startup.cpu"
    done
    startup=$(median "$work/startup.cpu")
    recordsA=$(records "$here/inputs/a.mp4")
    recordsB=$(records "$here/inputs/b.mp4")
    cpuA=$(median "$work/a.sarvelinth_json.cpu")
    cpuB=$(median "$work/b.sarvelinth_json.cpu")
    echo
    awk -v ra="$recordsA" -v rb="$recordsB" -v ca="$cpuA" -v cb="$cpuB" -v s="$startup" 'BEGIN {
        printf "linearity (json, CPU time): records b/a = %d/%d = %.2f; cost b/a = %.2f, %.2f without start-up (%.3f s)\n",
            rb, ra, rb / ra, cb / ca, (cb - s) / (ca - s), s
        printf "  cost ratio / record ratio = %.3f (without start-up)\n", ((cb - s) / (ca - s)) / (rb / ra)
    }'
fi
