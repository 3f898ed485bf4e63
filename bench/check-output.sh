#!/usr/bin/env bash
# bench/check-output.sh [--record] [SARVELINTH]: checks that the reports of the benchmark
# inputs are byte for byte those recorded in bench/output-hashes.txt, so that a speed-up
# cannot change a report unnoticed. --record writes the hashes anew (do that only with a
# build whose reports are known to be right). The inputs come from this machine's FFmpeg:
# their own hashes are recorded too, and a different input is told apart from a different
# report.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
record=0
if [ "${1:-}" = --record ]; then
    record=1
    shift
fi
tool=${1:-$here/../build-bench/bin/sarvelinth}
hashes=$here/output-hashes.txt
[ -x "$tool" ] || { echo "check-output: no $tool; build it first" >&2; exit 2; }
[ -f "$here/inputs/b.mp4" ] || "$here/make-inputs.sh" >&2

# name, then the options of one report
variants=(
    "json|--format json"
    "text|"
    "text-samples|--samples"
    "json-bases|--format json --value-base 16 --size-base 7"
    "text-bases|--samples --value-base 36 --size-base 2"
)

lines() {
    local input variant name options
    for input in a b c d; do
        echo "input $input.mp4 $(sha256sum <"$here/inputs/$input.mp4" | cut -d' ' -f1)"
        for variant in "${variants[@]}"; do
            name=${variant%%|*}
            options=${variant#*|}
            # shellcheck disable=SC2086
            echo "$name $input.mp4 $(cd "$here/inputs" && "$tool" $options "$input.mp4" 2>/dev/null |
                sha256sum | cut -d' ' -f1)"
        done
    done
}

if [ $record -eq 1 ]; then
    lines >"$hashes"
    echo "check-output: recorded $(wc -l <"$hashes") hashes in $hashes"
    exit 0
fi
now=$(mktemp)
trap 'rm -f "$now"' EXIT
lines >"$now"
if ! diff <(grep '^input' "$hashes") <(grep '^input' "$now") >&2; then
    echo "check-output: the inputs differ from those recorded; the reports cannot be compared" >&2
    exit 2
fi
if ! diff "$hashes" "$now" >&2; then
    echo "check-output: REPORTS CHANGED (lines above: < recorded, > now)" >&2
    exit 1
fi
echo "check-output: all reports unchanged"
