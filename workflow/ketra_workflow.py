"""The study tables, the memory a Ketra job needs, and durable writes: the
parts of the workflow that are plain Python, so that tests can call them.

Tables are tab-separated, with a header line naming the columns; lines that
start with '#' and blank lines are skipped; an empty cell or '.' is a value
not given. Paths are relative to the folder snakemake runs in."""
import functools
import gzip
import math
import os
import re
import shutil
import tempfile

NAME = re.compile(r"[A-Za-z0-9][A-Za-z0-9_-]*$")
REGION_COLUMNS = ["region", "chrom", "start", "end", "buffer", "trees", "map", "haplotypes", "legend", "panel_vcf"]
SET_COLUMNS = ["set", "genotypes", "vcf", "samples"]
RESERVED_SETS = {"logs"}  # a region's folder holds its sets' folders and its logs


class TableError(Exception):
    pass


def read_table(path, columns, required):
    """Rows of a table as dicts over `columns` (absent cells are None),
    each with its line number under '_line'."""
    try:
        with open(path) as f:
            lines = [(n, line.rstrip("\n")) for n, line in enumerate(f, start=1)]
    except OSError as e:
        raise TableError(f"{path}: {e.strerror or e}")
    lines = [(n, line) for n, line in lines if line.strip() and not line.lstrip().startswith("#")]
    if not lines:
        raise TableError(f"{path}: no header line")
    header = [h.strip() for h in lines[0][1].split("\t")]
    unknown = [h for h in header if h not in columns]
    if unknown:
        raise TableError(f"{path}: unknown column {unknown[0]!r} (columns: {' '.join(columns)})")
    missing = [c for c in required if c not in header]
    if missing:
        raise TableError(f"{path}: no column {missing[0]!r}")
    rows = []
    for n, line in lines[1:]:
        cells = [c.strip() for c in line.split("\t")]
        if len(cells) > len(header):
            raise TableError(f"{path} line {n}: {len(cells)} cells, the header names {len(header)}")
        row = {c: None for c in columns}
        for name, cell in zip(header, cells):
            row[name] = cell if cell not in ("", ".") else None
        row["_line"] = n
        rows.append(row)
    if not rows:
        raise TableError(f"{path}: no rows")
    return rows


def _whole(path, row, column, low=0):
    text = row[column]
    if text is None or not re.fullmatch(r"\d+", text) or int(text) < low:
        raise TableError(f"{path} line {row['_line']}: {column} {text!r} is not a whole number of at least {low}")
    return int(text)


def _name(path, row, column, seen):
    name = row[column]
    if name is None or not NAME.match(name):
        raise TableError(f"{path} line {row['_line']}: {column} name {name!r} is not letters, digits, '_' and '-'")
    if name in seen:
        raise TableError(f"{path} line {row['_line']}: {column} {name!r} is named twice")
    seen.add(name)
    return name


def read_regions(path):
    """Region name -> dict(chrom, start, end, buffer, trees, map, haplotypes, legend, panel_vcf)."""
    regions, seen = {}, set()
    for row in read_table(path, REGION_COLUMNS, ["region", "start", "end", "buffer", "trees", "map"]):
        name = _name(path, row, "region", seen)
        r = {k: row[k] for k in REGION_COLUMNS if k != "region"}
        r["start"], r["end"] = _whole(path, row, "start", 1), _whole(path, row, "end", 1)
        r["buffer"] = _whole(path, row, "buffer")
        if r["end"] < r["start"]:
            raise TableError(f"{path} line {row['_line']}: region {name} ends before it starts")
        if r["trees"] is None or r["map"] is None:
            raise TableError(f"{path} line {row['_line']}: region {name} needs a tree map file and a map")
        given = r["haplotypes"] is not None and r["legend"] is not None
        if not given and (r["haplotypes"] or r["legend"]):
            raise TableError(f"{path} line {row['_line']}: region {name} names only one of haplotypes and legend")
        if not given and r["panel_vcf"] is None:
            raise TableError(f"{path} line {row['_line']}: region {name} needs haplotypes and legend, or panel_vcf")
        if r["panel_vcf"] is not None and r["chrom"] is None:
            raise TableError(f"{path} line {row['_line']}: region {name} has a panel_vcf but no chrom")
        regions[name] = r
    return regions


def read_sets(path, regions):
    """Set name -> dict(genotypes, vcf, samples); paths may hold {region} and {chrom}."""
    sets, seen = {}, set()
    for row in read_table(path, SET_COLUMNS, ["set"]):
        name = _name(path, row, "set", seen)
        if name in RESERVED_SETS:
            raise TableError(f"{path} line {row['_line']}: a set may not be named {name!r}")
        if (row["genotypes"] is None) == (row["vcf"] is None):
            raise TableError(f"{path} line {row['_line']}: set {name} needs either genotypes or vcf")
        if row["samples"] is not None and row["vcf"] is None:
            raise TableError(f"{path} line {row['_line']}: set {name}: a samples list goes with a vcf")
        if row["vcf"] is not None:
            lacking = [r for r, region in regions.items() if region["panel_vcf"] is None]
            if lacking:
                raise TableError(f"{path} line {row['_line']}: set {name} comes from a VCF, so region "
                                 f"{lacking[0]} needs a panel_vcf to prepare it against")
        sets[name] = {k: row[k] for k in SET_COLUMNS if k != "set"}
    return sets


