// proc_system on a development host: the command runs under the host's
// /bin/sh.
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

#include <cerrno>

#include "proc_system.h"

extern char** environ;

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

    char sh[] = "/bin/sh";
    char dashC[] = "-c";
    char* argv[] = {sh, dashC, const_cast<char*>(command), nullptr};
    pid_t pid = -1;
    int rc = posix_spawn(&pid, "/bin/sh", nullptr, &attr, argv, environ);
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
