#!/usr/bin/env bash
# Builds the fuzz targets with clang (ASan + UBSan) in build-fuzz, makes seed
# corpora from the test data, and runs every target for SECONDS (default 60),
# JOBS targets at a time (default 2). Exits non-zero when a target finds a crash.
# Usage: bash fuzz/run.sh [SECONDS] [JOBS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
jobs=${2:-2}
build=build-fuzz

cmake -S . -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" \
      -DKETRA_FUZZ=ON -DKETRA_TESTS=OFF -DKETRA_BENCH=OFF -DKETRA_NATIVE=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"

small=tests/data/small
example=examples/chr20-small
seeds="$build/seeds"
rm -rf "$seeds"
seed() {  # seed TARGET NAME: the file's content comes from standard input
    mkdir -p "$seeds/$1"
    cat >"$seeds/$1/$2"
}
nul() { printf '\0'; }

i=0
while read -r line; do
    { printf '\004'; printf '%s' "$line"; } | seed tree_parser "line$i"
    i=$((i + 1))
done <"$small/trees.txt"
{ printf '\000'; cat "$small/trees.txt"; } | seed tree_map plain
{ printf '\001'; gzip -c "$small/trees.txt"; } | seed tree_map gzip
{ printf '\000'; cat "$small/study.gen"; } | seed genotypes plain
{ printf '\001'; gzip -c "$small/study.gen"; } | seed genotypes gzip
{ printf '\001'; cat "$example/study.gen.gz"; } | seed genotypes example
{ cat "$small/ref.legend"; nul; cat "$small/ref.hap"; } | seed panel small
{ printf '\000'; cat "$small/map.txt"; } | seed genetic_map small
{ printf '\001'; head -50 "$example/map.txt"; } | seed genetic_map example
printf '1 -\n2 +\n3 -\n3 +\n' | seed strand small
{ printf '\003'; cat "$small/study.sample"; nul; printf 'S1 A2\nS3\n'; } | seed samples small
{ printf '\010'; head -10 "$example/study.sample"; nul; cat "$example/exclude_samples.txt"; } | seed samples example
{ printf 'rs1 rs2\n'; nul; cat "$small/exclude_all.txt"; } | seed snp_exclusions small
cat "$example/exclude_snps.txt" | seed snp_exclusions example
for f in "$example"/args*.txt; do
    tr ' ' '\0' <"$f" | tr -d '\n' | seed command_line "$(basename "$f")"
done
printf -- '-int\0-1\0005\0-Ne\0nan\0-strict\0-nee\0-help' | seed command_line strict

targets=(tree_parser tree_map genotypes panel genetic_map strand samples snp_exclusions command_line)
status=0
run_target() {
    local t=$1 corpus="$build/corpus/$1"
    mkdir -p "$corpus"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$build/fuzz/${t}_fuzz" -max_total_time="$seconds" -max_len=8192 -timeout=20 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$build/${t}-" "$corpus" "$seeds/$t" >"$build/$t.log" 2>&1
}
for ((k = 0; k < ${#targets[@]}; k += jobs)); do
    pids=()
    for t in "${targets[@]:k:jobs}"; do
        run_target "$t" &
        pids+=("$!:$t")
    done
    for p in "${pids[@]}"; do
        if wait "${p%%:*}"; then result=ok; else result=FAILED; status=1; fi
        t=${p#*:}
        execs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$build/$t.log" | grep -o '[0-9]*$' || true)
        cov=$(grep -o 'cov: [0-9]*' "$build/$t.log" | tail -1 || true)
        echo "fuzz $t: $result, ${execs:-?} executions, ${cov:-cov: ?} edges"
        [ "$result" = ok ] || tail -40 "$build/$t.log"
    done
done
exit $status