def missing_program(programs):
    """The message for the first of (setting, path) whose program cannot be run,
    or None. A path without a '/' is looked up on PATH."""
    for setting, path in programs:
        if not shutil.which(path):
            where = "on PATH" if "/" not in path else "there"
            return (f"{setting}: {path} not found {where}; build the programs with 'bash scripts/run_example.sh' "
                    f"(or cmake --build build), or set {setting} in the config")
    return None


def fill(path, region_name, region):
    """A set's path for one region: {region} and {chrom} replaced."""
    return path.replace("{region}", region_name).replace("{chrom}", region["chrom"] or "")


def prep_region(region):
    """ketra-prep's -region: the interval widened by the buffer, as Ketra widens it."""
    pad = 1000 * region["buffer"]
    return f"{region['chrom']}:{max(1, region['start'] - pad)}-{region['end'] + pad}"


# ---- Memory -----------------------------------------------------------------

MIB = 1 << 20
KEPT_BUDGET = 768 * MIB   # forward arrays one Ketra thread keeps at most


def _opener(path):
    return gzip.open if path.endswith(".gz") else open


@functools.lru_cache(maxsize=None)
def _haplotypes(path, _stamp):
    with open(path) as f:
        return len(f.readline().split())


@functools.lru_cache(maxsize=None)
def _positions(path, _stamp, column, header, low, high):
    """How many lines have their column-th field within [low, high]."""
    count = 0
    with _opener(path)(path, "rt") as f:
        if header:
            f.readline()
        for line in f:
            fields = line.split(None, column + 1)
            try:
                if low <= float(fields[column]) <= high:
                    count += 1
            except (IndexError, ValueError):
                pass
    return count


