#!/usr/bin/env bash
# Study input at biobank scale: times and peak memory of reading the genotype
# file, on the benchmark's data set (K = 100, L = 3,000, N individuals).
#   bench/study_input.sh [KETRA] [N] [DIR] [WHAT...]
# WHAT (default "chunk start"):
#   chunk  -chunk 1 100: the whole job's time and peak memory
#   start  whole run, 1 thread: seconds until the passes start, plain and gzip
#          genotype file (the run is stopped there)
#   whole  whole run, 1 thread, to the end: time and peak memory
# The data set is made once in DIR (default bench-data/N<N>) by ketra_bench.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
ketra=$(realpath "${1:-$here/build/ketra}")
N=${2:-20000}
dir=${3:-bench-data/N$N}
shift $(( $# < 3 ? $# : 3 ))
what=("${@:-chunk start}")
[ ${#what[@]} -eq 1 ] && read -r -a what <<<"${what[0]}"
bench_bin=$(dirname "$ketra")/bench/ketra_bench
[ -x "$bench_bin" ] || bench_bin=$here/build/bench/ketra_bench

if [ ! -s "$dir/study.gen" ]; then
    "$bench_bin" --K 100 --L 3000 --N "$N" --positions 10 --dir "$dir" --inputs-only 1 >/dev/null
fi
dir=$(realpath "$dir")
args=(-h "$dir/ref.hap" -l "$dir/ref.legend" -m "$dir/map.txt" -tree_file "$dir/trees.txt"
      -int 1000000 1299900 -buffer 0 -tavlo_input -threads 1)
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# Seconds from the start until the line that opens the passes, then stops the run.
until_passes() {
    local start now
    start=$(date +%s.%N)
    ( "$ketra" "$@" -o "$out/start" & echo $! >"$out/pid"; wait ) | while IFS= read -r line; do
        case "$line" in Performing*)
            now=$(date +%s.%N)
            kill "$(cat "$out/pid")" 2>/dev/null || true
            echo "$now - $start" | bc
            break;;
        esac
    done
}

echo "ketra: $ketra"
echo "data: K = 100, L = 3000, N = $N ($(du -m "$dir/study.gen" | cut -f1) MB genotype file)"
for w in "${what[@]}"; do
    case $w in
    chunk)
        /usr/bin/time -f "%e %M" -o "$out/time" "$ketra" "${args[@]}" -g "$dir/study.gen" -o "$out/run" \
            -chunk 1 100 >"$out/log"
        read -r seconds kb <"$out/time"
        printf 'chunk 1 of 100:               %6.2f s  %8.1f MB peak\n' "$seconds" "$(echo "$kb / 1000" | bc -l)";;
    start)
        [ -s "$dir/study.gen.gz" ] || gzip -c "$dir/study.gen" >"$dir/study.gen.gz"
        printf 'whole run, until the passes:  %6.2f s  (plain)\n' "$(until_passes "${args[@]}" -g "$dir/study.gen")"
        printf 'whole run, until the passes:  %6.2f s  (gzip)\n' "$(until_passes "${args[@]}" -g "$dir/study.gen.gz")";;
    whole)
        /usr/bin/time -f "%e %M" -o "$out/time" "$ketra" "${args[@]}" -g "$dir/study.gen" -o "$out/run" >"$out/log"
        read -r seconds kb <"$out/time"
        printf 'whole run:                    %6.2f s  %8.1f MB peak, %.1f bytes per genotype\n' "$seconds" \
            "$(echo "$kb / 1000" | bc -l)" "$(echo "$kb * 1024 / ($N * 3000)" | bc -l)";;
    *) echo "unknown: $w" >&2; exit 2;;
    esac
done
