// Whole runs beyond the end-to-end table. Under -strict every failure ends
// non-zero with a clear message, while the default run keeps its lenient
// outcome (a valid run is the same either way: see the end-to-end cases), and
// failed writes are reported in every run. Chunk runs merged with -merge give
// the single run's files byte for byte; broken, missing or foreign partial
// results end with status 1.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>

#include <boost/filesystem/operations.hpp>

#include "io/run_error.h"
#include "results/partial_results.h"
#include "run/memory_check.h"
#include "support/test_support.h"

using namespace ketra_test;
namespace fs = boost::filesystem;

namespace {

// The small data set's arguments, then more; a flag given twice takes its last value.
std::vector<std::string> small_args_and(std::string const& more) {
    auto args = small_data_args();
    std::istringstream words(more);
    for (std::string word; words >> word;) args.push_back(word);
    return args;
}

}  // namespace

// Failures beyond a damaged input file (which the next test's table holds):
// flags, trees, data that fit no run, output files.
TEST(Strict, OtherFailuresAreNonZeroWhileTheDefaultRunKeepsItsOutcome) {
    TempDir dir;
    copy_small_data(dir);
    // Result files that cannot be opened: a folder, not empty (a run removes
    // old .full_matrix files), stands under their names.
    for (char const* blocked : {"auxdir/run.aux", "gzdir/run.gz", "pardodir/run.1250.pardo", "fulldir/run.1250.full_matrix"})
        fs::create_directories(dir.path() / blocked / "kept");
    write_file(dir.file("blocker"), "a file where the output folder should go\n");
    write_file(dir.file("bad_trees.txt"), "1000 0;4;1 2,3 4,5 6;\n1250 0;4;2 4,1 9,5 6;\n");
    write_file(dir.file("outside_trees.txt"), "999 0;4;1 2,3 4,5 6;\n1901 0;4;1 2,3 4,5 6;\n");
    write_file(dir.file("blank_lines.hap"), std::string(7, '\n'));
    std::string const map = read_file(dir.file("map.txt"));
    write_file(dir.file("repeated_row.map"), map.substr(0, map.find('\n') + 1) + "900 2.0 0.000\n" +
                                                 map.substr(map.find('\n') + 1));

    std::string const ne_unset = "Error: Ne needs to be set\n", bad_ne = "must lie between 0 and 30000";
    auto bad_value = [](std::string flag, std::string text, std::string why) {
        return "ERROR!!! Bad value given for flag " + flag + ": " + text + " (" + why + ")\n";
    };
    // Whether the default run completes, a line it prints ("" for none), and the line -strict ends
    // with ("" for the same line).
    struct Case { std::string args; bool default_completes; std::string default_text, strict_text; };
    std::vector<Case> const cases = {
        {"-Ne -5", true, ne_unset, bad_value("-Ne", "-5", bad_ne)},
        {"-Ne 30001", true, ne_unset, bad_value("-Ne", "30001", bad_ne)},
        {"-Ne nan", true, "", bad_value("-Ne", "nan", "not a finite number")},
        {"-theta inf", true, "", bad_value("-theta", "inf", "not a finite number")},
        {"-theta -0.5", true, "", bad_value("-theta", "-0.5", "must not be negative")},
        {"-call_thresh 1.5", true, "", bad_value("-call_thresh", "1.5", "must lie between 0 and 1")},
        {"-buffer ten", true, "", bad_value("-buffer", "ten", "not a number")},
        {"-threads 2.5", true, "", bad_value("-threads", "2.5", "not a whole number")},
        {"-print_matrx", true, "", "ERROR!!! Flag error: unknown flag -print_matrx\n"},
        {"-tree_file bad_trees.txt -tavlo_input", false, "Bad tree data encountered at 1250", ""},
        {"-tree_file outside_trees.txt", true, "",
         "Error reading file outside_trees.txt: no tree position lies between the first and the last SNP (1000 to "
         "1900).\n"},
        {"-m repeated_row.map", true, "", "file repeated_row.map: map positions not strictly increasing on line 3.\n"},
        {"-h blank_lines.hap", true, "",
         "Error reading file blank_lines.hap: line 1 is blank; a haplotype line has an allele code (0 or 1) for each "
         "haplotype.\n"},
        {"-o auxdir/run", true, "Warning can't write aux file: auxdir/run.aux\n",
         "Error writing file auxdir/run.aux: Is a directory\n"},
        {"-o gzdir/run.gz", true, "", "Error writing file gzdir/run.gz: Is a directory\n"},
        {"-o pardodir/run -tavlo_input", true, "", "Error writing file pardodir/run.1250.pardo: Is a directory\n"},
        {"-o fulldir/run -print_matrix", true, "", "Error writing file fulldir/run.1250.full_matrix: Is a directory\n"},
        // By default the runtime's own termination (checked below).
        {"-o blocker/sub/run", false, "", "Error while processing the command line and creating the output directory: "},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.args);
        auto const lenient = run_ketra(small_args_and(c.args), dir.path().string());
        EXPECT_EQ(lenient.out.find("Ketra complete!") != std::string::npos, c.default_completes) << lenient.out;
        bool const terminates = c.args == "-o blocker/sub/run";
        EXPECT_EQ(lenient.status != 0, terminates);
        EXPECT_EQ(lenient.err.find("terminate called") != std::string::npos, terminates) << lenient.err;
        EXPECT_NE(lenient.out.find(c.default_text), std::string::npos) << lenient.out;
        EXPECT_EQ(lenient.out.find(c.strict_text) != std::string::npos, c.strict_text.empty());

        auto const strict = run_ketra(small_args_and(c.args + " -strict"), dir.path().string());
        EXPECT_EQ(strict.status, 1);
        EXPECT_EQ(strict.err, "");
        EXPECT_EQ(strict.out.find("Ketra complete!"), std::string::npos);
        EXPECT_NE(strict.out.find(c.strict_text.empty() ? c.default_text : c.strict_text), std::string::npos) << strict.out;
        // Files dropped unfinished leave no temporary behind.
        for (fs::recursive_directory_iterator it(dir.path()), end; it != end; ++it)
            EXPECT_NE(it->path().filename().string()[0], '.') << "left behind: " << it->path();
    }
}

