#include "prep/arguments.h"

#include <array>
#include <cctype>
#include <set>

#include "prep/python_text.h"

namespace {

char const usage_text[] =
    "usage: ketra-prep [-h] -ref REF (-study STUDY | -bgen BGEN)\n"
    "                  [-bgen_sample BGEN_SAMPLE] -map MAP -region REGION -o O\n"
    "                  [-gt] [-samples SAMPLES] [-drop_ambiguous] [-plain]\n";

char const help_body[] =
    "\n"
    "ketra-prep: writes Ketra's input files for one region from a phased reference\n"
    "VCF/BCF, a study VCF/BCF (or BGEN with its .sample file) and a genetic map.\n"
    "\n"
    "options:\n"
    "  -h, --help            show this help message and exit\n"
    "  -ref REF              phased reference panel, VCF or BCF\n"
    "  -study STUDY          study genotypes, VCF or BCF\n"
    "  -bgen BGEN            study genotypes, BGEN v1.2 (needs -bgen_sample)\n"
    "  -bgen_sample BGEN_SAMPLE\n"
    "                        the .sample file of -bgen\n"
    "  -map MAP              genetic map, 'pos chr cM' or 'position\n"
    "                        COMBINED_rate(cM/Mb) Genetic_Map(cM)', plain or gzip\n"
    "  -region REGION        CHROM:FROM-TO, both ends included\n"
    "  -o O                  output prefix\n"
    "  -gt                   use hard calls (GT) instead of probabilities (GP)\n"
    "  -samples SAMPLES      file of study sample ids to keep, one per line\n"
    "  -drop_ambiguous       drop A/T and C/G SNPs\n"
    "  -plain                write the genotype file uncompressed\n";

enum action : int { help, ref, study, bgen, bgen_sample, map, region, output, gt, samples, drop_ambiguous, plain };
constexpr int n_actions = 12;

struct option_string {
    char const* text;
    action target;
};
// In the order argparse keeps them, which is the order of its messages.
constexpr std::array<option_string, 13> option_strings{{{"-h", help},
                                                         {"--help", help},
                                                         {"-ref", ref},
                                                         {"-study", study},
                                                         {"-bgen", bgen},
                                                         {"-bgen_sample", bgen_sample},
                                                         {"-map", map},
                                                         {"-region", region},
                                                         {"-o", output},
                                                         {"-gt", gt},
                                                         {"-samples", samples},
                                                         {"-drop_ambiguous", drop_ambiguous},
                                                         {"-plain", plain}}};

char const* action_name(int a) {
    if (a == help) return "-h/--help";
    for (auto const& o : option_strings)
        if (o.target == a) return o.text;
    return "";
}

bool takes_value(int a) { return a != help && a != gt && a != drop_ambiguous && a != plain; }

int find_option(std::string const& text) {
    for (auto const& o : option_strings)
        if (text == o.text) return o.target;
    return -1;
}

struct usage_error {
    std::string message;
};

// What one argument is: an option (a known action, or -1 for an unknown
// option string), or a plain value.
struct classified {
    char pattern = 'A';  // 'O' option, 'A' value, '-' the "--" marker
    int target = -1;
    std::string option;
    std::optional<std::string> explicit_value;
};

bool looks_negative_number(std::string const& s) {
    // ^-\d+$|^-\d*\.\d+$
    if (s.size() < 2 || s[0] != '-') return false;
    std::size_t i = 1;
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) ++i;
    if (i == s.size()) return true;
    if (s[i] != '.') return false;
    std::size_t const point = i++;
    if (i == s.size()) return false;
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) ++i;
    return i == s.size() && i > point + 1;
}

classified classify(std::string const& arg) {
    classified c;
    if (arg.empty() || arg[0] != '-') return c;
    int const exact = find_option(arg);
    if (exact >= 0) {
        c.pattern = 'O';
        c.target = exact;
        c.option = arg;
        return c;
    }
    if (arg.size() == 1) return c;
    auto const equals = arg.find('=');
    if (equals != std::string::npos) {
        int const before = find_option(arg.substr(0, equals));
        if (before >= 0) {
            c.pattern = 'O';
            c.target = before;
            c.option = arg.substr(0, equals);
            c.explicit_value = arg.substr(equals + 1);
            return c;
        }
    }
    std::vector<classified> matches;
    if (arg[1] == '-') {
        std::string prefix = arg;
        std::optional<std::string> value;
        if (equals != std::string::npos) {
            prefix = arg.substr(0, equals);
            value = arg.substr(equals + 1);
        }
        for (auto const& o : option_strings) {
            if (std::string(o.text).compare(0, prefix.size(), prefix) == 0) {
                classified m;
                m.pattern = 'O';
                m.target = o.target;
                m.option = o.text;
                m.explicit_value = value;
                matches.push_back(m);
            }
        }
    } else {
        std::string const short_prefix = arg.substr(0, 2);
        for (auto const& o : option_strings) {
            classified m;
            m.pattern = 'O';
            m.target = o.target;
            m.option = o.text;
            if (short_prefix == o.text) {
                m.explicit_value = arg.substr(2);
                matches.push_back(m);
            } else if (std::string(o.text).compare(0, arg.size(), arg) == 0) {
                matches.push_back(m);
            }
        }
    }
    if (matches.size() > 1) {
        std::string names;
        for (auto const& m : matches) names += (names.empty() ? "" : ", ") + m.option;
        throw usage_error{"ambiguous option: " + arg + " could match " + names};
    }
    if (matches.size() == 1) return matches[0];
    if (looks_negative_number(arg)) return c;
    if (arg.find(' ') != std::string::npos) return c;
    c.pattern = 'O';
    c.target = -1;
    c.option = arg;
    return c;
}

