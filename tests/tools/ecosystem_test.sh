#!/usr/bin/env bash
# End-to-end checks of ketra-prep, ketra-plot, -version, the hard-call and BGEN
# routes and the README walk-through, on the committed VCF form of the chr20 example.
# Usage: ecosystem_test.sh CASE   (KETRA, KETRA_PREP, KETRA_SOURCE_DIR, KETRA_VERSION
# and KETRA_BUILD_DIR come from ctest's environment)
set -euo pipefail
src=$KETRA_SOURCE_DIR
ex=$src/examples/chr20-small
vcf=$ex/vcf
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

fail() { echo "FAIL: $*"; exit 1; }
region=20:1330000-1415000
# ketra-prep on the example's panel and map for the region; options given later win.
prep() { "$KETRA_PREP" -ref "$vcf/ref.vcf.gz" -map "$vcf/chr20.gmap.gz" -region $region "$@"; }
# The same on the study VCF, quietly.
vcf_prep() { prep -study "$vcf/study.vcf.gz" "$@" > /dev/null || fail "ketra-prep $*"; }

# ketra with the input flags after $1 on the example's trees and interval, results in folder $1.
run_ketra() {
    local out=$1
    shift
    "$KETRA" "$@" -tree_file "$ex/trees.txt" -int 1350000 1395000 -buffer 15 -tavlo_input -o "$out/run" > "$out.log" \
        || fail "ketra for $out"
}
run_prepared() { run_ketra "$2" -h "$1.hap" -l "$1.legend" -m "$1.map" -g "$1.gen.gz" -strand "$1.strand"; }
example_panel=(-h "$ex/ref.hap" -l "$ex/ref.legend" -m "$ex/map.txt")

# Every result file of run $1 is byte-identical to that of run $2.
same_results() {
    [ "$(ls "$1"/run "$1"/run.*.pardo | wc -l)" -eq 29 ] || fail "expected the matrix and 28 pardo files in $1"
    for f in "$1"/run "$1"/run.*.pardo; do cmp "$f" "$2/${f#"$1"/}" || fail "$f differs from $2"; done
}

png_check() {  # file: 1000 x 600 with more than one colour inside the axes
    /usr/bin/python3 - "$1" <<'EOF' || fail "bad image $1"
import sys
import matplotlib.image as img
a = img.imread(sys.argv[1])
assert a.shape[:2] == (600, 1000), a.shape
inside = a[150:450, 150:700].reshape(-1, a.shape[2])
assert len({tuple(p) for p in inside.tolist()}) > 10, "plot area is flat"
EOF
}

case $1 in
report_and_run)
    prep -study "$vcf/study.vcf.gz" -o p > default.txt || fail "ketra-prep"
    # The whole report, the VCF folder left out of the file names.
    sed "s#$vcf/##" default.txt | cmp - "$src/tests/data/prep/report.txt" || fail "report differs"
    # The panel and map are the example's own; the genotype lines match the
    # example's at every position and probability (swapped records reordered).
    cmp p.legend "$ex/ref.legend" && cmp p.hap "$ex/ref.hap" && cmp p.map "$ex/map.txt" || fail "panel or map"
    # The same map from its other layouts, plain or compressed.
    zcat "$vcf/chr20.gmap.gz" > gmap.txt
    gzip -c "$ex/map.txt" > map.txt.gz
    for m in gmap.txt "$ex/map.txt" map.txt.gz; do
        vcf_prep -map "$m" -o m
        cmp m.map "$ex/map.txt" || fail "map from $m"
    done
    cmp <(zcat p.gen.gz | cut -d' ' -f2,3,6-) <(zcat "$ex/study.gen.gz" | cut -d' ' -f2,3,6-) || fail "genotypes"
    cmp p.sample "$ex/study.sample" || fail "sample file"
    [ "$(cut -d' ' -f2 p.strand | sort -u)" = "-" ] && [ "$(wc -l < p.strand)" -eq 5 ] || fail "strand file"
    prep -study "$vcf/study.vcf.gz" -o q -drop_ambiguous -plain > dropped.txt || fail "ketra-prep -drop_ambiguous"
    grep -qx " *A/T or C/G SNPs (dropped): 54" dropped.txt || fail "report of -drop_ambiguous"
    [ "$(wc -l < q.gen)" -eq 244 ] || fail "plain genotype file"
    # A run on the prepared files gives the example run's results.
    run_prepared p prep
    run_ketra hand "${example_panel[@]}" -g "$ex/study.gen.gz"
    same_results prep hand
    ;;
