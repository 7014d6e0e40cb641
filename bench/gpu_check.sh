#!/usr/bin/env bash
# On a machine with an NVIDIA GPU: builds Ketra with the GPU engine, checks the
# engine against the CPU pipeline, runs the example and benchmark data sets
# with and without -gpu, compares every output file with cmp, and prints the
# times. Exits non-zero on the first difference.
#
#   bash bench/gpu_check.sh [work-dir]      (default: build-cuda/gpu-check)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
nvcc_path=$(command -v nvcc || true)
if [ -z "$nvcc_path" ] && [ -x /usr/local/cuda/bin/nvcc ]; then nvcc_path=/usr/local/cuda/bin/nvcc; fi
[ -n "$nvcc_path" ] || { echo "nvcc not found"; exit 1; }

jobs=$(nproc)
cmake -S . -B build-cuda -DCMAKE_BUILD_TYPE=Release -DKETRA_CUDA=ON -DCMAKE_CUDA_COMPILER="$nvcc_path" \
      -DKETRA_TESTS=ON -DKETRA_BENCH=ON >/dev/null
cmake --build build-cuda -j"$jobs" --target ketra ketra_bench gpu_records_test >/dev/null
ketra=$root/build-cuda/ketra
work=${1:-$root/build-cuda/gpu-check}
rm -rf "$work"
mkdir -p "$work"

echo "== engine against the CPU pipeline on the device, whole runs with -gpu (plain and split) against plain runs"
build-cuda/tests/gpu_records_test --gtest_brief=1

# run NAME DIR ARGS...: runs ketra in DIR with its output under DIR/NAME, prints the wall time.
run() {
    local name=$1 dir=$2
    shift 2
    mkdir -p "$dir/$name"
    local start end
    start=$(date +%s.%N)
    (cd "$dir" && "$ketra" "$@" -o "$name/run" >"$name.log")
    end=$(date +%s.%N)
    awk -v n="$name" -v a="$start" -v b="$end" 'BEGIN { printf "%-28s %9.2f s\n", n, b - a }'
}

# same DIR A B: every file of run A equals run B's; the .aux files apart from
# the command line and the output path, which differ by design.
same() {
    local dir=$1 a=$2 b=$3 n=0
    for f in "$dir/$a"/*; do
        local base
        base=$(basename "$f")
        if [ "${base##*.}" = aux ]; then
            cmp <(sed -e 2d -e "s#$a/run#OUT#g" "$f") <(sed -e 2d -e "s#$b/run#OUT#g" "$dir/$b/$base") ||
                { echo "DIFFERENT: $a/$base $b/$base"; exit 1; }
        else
            cmp "$f" "$dir/$b/$base" || { echo "DIFFERENT: $a/$base $b/$base"; exit 1; }
        fi
        n=$((n + 1))
    done
    [ "$(ls "$dir/$a" | wc -l)" = "$(ls "$dir/$b" | wc -l)" ] || { echo "DIFFERENT file sets: $a $b"; exit 1; }
    echo "   $a = $b ($n files, cmp)"
}

echo "== example"
ex=$work/example
mkdir -p "$ex"
cp examples/chr20-small/* "$ex"/ 2>/dev/null || true
read -r -a ex_args < examples/chr20-small/args.txt
# drop the example's own -o
args=()
skip=0
for a in "${ex_args[@]}"; do
    if [ $skip = 1 ]; then skip=0; continue; fi
    if [ "$a" = "-o" ]; then skip=1; continue; fi
    args+=("$a")
done
run cpu "$ex" "${args[@]}" -print_matrix
run gpu "$ex" "${args[@]}" -print_matrix -gpu
same "$ex" cpu gpu

# bench K L N POSITIONS: the benchmark data set, with and without -tavlo_input.
bench() {
    local K=$1 L=$2 N=$3 P=$4 dir=$work/bench-K$1
    echo "== benchmark data K=$K L=$L N=$N positions=$P"
    read -r -a b_args <<<"$(build-cuda/bench/ketra_bench --K "$K" --L "$L" --N "$N" --positions "$P" --dir "$dir" --inputs-only 1)"
    local plain=()
    for a in "${b_args[@]}"; do [ "$a" = "-tavlo_input" ] || plain+=("$a"); done
    run cpu-passes "$dir" "${plain[@]}" -threads 1
    run gpu-passes "$dir" "${plain[@]}" -gpu
    same "$dir" cpu-passes gpu-passes
    run cpu-whole "$dir" "${b_args[@]}" -threads 1
    run gpu-whole "$dir" "${b_args[@]}" -gpu
    same "$dir" cpu-whole gpu-whole
    run cpu-whole-t$jobs "$dir" "${b_args[@]}" -threads "$jobs"
    same "$dir" cpu-whole "cpu-whole-t$jobs"
}
bench 200 2000 500 201
echo "== engines alone (passes and 200 posteriors per individual), K=200 L=2000 N=500"
build-cuda/bench/ketra_bench --K 200 --L 2000 --N 500 --positions 201 --dir "$work/engine" --ketra "$ketra" \
    --threads 1 --baseline 0 --gpu 1
# Too large for shared memory: the global-memory kernel.
bench 2000 200 12 21
echo "all outputs identical"
