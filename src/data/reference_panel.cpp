// The reference panel: legend and haplotype files read in lock-step.
#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "io/console.h"
#include "data/data.h"
#include "io/input_check.h"
#include "io/text_stream.h"

namespace {

// Genetic position at x by linear interpolation in the map; positions outside
// the map take its first or last value. An empty map gives 0.
double interpolate_genetic_position(std::vector<double> const& M, std::vector<double> const& G,
                                    bool sorted, double x) {
    std::size_t const n = std::min(M.size(), G.size());
    if (n == 0) return 0.0;
    if (x < M[0]) return G[0];
    // The smallest j >= 1 with x < M[j]; a binary search when the map ascends.
    std::size_t j;
    if (sorted) {
        j = static_cast<std::size_t>(std::upper_bound(M.begin() + 1, M.begin() + n, x) - M.begin());
    } else {
        j = 1;
        while (j < n && !(x < M[j])) ++j;
    }
    if (j >= n) return G[n - 1];
    std::size_t const i = j - 1;
    return G[i] + (x - M[i]) / (M[j] - M[i]) * (G[j] - G[i]);
}

// Reads the allele codes of one haplotype line into values; false when a token
// is not an integer or a code is neither 0 nor 1.
bool parse_haplotype_line(std::string const& line, std::vector<int>& values, double& sum) {
    values.clear();
    sum = 0.0;
    std::istringstream hs(line);
    int v = 0;
    while (true) {
        hs >> std::ws;
        if (hs.eof()) return true;
        if (!(hs >> v)) return false;
        if (v != 0 && v != 1) return false;
        values.push_back(v);
        sum += v;
    }
}

// Under -strict the two files of the panel end together: a line of one
// without its line in the other is a panel that does not fit together.
void check_line_counts(std::string const& legend_name, bool legend_went_on, std::string const& hap_name,
                       bool hap_went_on, int lines_read) {
    if (lines_read == 0 && hap_went_on) throw badfilename(legend_name, "no SNP line after the header line.");
    if (hap_went_on)
        throw badfilename(legend_name, "ends after line " + std::to_string(lines_read + 1) + ", but the haplotype file " +
                                           hap_name + " goes on; the two files have a line for each SNP.");
    if (legend_went_on)
        throw badfilename(hap_name, "ends after line " + std::to_string(lines_read) + ", but the legend file " +
                                        legend_name + " goes on; the two files have a line for each SNP.");
}

}  // namespace

void data::read_haplotype_data() {
    double const L = parameters.lower - 1000.0 * parameters.buffer;
    double const H = parameters.upper + 1000.0 * parameters.buffer;
    std::string const hap_name = parameters.haplotype_file.string();
    std::string const& legend_name = parameters.legend_file;

    std::cout << std::endl
              << "Reading haplotype and legend files, "
              << "looking for SNPs in [" << L << ", " << H << "] ... " << std::flush;
    n_haplotypes = -1;

    std::ifstream hap(hap_name);
    if (!hap.is_open()) throw badfilename(hap_name, "can't open haplotype file.");
    std::ifstream legend(legend_name);
    if (!legend.is_open()) throw badfilename(legend_name, "can't open legend file.");
    check_whole_file(hap_name);
    check_whole_file(legend_name);
    std::string legend_line, hap_line;
    read_text_line(legend, legend_line);  // header

    bool const map_sorted = std::is_sorted(map_positions.begin(), map_positions.end());
    std::vector<int> values;
    double sum = 0.0;
    int c = 0;
    bool legend_ok = true, hap_ok = true, beyond = false;
    double previous_x = 0.0;
    while (true) {
        legend_ok = read_text_line(legend, legend_line);
        hap_ok = read_text_line(hap, hap_line);
        if (!legend_ok || !hap_ok) break;
        ++c;
        check_line(legend_name, legend_line, c + 1, layouts::legend);

        std::istringstream ls(legend_line);
        std::string rs_id, allele_0, allele_1;
        double x = 0.0;
        ls >> rs_id >> x >> allele_0 >> allele_1;
        // The reading stops at the first SNP beyond the interval, so an
        // unsorted legend loses SNPs without a word by default.
        if (parameters.strict && c > 1 && x < previous_x)
            throw badfilename(legend_name, "line " + std::to_string(c + 1) +
                                               " has a lower position than the line before it; a legend is sorted "
                                               "by position.");
        previous_x = x;
        double const g = interpolate_genetic_position(map_positions, map_genetic, map_sorted, x);

        bool const hap_good = parse_haplotype_line(hap_line, values, sum);

        if (ls.bad())
            throw badfilename(legend_name, "bad format detected in legend file on line " + std::to_string(c + 1) + ".");
        if (!hap_good)
            throw badfilename(hap_name, "bad format detected in haplotype file on line " + std::to_string(c) + ".");
        int const count = static_cast<int>(values.size());
        if (parameters.strict && count == 0)
            throw badfilename(hap_name, "line " + std::to_string(c) + " is blank; a haplotype line has an allele "
                                                                        "code (0 or 1) for each haplotype.");
        if (n_haplotypes != -1 && n_haplotypes != count)
            throw badfilename(hap_name, "different number of haplotypes found in haplotype file (" +
                                            std::to_string(n_haplotypes) + " and " + std::to_string(count) +
                                            " on line " + std::to_string(c) + ".");
        n_haplotypes = count;

        if (x > H) {
            beyond = true;
            break;
        }
        if (x < L) continue;
        if (snps.count(x)) continue;  // the first record at a position keeps it

        snp record;
        record.rs_id = rs_id;
        record.snp_id = "---";
        record.genetic_position = g;
        record.haplotype_alleles = values;
        record.legend_allele_0 = allele_0;
        record.legend_allele_1 = allele_1;
        record.hap_frequency = sum / count;
        record.genotype_allele_a = "*";
        record.genotype_allele_b = "*";
        record.strand = "*";
        record.data_type = 1;
        snps.emplace(x, std::move(record));
    }

    if (parameters.strict && !beyond) check_line_counts(legend_name, legend_ok, hap_name, hap_ok, c);
    std::cout << "done." << std::endl;
    print_count(std::cout, "number of haplotypes: ", n_haplotypes);
    print_count(std::cout, "number of SNPs in total: ", c);
    print_count(std::cout, "number of SNPs in interval: ", snps.size());
    std::cout << std::endl;
    if (!beyond) {
        if (!legend_ok && hap_ok)
            std::cout << "Warning: haplotype file contained more lines than legend file, only those SNPs with a "
                         "line in the legend file were read."
                      << std::endl;
        if (legend_ok && !hap_ok)
            std::cout << "Warning: legend file contained more lines than haplotype file, only those SNPs with a "
                         "line in the haplotype file were read."
                      << std::endl;
    }
    hap.close();
    legend.close();
    if (snps.empty()) throw badfilename(hap_name, "No SNPs in the interval in haplotype file!");
}
