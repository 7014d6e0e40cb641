#!/usr/bin/env bash
# Mutation run: applies each mutant of a list to src/ in turn, rebuilds
# incrementally, runs the suite (stopping at the first failing test) and puts
# the file back. Prints every mutant's fate and the totals; a mutant that
# survives is a fault no test catches.
#
#   tests/mutate.sh [--check] [mutant list] [build folder]
#
# The list (default tests/mutants.txt) holds lines "file<TAB>text<TAB>replacement";
# the text must occur exactly once in the file. --check only verifies that.
# Mutants of the workflow (workflow/, scripts/slurm/) are judged by
# scripts/workflow_check.sh on the folder's ketra (as root), not by the suite.
# The build folder (default build-mutate) is configured without the benchmark
# and at -O1, which compiles faster and gives the same bytes.
set -uo pipefail

check_only=0
if [ "${1:-}" = "--check" ]; then check_only=1; shift; fi
root=$(cd "$(dirname "$0")/.." && pwd)
list=$(realpath "${1:-$root/tests/mutants.txt}")
build=$(realpath -m "${2:-$root/build-mutate}")
jobs=${MUTATE_JOBS:-2}
cd "$root"

# Replaces the one occurrence of $2 in file $1 by $3 (\n and \t decoded); status 3
# when the text does not occur exactly once.
apply_mutant() {
    /usr/bin/python3 - "$@" <<'PY'
import sys
path, old, new = sys.argv[1:]
decode = lambda s: s.replace("\\n", "\n").replace("\\t", "\t")
old, new = decode(old), decode(new)
text = open(path).read()
if text.count(old) != 1:
    sys.exit(3)
open(path, "w").write(text.replace(old, new))
PY
}

mapfile -t mutants < <(grep -v '^#' "$list" | grep -v '^[[:space:]]*$')

if [ "$check_only" = 1 ]; then
    bad=0
    scratch=$(mktemp)
    for m in "${mutants[@]}"; do
        IFS=$'\t' read -r file text replacement <<<"$m"
        cp "$file" "$scratch"
        if ! apply_mutant "$scratch" "$text" "$replacement"; then
            echo "not applicable: $file: $text"
            bad=$((bad + 1))
        fi
    done
    rm -f "$scratch"
    echo "${#mutants[@]} mutants, $bad not applicable"
    exit $((bad > 0))
fi

build_and_test() {
    cmake --build "$build" -j"$jobs" >"$build/mutate-build.log" 2>&1 || return 2
    (cd "$build" && ctest -j"$jobs" --timeout 300 --stop-on-failure >"$build/mutate-test.log" 2>&1) || return 1
    return 0
}

is_workflow() { case $1 in workflow/* | scripts/slurm/*) return 0 ;; *) return 1 ;; esac; }
workflow_check() { bash "$root/scripts/workflow_check.sh" "$build/ketra" >"$build/mutate-workflow.log" 2>&1 || return 1; }
suite=0 workflow=0
for m in "${mutants[@]}"; do
    if is_workflow "${m%%$'\t'*}"; then workflow=1; else suite=1; fi
done

if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O1 -DNDEBUG" \
          -DKETRA_BENCH=OFF -DKETRA_NATIVE=OFF >/dev/null || exit 2
fi
if [ "$suite" = 1 ]; then
    build_and_test
    case $? in
        2) echo "the unmutated sources do not build (see $build/mutate-build.log)"; exit 2 ;;
        1) echo "the suite fails on the unmutated sources (see $build/mutate-test.log)"; exit 2 ;;
    esac
else
    cmake --build "$build" -j"$jobs" --target ketra ketra-prep >"$build/mutate-build.log" 2>&1 ||
        { echo "the unmutated sources do not build (see $build/mutate-build.log)"; exit 2; }
fi
if [ "$workflow" = 1 ] && ! workflow_check; then
    echo "the workflow check fails on the unmutated sources (see $build/mutate-workflow.log)"
    exit 2
fi

backup=$(mktemp)
current=""
restore() { [ -n "$current" ] && cp "$backup" "$current"; current=""; }
trap 'restore; rm -f "$backup"; exit 130' INT TERM

killed=0 survived=0 stale=0 unbuilt=0
survivors=()
start=$SECONDS
for m in "${mutants[@]}"; do
    IFS=$'\t' read -r file text replacement <<<"$m"
    label="$file: $text  ->  $replacement"
    cp "$file" "$backup"
    current=$file
    if ! apply_mutant "$file" "$text" "$replacement"; then
        restore
        echo "stale     $label"
        stale=$((stale + 1))
        continue
    fi
    if is_workflow "$file"; then workflow_check; else build_and_test; fi
    outcome=$?
    restore
    case $outcome in
        0) echo "SURVIVED  $label"; survived=$((survived + 1)); survivors+=("$label") ;;
        1) echo "killed    $label"; killed=$((killed + 1)) ;;
        2) echo "no build  $label"; unbuilt=$((unbuilt + 1)) ;;
    esac
done
rm -f "$backup"
# Leave the build folder matching the sources again.
cmake --build "$build" -j"$jobs" >/dev/null 2>&1

echo
echo "mutants: ${#mutants[@]}  killed: $killed  survived: $survived  not applicable: $stale  not building: $unbuilt" \
     "($((SECONDS - start)) s)"
for s in "${survivors[@]}"; do echo "  survivor: $s"; done
[ "$survived" -eq 0 ]