namespace {

// Line n (1-based; 0: every line) of text, changed by edit.
std::string edit_line(std::string const& text, int n, std::function<std::string(std::string)> const& edit) {
    std::istringstream in(text);
    std::string out, line;
    for (int i = 1; std::getline(in, line); ++i) out += (i == n || n == 0 ? edit(line) : line) + "\n";
    return out;
}

std::vector<std::string> words(std::string const& text) {
    std::istringstream in(text);
    std::vector<std::string> all;
    for (std::string w; in >> w;) all.push_back(w);
    return all;
}

std::string joined(std::vector<std::string> const& fields) {
    std::string line;
    for (auto const& f : fields) line += (line.empty() ? "" : " ") + f;
    return line;
}

// The line with its fields changed by change.
std::function<std::string(std::string)> on_fields(std::function<void(std::vector<std::string>&)> change) {
    return [=](std::string line) {
        auto f = words(line);
        change(f);
        return joined(f);
    };
}
// The line with field k (1-based) replaced by value, or its last `drop` fields left out.
std::function<std::string(std::string)> set_field(std::size_t k, std::string value) {
    return on_fields([=](std::vector<std::string>& f) { f[k - 1] = value; });
}
std::function<std::string(std::string)> drop_fields(std::size_t drop) {
    return on_fields([=](std::vector<std::string>& f) { f.resize(f.size() - drop); });
}

std::string first_lines(std::string const& text, int n) {
    std::size_t end = 0;
    for (int i = 0; i < n; ++i) end = text.find('\n', end) + 1;
    return text.substr(0, end);
}

std::string gzipped(std::string const& text) {
    TempDir scratch;
    write_file(scratch.file("z"), text, true);
    return read_file(scratch.file("z"));
}

}  // namespace

