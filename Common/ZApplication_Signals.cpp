// The application's signal side: the handlers that turn a signal into one
// byte on the self-pipe, and the signal thread that reads those bytes and
// acts on them (exit, log cache dump, debug level). Part of ZApplication.
#include <fcntl.h>
#include <signal.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Orbel.h"
#include "ZApplication.h"
#include "ZLogPrint.h"

namespace Orbel {

namespace {

// The signals the frame handles, in the order they are registered.
constexpr int kHandledSignals[] = {SIGINT, SIGTERM, SIGUSR1, SIGUSR2};

}  // namespace

void ZApplication::_RegisterSigHandler() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = SigHandler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    for (int sig : kHandledSignals) {
        if (sigaction(sig, &sa, nullptr) == 0) {
            mSigHandlersInstalled = true;
            ZLOG(eZLogInfo, "Register signal(%d) \n", sig);
        } else {
            ZLOG(eZLogError, "Failed to register sigaction(%d) \n", sig);
        }
    }
}

void ZApplication::_RestoreSigHandlers() {
    if (mSigHandlersInstalled) {
        struct sigaction sa;
        std::memset(&sa, 0, sizeof(sa));
        sa.sa_handler = SIG_DFL;
        sigemptyset(&sa.sa_mask);
        for (int sig : kHandledSignals) sigaction(sig, &sa, nullptr);
        mSigHandlersInstalled = false;
    }
    // The pipe stays open until the handlers are gone, so a late signal
    // never writes into a closed (or reused) descriptor.
    int rfd = __atomic_exchange_n(&zAppSigPipe[0], -1, __ATOMIC_ACQ_REL);
    int wfd = __atomic_exchange_n(&zAppSigPipe[1], -1, __ATOMIC_ACQ_REL);
    if (rfd >= 0) close(rfd);
    if (wfd >= 0) close(wfd);
}

// Async-signal-safe: one write() of one byte, errno preserved.
void ZApplication::SigHandler(int sig) {
    int savedErrno = errno;
    int fd = __atomic_load_n(&zAppSigPipe[1], __ATOMIC_ACQUIRE);
    if (fd >= 0) {
        unsigned char byte = static_cast<unsigned char>(sig);
        if (write(fd, &byte, 1) < 0 && errno != EAGAIN) {
            static const char kMsg[] = "Error: write to zAppSigPipe[1]\n";
            if (write(STDOUT_FILENO, kMsg, sizeof(kMsg) - 1) < 0) {
                // Nothing more can be done from a signal handler.
            }
        }
    }
    errno = savedErrno;
}

void ZApplication::_StopSigThread() {
    if (!mSigThread.joinable()) return;
    // A 0 byte is never a signal number: the thread takes it as "stop". If
    // the thread already ended (after SIGINT/SIGTERM), the byte just waits
    // in the pipe until it is closed.
    int fd = __atomic_load_n(&zAppSigPipe[1], __ATOMIC_ACQUIRE);
    if (fd >= 0) {
        unsigned char stop = 0;
        if (write(fd, &stop, 1) < 0) {
            ZLOG(eZLogError, "Failed to wake the signal thread: %s\n", std::strerror(errno));
        }
    }
    mSigThread.join();
}

namespace {

bool SetNonBlocking(int fd, const char* getFlText, const char* setFlText) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        ZLOG(eZLogError, "%s", getFlText);
        return false;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        ZLOG(eZLogError, "%s", setFlText);
        return false;
    }
    // Children started through the shell runner need not inherit the pipe.
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    return true;
}

}  // namespace

void ZApplication::AppSysSigHandle(ZApplication* app) {
    NameCurrentThread("ZAppSigHandler");
    app->RegisterThreadInfo("ZApp", "SigHandler");

    int fds[2] = {-1, -1};
    int rt = pipe(fds);
    if (rt != 0) {
        ZLOG(eZLogError, "pipe() rt:%d:%s\n", rt, std::strerror(errno));
    } else {
        SetNonBlocking(fds[0], "Failed to call fcntl( zAppSigPipe[0], F_GETFL )\n",
                       "Failed to call fcntl( zAppSigPipe[0], F_SETFL, flags)\n");
        SetNonBlocking(fds[1], "Failed to call fcntl( zAppSigPipe[1], F_GETFL )\n",
                       "Failed to call fcntl( zAppSigPipe[1], F_SETFL, flags)\n");
        __atomic_store_n(&zAppSigPipe[0], fds[0], __ATOMIC_RELEASE);
        __atomic_store_n(&zAppSigPipe[1], fds[1], __ATOMIC_RELEASE);
    }
    {
        MutexLock lock(app->mSigPipeMutex);
        app->mSigPipeReady = true;
    }
    app->mSigPipeCv.SignalAll();

    const int rfd = fds[0];
    while (rt == 0) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(rfd, &readSet);
        int n = select(rfd + 1, &readSet, nullptr, nullptr, nullptr);
        if (n < 0) {
            if (errno == EINTR) continue;  // a signal landed on this thread
            ZLOG(eZLogError, "select() return unexpected error.\n");
            break;
        }
        if (!FD_ISSET(rfd, &readSet)) {
            ZLOG(eZLogError, "select() result it not for zAppSigPipe[0].\n");
            continue;
        }
        unsigned char byte = 0;
        ssize_t got = read(rfd, &byte, 1);
        if (got < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            ZLOG(eZLogError, "read( zAppSigPipe[0], ... ) return unexpected error.\n");
            break;
        }
        if (got == 0 || byte == 0) break;  // the owner asks the thread to stop

        const int sig = byte;
        const bool shuttingDown = IsTARNShuttingDown();
        ZLOG(eZLogDebug, "Caught signal(%d). tarnShuttingDown(%d)\n", sig, shuttingDown ? 1 : 0);
        const bool terminate = sig == SIGINT || sig == SIGTERM;
        if (terminate) {
            // While the controller shuts down, it stops the plug-ins itself
            // and in its own order.
            if (!shuttingDown) app->Exit();
        } else if (sig == SIGUSR1) {
            zLogPrint->DumpMsgCache2File();
        } else if (sig == SIGUSR2) {
            app->ChangeDebugMsgLevel();
        }
        app->SigHandle(sig);
        if (terminate) break;
    }
    ZLOG(eZLogInfo, "Exit\n");
    app->UnregisterThreadInfo();
}

}  // namespace Orbel
