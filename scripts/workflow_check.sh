#!/usr/bin/env bash
# Runs the Snakemake workflow locally on the example with three chunks and
# compares every result file with a single run's, byte for byte.
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ketra=build/ketra
args="-h examples/chr20-small/ref.hap -l examples/chr20-small/ref.legend -m examples/chr20-small/map.txt
      -g examples/chr20-small/study.gen.gz -tree_file examples/chr20-small/trees.txt -int 1350000 1395000
      -buffer 15 -tavlo_input -strict"
$ketra $args -o "$work/single/run" > "$work/single.log"
snakemake -s workflow/Snakefile --configfile workflow/config.yaml -j 3 -q \
    --config ketra="$ketra" output="$work/split/run" chunks=3 threads=1 > "$work/snakemake.log" 2>&1 ||
    { cat "$work/snakemake.log"; exit 1; }
count=0
for f in "$work"/single/*; do
    name=$(basename "$f")
    [ "$name" = run.aux ] && continue
    cmp "$f" "$work/split/$name"
    count=$((count + 1))
done
[ "$count" -gt 1 ] || { echo "workflow check: too few result files ($count)"; exit 1; }
echo "workflow check: $count files equal to the single run"
