#!/usr/bin/python3
"""Writes a ketra-prep benchmark input into a folder: a phased reference panel
of M biallelic SNPs (panel.vcf), a study of S samples with hard calls (GT) at
the same M positions (study.vcf) and a genetic map spanning them (map.txt).
The region to give ketra-prep goes to region.txt.

    prep_study.py S M FOLDER [--panel-samples P] [--seed N]

The study's alleles meet the panel's in every category ketra-prep reports
(same, swapped, complementary, A/T or C/G, other), so every path is timed.
Genotypes are pseudo-random but fixed by the seed; lines are put together
from precomputed blocks of calls so that 100 million genotypes take seconds.
The VCFs are plain text: prep_bench.sh compresses and indexes them with bcftools."""
import argparse
import os
import random

START = 1_000_000
STEP = 50
BLOCK = 500  # samples per precomputed block of calls
PAIRS = [("C", "T"), ("T", "C"), ("G", "A"), ("A", "G"), ("C", "A"), ("G", "T"), ("A", "T"), ("C", "G")]
COMPLEMENT = {"A": "T", "T": "A", "C": "G", "G": "C"}
HEADER = """##fileformat=VCFv4.2
##contig=<ID=20,length=63025520>
##FORMAT=<ID=GT,Number=1,Type=String,Description="Genotype">
"""


def study_alleles(site, ref, alt):
    """Mostly the panel's alleles; every 50th site swapped, complemented or other."""
    k = site % 50
    if k == 7:
        return alt, ref
    if k == 17 and COMPLEMENT[ref] != alt:
        return COMPLEMENT[ref], COMPLEMENT[alt]
    if k == 27:
        return ref, next(b for b in "ACGT" if b not in (ref, alt, COMPLEMENT[ref]))
    return ref, alt


def call_blocks(rng, count, size, phased):
    sep = "|" if phased else "/"
    calls = [f"0{sep}0", f"0{sep}1", f"1{sep}0", f"1{sep}1"] if phased else ["0/0", "0/1", "1/1", "./."]
    weights = [50, 20, 20, 10] if phased else [55, 30, 14, 1]
    return ["\t".join(rng.choices(calls, weights, k=size)) for _ in range(count)]


def write_vcf(path, samples, sites, blocks, rng, alleles):
    n_blocks = -(-len(samples) // BLOCK)
    last = len(samples) - (n_blocks - 1) * BLOCK
    with open(path, "w") as f:
        f.write(HEADER)
        f.write("#CHROM\tPOS\tID\tREF\tALT\tQUAL\tFILTER\tINFO\tFORMAT\t" + "\t".join(samples) + "\n")
        for site in range(sites):
            ref, alt = alleles(site)
            parts = [blocks[rng.randrange(len(blocks))] for _ in range(n_blocks)]
            parts[-1] = parts[-1][:last * 4 - 1]  # each call is 3 characters and a tab
            f.write(f"20\t{START + STEP * site}\trs{site + 1}\t{ref}\t{alt}\t.\t.\t.\tGT\t" + "\t".join(parts) + "\n")


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("samples", type=int)
    ap.add_argument("sites", type=int)
    ap.add_argument("folder")
    ap.add_argument("--panel-samples", type=int, default=50)
    ap.add_argument("--seed", type=int, default=1)
    a = ap.parse_args()
    os.makedirs(a.folder, exist_ok=True)
    rng = random.Random(a.seed)
    pairs = [PAIRS[rng.randrange(len(PAIRS))] for _ in range(a.sites)]
    write_vcf(os.path.join(a.folder, "panel.vcf"), [f"P{i + 1}" for i in range(a.panel_samples)], a.sites,
              call_blocks(rng, 64, BLOCK, True), rng, lambda s: pairs[s])
    write_vcf(os.path.join(a.folder, "study.vcf"), [f"S{i + 1}" for i in range(a.samples)], a.sites,
              call_blocks(rng, 256, BLOCK, False), rng, lambda s: study_alleles(s, *pairs[s]))
    lo, hi = START, START + STEP * (a.sites - 1)
    with open(os.path.join(a.folder, "map.txt"), "w") as f:
        f.write("pos chr cM\n")
        for k, pos in enumerate(range(lo - 10_000, hi + 20_000, 10_000)):
            f.write(f"{pos} 20 {k * 0.01:.4f}\n")
    with open(os.path.join(a.folder, "region.txt"), "w") as f:
        f.write(f"20:{lo}-{hi}\n")


if __name__ == "__main__":
    main()