// Every input file of a run, each way it can be wrong. Under -strict the run
// ends with status 1 and one line naming the file and the cause, and leaves no
// result file; the default run keeps its own outcome (status 0, or 1 for the
// tree map file). Damaged files are made from the example's good ones.
TEST(Strict, EveryInputFileFaultEndsWithStatusOneAndNoResults) {
    TempDir dir;
    copy_example_data(dir);
    std::string const genotypes = read_gzip_file(dir.file("study.gen.gz"));
    write_file(dir.file("study.gen"), genotypes);
    // A strand file that applies "+" to every SNP changes nothing.
    std::string strand;
    {
        std::istringstream legend(read_file(dir.file("ref.legend")));
        std::string line;
        std::getline(legend, line);
        while (std::getline(legend, line)) strand += words(line)[1] + " +\n";
        write_file(dir.file("ref.strand"), strand);
    }
    std::string const example_args = "-h ref.hap -l ref.legend -m map.txt -g study.gen -tree_file trees.txt "
                                      "-int 1350000 1395000 -buffer 15 -o out/run -tavlo_input";
    using edit = std::function<std::string(std::string const&)>;
    // A damaged file made from the input's good text, and the cause -strict gives.
    struct Damage { edit make; std::string cause; };
    Damage const not_meaningful{nullptr, ""};
    // One input: its flag, the good file (and flags it needs beside it), the
    // reader's message for a file that does not open, whether a name ending in
    // .gz is decompressed, and the faults particular to it.
    struct Input {
        std::string flag, good, beside, cannot_open;
        bool decompressed;
        std::string other_file, other_cause;  // another input's file given here
        Damage field_count, not_a_number, no_rows;
    };
    std::string const different_count = "different number of haplotypes found in haplotype file (100 and 99 on line 3.";
    std::string const sample_count = "sample file contains wrong number of individuals.";
    std::vector<Input> const inputs = {
        {"-h", "ref.hap", "", "can't open haplotype file.", false, "ref.legend",
         "bad format detected in haplotype file on line 1.",
         {[](std::string const& t) { return edit_line(t, 3, drop_fields(1)); }, different_count},
         {[](std::string const& t) { return edit_line(t, 2, set_field(5, "x")); },
          "bad format detected in haplotype file on line 2."},
         // No header: which of its lines are used is the legend's to say, and
         // a file without lines is the empty one.
         not_meaningful},
        {"-l", "ref.legend", "", "can't open legend file.", false, "ref.hap",
         "line 3 has a lower position than the line before it; a legend is sorted by position.",
         {[](std::string const& t) { return edit_line(t, 3, drop_fields(2)); },
          "line 3 has 2 fields; a legend line has 4 fields or more: id, position and two alleles."},
         {[](std::string const& t) { return edit_line(t, 2, set_field(2, "x")); }, "line 2, field 2 is 'x', not a number"},
         {[](std::string const& t) { return first_lines(t, 1); }, "no SNP line after the header line."}},
        {"-m", "map.txt", "", "can't open file.", false, "ref.legend", "line 2, field 1 is 'rs56256914', not a number",
         {[](std::string const& t) { return edit_line(t, 4, drop_fields(1)); },
          "line 4 has 2 fields; a map line has 3 numbers: position, rate and genetic position."},
         {[](std::string const& t) { return edit_line(t, 3, set_field(3, "x")); }, "line 3, field 3 is 'x', not a number"},
         {[](std::string const& t) { return first_lines(t, 1); }, "no map row after the header line."}},
        {"-g", "study.gen", "", " can't opened file.", true, "ref.legend", "line 1, field 3 is 'a0', not a number",
         {[](std::string const& t) { return edit_line(t, 1, drop_fields(1)); },
          "line 1 has 154 fields; a genotype line has 5 plus 3 per individual."},
         {[](std::string const& t) { return edit_line(t, 2, set_field(3, "x")); }, "line 2, field 3 is 'x', not a number"},
         {[](std::string const& t) { return edit_line(t, 0, set_field(3, "1")); },  // every SNP at position 1
          "no line is at a SNP of the reference panel in the interval widened by the buffer."}},
        {"-tree_file", "trees.txt", "", "can't read tree map file.", true, "ref.legend", "line 1, field 1 is 'id', not a number",
         {[](std::string const& t) { return edit_line(t, 2, [](std::string l) { return words(l)[0]; }); },
          "line 2 has 1 field; a tree map line has a position and a tree."},
         {[](std::string const& t) { return edit_line(t, 2, set_field(1, "x")); }, "line 2, field 1 is 'x', not a number"},
         // Three trees before the interval.
         {[](std::string const& t) { return first_lines(t, 3); }, "no suitable positions found in tree map file."}},
        {"-strand", "ref.strand", "", "can't open strand file", false, "ref.hap", "line 1: strand '0' is neither + nor -.",
         {[](std::string const& t) { return edit_line(t, 2, drop_fields(1)); },
          "line 2 has 1 field; a strand line has 2 fields or more: position and strand."},
         {[](std::string const& t) { return edit_line(t, 2, set_field(1, "x")); }, "line 2, field 1 is 'x', not a number"},
         {[](std::string const&) { return std::string("1 +\n2 -\n"); },
          "no line is at a SNP of the genotype file and the reference panel."}},
        // Read only to be checked when no individual is excluded.
        {"-sample", "study.sample", "", "can't open sample file.", false, "ref.hap", sample_count,
         {[](std::string const& t) { return edit_line(t, 4, drop_fields(2)); },
          "line 4 has 1 field; a sample line has 2 fields or more: two ids."},
         not_meaningful,  // no field of a sample line is a number
         {[](std::string const& t) { return first_lines(t, 2); }, sample_count}},
        // Exclusion lists are any number of ids, so they have no field counts
        // or numbers, an empty list excludes nothing, and ids that match
        // nothing are allowed (a list for the whole cohort or genome).
        {"-exclude_samples", "exclude_samples.txt", "-sample study.sample", "can't open sample file.", false,
         "study.sample", "excludes every individual of the genotype file.", not_meaningful, not_meaningful,
         not_meaningful},
        {"-exclude_snps", "exclude_snps.txt", "", "no such exclusion list file.", false, "ref.legend",
         "the SNP exclusion lists remove every genotyped SNP in the interval.", not_meaningful, not_meaningful,
         not_meaningful},
    };
    std::string const gzip_as_text =
        "file is gzip-compressed, but this input is read as plain text (only names ending in .gz are decompressed).";
    int cells = 0;
    for (auto const& input : inputs) {
        std::string const good = read_file(dir.file(input.good));
        bool const is_list = input.flag.rfind("-exclude", 0) == 0;
        // The faults every input shares: name of the damaged file, its content
        // (none: no file), the cause.
        struct Cell { std::string fault, name; std::unique_ptr<std::string> content; std::string cause; };
        std::vector<Cell> cells_of_input;
        auto add = [&](std::string fault, std::string name, std::unique_ptr<std::string> content, std::string cause) {
            if (!cause.empty()) cells_of_input.push_back({fault, name, std::move(content), cause});
        };
        auto text = [](std::string t) { return std::make_unique<std::string>(std::move(t)); };
        std::string const zipped = gzipped(good);
        add("missing", "absent.txt", nullptr, input.cannot_open);
        add("a folder", "folder.txt", nullptr, "not a regular file.");
        add("empty", "empty.txt", text(""), is_list ? "" : "file is empty.");
        add("another input's file", input.other_file, nullptr, input.other_cause);
        add("gzip under a plain name", "zipped.txt", text(zipped), gzip_as_text);
        // Inputs that are never decompressed read a .gz name as plain text.
        add("plain text under a .gz name", "plain.gz", text(good), input.decompressed ? "not in gzip format." : "");
        add("truncated gzip", input.decompressed ? "cut.gz" : "cut.txt", text(zipped.substr(0, zipped.size() / 2)),
            input.decompressed ? "compressed data are truncated." : gzip_as_text);
        for (auto const* d : {&input.field_count, &input.not_a_number, &input.no_rows}) {
            std::string const fault = d == &input.field_count ? "wrong field count"
                                      : d == &input.not_a_number ? "not a number" : "no usable rows";
            std::string const name = input.decompressed ? "damaged.gz" : "damaged.txt";
            if (d->make) add(fault, name, text(input.decompressed ? gzipped(d->make(good)) : d->make(good)), d->cause);
        }
        for (auto const& cell : cells_of_input) {
            SCOPED_TRACE(input.flag + ", " + cell.fault);
            ++cells;
            fs::remove_all(dir.path() / "out");
            fs::remove_all(dir.path() / "folder.txt");
            if (cell.fault == "a folder") fs::create_directories(dir.path() / "folder.txt");
            if (cell.content) write_file(dir.file(cell.name), *cell.content);
            std::string const args = example_args + " " + input.beside + " " + input.flag + " " + cell.name;

            auto const strict = run_ketra(words(args + " -strict"), dir.path().string());
            EXPECT_EQ(strict.status, 1);
            EXPECT_EQ(strict.err, "");
            std::string const line = "Error reading file " + cell.name + ": " + cell.cause;
            EXPECT_NE(strict.out.find(line), std::string::npos) << strict.out;
            EXPECT_TRUE(text_ends_with(strict.out, "Program terminated\n")) << strict.out;
            // No result under a final name (the .aux file is the run's log).
            for (fs::directory_iterator it(dir.path() / "out"), end; fs::exists(dir.path() / "out") && it != end; ++it)
                EXPECT_EQ(it->path().filename().string(), "run.aux");

            // By default a bad input file ends with status 0, the tree map
            // file's failures aside.
            auto const lenient = run_ketra(words(args), dir.path().string());
            if (input.flag != "-tree_file") {
                EXPECT_EQ(lenient.status, 0) << lenient.out;
            }
            EXPECT_EQ(lenient.err, "");
        }
    }
    EXPECT_EQ(cells, 73);
}

