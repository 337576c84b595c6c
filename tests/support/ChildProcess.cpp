#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "TestEnv.h"

extern char** environ;

namespace OrbelTest {

namespace {

int gChildSeq = 0;

// The words of ORBEL_TEST_LAUNCHER (blank-separated), put before the command
// line of every child built here: a cross build's tests run their child
// programs under the same emulator that runs the test itself (e.g.
// "qemu-arm -L <sysroot>").
std::vector<std::string> LauncherWords() {
    std::vector<std::string> words;
    const char* launcher = std::getenv("ORBEL_TEST_LAUNCHER");
    if (launcher == nullptr) return words;
    std::string word;
    for (const char* p = launcher;; ++p) {
        if (*p == ' ' || *p == '\0') {
            if (!word.empty()) words.push_back(word);
            word.clear();
            if (*p == '\0') break;
        } else {
            word += *p;
        }
    }
    return words;
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> argv, std::map<std::string, std::string> env)
    : mArgv(std::move(argv)), mEnv(std::move(env)) {
    mOutputPath = SysrootDir() + "/child-" + std::to_string(getpid()) + "-" +
                  std::to_string(++gChildSeq) + ".out";
}

ChildProcess::~ChildProcess() {
    if (IsRunning()) {
        kill(mPid, SIGKILL);
        int status = 0;
        waitpid(mPid, &status, 0);
    }
}

bool ChildProcess::Start() {
    // Build argv and envp before fork: the child only calls async-signal-safe
    // functions.
    // Only programs of this build are target binaries; host tools the tests
    // run (python3, grep, redis-cli) run as they are.
    const std::string buildDir = std::string(ORBEL_BUILD_DIR) + "/";
    std::vector<std::string> words;
    if (!mArgv.empty() && mArgv[0].compare(0, buildDir.size(), buildDir) == 0) {
        words = LauncherWords();
    }
    words.insert(words.end(), mArgv.begin(), mArgv.end());
    std::vector<char*> argv;
    for (auto& a : words) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::map<std::string, std::string> merged;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string kv(*e);
        auto eq = kv.find('=');
        if (eq != std::string::npos) merged[kv.substr(0, eq)] = kv.substr(eq + 1);
    }
    for (auto& kv : mEnv) merged[kv.first] = kv.second;
    std::vector<std::string> envStrings;
    for (auto& kv : merged) envStrings.push_back(kv.first + "=" + kv.second);
    std::vector<char*> envp;
    for (auto& s : envStrings) envp.push_back(const_cast<char*>(s.c_str()));
    envp.push_back(nullptr);

    int fd = open(mOutputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return false;
    pid_t pid = fork();
    if (pid < 0) {
        close(fd);
        return false;
    }
    if (pid == 0) {
        dup2(fd, 1);
        dup2(fd, 2);
        close(fd);
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0) dup2(devnull, 0);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(fd);
    mPid = pid;
    mStatus = -1;
    return true;
}

bool ChildProcess::IsRunning() {
    if (mPid <= 0 || mStatus != -1) return false;
    int status = 0;
    pid_t r = waitpid(mPid, &status, WNOHANG);
    if (r == mPid) {
        mStatus = status;
        return false;
    }
    return true;
}

int ChildProcess::Wait(int timeoutMs) {
    if (mPid <= 0) return -1;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (IsRunning()) {
        if (std::chrono::steady_clock::now() >= deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (WIFEXITED(mStatus)) return WEXITSTATUS(mStatus);
    if (WIFSIGNALED(mStatus)) return 128 + WTERMSIG(mStatus);
    return -1;
}

bool ChildProcess::Signal(int sig) { return mPid > 0 && kill(mPid, sig) == 0; }

std::string ChildProcess::Output() const { return ReadFile(mOutputPath); }

bool ChildProcess::WaitForOutput(const std::string& text, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (Output().find(text) != std::string::npos) return true;
        if (!IsRunning()) return Output().find(text) != std::string::npos;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

bool WaitForFile(const std::string& path, int timeoutMs) {
    return WaitUntil([&path] { return FileExists(path); }, timeoutMs);
}

void OnThreads(int n, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int t = 0; t < n; ++t) threads.emplace_back(body, t);
    for (std::thread& th : threads) th.join();
}

std::string BuiltProgram(const std::string& relativePath) {
    return std::string(ORBEL_BUILD_DIR) + "/" + relativePath;
}

}  // namespace OrbelTest
