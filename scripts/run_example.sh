#!/usr/bin/env bash
# Installs what is missing, builds Ketra and ketra-prep (ketra-plot is a
# script), and runs Ketra on the bundled example (examples/chr20-small);
# results go to examples/chr20-small/out/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$(nproc)" --target ketra ketra-prep
cd examples/chr20-small
# shellcheck disable=SC2046
../../build/ketra $(cat args.txt)
echo
echo "results:"
ls -l out/