gt_routes)
    # Hard calls (-gt) from the VCF, by hand with bcftools' own conversion (biallelic
    # SNPs without the two mismatched records, a strand file naming the complemented
    # records) and from BGEN files made by plink2: the same results.
    vcf_prep -gt -o v
    run_prepared v vrun
    bcftools view -m2 -M2 -v snps -t ^20:1339724,20:1369430 "$vcf/study.vcf.gz" -Ou |
        bcftools convert --tag GT -g hand --vcf-ids > /dev/null 2>&1
    printf '%s -\n' 1336113 1354760 1371792 1380843 1398821 > hand.strand
    run_ketra hand "${example_panel[@]}" -g hand.gen.gz -strand hand.strand
    same_results vrun hand
    bcftools view -m2 -M2 -v snps "$vcf/study.vcf.gz" -Oz -o bi.vcf.gz
    plink2 --vcf bi.vcf.gz --export bgen-1.2 ref-first --out calls > /dev/null || fail "plink2 hard calls"
    plink2 --vcf bi.vcf.gz dosage=GP --export bgen-1.2 ref-first bits=16 --out probs > /dev/null || fail "plink2 GP"
    prep -bgen calls.bgen -bgen_sample calls.sample -o b > b.txt || fail "ketra-prep BGEN"
    grep -q "SNPs not in the reference panel dropped: 1" b.txt || fail "BGEN report"
    run_prepared b brun
    same_results brun vrun
    # Probabilities: plink2 keeps each triple's expected allele dosage.
    prep -bgen probs.bgen -bgen_sample probs.sample -o g > /dev/null || fail "ketra-prep BGEN probabilities"
    /usr/bin/python3 - g.gen.gz "$ex/study.gen.gz" <<'EOF' || fail "BGEN dosages"
import gzip, sys
a, b = ([[float(x) for x in line.split()[5:]] for line in gzip.open(path, "rt")] for path in sys.argv[1:])
assert len(a) == len(b) == 298
dosage = lambda p: [p[i + 1] + 2 * p[i + 2] for i in range(0, len(p), 3)]
worst = max(abs(x - y) for ra, rb in zip(a, b) for x, y in zip(dosage(ra), dosage(rb)))
assert worst < 1e-4, worst
assert sum(x not in (0.0, 1.0) for row in a for x in row) > 100, "no soft calls"
EOF
    ;;
errors)
    # One row per malformed input: the exit status, the flags put after the
    # example's (later ones win) and the first line printed, whole. A failed
    # run leaves no file behind, not even a temporary one.
    bcftools annotate -x FORMAT/GP "$vcf/study.vcf.gz" -Oz -o nogp.vcf.gz
    bcftools annotate -x FORMAT/GT,FORMAT/GP "$vcf/study.vcf.gz" -Oz -o nocalls.vcf.gz
    head -c 12000 "$vcf/study.vcf.gz" > truncated.vcf.gz
    zcat "$vcf/chr20.gmap.gz" | gzip -c | head -c 700 > truncated.gmap.gz
    zcat "$vcf/study.vcf.gz" | awk '/^#/ || moved { print; next } { held = $0; moved = 1 } END { print held }' > unsorted.vcf
    printf 'NA06994\nnobody\n' > nobody.txt
    while IFS='|' read -r status args message; do
        rm -rf out
        # shellcheck disable=SC2086
        got=0 && out=$(prep -study "$vcf/study.vcf.gz" -o out/e $args 2>&1) || got=$?
        [ "$got" = "$status" ] || fail "for '$args' expected status $status, got $got: $out"
        [ "${out%%$'\n'*}" = "ketra-prep: $message" ] || fail "for '$args' expected 'ketra-prep: $message', got: $out"
        [ -z "$(ls -A out 2> /dev/null)" ] || fail "'$args' left files: $(ls -A out)"
    done <<EOF
1|-study truncated.vcf.gz|truncated.vcf.gz: the file is truncated (no end-of-file block); fetch or write it again
1|-study nocalls.vcf.gz|nocalls.vcf.gz: neither GT nor GP is declared; no genotypes to read
1|-study nogp.vcf.gz|nogp.vcf.gz: no GP field; use -gt for hard calls
1|-study unsorted.vcf|unsorted.vcf: 20:1330664 comes after 20:1414706; the file must be sorted by position
1|-samples nobody.txt|nobody.txt: sample 'nobody' is not in $vcf/study.vcf.gz
1|-map missing.txt|missing.txt: cannot open the map (No such file or directory)
1|-map truncated.gmap.gz|truncated.gmap.gz: the map is truncated or corrupt at its start
1|-map $ex/ref.legend|$ex/ref.legend: the header is neither 'pos chr cM' nor 'position COMBINED_rate(cM/Mb) Genetic_Map(cM)'
1|-region 20:1323000-1325000|$vcf/ref.vcf.gz: no biallelic SNP in region 20:1323000-1325000
1|-region 20:1500000-1600000|$vcf/chr20.gmap.gz: fewer than two map rows for chromosome 20 around the region
1|-region 20:x-y|-region 20:x-y: not CHROM:FROM-TO
1|-ref missing.vcf.gz|missing.vcf.gz: cannot open the file (No such file or directory)
1|-ref $vcf/study.vcf.gz|$vcf/study.vcf.gz: 20:1330664: genotype '0/1' of sample NA11831 is not a phased call of 0 and 1; the reference panel must be phased and complete
2|-s x|unknown flag -s; did you mean -study or -samples?
2|-gt -region|-region needs a value
2|-bgen calls.bgen|give one of -study and -bgen
EOF
    ;;
