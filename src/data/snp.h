// The record of one SNP position.
#pragma once

#include <string>
#include <vector>

class snp {
public:
    snp() = default;
    snp(snp const&) = default;
    snp& operator=(snp const&) = default;

    std::string rs_id;                      // legend column 1
    std::string snp_id;                     // genotype file column 1; "---" until then
    double genetic_position = 0.0;          // scaled (4 Ne M), interpolated from the map
    std::vector<int> haplotype_alleles;     // one 0/1 code per reference haplotype
    std::string legend_allele_0;
    std::string legend_allele_1;
    double hap_frequency = 0.0;             // frequency of allele 1 in the panel
    std::string note;
    std::vector<int> genotypes;             // per individual: 0, 1, 2 copies of allele B; 3 = not called
    std::vector<std::vector<double>> genotype_probs;  // per individual: P(AA), P(AB), P(BB)
    std::string genotype_allele_a;
    std::string genotype_allele_b;
    double genotype_frequency = 0.0;        // frequency of allele B among called genotypes
    std::string strand;                     // "*", as read from the strand file, or "f"
    int data_type = 0;                      // 1 = panel only, 2 = panel and genotypes
    double rate_per_base = 0.0;             // scaled genetic distance per base pair from the previous SNP
    std::vector<double> switch_rates;       // [stay, jump] from the previous SNP; empty at the first
    std::vector<double> pair_work;          // engine scratch
    double work_a = 0.0, work_b = 0.0;      // engine scratch
    // Triangular pair arrays, flat: row i (i + 1 values) starts at i(i+1)/2.
    std::vector<double> backward_probs;
    std::vector<double> forward_probs;
};
