#!/usr/bin/python3
"""The workflow's tables, read from real files, refused with a message naming
the file, the line and the cause; and the order of a durable publish: every
file on the disk before its rename, the folder after it."""
import os
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))),
                                "workflow"))
import ketra_workflow as kw  # noqa: E402

HEAD = "region\tchrom\tstart\tend\tbuffer\ttrees\tmap\thaplotypes\tlegend\tpanel_vcf\n"
R1 = "r1\t20\t100\t200\t5\tt.txt\tm.txt\th.hap\tl.legend\tp.vcf.gz\n"
SETS = "set\tgenotypes\tvcf\tsamples\n"

# regions table, sets table, what the message must say ("" for tables that are fine)
CASES = [
    (HEAD + R1, SETS + "cases\tg.gen.gz\t\t\ncontrols\t\ts.vcf.gz\tids.txt\n", ""),
    ("# a comment\n" + HEAD + "\n" + R1.replace("\th.hap\tl.legend", "\t.\t"), SETS + "c\t\ts.vcf\t\n", ""),
    (HEAD.replace("\ttrees", ""), SETS, "regions.tsv: no column 'trees'"),
    (HEAD.replace("buffer", "buf"), SETS, "regions.tsv: unknown column 'buf'"),
    (HEAD + R1.replace("\t100\t", "\t1e5\t"), SETS, "regions.tsv line 2: start '1e5' is not a whole number"),
    (HEAD + R1.replace("\t5\t", "\t\t"), SETS, "regions.tsv line 2: buffer None is not a whole number"),
    (HEAD + R1.replace("\t200\t", "\t99\t"), SETS, "regions.tsv line 2: region r1 ends before it starts"),
    (HEAD + R1 + R1, SETS, "regions.tsv line 3: region 'r1' is named twice"),
    (HEAD + R1.replace("r1", "r/1"), SETS, "regions.tsv line 2: region name 'r/1' is not letters"),
    (HEAD + R1.replace("\n", "\textra\n"), SETS, "regions.tsv line 2: 11 cells, the header names 10"),
    (HEAD + R1.replace("\th.hap\tl.legend\tp.vcf.gz", "\t\t\t"), SETS,
     "regions.tsv line 2: region r1 needs haplotypes and legend, or panel_vcf"),
    (HEAD + R1.replace("r1\t20", "r1\t"), SETS, "regions.tsv line 2: region r1 has a panel_vcf but no chrom"),
    (HEAD + R1.replace("\tp.vcf.gz", "\t"), SETS + "c\t\ts.vcf\t\n",
     "sets.tsv line 2: set c comes from a VCF, so region r1 needs a panel_vcf"),
    (HEAD + R1, SETS + "c\tg.gen\ts.vcf\t\n", "sets.tsv line 2: set c needs either genotypes or vcf"),
    (HEAD + R1, SETS + "c\tg.gen\t\tids.txt\n", "sets.tsv line 2: set c: a samples list goes with a vcf"),
    (HEAD + R1, SETS + "logs\tg.gen\t\t\n", "sets.tsv line 2: a set may not be named 'logs'"),
]


def check_tables(work):
    failures = 0
    for regions_text, sets_text, expected in CASES:
        for name, text in (("regions.tsv", regions_text), ("sets.tsv", sets_text)):
            with open(os.path.join(work, name), "w") as f:
                f.write(text)
        try:
            regions = kw.read_regions(os.path.join(work, "regions.tsv"))
            kw.read_sets(os.path.join(work, "sets.tsv"), regions)
            message = ""
        except kw.TableError as e:
            message = str(e)
        if expected and not message.startswith(os.path.join(work, expected.split(":")[0])) or expected not in message:
            print(f"FAIL: expected {expected!r}, got {message!r}")
            failures += 1
    return failures


def check_programs(work):
    """A program that is missing is named with its setting; one on PATH or at its path is found."""
    failures = 0
    tool = os.path.join(work, "tool")
    with open(tool, "w") as f:
        f.write("#!/bin/sh\n")
    os.chmod(tool, 0o755)
    cases = [([("ketra", tool), ("ketra_plot", "sh")], None),
             ([("ketra", tool), ("ketra_prep", "build/no-such-prep")],
              "ketra_prep: build/no-such-prep not found there; build the programs"),
             ([("ketra_plot", "no-such-plot")], "ketra_plot: no-such-plot not found on PATH")]
    for programs, expected in cases:
        message = kw.missing_program(programs)
        if (message is None) != (expected is None) or expected and not message.startswith(expected):
            print(f"FAIL: {programs}: expected {expected!r}, got {message!r}")
            failures += 1
    return failures


def check_publish(work):
    """publish and write_durably on real files, with the fsyncs and renames they make recorded."""
    events = []
    real_fsync, real_replace = os.fsync, os.replace
    os.fsync = lambda fd: events.append(("fsync", os.readlink(f"/proc/self/fd/{fd}")))
    os.replace = lambda a, b: (events.append(("rename", os.path.abspath(a))), real_replace(a, b))
    try:
        for name in ("a.tmp", "b.tmp"):
            with open(os.path.join(work, name), "w") as f:
                f.write(name)
        kw.publish([(os.path.join(work, "a.tmp"), os.path.join(work, "a")),
                    (os.path.join(work, "b.tmp"), os.path.join(work, "b"))])
        kw.write_durably(os.path.join(work, "c"), "text of c")
    finally:
        os.fsync, os.replace = real_fsync, real_replace
    a, b, folder = (os.path.join(work, n) for n in ("a.tmp", "b.tmp", ""))
    expected = [("fsync", a), ("fsync", b), ("rename", a), ("rename", b), ("fsync", folder.rstrip("/"))]
    ok = events[:5] == expected and [e[0] for e in events[5:]] == ["fsync", "rename", "fsync"]
    ok = ok and events[-1] == ("fsync", folder.rstrip("/")) and events[5][1] == events[6][1]
    ok = ok and sorted(os.listdir(work)) == ["a", "b", "c"] and open(os.path.join(work, "c")).read() == "text of c"
    if not ok:
        print(f"FAIL: publish made {events}, left {sorted(os.listdir(work))}")
    return 0 if ok else 1


if __name__ == "__main__":
    with tempfile.TemporaryDirectory() as tables, tempfile.TemporaryDirectory() as files:
        failures = check_tables(tables) + check_programs(tables) + check_publish(files)
    print(f"workflow units: {len(CASES)} table cases, the programs and the publish order checked, {failures} failures")
    sys.exit(1 if failures else 0)