prep_edges)
    # Crafted panel and study (tests/data/prep/edge): deletions reaching into the
    # region, several records at one position, every allele category, odd calls
    # and probabilities, indexed and streamed reading, BCF, sample lists, and the
    # errors. The report or message, the exit status and every file written (a
    # .gz by its text) must be the .txt files there. KETRA_PREP_GOLDEN=folder
    # writes them there instead.
    d=$src/tests/data/prep/edge
    cp "$d/panel.vcf" "$d/study.vcf" "$d/map.txt" .
    for f in panel study; do
        bcftools view --no-version -Oz -o $f.vcf.gz $f.vcf && bcftools index $f.vcf.gz
        bcftools view --no-version -Ob -o $f.bcf $f.vcf && bcftools index $f.bcf
        bcftools view --no-version -Oz -o ${f}_noidx.vcf.gz $f.vcf
    done
    grep -v x3 study.vcf > ok.vcf
    bcftools view --no-version -Ob -o ok.bcf ok.vcf && bcftools index ok.bcf
    sed '/s1070/s/1|1\t0\/0/0\/1\t0|0/' panel.vcf > unphased.vcf
    sed 's/0.12345678,0.5,0.37654322/0.5,0.5/' study.vcf > gp2.vcf
    sed '/x12/s/0,1,0/0,zz,0/' study.vcf > unparsed.vcf
    sed '/x12/s/\t\.\tGT:GP/\tXX=1\tGT:GP/' study.vcf > undeclared.vcf
    gzip -c map.txt > map.txt.gz
    printf 'pos chr cM\n500 20 0.1\n1500 20 0.05\n900 20 0.2\n2500 20 0.7\n' > unsorted_map.txt
    printf 'a\nc\n' > ac.txt
    printf 'a\nx\n' > ax.txt
    printf 'b\nb\n' > bb.txt
    transcript() {  # name status: the report, the status and the files written
        cat "$1.txt"
        echo "exit $2"
        for f in out/"$1".*; do
            [ -e "$f" ] || continue
            case $f in
                *.gz) echo "== ${f#out/} (decompressed)"; zcat "$f" ;;
                *) echo "== ${f#out/}"; cat "$f" ;;
            esac
        done
    }
    while IFS='|' read -r name args; do
        status=0
        # shellcheck disable=SC2086
        "$KETRA_PREP" $args -o out/"$name" > "$name.txt" 2>&1 || status=$?
        if [ -n "${KETRA_PREP_GOLDEN:-}" ]; then
            transcript "$name" $status > "$KETRA_PREP_GOLDEN/$name.txt"
        else
            transcript "$name" $status | cmp - "$d/$name.txt" || fail "$name differs from $d/$name.txt"
        fi
    done <<EOF
gp_plain|-ref panel.vcf -study study.vcf -map map.txt -region 20:1000-2000
gt_indexed|-ref panel.vcf.gz -study study.vcf.gz -map map.txt.gz -region 20:1000-2000 -gt -drop_ambiguous -plain
gp_bcf_mixed|-ref panel.bcf -study study_noidx.vcf.gz -map map.txt -region 20:1000-2000 -drop_ambiguous
samples|-ref panel_noidx.vcf.gz -study ok.bcf -map map.txt -region 20:1,000-1,499 -samples ac.txt
samples_bad_allele|-ref panel.vcf -study study.vcf -map map.txt -region 20:1000-2000 -samples ac.txt
samples_unknown|-ref panel.vcf -study study.vcf -map map.txt -region 20:1000-2000 -samples ax.txt -gt
samples_twice|-ref panel.vcf -study ok.vcf -map map.txt -region 20:1000-2000 -samples bb.txt
panel_unphased|-ref unphased.vcf -study study.vcf -map map.txt -region 20:1000-2000
gp_two_values|-ref panel.vcf -study gp2.vcf -map map.txt -region 20:1000-2000
study_unparsed|-ref panel.vcf -study unparsed.vcf -map map.txt -region 20:1000-2000
study_undeclared|-ref panel.vcf -study undeclared.vcf -map map.txt -region 20:1000-2000 -gt
study_missing|-ref panel.vcf -study missing.vcf -map map.txt -region 20:1000-2000 -gt
map_unsorted|-ref panel.vcf -study study.vcf -map unsorted_map.txt -region 20:1000-2000
no_snp|-ref panel.vcf.gz -study study.vcf -map map.txt -region 20:3000-4000
region_reversed|-ref panel.vcf -study study.vcf -map map.txt -region 20:2000-1000
usage|-ref panel.vcf -st study.vcf -s ac.txt
EOF
    ;;
