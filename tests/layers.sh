#!/usr/bin/env bash
# Checks the #include lines under src/: a folder includes only folders below
# it, and no files include each other in a circle (a header and its source
# file count as one unit).
#   io, numlib, parallel < params < data, trees < results < engine < run < app
#   io, numlib < prep (the ketra-prep program: no other folder includes it)
# The engines hand their records to the result stream and know nothing else of
# results/: of it they include only results/result_stream.h. A private header
# (engine/kernel_vectors.h, the kernel's building blocks) is included only
# inside its own folder.
set -euo pipefail
src=${1:-$(dirname "$0")/../src}
cd "$src"

declare -A rank=([io]=0 [numlib]=0 [parallel]=0 [params]=1 [data]=2 [trees]=2 [results]=3 [engine]=4 [run]=5
                 [app]=6 [prep]=1)
# Folders of programs of their own: nothing outside them includes them.
declare -A closed=([prep]=1)
# What a folder may include of a given lower folder, when not all of it.
declare -A only=([engine:results]="results/result_stream.h")
private=(engine/kernel_vectors.h)

failures=0
edges=$(mktemp)
trap 'rm -f "$edges"' EXIT
while IFS= read -r file; do
    from=${file%%/*}
    [ -n "${rank[$from]:-}" ] || { echo "unknown folder: $file"; failures=$((failures + 1)); continue; }
    while IFS= read -r target; do
        [ -f "$target" ] || continue  # a library header
        to=${target%%/*}
        [ -n "${rank[$to]:-}" ] || { echo "unknown folder: $target"; failures=$((failures + 1)); continue; }
        echo "${file%.*} ${target%.*}" >>"$edges"
        [ "$from" = "$to" ] && continue
        if [[ " ${private[*]} " == *" $target "* ]]; then
            echo "layer violation: $file includes $target (private to $to/)"
            failures=$((failures + 1))
            continue
        fi
        allowed=${only[$from:$to]:-}
        if [ -n "$allowed" ] && [[ " $allowed " != *" $target "* ]]; then
            echo "layer violation: $file includes $target ($from/ includes only $allowed of $to/)"
            failures=$((failures + 1))
            continue
        fi
        if [ -n "${closed[$to]:-}" ]; then
            echo "layer violation: $file includes $target (nothing includes $to/)"
            failures=$((failures + 1))
            continue
        fi
        if [ "${rank[$to]}" -ge "${rank[$from]}" ]; then
            echo "layer violation: $file includes $target"
            failures=$((failures + 1))
        fi
    done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find . -name '*.h' -o -name '*.cpp' -o -name '*.cu' | sed 's|^\./||' | sort)

# tsort reports the members of every circle it finds; a unit including its own
# header is no circle.
awk '$1 != $2' "$edges" | sort -u >"$edges.units"
if ! tsort "$edges.units" >/dev/null 2>"$edges.loops"; then
    echo "include circle:"
    sed -n 's/^tsort: //p' "$edges.loops" | grep -v 'input contains a loop' | sed 's/^/  /'
    failures=$((failures + 1))
fi
rm -f "$edges.units" "$edges.loops"

[ "$failures" -eq 0 ] && echo "layers: $(sort -u "$edges" | wc -l) include arrows, all pointing down, no circle"
[ "$failures" -eq 0 ]
