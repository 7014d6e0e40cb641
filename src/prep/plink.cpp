#include "prep/plink.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "prep/prep_error.h"

extern char** environ;

std::string bgen_to_vcf(std::string const& bgen, std::string const& sample, std::string const& folder) {
    std::string const out = folder + "/study";
    std::vector<std::string> command{"plink2", "--bgen", bgen, "ref-first", "--sample", sample,
                                     "--export", "vcf", "bgz", "vcf-dosage=GP", "--out", out};
    std::vector<char*> argv;
    for (auto& word : command) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    // plink2 talks on both streams and keeps a log of its own next to its output:
    // its words stay out of ketra-prep's report.
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&quiet, STDOUT_FILENO, STDERR_FILENO);
    pid_t pid = 0;
    int const spawned = ::posix_spawnp(&pid, "plink2", &quiet, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&quiet);
    if (spawned != 0)
        throw prep_error{bgen + ": cannot start plink2 to convert it (" + std::strerror(spawned) +
                         "); install Debian's plink2 package"};
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw prep_error{bgen + ": plink2 could not convert it with " + sample +
                         "; check that both are BGEN v1.2 and its .sample file"};
    return out + ".vcf.gz";
}
