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

# Partial results: a split of the small data into two chunks, by the build's
# own program; the header piece is the merging run's individuals and layout,
# and the fingerprint and the index checksum become the placeholders the
# target fills in.
split_run() {  # split_run NAME EXTRA-FLAGS...
    local name=$1 work="$build/split-$1"
    shift
    rm -rf "$work" && mkdir -p "$work"
    cp "$small"/{ref.hap,ref.legend,map.txt,study.gen,trees.txt} "$work"
    for i in 1 2; do
        (cd "$work" && "../ketra" -h ref.hap -l ref.legend -m map.txt -g study.gen -tree_file trees.txt \
            -int 900 2000 -buffer 0 -tavlo_input "$@" -chunk $i 2 -o run >/dev/null)
    done
    {
        awk '/^individuals/ { n = $2 } /^layout/ { printf "%s %s %s", n, $2, $3; for (f = 5; f <= NF; f++) printf " %s", $f }' \
            "$work/run.chunk1of2.part"
        for f in run.chunk1of2.part run.chunk2of2.part; do
            printf '\0==file==\0%s\n' "$f"
            sed 's/^fingerprint .*/fingerprint FINGERPRINT/; s/^checksum .*/checksum CHECKSUM/' "$work/$f"
            for r in "$work/$f".*; do
                printf '\0==file==\0%s\n' "$(basename "$r")"
                cat "$r"
            done
        done
    } | seed partial_results "$name"
}
split_run positions
split_run one_position -int 1200 1300

# Numbers as the genotype files write them, and the tokens where formatted
# extraction parses only part of a field or fails.
{ printf '\370'; head -c 3000 "$small/study.gen"; } | seed field_reader small
{
    printf '\377'
    printf '%s\n' '0 1 0.5 -0 +1 .5 5. 1e5 1E-05 1e 1e+ 1e-400 1e400 4.9e-324 2.2250738585072014e-308' \
        '0x1p3 nan inf -inf 1.5abc --1 1,5 00001 9007199254740993 0.1000000000000000055511151231257827' \
        '1e5x 12345678901234567890123456789 .e1 -. + - 7' 'a b 3.0 c d 0.3 0.3 0.4 ' '  tail 1 2 3 4'
} | seed field_reader adversarial

targets=(tree_parser tree_map genotypes panel genetic_map strand samples snp_exclusions command_line partial_results
         field_reader)
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