std::optional<std::string>* value_slot(prep_options& o, int a) {
    switch (a) {
        case ref: return &o.ref;
        case study: return &o.study;
        case bgen: return &o.bgen;
        case bgen_sample: return &o.bgen_sample;
        case map: return &o.map;
        case region: return &o.region;
        case output: return &o.output;
        case samples: return &o.samples;
        default: return nullptr;
    }
}

class parser {
public:
    parser(std::vector<std::string> const& args, prep_options& options, std::ostream& out)
        : args_(args), options_(options), out_(out) {}

    // Returns true when the help was printed.
    bool run() {
        std::vector<classified> kinds;
        bool after_marker = false;
        for (auto const& a : args_) {
            if (after_marker) {
                kinds.emplace_back();
            } else if (a == "--") {
                classified marker;
                marker.pattern = '-';
                kinds.push_back(marker);
                after_marker = true;
            } else {
                kinds.push_back(classify(a));
            }
        }
        std::size_t i = 0;
        while (i < args_.size()) {
            if (kinds[i].pattern != 'O') {
                extras_.push_back(args_[i++]);
                continue;
            }
            if (consume_option(kinds, i)) return true;
        }
        std::string missing;
        for (int a : {ref, map, region, output})
            if (!seen_.count(a)) missing += (missing.empty() ? "" : ", ") + std::string(action_name(a));
        if (!missing.empty()) throw usage_error{"the following arguments are required: " + missing};
        if (!seen_.count(study) && !seen_.count(bgen))
            throw usage_error{"one of the arguments -study -bgen is required"};
        if (!extras_.empty()) {
            std::string list;
            for (auto const& e : extras_) list += (list.empty() ? "" : " ") + e;
            throw usage_error{"unrecognized arguments: " + list};
        }
        return false;
    }

private:
    // Consumes the option at i (and its value); true when it was the help.
    bool consume_option(std::vector<classified> const& kinds, std::size_t& i) {
        int target = kinds[i].target;
        std::string option = kinds[i].option;
        std::optional<std::string> explicit_value = kinds[i].explicit_value;
        if (target < 0) {
            extras_.push_back(args_[i++]);
            return false;
        }
        struct step {
            int target;
            std::optional<std::string> value;
        };
        std::vector<step> steps;
        std::size_t stop = i + 1;
        for (;;) {
            if (explicit_value) {
                if (!takes_value(target) && option[1] != '-' && !explicit_value->empty()) {
                    // Single-character flags run together: "-hx" is -h then -x.
                    steps.push_back({target, std::nullopt});
                    std::string const next = std::string(1, option[0]) + (*explicit_value)[0];
                    int const next_target = find_option(next);
                    if (next_target < 0)
                        throw usage_error{"argument " + std::string(action_name(target)) +
                                          ": ignored explicit argument " + python_repr(*explicit_value)};
                    option = next;
                    target = next_target;
                    std::string rest = explicit_value->substr(1);
                    explicit_value = rest.empty() ? std::nullopt : std::optional<std::string>(rest);
                    continue;
                }
                if (takes_value(target)) {
                    steps.push_back({target, explicit_value});
                    stop = i + 1;
                    break;
                }
                throw usage_error{"argument " + std::string(action_name(target)) + ": ignored explicit argument " +
                                  python_repr(*explicit_value)};
            }
            if (takes_value(target)) {
                if (i + 1 >= args_.size() || kinds[i + 1].pattern != 'A')
                    throw usage_error{"argument " + std::string(action_name(target)) + ": expected one argument"};
                steps.push_back({target, args_[i + 1]});
                stop = i + 2;
            } else {
                steps.push_back({target, std::nullopt});
                stop = i + 1;
            }
            break;
        }
        for (auto const& s : steps) {
            seen_.insert(s.target);
            if (s.target == study || s.target == bgen) {
                int const other = s.target == study ? bgen : study;
                if (seen_.count(other))
                    throw usage_error{"argument " + std::string(action_name(s.target)) + ": not allowed with argument " +
                                      action_name(other)};
            }
            switch (s.target) {
                case help: out_ << usage_text << help_body; return true;
                case gt: options_.gt = true; break;
                case drop_ambiguous: options_.drop_ambiguous = true; break;
                case plain: options_.plain = true; break;
                default: *value_slot(options_, s.target) = *s.value; break;
            }
        }
        i = stop;
        return false;
    }

    std::vector<std::string> const& args_;
    prep_options& options_;
    std::ostream& out_;
    std::set<int> seen_;
    std::vector<std::string> extras_;
};

}  // namespace

int parse_prep_arguments(std::vector<std::string> const& args, prep_options& options, std::ostream& out,
                         std::ostream& err) {
    static_assert(n_actions == 12, "every action has an option string");
    try {
        if (parser(args, options, out).run()) {
            out.flush();
            return 0;
        }
        if (options.bgen && !options.bgen->empty() && (!options.bgen_sample || options.bgen_sample->empty()))
            throw usage_error{"-bgen needs -bgen_sample"};
    } catch (usage_error const& e) {
        out.flush();
        err << usage_text << "ketra-prep: error: " << e.message << '\n';
        err.flush();
        return 2;
    }
    return -1;
}
