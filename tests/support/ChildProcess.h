// A child process for process-level tests: started with fork/exec, its
// standard output and error captured into one file, waited for with a time
// limit and killed if it outlives the test.
#ifndef ORBEL_TEST_CHILDPROCESS_H
#define ORBEL_TEST_CHILDPROCESS_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace OrbelTest {

class ChildProcess {
public:
    // argv[0] is the program path. `env` entries are added to (or replace
    // those of) the test's own environment. The words of the environment
    // variable ORBEL_TEST_LAUNCHER, when set, go before argv (an emulator
    // for a cross build's child programs).
    explicit ChildProcess(std::vector<std::string> argv,
                          std::map<std::string, std::string> env = {});
    ~ChildProcess();  // SIGKILLs a child that is still running

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Start();
    // Exit status (0..255), 128 + signal number when killed by a signal, or
    // -1 when the child did not end within timeoutMs.
    int Wait(int timeoutMs);
    bool Signal(int sig);
    bool IsRunning();
    pid_t Pid() const { return mPid; }

    // Everything the child wrote to stdout and stderr so far.
    std::string Output() const;
    // Polls every 20 ms until the output contains `text`; false on time-out
    // or when the child ended without writing it.
    bool WaitForOutput(const std::string& text, int timeoutMs);

private:
    std::vector<std::string> mArgv;
    std::map<std::string, std::string> mEnv;
    std::string mOutputPath;
    pid_t mPid = -1;
    int mStatus = -1;
};

// Polls every 20 ms until `done` returns true, or `path` exists; false on time-out.
bool WaitUntil(const std::function<bool()>& done, int timeoutMs);
bool WaitForFile(const std::string& path, int timeoutMs);

// Runs `body(t)` for t = 0..n-1 on n threads at once and joins them.
void OnThreads(int n, const std::function<void(int)>& body);

// Absolute path of a program built in this tree (e.g. "examples/RF_Root/RF_Root").
std::string BuiltProgram(const std::string& relativePath);

}  // namespace OrbelTest

#endif  // ORBEL_TEST_CHILDPROCESS_H
