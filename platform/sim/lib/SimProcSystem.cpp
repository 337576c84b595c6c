// proc_system on a development host: the command runs under the host's
// /bin/sh, or, when it is only a program's absolute path and its arguments
// (the log rotation's "/bin/gzip -f <file>"), as that program directly.
//
// posix_spawn rather than system(): system() ignores SIGINT and SIGQUIT in
// the whole calling process while the command runs and restores the saved
// dispositions afterwards, which would drop a handler that the application
// installs meanwhile from another thread. posix_spawn changes nothing in
// the caller, and gives the child default signal dispositions and an empty
// signal mask whatever thread (e.g. one that blocks every signal) calls it.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "proc_system.h"

extern char** environ;

namespace {

// The words of a command that the shell would only split at blanks and run
// as a program: an absolute path to an executable, then arguments, and no
// character the shell gives a meaning to (quotes, expansions, redirections,
// separators, globs, tabs, newlines). False for anything else, which the
// shell runs as before. The shell (dash) forks once more for such a
// command; without it a log rotation's compression costs a third as much.
bool PlainCommandWords(const char* command, std::vector<std::string>& words) {
    static const char kShellChars[] = "|&;<>()$`\\\"'*?[]#~=%{}!\t\n\r";
    if (std::strpbrk(command, kShellChars) != nullptr) return false;
    for (const char* p = command; *p != '\0';) {
        while (*p == ' ') ++p;
        const char* end = p;
        while (*end != '\0' && *end != ' ') ++end;
        if (end > p) words.emplace_back(p, static_cast<size_t>(end - p));
        p = end;
    }
    return !words.empty() && words[0][0] == '/' && access(words[0].c_str(), X_OK) == 0;
}

}  // namespace

extern "C" int proc_system(const char* command) {
    if (command == nullptr) return -1;
    posix_spawnattr_t attr;
    if (posix_spawnattr_init(&attr) != 0) return -1;
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> words;
    const bool direct = PlainCommandWords(command, words);
    char sh[] = "/bin/sh";
    char dashC[] = "-c";
    std::vector<char*> argv;
    if (direct) {
        for (std::string& w : words) argv.push_back(&w[0]);
    } else {
        argv = {sh, dashC, const_cast<char*>(command)};
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, argv[0], nullptr, &attr, argv.data(), environ);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) return -1;

    int status = 0;
    for (;;) {
        if (waitpid(pid, &status, 0) == pid) break;
        if (errno != EINTR) return -1;
    }
    if (!WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}