// Each output file of a run in turn on a full device (/dev/full, by default
// and in -strict's whole-files mode) and, where mounting is allowed, on a full
// file system (a file of a full tmpfs bound over the output's name): the file
// and the system's reason, no "done", status 1.
TEST(WriteErrors, RunReportsTheFileAndReasonWithoutDoneAndNonZeroStatus) {
    TempDir dir;
    copy_small_data(dir);
    fs::create_directories(dir.path() / "full");
    // The text just before the error; the run deletes old .full_matrix files
    // first, links included, so that one is only tested on a full file system.
    struct Case { std::string extra, file, before; bool replaces_links = false; };
    std::vector<Case> const cases = {
        {"", "out/run.aux", "writing .aux file: out/run.aux\n\n"},
        {"", "out/run.snp_info.txt", "Outputing snp information to file out/run.snp_info.txt ... "},
        {"", "out/run", "writing matrix file ... "},
        {"-o out/run.gz", "out/run.gz", "writing matrix file in gzip mode ... "},
        {"-tavlo_input", "out/run.1250.pardo", "done\n"},
        {"-tavlo_input -pardo_gz", "out/run.1250.pardo.gz", "done\n"},
        {"-print_matrix", "out/run.1250.full_matrix", "3/3", true},
        {"-chunk 1 2", "out/run.chunk1of2.part", "0/1"},
        {"-chunk 1 2", "out/run.chunk1of2.part.0", ""},
    };
    bool const can_mount = ::geteuid() == 0;  // CI runs as root, so it runs the full file system too
    for (std::string const sink : {"/dev/full", "/dev/full -strict", "full tmpfs"}) {
        bool const on_device = sink != "full tmpfs";
        if (!on_device && !can_mount) {
            std::cout << "[  SKIPPED ] a full file system: mounting one needs root\n";
            continue;
        }
        if (!on_device) {
            ASSERT_EQ(::mount("tmpfs", dir.file("full").c_str(), "tmpfs", 0, "size=64k"), 0) << "as root";
        }
        std::ofstream(dir.file("full/filler")) << std::string(1 << 17, 'x') << std::flush;
        for (auto const& c : cases) {
            if (on_device && c.replaces_links) continue;
            SCOPED_TRACE(sink + ": " + c.file);
            fs::remove_all(dir.path() / "out");
            fs::create_directories(dir.path() / "out");
            if (on_device) {
                fs::create_symlink("/dev/full", dir.path() / c.file);
            } else {
                write_file(dir.file(c.file), "");
                write_file(dir.file("full/target"), "");
                EXPECT_EQ(::mount(dir.file("full/target").c_str(), dir.file(c.file).c_str(), nullptr, MS_BIND, nullptr), 0);
            }
            auto const r = run_ketra(small_args_and("-snp_info " + c.extra + (on_device ? sink.substr(9) : "")),
                                     dir.path().string());
            if (!on_device) ::umount(dir.file(c.file).c_str());
            EXPECT_EQ(r.status, 1);
            EXPECT_NE(r.out.find(c.before + "Error writing file " + c.file + ": No space left on device\nProgram terminated\n"),
                      std::string::npos) << r.out;
            EXPECT_EQ(r.out.find("Ketra complete!"), std::string::npos);
            EXPECT_EQ(r.err, "");
        }
        if (!on_device) ::umount(dir.file("full").c_str());
    }
}

