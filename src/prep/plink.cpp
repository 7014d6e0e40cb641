#include "prep/plink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "prep/prep_error.h"
#include "prep/python_text.h"

std::string find_on_path(std::string const& name) {
    char const* env = std::getenv("PATH");
    std::string const path = env ? env : ":/bin:/usr/bin";  // os.defpath
    std::size_t start = 0;
    for (;;) {
        std::size_t const colon = path.find(':', start);
        std::string const dir = path.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
        std::string const candidate = dir.empty() ? name : (dir.back() == '/' ? dir + name : dir + "/" + name);
        struct stat st;
        if (::stat(candidate.c_str(), &st) == 0 && !S_ISDIR(st.st_mode) && ::access(candidate.c_str(), X_OK) == 0)
            return candidate;
        if (colon == std::string::npos) break;
        start = colon + 1;
    }
    throw prep_error{name + " not found on PATH (Debian package: " + name + ")"};
}

namespace {

// Runs the program and returns its status; `out` gets its standard output
// (its standard error is read and dropped).
int run_capturing(std::vector<std::string> const& command, std::string& out) {
    int pipe_out[2];
    if (::pipe(pipe_out) != 0) throw prep_error{"cannot start " + command[0] + ": pipe failed"};
    pid_t const pid = ::fork();
    if (pid < 0) throw prep_error{"cannot start " + command[0] + ": fork failed"};
    if (pid == 0) {
        ::dup2(pipe_out[1], STDOUT_FILENO);
        int const null = ::open("/dev/null", O_WRONLY);
        if (null >= 0) ::dup2(null, STDERR_FILENO);
        ::close(pipe_out[0]);
        ::close(pipe_out[1]);
        std::vector<char*> argv;
        for (auto const& c : command) argv.push_back(const_cast<char*>(c.c_str()));
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(pipe_out[1]);
    char buffer[1 << 14];
    for (;;) {
        ssize_t const n = ::read(pipe_out[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(pipe_out[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

// The last of str.splitlines() of the stripped text, as a Python list ("[]"
// when there is none).
std::string last_line_list(std::string const& text) {
    std::string_view const s = python_strip(text);
    if (s.empty()) return "[]";
    std::size_t end = s.size(), begin = end;
    while (begin > 0) {
        char const c = s[begin - 1];
        if (c == '\n' || c == '\r' || c == '\v' || c == '\f' || (c >= '\x1c' && c <= '\x1e')) break;
        --begin;
    }
    return "[" + python_repr(s.substr(begin, end - begin)) + "]";
}

}  // namespace

std::string bgen_to_vcf(std::string const& bgen, std::string const& sample, std::string const& folder) {
    std::string const out = folder + "/study";
    std::vector<std::string> const command{find_on_path("plink2"), "--bgen", bgen, "ref-first", "--sample", sample,
                                           "--export", "vcf", "bgz", "vcf-dosage=GP", "--out", out};
    std::string output;
    if (run_capturing(command, output) != 0)
        throw prep_error{"plink2 could not read " + bgen + ": " + last_line_list(output)};
    return out + ".vcf.gz";
}
