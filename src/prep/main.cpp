// ketra-prep: writes Ketra's input files for one region from a phased
// reference VCF/BCF, a study VCF/BCF (or BGEN with its .sample file) and a
// genetic map. See prepare.h.
#include <getopt.h>

#include <cstring>
#include <iostream>
#include <string>

#include <htslib/hts_log.h>

#include "prep/prep_error.h"
#include "prep/prepare.h"

namespace {

char const usage_text[] =
    "usage: ketra-prep -ref PANEL (-study STUDY | -bgen BGEN -bgen_sample SAMPLE) -map MAP\n"
    "                  -region CHROM:FROM-TO -o PREFIX [-gt] [-samples IDS] [-drop_ambiguous] [-plain]\n";

char const help_text[] =
    "\n"
    "Writes Ketra's input files for one region from a phased reference panel,\n"
    "study genotypes and a genetic map.\n"
    "\n"
    "  -ref PANEL            phased reference panel, VCF or BCF\n"
    "  -study STUDY          study genotypes, VCF or BCF\n"
    "  -bgen BGEN            study genotypes, BGEN v1.2 (converted with plink2)\n"
    "  -bgen_sample SAMPLE   the .sample file of -bgen\n"
    "  -map MAP              genetic map, 'pos chr cM' or 'position\n"
    "                        COMBINED_rate(cM/Mb) Genetic_Map(cM)', plain or gzip\n"
    "  -region CHROM:FROM-TO the region, both ends included\n"
    "  -o PREFIX             output prefix\n"
    "  -gt                   use hard calls (GT) instead of probabilities (GP)\n"
    "  -samples IDS          file of study sample ids to keep, one per line\n"
    "  -drop_ambiguous       drop A/T and C/G SNPs\n"
    "  -plain                write the genotype file uncompressed\n"
    "  -help                 show this help\n";

option const flags[] = {
    {"ref", required_argument, nullptr, 'r'},         {"study", required_argument, nullptr, 's'},
    {"bgen", required_argument, nullptr, 'b'},        {"bgen_sample", required_argument, nullptr, 'B'},
    {"map", required_argument, nullptr, 'm'},         {"region", required_argument, nullptr, 'R'},
    {"o", required_argument, nullptr, 'o'},           {"samples", required_argument, nullptr, 'S'},
    {"gt", no_argument, nullptr, 'g'},                {"drop_ambiguous", no_argument, nullptr, 'd'},
    {"plain", no_argument, nullptr, 'p'},             {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0}};

int usage_error(std::string const& message) {
    std::cerr << "ketra-prep: " << message << '\n' << usage_text << "(ketra-prep -help describes the flags)\n";
    return 2;
}

// The flags a mistyped flag could be: those it begins (without dashes or a value).
std::string candidates(char const* arg) {
    std::string word = arg + std::strspn(arg, "-");
    word = word.substr(0, word.find('='));
    std::string list;
    for (option const* f = flags; f->name; ++f)
        if (std::strncmp(f->name, word.c_str(), word.size()) == 0)
            list += (list.empty() ? " -" : " or -") + std::string(f->name);
    return list;
}

}  // namespace

int main(int argc, char** argv) {
    prep_options o;
    opterr = 0;  // ketra-prep words its own messages
    for (int flag; (flag = getopt_long_only(argc, argv, ":", flags, nullptr)) != -1;) {
        switch (flag) {
            case 'r': o.ref = optarg; break;
            case 's': o.study = optarg; break;
            case 'b': o.bgen = optarg; break;
            case 'B': o.bgen_sample = optarg; break;
            case 'm': o.map = optarg; break;
            case 'R': o.region = optarg; break;
            case 'o': o.output = optarg; break;
            case 'S': o.samples = optarg; break;
            case 'g': o.gt = true; break;
            case 'd': o.drop_ambiguous = true; break;
            case 'p': o.plain = true; break;
            case 'h': std::cout << usage_text << help_text; return 0;
            case ':': return usage_error(std::string(argv[optind - 1]) + " needs a value");
            default: {
                std::string const also = candidates(argv[optind - 1]);
                return usage_error(std::string("unknown flag ") + argv[optind - 1] +
                                   (also.empty() ? "" : "; did you mean" + also + "?"));
            }
        }
    }
    if (optind < argc) return usage_error(std::string("unexpected argument ") + argv[optind]);
    std::string missing;
    for (auto const& [value, name] :
         {std::pair{&o.ref, "-ref"}, {&o.map, "-map"}, {&o.region, "-region"}, {&o.output, "-o"}})
        if (value->empty()) missing += (missing.empty() ? "" : ", ") + std::string(name);
    if (!missing.empty()) return usage_error("missing " + missing);
    if (o.study.empty() == o.bgen.empty()) return usage_error("give one of -study and -bgen");
    if (!o.bgen.empty() && o.bgen_sample.empty()) return usage_error("-bgen needs -bgen_sample");

    // Messages are ketra-prep's own, one line each; htslib's would come between.
    hts_set_log_level(HTS_LOG_OFF);
    try {
        run_prep(o, std::cout);
        return 0;
    } catch (prep_error const& e) {
        std::cout.flush();
        std::cerr << "ketra-prep: " << e.message << '\n';
        return 1;
    }
}
