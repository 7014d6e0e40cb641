#!/usr/bin/env bash
# A K = 4000 panel (230 SNPs, N = 4, 61 positions): the whole run with
# -tavlo_input against the run without it. Best wall time of RUNS runs each,
# the runs of the two kinds taken in turn, peak memory, and the ratio of the
# bests.
#   bench/large_panel.sh [build dir] [runs]   (defaults: build 3)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
runs=${2:-3}
data=$(mktemp -d)
trap 'rm -rf "$data"' EXIT
"$build/bench/ketra_bench" --K 4000 --L 230 --N 4 --positions 61 --dir "$data" --inputs-only 1 > "$data/args"
args=$(tail -n 1 "$data/args" | sed 's/ -tavlo_input//')
declare -A best=()
for ((r = 1; r <= runs; ++r)); do
    for mode in plain tavlo; do
        extra=$([ "$mode" = tavlo ] && echo -tavlo_input || true)
        rm -rf "$data/out"
        # shellcheck disable=SC2086
        /usr/bin/time -f "%e %M" -o "$data/time" "$build/ketra" $args $extra -o "$data/out/run" > /dev/null
        read -r wall kb < "$data/time"
        echo "$mode run $r: wall $wall s, peak $((kb / 1024)) MiB"
        if [ -z "${best[$mode]:-}" ] || awk -v a="$wall" -v b="${best[$mode]}" 'BEGIN { exit !(a < b) }'; then
            best[$mode]=$wall
        fi
    done
done
awk -v p="${best[plain]}" -v t="${best[tavlo]}" \
    'BEGIN { printf "best wall: without %.2f s, with -tavlo_input %.2f s: %.2fx\n", p, t, t / p }'
