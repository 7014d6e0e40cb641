#!/usr/bin/env bash
# The case/control workflow on a running Slurm (SLURM_CONF set): the example
# study (2 regions x {cases from the VCF through ketra-prep, controls from
# genotype files} x 3 chunks) with one chunk job cancelled mid-run on its first
# try, checked against single runs with cmp; then a truncated VCF and a missing
# tree file, which must stop the workflow. Usage: workflow_test.sh KETRA
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
ketra=$(realpath "$1")
ex=$root/examples/chr20-small
work=$(mktemp -d)
cd "$work"
fail() { echo "FAIL: $* (files kept in $work)"; exit 1; }
threads=2

# The example tables, their paths made absolute.
for t in regions sets; do sed "s#\t\(examples\|workflow\)/#\t$root/\1/#g" "$root/workflow/example/$t.tsv" > $t.tsv; done
study() {  # results folder, regions table, sets table, then further snakemake arguments
    local results=$1 regions=$2 sets=$3
    shift 3
    snakemake -s "$root/workflow/Snakefile" --profile "$root/workflow/slurm" --jobs 4 "$@" \
        --config regions="$regions" sets="$sets" results="$results" threads=$threads \
        ketra="$root/tests/workflow/ketra_killed_once.py" ketra_prep="$(dirname "$ketra")/ketra-prep" \
        ketra_plot="$root/tools/ketra-plot"
}
export KETRA_REAL=$ketra KILL_RUN=results/r1/controls/run KILL_CHUNK="2 3" KILL_NOTE=$work/killed.txt

start=$SECONDS
study results regions.tsv sets.tsv > study.log 2>&1 || { tail -n 40 study.log; fail "the workflow"; }
wall=$((SECONDS - start))
jobs=$(grep -c "has been submitted with SLURM jobid" study.log)

# Single runs of the same regions and sets, from the example's own files; the
# cases are the individuals of the cases list.
grep -vxFf "$root/workflow/example/cases.txt" <(tail -n +3 "$ex/study.sample" | cut -d' ' -f1) > not-cases.txt
files=0
for region in "r1 1350000 1372000" "r2 1374000 1395000"; do
    set -- $region
    for group in cases controls; do
        only=()
        [ $group = cases ] && only=(-sample "$ex/study.sample" -exclude_samples not-cases.txt)
        "$ketra" -h "$ex/ref.hap" -l "$ex/ref.legend" -m "$ex/map.txt" -g "$ex/study.gen.gz" "${only[@]}" \
            -tree_file "$ex/trees.txt" -int "$2" "$3" -buffer 15 -tavlo_input -strict -o "single/$1/$group/run" \
            > single.log || fail "single run of $1 $group"
        for f in single/$1/$group/run single/$1/$group/run.*.pardo; do
            cmp "$f" "results/${f#single/}" || fail "$f differs from the workflow's"
            files=$((files + 1))
        done
        grep -A1 -h "^Command line output is" results/$1/logs/$group.{chunk*,merge}.log | grep -c -- "-strict -" |
            grep -qx 4 || fail "a Ketra job of $1 $group ran without -strict"
    done
    # The hand-over names both groups' pardo files at every tree position.
    (cd single/$1 && echo "position	cases	controls" && for f in cases/run.*.pardo; do
        p=${f#cases/run.}
        printf '%s\t%s\t%s\n' "${p%.pardo}" "$f" "controls/run.${p%.pardo}.pardo"
    done | sort -n) | cmp - <(grep -v '^#' "results/$1/handover.tsv") || fail "hand-over file of $1"
    grep -q "<img src=\"$1/cases-vs-controls.png\"" results/index.html || fail "$1 not in the overview"
    /usr/bin/python3 - "results/$1/cases-vs-controls.png" <<'EOF' || fail "plot of $1"
import sys
import matplotlib.image as img
a = img.imread(sys.argv[1])
assert a.shape[:2] == (600, 1000), a.shape
assert len({tuple(p) for p in a[150:450, 150:700].reshape(-1, a.shape[2]).tolist()}) > 10, "plot area is flat"
EOF
done

# The cancelled chunk was caught writing its records, before its index was complete, and run again.
grep -q "^\.run\.chunk2of3\.part\.0\." killed.txt && ! grep -q "index ends: complete" killed.txt ||
    fail "the chunk job was not cancelled mid-run: $(cat killed.txt)"
grep -q "SLURM status is: 'CANCELLED'" study.log && grep -q "Trying to restart job" study.log ||
    fail "no cancelled and restarted job in the workflow's log"

# Every Ketra job asked Slurm for its threads and for the memory the formula gives its run.
/usr/bin/python3 - "$root/workflow" $threads study.log <<'EOF' || fail "resources"
import re, subprocess, sys
sys.path.insert(0, sys.argv[1])
import ketra_workflow as kw
threads, checked = int(sys.argv[2]), 0
for block in open(sys.argv[3]).read().split("\nrule ")[1:]:
    if not block.startswith(("chunk:", "merge:")):
        continue
    inputs = re.search(r"input: (.*)", block).group(1).split(", ")
    start, end = (1350000, 1372000) if "/r1/" in block else (1374000, 1395000)
    size = kw.run_size(inputs[0], inputs[1], inputs[3], inputs[-1 if block.startswith("chunk") else -4], start, end, 15)
    for job in re.findall(r"submitted with SLURM jobid (\d+)", block):
        tres = subprocess.run(["scontrol", "show", "job", job], capture_output=True, text=True).stdout
        # Slurm rounds the memory up to a whole number of MiB per CPU.
        cpus, mem = re.search(r"TRES=cpu=(\d+),mem=(\d+)M", tres).groups()
        asked = kw.memory_mib(size, threads, "-tavlo_input", 3, block.split(":")[0])
        assert int(cpus) == threads and asked <= int(mem) < asked + threads, f"job {job} asked {asked}: {tres}"
        checked += 1
assert checked >= 17, checked
EOF

# A truncated study VCF stops the workflow in the job that reads it, and its log names the file.
head -c 12000 "$ex/vcf/study.vcf.gz" > truncated.vcf.gz
sed "s#\t[^\t]*study.vcf.gz\t#\t$work/truncated.vcf.gz\t#" sets.tsv > bad-sets.tsv
if study bad regions.tsv bad-sets.tsv bad/r1/cases/run --restart-times 0 > bad.log 2>&1; then
    fail "the workflow accepted a truncated VCF"
fi
grep -q "^ketra-prep: $work/truncated.vcf.gz: " bad/r1/logs/cases.prep.log ||
    fail "the job log does not name the truncated VCF: $(cat bad/r1/logs/cases.prep.log)"
[ ! -e bad/r1/cases/input.gen.gz ] || fail "a failed preparation left its files"
# A missing tree file stops it before any job, naming the file.
sed "s#\t[^\t]*trees.txt\t#\t$work/no-trees.txt\t#" regions.tsv > bad-regions.tsv
if study missing bad-regions.tsv sets.tsv > missing.log 2>&1; then fail "the workflow ran without its tree file"; fi
grep -q "$work/no-trees.txt" missing.log || fail "no message names the missing tree file: $(tail missing.log)"

rm -rf "$work"
echo "workflow test: $jobs Slurm jobs in $wall s (one cancelled and run again); $files files equal (cmp) to single runs"