TEST(SplitRun, MergedChunksEqualTheSingleRun) {
    TempDir dir;
    copy_small_data(dir);
    // A .gz output name gives a gzip matrix file.
    struct split_case {
        std::string output; int chunks; std::string chunk_threads, merge_threads; bool pardo_gz; std::string extra;
    };
    // Excluded samples renumber the individuals after reading: the chunks then hold them all.
    write_file(dir.file("one.txt"), "S2\n");
    split_case const cases[] = {{"run", 1, "1", "1", false, ""}, {"run", 2, "2", "1", true, ""},
                                {"run.gz", 3, "1", "3", true, ""}, {"run", 5, "2", "2", false, ""},  // 5 > N
                                {"run", 2, "1", "1", false, " -sample study.sample -exclude_samples one.txt"}};
    auto const results = [&](std::string const& folder) {  // without the partial results
        auto files = collect_output_files(dir.path() / folder);
        for (auto it = files.begin(); it != files.end();)
            it = it->first.find(".chunk") == std::string::npos ? std::next(it) : files.erase(it);
        return files;
    };
    for (auto const& c : cases) {
        std::string const n = std::to_string(c.chunks), single = "single" + n + (c.extra.empty() ? "" : "x"),
                          split = "split" + n + (c.extra.empty() ? "" : "x");
        SCOPED_TRACE(c.output + " n=" + n);
        std::string const outputs = c.extra + " -tavlo_input -print_matrix -o ";
        ASSERT_EQ(run_ketra(small_args_and(outputs + single + "/" + c.output), dir.path().string()).status, 0);
        std::string const to_split = (c.pardo_gz ? " -pardo_gz" : "") + outputs + split + "/" + c.output;
        for (int i = 1; i <= c.chunks; ++i) {
            std::string const chunk = " -chunk " + std::to_string(i) + " " + n + " -threads " + c.chunk_threads;
            auto const r = run_ketra(small_args_and(to_split + chunk), dir.path().string());
            ASSERT_EQ(r.status, 0) << r.out;
        }
        EXPECT_TRUE(results(split).empty());  // the chunks write only their own files
        auto const merged = run_ketra(small_args_and(to_split + " -merge " + n + " -threads " + c.merge_threads),
                                      dir.path().string());
        ASSERT_EQ(merged.status, 0) << merged.out;
        EXPECT_NE(merged.out.find("Merging the partial results of " + n + " chunk runs ... done"), std::string::npos);
        // Matrix file, .aux file (which names the flags), 5 pardo and 5 .full_matrix files.
        auto const expected = results(single);
        auto got = results(split);
        ASSERT_EQ(expected.size(), 12u);
        ASSERT_EQ(got.size(), expected.size());
        for (auto const& [name, text] : expected) {
            if (name.find(".aux") != std::string::npos) continue;
            bool const packed = c.pardo_gz && text_ends_with(name, ".pardo");
            EXPECT_EQ(got[packed ? name + ".gz.unzipped" : name], text) << name;
        }
        for (auto const& folder : {single, split})  // the work folder is gone
            for (auto const& entry : fs::directory_iterator(dir.path() / folder))
                EXPECT_EQ(entry.path().filename().string().find(".work"), std::string::npos);
    }
}

