#!/usr/bin/env bash
# Whole run on bench-style data (K=200, L=2000, N=500, 201 positions,
# -tavlo_input), plain pardo files against -pardo_gz: best wall time of
# REPEATS runs each, total size of the pardo files and the ratio.
#   bench/pardo_gz.sh [build dir] [threads] [repeats]
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
threads=${2:-2}
repeats=${3:-3}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
args=$("$build/bench/ketra_bench" --inputs-only 1 --dir "$work/data" | tail -n 1)

best() { sort -n | head -n 1; }
for mode in plain gz; do
    flag=; [ "$mode" = gz ] && flag=-pardo_gz
    for r in $(seq "$repeats"); do
        rm -rf "$work/$mode"; mkdir -p "$work/$mode"
        # shellcheck disable=SC2086
        /usr/bin/time -f "%e %U %S" -o "$work/$mode.time" \
            "$build/ketra" $args $flag -threads "$threads" -o "$work/$mode/run" > /dev/null
        read -r wall user sys < "$work/$mode.time"
        echo "$mode run $r: wall $wall s, user $user s, sys $sys s, load $(cut -d' ' -f1 /proc/loadavg)"
        echo "$wall" >> "$work/$mode.walls"
    done
    du -cb "$work/$mode"/*.pardo* | tail -n 1 | cut -f1 > "$work/$mode.bytes"
done
[ "$(ls "$work/gz"/*.pardo.gz | wc -l)" -eq "$(ls "$work/plain"/*.pardo | wc -l)" ]
for f in "$work/plain"/*.pardo; do zcat "$work/gz/$(basename "$f").gz" | cmp - "$f"; done
plain_wall=$(best < "$work/plain.walls"); gz_wall=$(best < "$work/gz.walls")
plain_bytes=$(cat "$work/plain.bytes"); gz_bytes=$(cat "$work/gz.bytes")
echo "pardo files: plain $plain_bytes B, gzip $gz_bytes B, $(awk -v a="$plain_bytes" -v b="$gz_bytes" 'BEGIN { printf "%.2f", a / b }')x smaller"
echo "best wall: plain $plain_wall s, gzip $gz_wall s, $(awk -v a="$gz_wall" -v b="$plain_wall" 'BEGIN { printf "%.2f", a / b }')x the plain run"