prep_memory)
    # The pass keeps nothing per site: ten times the sites, about the same peak memory.
    # (AddressSanitizer keeps freed memory aside unless told not to.)
    /usr/bin/python3 "$src/bench/prep_study.py" 200 2000 small
    /usr/bin/python3 "$src/bench/prep_study.py" 200 20000 large
    /usr/bin/python3 - "$KETRA_PREP" <<'PY' || fail "peak memory grows with the sites"
import os, resource, subprocess, sys
env = dict(os.environ, ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=0")
peaks = []
for d in ("small", "large"):
    region = open(f"{d}/region.txt").read().strip()
    subprocess.run([sys.argv[1], "-ref", f"{d}/panel.vcf", "-study", f"{d}/study.vcf", "-map", f"{d}/map.txt",
                    "-region", region, "-o", f"{d}/p", "-gt"], check=True, stdout=subprocess.DEVNULL, env=env)
    # The largest child so far: the small run's first, then the larger of both.
    peaks.append(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
assert sum(1 for _ in open("large/p.hap")) == 20000
assert peaks[1] < peaks[0] * 1.1 + 1024, peaks
PY
    ;;
version)
    [ "$("$KETRA" -version -o ignored | od -c)" = "$(printf 'Ketra %s\n' "$KETRA_VERSION" | od -c)" ] \
        || fail "ketra -version printed: $("$KETRA" -version)"
    [ ! -e ignored ] || fail "-version went on to run"
    ;;
walkthrough)
    # A new user's first hour: in a copy of the source without any build
    # folder, the README's first set-up command, then its walk-through command
    # for command (installing into a private prefix); the plot takes two matrices.
    export HOME=$work/home
    mkdir repo
    tar -C "$src" --exclude='./build*' --exclude=./.git --exclude='./examples/*/out' \
        --exclude='./examples/*/walkthrough' -cf - . | tar -C repo -xf -
    (cd repo && bash scripts/run_example.sh > example.log 2>&1) || { tail -20 repo/example.log; fail "run_example.sh"; }
    sed -n '/<!-- walkthrough begin -->/,/<!-- walkthrough end -->/p' "$src/README.md" | sed -n 's/^    //p' \
        > walkthrough.sh
    [ "$(grep -c '^ketra' walkthrough.sh)" -ge 5 ] || fail "walk-through not found in the README"
    (cd repo && bash -euo pipefail ../walkthrough.sh > ../walkthrough.log 2>&1) ||
        { tail -20 walkthrough.log; fail "walk-through"; }
    w=$work/repo/examples/chr20-small/walkthrough
    for group in cases controls; do
        [ "$(wc -l < "$w/$group/run")" -eq 28 ] || fail "$group matrix"
        [ "$(ls "$w/$group"/run.*.pardo | wc -l)" -eq 28 ] || fail "$group pardo files"
    done
    png_check "$w/cases-vs-controls.png"
    # One compressed matrix; files that do not fit together are refused with a message, not a trace.
    gzip -c "$w/cases/run" > one.gz
    "$src/tools/ketra-plot" one.gz -o heat.png > /dev/null || fail "one matrix"
    png_check heat.png
    # Help with one dash or two; its usage says one or two matrix files.
    for flag in -help --help; do
        out=$("$src/tools/ketra-plot" $flag) || fail "ketra-plot $flag: status $?"
        [[ $out == "usage: ketra-plot MATRIX [CONTROLS] -o PNG"* ]] || fail "ketra-plot $flag printed: $out"
    done
    head -n 5 "$w/cases/run" > short
    for bad in "$w/cases/run short" "missing-file" "$ex/ref.legend"; do
        # shellcheck disable=SC2086
        if out=$("$src/tools/ketra-plot" $bad -o bad.png); then fail "ketra-plot accepted $bad"; fi
        [[ $out == ketra-plot:* ]] || fail "no message for $bad: $out"
    done
    ;;
*)
    fail "unknown case $1"
    ;;
esac
echo "ok: $1"