TEST(SplitRun, BadChunksEndWithStatusOne) {
    TempDir dir;
    copy_small_data(dir);
    auto const run = [&](std::string const& more) {
        return run_ketra(small_args_and("-tavlo_input -print_matrix -o s/run " + more), dir.path().string());
    };
    auto const chunk = [&](int i, int n) { return run("-chunk " + std::to_string(i) + " " + std::to_string(n)); };
    auto const expect_stop = [](RunResult const& r, std::string const& cause) {
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.out.find(cause), std::string::npos) << r.out.substr(r.out.size() > 400 ? r.out.size() - 400 : 0);
        EXPECT_NE(r.out.find("Program terminated\n"), std::string::npos);
    };
    for (auto const& bad : std::vector<std::pair<int, int>>{{0, 2}, {3, 2}, {1, 0}})
        expect_stop(chunk(bad.first, bad.second), "the chunk must be between 1 and");
    expect_stop(run("-chunk 1 2 -merge 2"), "cannot be given together");
    expect_stop(run("-merge 0"), "the number of chunks must be at least 1");

    ASSERT_EQ(chunk(1, 2).status, 0);
    std::string const part2 = dir.file("s/run.chunk2of2.part"), data0 = part2 + ".0";
    expect_stop(run("-merge 2"), "s/run.chunk2of2.part: partial results of chunk 2 of 2 are missing");
    ASSERT_EQ(chunk(2, 2).status, 0);
    std::string const index = read_file(part2), data = read_file(data0);
    std::time_t const genotypes_time = fs::last_write_time(dir.file("study.gen"));
    auto const with = [](std::string text, std::size_t at, std::size_t n, std::string const& by) {
        return text.replace(at, n, by);
    };
    struct broken_case { std::function<void()> damage; std::string cause; };
    broken_case const cases[] = {
        {[&] { write_file(part2, index.substr(0, index.rfind("complete"))); },
         "partial results are incomplete (run it again with -chunk 2 2)"},
        {[&] { write_file(data0, data.substr(0, data.size() - 8)); },
         "run.chunk2of2.part.0: partial results are incomplete"},
        {[&] { fs::last_write_time(dir.file("study.gen"), genotypes_time + 60); },
         "partial results made by another command line or from other input files"},
        {[&] { fs::copy_file(dir.file("s/run.chunk1of2.part"), part2, fs::copy_option::overwrite_if_exists); },
         "partial results belong to chunk 1 of 2, not 2 of 2"},
        {[&] { write_file(data0, with(data, data.size() / 2, 1, std::string(1, data[data.size() / 2] ^ 4))); },
         "run.chunk2of2.part.0: partial results are damaged (run it again with -chunk 2 2)"},
        {[&] { write_file(part2, with(index, index.find("files 1"), 7, "files 2")); },
         "run.chunk2of2.part: partial results are damaged (run it again with -chunk 2 2)"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.cause);
        c.damage();
        expect_stop(run("-merge 2"), c.cause);
        write_file(part2, index);
        write_file(data0, data);
        fs::last_write_time(dir.file("study.gen"), genotypes_time);
        ASSERT_EQ(run("-merge 2").status, 0);
    }
    // The same chunks do not make a split into three; other options than -threads change the fingerprint.
    expect_stop(run("-merge 3"), "run.chunk1of3.part: partial results of chunk 1 of 3 are missing");
    expect_stop(run("-merge 2 -Ne 10000"), "partial results made by another command line");
}

