#!/usr/bin/env bash
# Where a one-thread whole run goes: perf record on the bench-style data
# (K = 200, L = 2000, 201 positions, -tavlo_input) with N individuals, then
# each part's share of the samples. Needs perf (linux-perf).
#   bench/profile.sh [build dir] [N]
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
n=${2:-100}
command -v perf > /dev/null || { echo "profile.sh: perf not found (apt-get install linux-perf)"; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
args=$("$build/bench/ketra_bench" --inputs-only 1 --N "$n" --dir "$work/data" | tail -n 1)
# shellcheck disable=SC2086
perf record -q -o "$work/perf.data" "$build/ketra" $args -threads 1 -o "$work/out/run" > /dev/null 2>&1
perf report -i "$work/perf.data" --no-children --sort symbol 2> /dev/null | awk '
    /^ *[0-9.]+%/ {
        name = $3
        if ($2 == "[k]") part = "kernel: writing and reading files"
        else if (name ~ /gamma_step|backward_from_gamma|forward_step|forward_first|backward_last/) part = "passes"
        else if (name ~ /branch_probabilities/) part = "branch sums"
        else if (name ~ /posterior_from/) part = "pair posteriors"
        else if (name ~ /general_text/) part = "number text"
        else if (name ~ /crc32/) part = "record checksums"
        else part = "everything else"
        total[part] += $1
    }
    END { for (p in total) printf "%6.1f %%  %s\n", total[p], p }' | sort -rn
