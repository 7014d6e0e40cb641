#!/usr/bin/python3
"""The memory a workflow job asks for (workflow/ketra_workflow.py, the formula
in docs/cluster-workflow.md) against the peak resident memory of the same Ketra run, measured:
on the example, and on generated data where the pair arrays (many haplotypes,
two threads) or the genotypes (many individuals) dominate. The request must
not be below the peak. Usage: memory_test.py KETRA"""
import os
import random
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "workflow"))
import ketra_workflow as kw  # noqa: E402

EXAMPLE = os.path.join(ROOT, "examples", "chr20-small")
TRIPLES = ["1 0 0", "0 1 0", "0 0 1", "0.8 0.15 0.05"]


def tree_line(position, K, rng):
    """A random tree over K leaves in the tree map's form (merges of 1-based ids)."""
    active, merges = list(range(1, K + 1)), []
    for new in range(K + 1, 2 * K):
        a, b = rng.sample(range(len(active)), 2)
        merges.append(f"{active[a]} {active[b]}")
        for index in sorted((a, b), reverse=True):
            active.pop(index)
        active.append(new)
    return f"{position} 0;{K};{','.join(merges)};\n"


def make_data(folder, K, L, N, P, seed, varied=False):
    """A panel of K haplotypes at L SNPs 100 bp apart, N individuals, P trees
    inside the SNPs. Varied genotypes are distinct random triples, the worst
    case of the genotype store's coding; otherwise a few hard calls."""
    rng = random.Random(seed)
    positions = [100000 + 100 * s for s in range(L)]
    with open(f"{folder}/p.legend", "w") as f:
        f.write("id position a0 a1\n")
        f.writelines(f"rs{p} {p} A G\n" for p in positions)
    with open(f"{folder}/p.hap", "w") as f:
        f.writelines(" ".join(rng.choice("01") for _ in range(K)) + "\n" for _ in positions)
    with open(f"{folder}/p.map", "w") as f:
        f.write("position COMBINED_rate(cM/Mb) Genetic_Map(cM)\n")
        f.writelines(f"{p} 1.0 {(p - 99000) / 1e6:.6f}\n" for p in [99000] + positions + [positions[-1] + 1000])
    with open(f"{folder}/p.gen", "w") as f:
        for p in positions:
            triples = ([f"{a:.5f} {b:.5f} {1 - a - b:.5f}" for a, b in ((rng.random() / 2, rng.random() / 2)
                                                                      for _ in range(N))]
                       if varied else rng.choices(TRIPLES, k=N))
            f.write(f"SNP{p} rs{p} {p} A G " + " ".join(triples) + "\n")
    step = (positions[-1] - positions[0]) // (P + 1)
    with open(f"{folder}/p.trees", "w") as f:
        f.writelines(tree_line(positions[0] + step * (t + 1), K, rng) for t in range(P))
    lo, hi = positions[0] + step // 2, positions[-1] - step // 2
    return {"h": f"{folder}/p.hap", "l": f"{folder}/p.legend", "m": f"{folder}/p.map", "g": f"{folder}/p.gen",
            "tree_file": f"{folder}/p.trees", "int": (lo, hi), "buffer": 0}


def example():
    return {"h": f"{EXAMPLE}/ref.hap", "l": f"{EXAMPLE}/ref.legend", "m": f"{EXAMPLE}/map.txt",
            "g": f"{EXAMPLE}/study.gen.gz", "tree_file": f"{EXAMPLE}/trees.txt",
            "int": (1350000, 1395000), "buffer": 15}


def peak_mib(command):
    """Peak resident memory of a command, from the kernel's accounting of the child."""
    proc = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    out = proc.stdout.read()
    _, status, usage = os.wait4(proc.pid, 0)
    proc.returncode = os.waitstatus_to_exitcode(status)
    if proc.returncode != 0:
        sys.exit(f"FAIL: {' '.join(command)} ended with status {proc.returncode}:\n{out.decode()[-2000:]}")
    return usage.ru_maxrss / 1024


def main(ketra):
    failures = 0
    with tempfile.TemporaryDirectory() as work:
        os.mkdir(f"{work}/wide")
        os.mkdir(f"{work}/tall")
        cases = [  # name, inputs, threads, options, split step
            ("example", example(), 1, "-tavlo_input", ""),
            ("K = 500, 2 threads", make_data(f"{work}/wide", 500, 300, 8, 30, 1), 2, "-tavlo_input", ""),
            ("K = 500, 2 threads, merge", make_data(f"{work}/wide", 500, 300, 8, 30, 1), 2, "-tavlo_input",
             "-merge 2"),
            ("N = 8000", make_data(f"{work}/tall", 20, 1000, 8000, 3, 2, True), 1, "-tavlo_input", ""),
            ("N = 8000, chunk 1 of 4", make_data(f"{work}/tall", 20, 1000, 8000, 3, 2, True), 1, "-tavlo_input",
             "-chunk 1 4"),
        ]
        for name, f, threads, options, step in cases:
            out = f"{work}/{name.split(',')[0].replace(' ', '')}/run"
            command = [ketra, "-h", f["h"], "-l", f["l"], "-m", f["m"], "-g", f["g"], "-tree_file", f["tree_file"],
                       "-int", str(f["int"][0]), str(f["int"][1]), "-buffer", str(f["buffer"]), "-o", out,
                       "-threads", str(threads), "-strict"] + options.split() + step.split()
            part, chunks = "whole", 1
            if step:
                part, chunks = step.split()[0][1:], int(step.split()[-1])
            if part == "merge":
                for i in range(1, chunks + 1):  # the merge reads the partial results of every chunk
                    peak_mib(command[:-2] + ["-chunk", str(i), str(chunks)])
            peak = peak_mib(command)
            size = kw.run_size(f["h"], f["l"], f["g"], f["tree_file"], f["int"][0], f["int"][1], f["buffer"])
            asked = kw.memory_mib(size, threads, options, chunks, part)
            # Where the genotypes dominate, the request also stays near the
            # peak (past the fixed 100 MiB): a chunk that asked for everybody's
            # genotypes would waste the node.
            ceiling = 2 * peak + 100 if size["N"] >= 1000 else float("inf")
            verdict = "ok" if peak <= asked <= ceiling else "FAIL"
            failures += verdict != "ok"
            print(f"{verdict}: {name}: K {size['K']}, SNPs {size['L']}, N {size['N']}, positions {size['P']}: "
                  f"asks {asked} MiB, peak {peak:.0f} MiB")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(os.path.abspath(sys.argv[1])))
