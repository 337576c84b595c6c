#include "CallgrindRun.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace OrbelBench {

namespace {

// Tag -> "summary:" of the dump files callgrind wrote into `dir`. "summary:"
// is the dump's event total; "totals:" sums the cost lines, which count some
// calls twice.
std::map<std::string, double> ReadDumps(const std::string& dir) {
    std::map<std::string, double> out;
    FILE* ls = popen(("ls '" + dir + "'").c_str(), "r");
    if (ls == nullptr) return out;
    char name[512];
    while (std::fgets(name, sizeof name, ls) != nullptr) {
        std::string file(name);
        while (!file.empty() && file.back() == '\n') file.pop_back();
        if (file.compare(0, 7, "cg.out.") != 0) continue;
        std::ifstream in(dir + "/" + file);
        std::string line, tag;
        double ir = -1;
        while (std::getline(in, line)) {
            static const std::string kDesc = "desc: Trigger: Client Request: ";
            if (line.compare(0, kDesc.size(), kDesc) == 0) tag = line.substr(kDesc.size());
            if (line.compare(0, 9, "summary: ") == 0) ir = std::strtod(line.c_str() + 9, nullptr);
        }
        if (!tag.empty() && ir >= 0) out[tag] = ir;
    }
    pclose(ls);
    return out;
}

}  // namespace

bool RunSelfUnderCallgrind(const char* childFlag, bool perThread,
                           std::map<std::string, double>* totals, std::string* why) {
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    char dirTemplate[] = "/tmp/orbel-callgrind-XXXXXX";
    if (n <= 0 || mkdtemp(dirTemplate) == nullptr) {
        *why = "no scratch directory";
        return false;
    }
    exe[n] = '\0';
    const std::string dir = dirTemplate;
    const std::string outFile = "--callgrind-out-file=" + dir + "/cg.out";
    const std::string logFile = dir + "/valgrind.log";
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        FILE* log = std::freopen(logFile.c_str(), "w", stderr);
        if (log != nullptr) dup2(fileno(stderr), STDOUT_FILENO);
        // What is counted is the library's work: a program's heap-counting
        // operator new (which a plug-in does not have) stays out of it.
        setenv("ORBEL_BENCH_UNCOUNTED", "1", 1);
        execlp("valgrind", "valgrind", "--tool=callgrind", "--instr-atstart=no",
               perThread ? "--separate-threads=yes" : "--separate-threads=no", outFile.c_str(),
               exe, childFlag, static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        *why = pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 127
                   ? "valgrind is not installed (./run deps)"
                   : "the callgrind run failed, see " + logFile;
        return false;
    }
    *totals = ReadDumps(dir);
    if (totals->empty()) {
        *why = "no counts in " + dir;
        return false;
    }
    const std::string cleanup = "rm -rf '" + dir + "'";
    if (std::system(cleanup.c_str()) != 0) std::fprintf(stderr, "bench: %s stays\n", dir.c_str());
    return true;
}

}  // namespace OrbelBench
