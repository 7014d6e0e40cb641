#!/usr/bin/env bash
# The case/control workflow's checks (CI; as root): its tables and durable
# writes, its memory formula against measured peaks, then the whole workflow
# on a one-node Slurm started here and stopped at the end, pass or fail.
# Usage: scripts/workflow_check.sh [KETRA]   (default build/ketra)
set -euo pipefail
cd "$(dirname "$0")/.."
ketra=${1:-build/ketra}
export USER=${USER:-$(id -un)}  # snakemake's Slurm support reads it
/usr/bin/python3 tests/workflow/units_test.py
/usr/bin/python3 tests/workflow/memory_test.py "$ketra"

trap 'bash scripts/slurm/cluster.sh stop' EXIT
start() {
    local out
    out=$(bash scripts/slurm/cluster.sh start) || { echo "$out"; exit 1; }
    echo "$out"
    eval "$(grep '^export SLURM_CONF=' <<< "$out")"
}
# A job that leaves a process of its own session behind: stopping the cluster
# ends that too and says so, and the cluster starts again.
start
note=$(mktemp)
sbatch -Q -D /tmp -o /dev/null --wrap "setsid sleep 600 > /dev/null & p=\$!
    until [ \"\$(ps -o sid= -p \$p | tr -d ' ')\" = \$p ]; do sleep 0.05; done; echo \$p > $note"
for _ in $(seq 100); do [ -s "$note" ] && [ -z "$(squeue -h)" ] && break; sleep 0.1; done
if bash scripts/slurm/cluster.sh stop; then echo "FAIL: stop did not find the job's stray process"; exit 1; fi
[[ $(ps -o stat= -p "$(cat "$note")") =~ ^Z?$ ]] || { echo "FAIL: the job's stray process outlived the cluster"; exit 1; }
rm -f "$note"
echo "workflow check: stopping the cluster ended the test job's stray process, as it should"
start

bash tests/workflow/workflow_test.sh "$ketra"
# Its daemons and the jobs' processes end when told to; what had to be killed fails the check.
bash scripts/slurm/cluster.sh stop || { echo "FAIL: the test cluster did not stop cleanly"; exit 1; }