@functools.lru_cache(maxsize=None)
def _individuals(path, _stamp):
    with _opener(path)(path, "rt") as f:
        return max(0, (len(f.readline().split()) - 5) // 3)


def _stamp(path):
    s = os.stat(path)  # a missing input raises FileNotFoundError naming it, which snakemake waits out
    return (s.st_size, s.st_mtime_ns)


def run_size(haplotypes, legend, genotypes, trees, start, end, buffer):
    """K, SNPs, individuals and tree positions of a run, as bounds read from its inputs."""
    pad = 1000 * buffer
    return {
        "K": _haplotypes(haplotypes, _stamp(haplotypes)),
        "L": _positions(legend, _stamp(legend), 1, True, start - pad, end + pad),
        "N": _individuals(genotypes, _stamp(genotypes)),
        "P": _positions(trees, _stamp(trees), 0, False, start, end),
    }


def held_individuals(N, chunks=1, part="whole", options=""):
    """The individuals whose genotypes a job keeps: a chunk its slice (at most
    ceil(N / chunks)), a merge none, a whole run all; every job keeps all of
    them when -snp_info or -exclude_samples needs them."""
    flags = options.split()
    if part == "whole" or "-snp_info" in flags or "-exclude_samples" in flags:
        return N
    return 0 if part == "merge" else -(-N // chunks)


def memory_bytes(K, L, N, P, threads, pardo=True, pair_files=False, held=None):
    """Peak memory of one Ketra job (a whole run, a chunk or a merge), in bytes.
    The terms are those of the formula in docs/cluster-workflow.md."""
    held = N if held is None else held
    pairs = K * (K + 1) / 2
    kept = min(2 * P, max(1, KEPT_BUDGET // (8 * (pairs + K))))
    record = P * (K + (4 * K if pardo else 0) + (pairs if pair_files else 0))
    worker = (kept + 6) * 8 * pairs + 8 * record
    writer = 10 * MIB
    # The panel, the kept genotypes (at most 26 bytes per SNP and individual
    # in their compact coding), per-SNP records and one line of the genotype
    # file for everybody.
    data = L * K * 12 + L * held * 26 + L * 400 + N * 64
    # The trees, with their pair indexes where all of them fit 64 MiB.
    index = 4 * P * pairs
    trees = P * 2 * K * 120 + (index if pardo and K <= 1024 and index <= 64 * MIB else 0)
    return 20e6 + data + trees + threads * max(worker, writer)


def memory_mib(size, threads, options="", chunks=1, part="whole"):
    """What a job asks the scheduler for: the formula with a quarter more and
    64 MiB for the allocator and the runtime's own buffers, in MiB."""
    flags = options.split()
    need = memory_bytes(size["K"], size["L"], size["N"], size["P"], threads,
                        pardo="-tavlo_input" in flags, pair_files="-print_matrix" in flags,
                        held=held_individuals(size["N"], chunks, part, options))
    return int(math.ceil(1.25 * need / MIB)) + 64


# ---- Durable files ----------------------------------------------------------

def fsync_path(path):
    fd = os.open(path, os.O_RDONLY)
    try:
        os.fsync(fd)
    finally:
        os.close(fd)


def publish(pairs):
    """Moves each (temporary, final) pair into place: every file reaches the
    disk before its rename, and each folder after its renames, so that a node
    that loses power leaves under a final name only whole files."""
    for temporary, _ in pairs:
        fsync_path(temporary)
    folders = []
    for temporary, final in pairs:
        os.replace(temporary, final)
        folder = os.path.dirname(os.path.abspath(final))
        if folder not in folders:
            folders.append(folder)
    for folder in folders:
        fsync_path(folder)


def write_durably(path, text):
    folder = os.path.dirname(os.path.abspath(path))
    os.makedirs(folder, exist_ok=True)
    fd, temporary = tempfile.mkstemp(dir=folder, prefix="." + os.path.basename(path) + ".")
    try:
        with os.fdopen(fd, "w") as f:
            f.write(text)
        os.chmod(temporary, 0o644)
        publish([(temporary, path)])
    except BaseException:
        if os.path.exists(temporary):
            os.remove(temporary)
        raise


# ---- Hand-over --------------------------------------------------------------

PARDO = re.compile(r"run\.(\d+)\.pardo(\.gz)?$")


def pardo_files(folder):
    """Tree position -> pardo file name in a run's folder."""
    found = {}
    for name in os.listdir(folder):
        m = PARDO.match(name)
        if m:
            found[int(m.group(1))] = name
    return found


def matrix_summary(path):
    """Lines and individuals of a matrix file (each line's values add up to the individuals)."""
    lines, individuals = 0, 0
    with open(path) as f:
        for line in f:
            if not line.strip():
                continue
            if lines == 0:
                values = line.split(None, 1)[1].rstrip().rstrip(";").split(",")
                individuals = round(sum(float(v) for v in values))
            lines += 1
    return lines, individuals


def handover_text(region_name, region, roles):
    """The hand-over file of a region; roles is [(role, set name, run folder, sample file or None)]
    for the cases and the controls. Paths in it are relative to the region's folder."""
    region_folder = os.path.dirname(roles[0][2])
    files, notes = [], []
    for role, set_name, folder, samples in roles:
        found = pardo_files(folder)
        lines, individuals = matrix_summary(os.path.join(folder, "run"))
        if len(found) != lines:
            raise TableError(f"{folder}: {len(found)} pardo files but {lines} matrix lines; run the merge again")
        files.append(found)
        sample_note = f", individuals in the order of {os.path.relpath(samples, region_folder)}" if samples else ""
        notes.append(f"# {role}: set {set_name}, {individuals} individuals{sample_note}\n")
    if sorted(files[0]) != sorted(files[1]):
        raise TableError(f"{roles[0][2]} and {roles[1][2]} have pardo files at different tree positions")
    rel = [os.path.relpath(folder, region_folder) for _, _, folder, _ in roles]
    text = [f"# region {region_name}: -int {region['start']} {region['end']} -buffer {region['buffer']}\n",
            "# one row per tree position: the pardo files of the cases and of the controls,\n",
            "# relative to this file's folder\n"] + notes
    text.append("position\tcases\tcontrols\n")
    for position in sorted(files[0]):
        text.append(f"{position}\t{rel[0]}/{files[0][position]}\t{rel[1]}/{files[1][position]}\n")
    return "".join(text)


def overview_html(results, regions, rows):
    """An index of the regions; rows is [(region name, positions, plot, hand-over)] with paths under results."""
    def cell(text):
        return "<td>" + text.replace("&", "&amp;").replace("<", "&lt;") + "</td>"
    out = ["<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>Ketra: cases against controls</title>",
           "<style>td,th{padding:4px 10px;text-align:left;vertical-align:top}</style></head><body>\n",
           "<h1>Cases against controls, by region</h1>\n<table>\n",
           "<tr><th>region</th><th>interval</th><th>tree positions</th><th>hand-over</th><th>plot</th></tr>\n"]
    for name, positions, plot, handover in rows:
        r = regions[name]
        plot_rel, handover_rel = os.path.relpath(plot, results), os.path.relpath(handover, results)
        out.append(f"<tr>{cell(name)}{cell(str(r['chrom'] or '') + ' ' + str(r['start']) + '-' + str(r['end']))}"
                   f"{cell(str(positions))}<td><a href=\"{handover_rel}\">{handover_rel}</a></td>"
                   f"<td><img src=\"{plot_rel}\" width=\"500\" alt=\"{name}\"></td></tr>\n")
    out.append("</table>\n</body></html>\n")
    return "".join(out)


def main(argv):
    """publish FROM TO [EXT ...]: move FROM to TO (or FROM+EXT to TO+EXT for each EXT) durably."""
    if len(argv) >= 3 and argv[0] == "publish":
        source, target, exts = argv[1], argv[2], argv[3:]
        publish([(source + e, target + e) for e in exts] if exts else [(source, target)])
    else:
        print(main.__doc__)
        return 2
    return 0


if __name__ == "__main__":
    import sys
    sys.exit(main(sys.argv[1:]))
