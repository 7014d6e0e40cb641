#!/usr/bin/env bash
# The device check, run from the folder bench/gpu_carry.sh makes, on a machine
# with an NVIDIA GPU and nothing else installed: no configure, no build. It
# runs compute-sanitizer over the device tests where the tool exists, checks
# the engine against the CPU pipeline, runs the example and two benchmark data
# sets with and without -gpu, compares every output file with cmp, and prints
# the times. Exits non-zero on the first difference. KETRA_REQUIRE_GPU=1, the
# default here, makes a missing device a failure; with 0 and no device only
# the host-side checks run.
#
#   bash gpu-carry/bench/gpu_check.sh [work-dir]      (default: ./gpu-check)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(realpath -m "${1:-gpu-check}")
export KETRA_REQUIRE_GPU=${KETRA_REQUIRE_GPU:-1}
export LD_LIBRARY_PATH=$root/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
export KETRA_BINARY=$root/bin/ketra KETRA_SOURCE_DIR=$root
ketra=$root/bin/ketra
tests=$root/bin/gpu_records_test
bench_tool=$root/bin/ketra_bench
# The text of -gpu runs is formatted on -threads CPU threads: all the cores.
jobs=$(nproc)

[ -x "$ketra" ] || { echo "no $ketra: make the folder with bench/gpu_carry.sh"; exit 1; }
if ldd "$ketra" "$tests" "$bench_tool" | grep "not found"; then echo "libraries missing from $root/lib"; exit 1; fi
rm -rf "$work"
mkdir -p "$work"

# Stops before reading any input when the engine cannot run here.
why=$(cd "$work" && "$ketra" -h x -l x -m x -tree_file x -g x -o probe/run -int 1 2 -gpu 2>&1 | sed -n 's/^Cannot run with -gpu: //p' || true)
if [ -n "$why" ]; then
    echo "== no usable GPU here: $why"
    echo "== host side: the device arithmetic against the CPU records"
    status=0
    "$tests" --gtest_brief=1 || status=$?
    if [ "$KETRA_REQUIRE_GPU" = 1 ]; then
        echo "KETRA_REQUIRE_GPU=1: the check needs a device"
        exit 1
    fi
    exit $status
fi

sanitizer=$(command -v compute-sanitizer || true)
for candidate in /usr/local/cuda/bin/compute-sanitizer /usr/local/cuda/compute-sanitizer/compute-sanitizer; do
    if [ -z "$sanitizer" ] && [ -x "$candidate" ]; then sanitizer=$candidate; fi
done
if [ -n "$sanitizer" ]; then
    for tool in memcheck racecheck initcheck; do
        echo "== compute-sanitizer --tool $tool over the device tests (small cases)"
        KETRA_GPU_QUICK=1 "$sanitizer" --tool "$tool" --error-exitcode 1 \
            "$tests" --gtest_brief=1 --gtest_filter='GpuEngine.BatchesGiveTheCpuRecords'
    done
else
    echo "== compute-sanitizer not found: memcheck, racecheck and initcheck not run"
fi

echo "== engine against the CPU pipeline on the device, whole runs with -gpu (plain and split) against plain runs"
"$tests" --gtest_brief=1

# run NAME DIR ARGS...: runs ketra in DIR with its output under DIR/NAME, prints
# the wall time; prints the run's log when it fails.
run() {
    local name=$1 dir=$2
    shift 2
    mkdir -p "$dir/$name"
    local start end
    start=$(date +%s.%N)
    if ! (cd "$dir" && "$ketra" "$@" -o "$name/run" >"$name.log" 2>&1); then
        echo "FAILED: $name ($ketra $* -o $name/run); its log:"
        cat "$dir/$name.log"
        exit 1
    fi
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
cp -r "$root"/examples/chr20-small/* "$ex"/
read -r -a ex_args < "$root"/examples/chr20-small/args.txt
# drop the example's own -o
args=()
skip=0
for a in "${ex_args[@]}"; do
    if [ $skip = 1 ]; then skip=0; continue; fi
    if [ "$a" = "-o" ]; then skip=1; continue; fi
    args+=("$a")
done
run cpu "$ex" "${args[@]}" -print_matrix
run gpu "$ex" "${args[@]}" -print_matrix -gpu -threads "$jobs"
same "$ex" cpu gpu

# bench K L N POSITIONS: the benchmark data set, with and without -tavlo_input.
bench() {
    local K=$1 L=$2 N=$3 P=$4 dir=$work/bench-K$1
    echo "== benchmark data K=$K L=$L N=$N positions=$P"
    read -r -a b_args <<<"$("$bench_tool" --K "$K" --L "$L" --N "$N" --positions "$P" --dir "$dir" --inputs-only 1)"
    local plain=()
    for a in "${b_args[@]}"; do [ "$a" = "-tavlo_input" ] || plain+=("$a"); done
    run cpu-passes "$dir" "${plain[@]}" -threads 1
    run gpu-passes "$dir" "${plain[@]}" -gpu -threads "$jobs"
    same "$dir" cpu-passes gpu-passes
    run cpu-whole "$dir" "${b_args[@]}" -threads 1
    run gpu-whole "$dir" "${b_args[@]}" -gpu -threads "$jobs"
    same "$dir" cpu-whole gpu-whole
    run cpu-whole-t$jobs "$dir" "${b_args[@]}" -threads "$jobs"
    same "$dir" cpu-whole "cpu-whole-t$jobs"
}
bench 200 2000 500 201
echo "== engines alone (passes and 200 posteriors per individual), K=200 L=2000 N=500"
"$bench_tool" --K 200 --L 2000 --N 500 --positions 201 --dir "$work/engine" --ketra "$ketra" \
    --threads 1 --baseline 0 --gpu 1
# Too large for shared memory: the global-memory kernel.
bench 2000 200 12 21
echo "all outputs identical"