// Runs killed at random moments leave, under their final names, only whole files.
TEST(Strict, KilledRunsLeaveNoPartFileUnderAFinalName) {
    TempDir dir;
    copy_example_data(dir);
    std::string const cd = "cd " + dir.path().string() + " && ", command = " " + ketra_test::ketra_binary() +
        " -h ref.hap -l ref.legend -m map.txt -g study.gen.gz -tree_file trees.txt -buffer 15"
        " -int 1350000 1395000 -tavlo_input -print_matrix -strict ";
    std::mt19937 rng(12345);
    int inspected = 0;  // runs stopped before their end that had files under final names to compare
    for (std::string const extra : {"-snp_info -pardo_gz -o killed/run.gz", "-chunk 1 2 -o killed/run"}) {
        // The reference, under the same command line (partial results and the .aux file hold it).
        for (char const* folder : {"killed", "whole"}) fs::remove_all(dir.path() / folder);
        auto const start = std::chrono::steady_clock::now();
        ASSERT_EQ(std::system((cd + command + extra + " >/dev/null").c_str()), 0);
        std::chrono::duration<double> const took = std::chrono::steady_clock::now() - start;
        fs::rename(dir.path() / "killed", dir.path() / "whole");
        for (int round = 0; round < 4; ++round) {
            fs::remove_all(dir.path() / "killed");
            // Late enough that the output folder and the first files exist.
            std::string const after =
                std::to_string(std::uniform_real_distribution<>(took.count() * 0.2, took.count() * 1.1)(rng));
            std::string const killed = "{ timeout -s 9 " + after + command + extra + "; } >/dev/null 2>&1";
            int const raw = std::system((cd + killed).c_str());
            bool const stopped = WIFEXITED(raw) && WEXITSTATUS(raw) == 128 + 9;
            if (!fs::exists(dir.path() / "killed")) continue;
            int compared = 0;
            for (auto const& entry : fs::directory_iterator(dir.path() / "killed")) {
                // Temporary names start with a dot; the work folder goes with the run.
                std::string const name = entry.path().filename().string(), content = read_file(entry.path().string());
                if (name[0] == '.' || !fs::is_regular_file(entry.path())) continue;
                // Or a chunk index as written before the passes: no record files, its checksum line.
                EXPECT_TRUE(content == read_file(dir.file("whole/" + name)) ||
                            (text_ends_with(name, ".part") &&
                             content.find("\nfiles 0\nchecksum ") != std::string::npos))
                    << extra << ": " << name << " in round " << round;
                ++compared;
            }
            inspected += stopped && compared > 0;
        }
    }
    EXPECT_GT(inspected, 0) << "no run stopped before its end left a file to compare";
}

