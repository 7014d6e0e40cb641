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
eval "$(bash scripts/slurm/cluster.sh start | tee /dev/stderr | grep '^export SLURM_CONF=')"
bash tests/workflow/workflow_test.sh "$ketra"
# Stopped, the cluster leaves no daemon and no process of a job behind: all of
# them, and nothing else, carry its SLURM_CONF in their environment.
conf=$SLURM_CONF
bash scripts/slurm/cluster.sh stop
unset SLURM_CONF
left=$(grep -lsaF "SLURM_CONF=$conf" /proc/[0-9]*/environ | cut -d/ -f3 | tr '\n' ' ') || true
[ -z "$left" ] || { echo "FAIL: processes of the test cluster outlived it: $left"; ps -o pid,cmd -p "$left"; exit 1; }
