#!/usr/bin/python3
"""Re-creates the VCF form of the chr20-small example from Debian's
shapeit4-example files and the example's own panel and genotype files.

ref.vcf.gz    the 50 panel samples (ref_samples.txt) at the 314 panel SNPs, plus
              two indels and one site made multi-allelic
study.vcf.gz  the 50 study individuals: GT and the example's probabilities as GP
              at its 298 SNPs, with planted records of every allele category
chr20.gmap.gz the genetic map rows of the region (pos chr cM)

Run from this folder: ./cut.py  (needs bcftools and shapeit4-example installed).
The tests use only the committed results."""
import gzip, subprocess

SRC = "/usr/share/doc/shapeit4/examples/test/"
REGION = "20:1320000-1425000"
FLIP = {"A": "T", "T": "A", "C": "G", "G": "C"}

# Planted study records, by position: the example panel's alleles are C/T etc.
SWAPPED = [1333180, 1360441, 1391254]          # REF/ALT exchanged, GP reversed
COMPLEMENT = [1336282, 1372063, 1398912]       # both alleles complemented
COMPLEMENT_SWAPPED = [1355210, 1380640]        # complemented and exchanged
MISMATCH = [1339724, 1369430]                  # panel SNPs the example leaves out
MULTI = 1375577                                # another left-out SNP, made multi-allelic
NOT_IN_PANEL = 1393000                         # a SNP the panel does not have
REF_MULTI = 1344000                            # a panel record made multi-allelic


def run(*cmd):
    return subprocess.run(cmd, check=True, capture_output=True, text=True).stdout


def header(samples, fmt):
    lines = ["##fileformat=VCFv4.2", "##contig=<ID=20,length=63025520>",
             '##FORMAT=<ID=GT,Number=1,Type=String,Description="Genotype">']
    if "GP" in fmt:
        lines.append('##FORMAT=<ID=GP,Number=G,Type=Float,Description="Genotype probabilities">')
    lines.append("\t".join(["#CHROM", "POS", "ID", "REF", "ALT", "QUAL", "FILTER", "INFO", "FORMAT"] + samples))
    return "\n".join(lines) + "\n"


def write_bgzip(path, text):
    subprocess.run(["bcftools", "view", "-Oz", "-o", path, "-"], input=text, text=True, check=True)
    subprocess.run(["bcftools", "index", "-f", path], check=True)


def nearest_snp_pos(gen_rows, pos, used, ambiguous_ok=False):
    """The example SNP nearest to pos whose alleles are not A/T or C/G."""
    best = None
    for r in gen_rows:
        p = int(r[2])
        if p in used or (not ambiguous_ok and FLIP[r[3]] == r[4]):
            continue
        if best is None or abs(p - pos) < abs(int(best[2]) - pos):
            best = r
    used.add(int(best[2]))
    return int(best[2])


def main():
    legend = [l.split() for l in open("../ref.legend")][1:]
    panel_pos = {int(r[1]) for r in legend}
    ref_samples = [l.strip() for l in open("ref_samples.txt")]

    # Reference: the panel SNPs, two indels, and one extra site made multi-allelic.
    ref_lines = run("bcftools", "view", "-H", "-s", ",".join(ref_samples), "-r", REGION,
                    SRC + "reference.vcf.gz").splitlines()
    out, indels = [], 0
    for line in ref_lines:
        f = line.split("\t")
        pos = int(f[1])
        is_indel = len(f[3]) > 1 or len(f[4]) > 1
        if pos in panel_pos and not is_indel:
            out.append(f[:5] + [".", ".", ".", "GT"] + f[9:])
        elif is_indel and 1340000 < pos < 1400000 and indels < 2:
            indels += 1
            out.append(f[:5] + [".", ".", ".", "GT"] + f[9:])
        elif pos >= REF_MULTI and not is_indel and pos not in panel_pos and \
                not any(r[1] == str(REF_MULTI) for r in out) and f[4] in FLIP:
            alt = next(a for a in "ACGT" if a not in (f[3], f[4]))
            g = [x.replace("1|1", "2|1") if i % 7 == 0 else x for i, x in enumerate(f[9:])]
            out.append([f[0], str(REF_MULTI), f[2], f[3], f[4] + "," + alt, ".", ".", ".", "GT"] + g)
    out.sort(key=lambda r: int(r[1]))
    write_bgzip("ref.vcf.gz", header(ref_samples, "GT") + "".join("\t".join(r) + "\n" for r in out))

    # Study: the example's genotype probabilities as GP, planted records added.
    study_samples = [l.split()[0] for l in open("../study.sample")][2:]
    gen = [l.split() for l in gzip.open("../study.gen.gz", "rt")]
    used = set()
    swapped = {nearest_snp_pos(gen, p, used) for p in SWAPPED}
    complement = {nearest_snp_pos(gen, p, used) for p in COMPLEMENT}
    complement_swapped = {nearest_snp_pos(gen, p, used) for p in COMPLEMENT_SWAPPED}
    records = []
    for r in gen:
        pos, a, b = int(r[2]), r[3], r[4]
        triples = [r[5 + 3 * i: 8 + 3 * i] for i in range(len(study_samples))]
        if pos in swapped or pos in complement_swapped:
            a, b = b, a
            triples = [t[::-1] for t in triples]
        if pos in complement or pos in complement_swapped:
            a, b = FLIP[a], FLIP[b]
        calls = []
        for t in triples:
            k = max(range(3), key=lambda i: (float(t[i]), -i))
            calls.append(["0/0", "0/1", "1/1"][k])
        records.append((pos, r[1], a, b, [c + ":" + ",".join(t) for c, t in zip(calls, triples)]))
    legend_at = {int(r[1]): r for r in legend}
    hard = lambda k: ["0/0:1,0,0", "0/1:0,1,0", "1/1:0,0,1"][k]
    for i, pos in enumerate(MISMATCH):
        l = legend_at[pos]
        other = next(x for x in "ACGT" if x not in (l[2], l[3], FLIP[l[2]]))
        records.append((pos, l[0], l[2], other, [hard((j + i) % 3) for j in range(len(study_samples))]))
    l = legend_at[MULTI]
    third = next(x for x in "ACGT" if x not in (l[2], l[3]))
    records.append((MULTI, l[0], l[2], l[3] + "," + third,
                    ["0/1:0,1,0,0,0,0" if j % 5 else "0/2:0,0,0,1,0,0" for j in range(len(study_samples))]))
    records.append((NOT_IN_PANEL, "rs0", "A", "G", [hard(j % 2) for j in range(len(study_samples))]))
    for line in run("bcftools", "view", "-H", "-r", REGION, SRC + "unphased.vcf.gz").splitlines():
        f = line.split("\t")
        if (len(f[3]) > 1 or len(f[4]) > 1) and 1350000 < int(f[1]) < 1360000:
            records.append((int(f[1]), f[2], f[3], f[4], [hard(0)] * len(study_samples)))
            break
    records.sort(key=lambda r: r[0])
    body = "".join("\t".join(["20", str(p), i, a, b, ".", ".", ".", "GT:GP"] + g) + "\n"
                   for p, i, a, b, g in records)
    write_bgzip("study.vcf.gz", header(study_samples, "GT:GP") + body)

    with gzip.open(SRC + "chr20.b37.gmap.gz", "rt") as src, gzip.open("chr20.gmap.gz", "wt") as dst:
        for n, line in enumerate(src):
            f = line.split()
            if n == 0 or 1320000 <= int(f[0]) <= 1425000:
                dst.write(line)


if __name__ == "__main__":
    main()
