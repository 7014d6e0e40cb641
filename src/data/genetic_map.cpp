// The genetic map, and the two things derived from the population-genetic
// inputs: the one-copy switch rates between SNPs and the emission matrix.
#include <cmath>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "io/console.h"
#include "data/data.h"
#include "io/text_stream.h"

namespace {

// Power-law correction of local map rates: rate' = exp((ln rate - A) / (B / LOG10 + 1)).
double const kRescaleA = -0.0380763;
double const kRescaleB = -0.207447;
double const kLog10 = 2.302585;

double rescale_rate(double rate) {
    if (rate == 0.0) return 0.0;
    return std::exp((std::log(rate) - kRescaleA) / (kRescaleB / kLog10 + 1.0));
}

}  // namespace

void data::read_genetic_map() {
    std::string const& file = parameters.genetic_map_file;
    std::cout << "reading genetic map file ... " << std::flush;
    std::ifstream in(file);
    if (!in.is_open()) throw badfilename(file, "can't open file.");
    check_whole_file(file);

    std::string line;
    read_text_line(in, line);  // header

    int rows = 0;
    double position = 0.0;
    // Columns 2 and 3 share one variable: the local rate is read and overwritten.
    double value = 0.0;
    std::istringstream ls;
    while (read_text_line(in, line)) {
        ++rows;
        check_line(file, line, rows + 1, layouts::genetic_map);
        ls.clear();
        ls.str(line);
        ls >> position;
        map_positions.push_back(position);
        ls >> value;
        ls >> value;
        map_genetic.push_back(4.0 * parameters.Ne * value / 100.0);
        if (ls.bad()) throw badfilename(file, "bad line in rates file on line " + std::to_string(rows + 1));
        // Repeated or descending positions divide by zero or by a negative
        // distance below; the default run keeps them, -strict stops there.
        if (parameters.strict && rows > 1 && !(position > map_positions[map_positions.size() - 2]))
            throw badfilename(file, "map positions not strictly increasing on line " + std::to_string(rows + 1) + ".");
    }
    if (parameters.strict && rows == 0) throw badfilename(file, "no map row after the header line.");
    std::cout << "done." << std::endl;
    in.close();
    print_count(std::cout, "number of rates read: ", rows);
    std::cout << std::endl;

    std::cout << "rescaling genetic map ... " << std::flush;
    std::vector<double> rescaled = map_genetic;
    for (std::size_t i = 1; i < map_genetic.size(); ++i) {
        double const d = map_positions[i] - map_positions[i - 1];
        double const rate = (map_genetic[i] - map_genetic[i - 1]) / d;
        rescaled[i] = rescaled[i - 1] + rescale_rate(rate) * d;
    }
    map_genetic = rescaled;
    std::cout << "done" << std::endl << std::endl;
}

void data::set_switch_rates() {
    std::cout << "setting switch rates..." << std::flush;
    double const K = n_haplotypes;
    if (!snps.empty()) {
        auto prev = snps.begin();
        for (auto it = std::next(snps.begin()); it != snps.end(); prev = it, ++it) {
            snp& s = it->second;
            double const rho = s.genetic_position - prev->second.genetic_position;
            double const jump = (1.0 - std::exp(-rho / K)) / K;
            double const stay = 1.0 - (K - 1.0) * jump;
            s.switch_rates.assign({stay, jump});
            s.rate_per_base = rho / (it->first - prev->first);
        }
    }
    std::cout << "done" << std::endl;
}

void data::set_mutation_matrix(int const& n) {
    std::cout << "setting mutation rate and mutation matrices..." << std::flush;
    if (parameters.theta >= 0) {
        theta = parameters.theta;
    } else {
        // Watterson-style default: 1 / sum_{i=1}^{K-1} 1/i (infinite for a single haplotype).
        double harmonic = 0.0;
        for (int i = 1; i <= n_haplotypes - 1; ++i) harmonic += 1.0 / i;
        theta = 1.0 / harmonic;
    }
    double const e = 0.5 * theta / (theta + n);
    double const s = 1.0 - e;

    // setup() sizes the matrix; make sure the three rows exist whoever calls this.
    if (mutation_matrix.size() < 3) mutation_matrix.resize(3);
    for (std::size_t a = 0; a < 3; ++a)
        if (mutation_matrix[a].size() < 4) mutation_matrix[a].resize(4, 0.0);

    mutation_matrix[0][0] = s * s;
    mutation_matrix[0][1] = 2.0 * s * e;
    mutation_matrix[0][2] = e * e;
    mutation_matrix[0][3] = 1.0;
    mutation_matrix[1][0] = s * e;
    mutation_matrix[1][1] = s * s + e * e;
    mutation_matrix[1][2] = s * e;
    mutation_matrix[1][3] = 1.0;
    mutation_matrix[2][0] = e * e;
    mutation_matrix[2][1] = 2.0 * s * e;
    mutation_matrix[2][2] = s * s;
    mutation_matrix[2][3] = 1.0;
    std::cout << "done" << std::endl;
}
