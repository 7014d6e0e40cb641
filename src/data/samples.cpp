// The sample file and the removal of excluded individuals.
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "io/console.h"
#include "data/data.h"
#include "io/text_stream.h"

void data::read_sample_file() {
    std::cout << "Reading sample file ... " << std::flush;
    read_sample_index();
    std::cout << "done" << std::endl;
}

void data::check_sample_file_quietly() {
    if (parameters.strict && parameters.seen("-sample") && !parameters.seen("-exclude_samples")) read_sample_index();
}

void data::read_sample_index() {
    std::string const file = parameters.sample_file.string();
    std::ifstream in(file);
    if (!in.is_open()) throw badfilename(file, "can't open sample file.");
    check_whole_file(file);
    std::string line;
    read_text_line(in, line);  // two header lines
    read_text_line(in, line);
    sample_index.clear();

    int index = 0;
    while (read_text_line(in, line)) {
        check_line(file, line, index + 3, layouts::sample);
        std::istringstream ls(line);
        std::string id_1, id_2;
        ls >> id_1 >> id_2;
        // Both identifiers name the same column; an identifier seen before keeps its first index.
        if (!id_1.empty()) sample_index.emplace(id_1, index);
        if (!id_2.empty()) sample_index.emplace(id_2, index);
        ++index;
    }
    if (index != n_individuals) throw badfilename(file, "sample file contains wrong number of individuals.");
}

void data::read_sample_exclusion_file() {
    std::string const file = parameters.exclude_samples_file.string();
    std::cout << "Reading sample exclusion file ... " << std::flush;
    std::ifstream in(file);
    if (!in.is_open()) throw badfilename(file, "can't open sample file.");
    check_whole_file(file, false, true);
    std::string id;
    int count = 0;
    while (in >> id) {
        excluded_sample_ids.push_back(id);
        ++count;
    }
    in.close();
    std::cout << "done" << std::endl;
    print_count(std::cout, "number of ids in sample exclusion list: ", count);
}

void data::apply_sample_exclusions() {
    read_sample_file();
    read_sample_exclusion_file();
    std::cout << "Applying sample filters ... " << std::flush;

    std::set<int> columns;
    for (std::string const& id : excluded_sample_ids) {
        auto found = sample_index.find(id);
        if (found != sample_index.end()) columns.insert(found->second);
    }
    // Every SNP's rows close up over the excluded individuals in one pass
    // (the store holds all of them when samples are excluded).
    std::vector<bool> excluded;
    for (int column : columns) {
        if (static_cast<std::size_t>(column) >= excluded.size()) excluded.resize(column + 1, false);
        excluded[column] = true;
    }
    auto is_kept = [&](std::size_t i) { return i >= excluded.size() || !excluded[i]; };
    for (auto& entry : snps) {
        snp& s = entry.second;
        s.genotypes.keep_if(is_kept);
        s.genotype_probs.keep_if(is_kept);
    }
    n_individuals -= static_cast<int>(columns.size());
    if (parameters.strict && n_individuals == 0)
        throw badfilename(parameters.exclude_samples_file.string(), "excludes every individual of the genotype file.");
    std::cout << "done" << std::endl;
    print_count(std::cout, "number of excluded sample ids in sample file: ", columns.size());
    print_count(std::cout, "number of individuals remaining for clustering: ", n_individuals);
    std::cout << std::endl;
}
