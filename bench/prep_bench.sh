#!/usr/bin/env bash
# ketra-prep's time and peak memory on generated studies of hard calls (GT):
# S samples x M sites, and the same samples at 4 x M sites (the figure
# "memory does not grow with the sites"). Each input is made once by
# prep_study.py (panel of 50 samples, study, map), bgzip-compressed and
# indexed with bcftools, and kept in the data folder for later runs.
#
#   bench/prep_bench.sh [--python] [--bound] [--runs N] [--samples S] [--sites M] [--data DIR] [PROGRAM]
#
# PROGRAM defaults to build/ketra-prep; --python times the Python script the
# tool was before (taken from git history) instead. Prints, per input and run,
# the wall time and the maximum resident set size from /usr/bin/time -v, then
# the range over the runs and the size of PREFIX.gen.gz against the same text
# as one zlib stream at level 6 (what ketra-prep wrote before it used BGZF).
# Default: 3 runs, 20000 samples, 1332 sites.
# --bound instead shows what bounds the time on the 1x input: the run with
# -plain (reading and formatting alone), then build/bench/deflate_timing on the
# genotype text it wrote (the compression, one stream and in parallel members).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=3 samples=20000 sites=1332 data=${PREP_BENCH_DATA:-$root/build/prep-bench} python=0 bound=0 program=""
while [ $# -gt 0 ]; do
    case $1 in
        --python) python=1 ;;
        --bound) bound=1 ;;
        --runs) runs=$2; shift ;;
        --samples) samples=$2; shift ;;
        --sites) sites=$2; shift ;;
        --data) data=$2; shift ;;
        -*) echo "unknown option $1" >&2; exit 2 ;;
        *) program=$1 ;;
    esac
    shift
done

command=()
if [ "$python" = 1 ]; then
    # The last version of the script: the parent of the commit that removed it.
    script=$data/ketra-prep.py
    mkdir -p "$data"
    if git -C "$root" cat-file -e HEAD:tools/ketra-prep 2>/dev/null; then
        git -C "$root" show HEAD:tools/ketra-prep > "$script"
    else
        gone=$(git -C "$root" rev-list -n 1 HEAD -- tools/ketra-prep)
        git -C "$root" show "$gone^:tools/ketra-prep" > "$script"
    fi
    command=(/usr/bin/python3 "$script")
else
    command=("${program:-$root/build/ketra-prep}")
fi

# make_input FOLDER SAMPLES SITES: the generated files, compressed and indexed.
make_input() {
    local dir=$1
    [ -f "$dir/done" ] && return
    echo "generating $2 samples x $3 sites in $dir ..." >&2
    /usr/bin/python3 "$root/bench/prep_study.py" "$2" "$3" "$dir"
    for f in panel study; do
        bcftools view --no-version -Oz -o "$dir/$f.vcf.gz" "$dir/$f.vcf"
        bcftools index "$dir/$f.vcf.gz"
        rm "$dir/$f.vcf"
    done
    touch "$dir/done"
}

# MB from /usr/bin/time's kilobytes.
mb() { awk -v k="$1" 'BEGIN { printf "%.0f", k / 1024 }'; }

# run_prep FOLDER OUT [ARGS...]: one timed run on FOLDER's input into OUT.
run_prep() {
    local dir=$1 out=$2
    shift 2
    /usr/bin/time -v "${command[@]}" -ref "$dir/panel.vcf.gz" -study "$dir/study.vcf.gz" -map "$dir/map.txt" \
        -region "$(cat "$dir/region.txt")" -o "$out/p" -gt "$@" > "$out/report.txt" 2> "$out/time.txt" ||
        { cat "$out/report.txt" "$out/time.txt"; exit 1; }
    wall=$(sed -n 's/.*Elapsed (wall clock) time (h:mm:ss or m:ss): //p' "$out/time.txt" |
           awk -F: '{ s = 0; for (i = 1; i <= NF; i++) s = s * 60 + $i; printf "%.2f", s }')
    peak=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$out/time.txt")
}

if [ "$bound" = 1 ]; then
    dir=$data/s${samples}-m${sites}
    make_input "$dir" "$samples" "$sites"
    out=$(mktemp -d)
    trap 'rm -rf "$out"' EXIT
    for run in $(seq "$runs"); do
        run_prep "$dir" "$out" -plain
        echo "-plain, run $run: $wall s, $(mb "$peak") MB"
    done
    timing=$(dirname "${command[0]}")/bench/deflate_timing
    [ -x "$timing" ] || timing=$root/build/bench/deflate_timing
    "$timing" "$out/p.gen" "$(nproc)" "$runs"
    exit 0
fi

for factor in 1 4; do
    m=$((sites * factor))
    dir=$data/s${samples}-m${m}
    make_input "$dir" "$samples" "$m"
    times=() peaks=()
    for run in $(seq "$runs"); do
        out=$(mktemp -d)
        run_prep "$dir" "$out"
        written=$(sed -n 's/.*study SNPs written: //p' "$out/report.txt")
        echo "${factor}x: $samples samples x $m sites, run $run: $wall s, $(mb "$peak") MB ($written SNPs written)"
        times+=("$wall") peaks+=("$peak")
        gen_size=$(stat -c %s "$out/p.gen.gz")
        [ "$run" = "$runs" ] || rm -rf "$out"
    done
    # The zlib stream is made once, from the last run's text.
    zlib_size=$(zcat "$out/p.gen.gz" | /usr/bin/python3 -c 'import sys, zlib; print(len(zlib.compress(sys.stdin.buffer.read(), 6)))')
    echo "${factor}x: PREFIX.gen.gz $gen_size bytes, one zlib stream at level 6 $zlib_size bytes:" \
        "$(awk -v a="$gen_size" -v b="$zlib_size" 'BEGIN { printf "%+.1f %%", (a / b - 1) * 100 }')"
    rm -rf "$out"
    printf '%s\n' "${times[@]}" | sort -g | sed -n '1p;$p' | paste -sd' ' |
        awk -v f="$factor" -v s="$samples" -v m="$m" '{ printf "%sx (%s x %s): time %s-%s s", f, s, m, $1, $2 }'
    printf '%s\n' "${peaks[@]}" | sort -g | sed -n '1p;$p' | paste -sd' ' |
        awk '{ printf ", peak memory %.0f-%.0f MB\n", $1 / 1024, $2 / 1024 }'
done
