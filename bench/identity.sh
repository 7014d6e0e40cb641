#!/usr/bin/env bash
# Every output file of two Ketra binaries compared with cmp (.gz files after
# decompressing, .aux files left out: they hold the command line): on the
# example, plain and with -threads 2 and 3, -print_matrix, -pardo_gz and
# -snp_info; three chunks and -merge of the new one against the old single
# run; and the bench-style data with N = 100, one thread against two.
#   bench/identity.sh OLD_KETRA NEW_KETRA   (e.g. a build of the landed main, then build/ketra)
set -u
cd "$(dirname "$0")/.."
old=$(realpath "$1"); new=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r examples/chr20-small "$work/ex"
build/bench/ketra_bench --N 100 --dir "$work/bench" --inputs-only 1 > "$work/bench.args"
ex="-h ref.hap -l ref.legend -m map.txt -g study.gen.gz -tree_file trees.txt -int 1350000 1395000 -buffer 15 -tavlo_input"
bench=$(tail -n 1 "$work/bench.args")
total=0; differ=0
compare() {  # name dir-a dir-b
    for f in "$2"/*; do b=$(basename "$f"); [ "${b##*.}" = aux ] && continue; total=$((total+1))
        if [[ $b == *.gz ]]; then cmp -s <(zcat "$f") <(zcat "$3/$b") || { echo "DIFF $1 $b"; differ=$((differ+1)); }
        else cmp -s "$f" "$3/$b" || { echo "DIFF $1 $b"; differ=$((differ+1)); }; fi
    done
    [ "$(ls "$2" | wc -l)" = "$(ls "$3" | wc -l)" ] || { echo "COUNT $1"; differ=$((differ+1)); }
}
cd "$work/ex"
for case in "plain|" "threads2|-threads 2" "threads3|-threads 3" "print_matrix|-print_matrix" "pardo_gz|-pardo_gz" "snp_info|-snp_info -print_matrix -threads 2"; do
    name=${case%%|*}; extra=${case#*|}
    $old $ex $extra -o a_$name/run > /dev/null; $new $ex $extra -o b_$name/run > /dev/null
    compare ex-$name a_$name b_$name
done
# Chunks and merge: 3 chunks by the new binary, merged, against the old single run.
for i in 1 2 3; do $new $ex -chunk $i 3 -o c/run > /dev/null; done; $new $ex -merge 3 -o c/run > /dev/null
rm -f c/run.chunk*; compare ex-chunks a_plain c
cd "$work"
$old $bench -o a_bench/run > /dev/null; $new $bench -o b_bench/run -threads 2 > /dev/null
compare bench-N100 a_bench b_bench
echo "identity: $total files compared, $differ differ"
[ "$differ" -eq 0 ]