// Out of memory: the runtime's termination by default, one line under -strict.
TEST(Strict, OutOfMemoryIsOneClearLine) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "address space limits and AddressSanitizer's shadow memory do not mix";
#endif
    TempDir dir;
    copy_small_data(dir);
    std::string hap;  // K = 6000: one pair array alone is 144 MB
    for (int i = 0; i < 7 * 6000; ++i) hap += i % 6000 == 5999 ? "1\n" : i % 3 ? "0 " : "1 ";
    write_file(dir.file("ref.hap"), hap);
    std::string command = "cd " + dir.path().string() + " && ulimit -v 120000 && " + ketra_test::ketra_binary();
    for (auto const& a : small_data_args()) command += " " + a;
    for (std::string const strict : {"", " -strict"}) {
        int const raw = std::system((command + strict + " >out.txt 2>err.txt").c_str());
        std::string const out = read_file(dir.file("out.txt")), err = read_file(dir.file("err.txt"));
        EXPECT_EQ(err.find("std::bad_alloc") != std::string::npos, strict.empty()) << err;
        EXPECT_EQ(raw != 0 && WIFEXITED(raw) && WEXITSTATUS(raw) == 1, !strict.empty()) << raw;
        EXPECT_EQ(text_ends_with(out, ": out of memory\nProgram terminated\n"), !strict.empty()) << out;
    }
}

// Slices are contiguous, cover everyone and differ by one at most; the memory
// check warns (or stops, under -strict) only when the estimate does not fit, and
// the estimate grows with threads, not with individuals.
TEST(SplitRun, SlicesAndMemoryCheck) {
    for (int N : {0, 1, 3, 10, 4000})
        for (int n : {1, 2, 3, 7, 12}) {
            int next = 0, smallest = N, largest = 0;
            for (int i = 1; i <= n; ++i) {
                auto const slice = chunk_individuals(i, n, N);
                EXPECT_EQ(slice.first, next) << N << " " << n << " " << i;
                smallest = std::min(smallest, slice.second - next);
                largest = std::max(largest, slice.second - next);
                next = slice.second;
            }
            EXPECT_TRUE(next == N && largest - smallest <= 1) << N << " " << n;
        }
    struct { double needed, available; int threads; bool strict; std::string printed; } const cases[] = {
        {100e6, 200e6, 4, true, ""}, {100e6, -1, 4, true, ""}, {300e6, 200e6, 2, true, "stop"},
        {300e6, 200e6, 4, false,
         "needs about 300 MB of memory, but only 200 MB is available. Use fewer threads (-threads 2)"},
        {300e6, 200e6, 1, false, "Use fewer threads, or split the individuals over several runs with -chunk"}};
    for (auto const& c : cases) {
        std::ostringstream console;
        try {
            check_memory(c.needed, c.available, c.threads, c.strict, console);
            EXPECT_TRUE(c.printed.empty() ? console.str().empty() : console.str().find(c.printed) != std::string::npos)
                << console.str();
        } catch (run_error const& e) {
            EXPECT_TRUE(c.printed == "stop" && e.what().find("-chunk <i> <n>") != std::string::npos) << e.what();
        }
    }
    run_size bench;
    bench.K = 200, bench.L = 2000, bench.N = bench.held = 500, bench.positions = 201, bench.kept_forward_arrays = 201;
    run_size two_threads = bench, many_individuals = bench;
    two_threads.threads = 2;
    many_individuals.N = many_individuals.held = 4000, many_individuals.L = 244, many_individuals.positions = 23;
    many_individuals.kept_forward_arrays = 23;
    EXPECT_LT(std::max(estimate_peak_memory(bench), estimate_peak_memory(many_individuals)), 160e6);
    EXPECT_GT(estimate_peak_memory(two_threads), estimate_peak_memory(bench) + 201 * 20100 * 8.0);
    // A chunk counts only its slice; rows that do not code compactly take 24
    // bytes a genotype, which the estimate allows for.
    run_size chunk = bench;
    chunk.K = 100, chunk.L = 3000, chunk.N = 20000, chunk.held = 200, chunk.positions = chunk.kept_forward_arrays = 10;
    run_size whole = chunk;
    whole.held = 20000;
    EXPECT_LT(estimate_peak_memory(chunk), 100e6);
    EXPECT_GT(estimate_peak_memory(whole), 20000 * 3000 * 25.0);
}
