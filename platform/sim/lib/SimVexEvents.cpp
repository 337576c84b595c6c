// VEX events across processes on a development host.
//
// Each process that registers a callback binds a Unix datagram socket
// <sysroot>/run/vex/events/<pid>.sock and serves it from one listener
// thread. Raising an event sends one datagram to every socket in that
// directory; each listener hands it to its callback when the process has
// subscribed to the name. A datagram is: one byte with the event kind
// (EVENT_TYPE), the name, a NUL, then the payload.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "SimStore.h"
#include "vex.h"

namespace OrbelSim {

namespace {

constexpr size_t kMaxEventName = 255;
// Header byte + name + NUL + payload.
constexpr size_t kMaxDatagram = 1 + kMaxEventName + 1 + kMaxEventPayload;
// How long a raise keeps retrying a listener whose queue is full before
// dropping the event for it: a stuck process must not block the raiser.
constexpr int kFullQueueRetries = 1000;  // of 1 ms each

bool IsValidEventName(const char* name) {
    return name != nullptr && name[0] != '\0' && strnlen(name, kMaxEventName + 1) <= kMaxEventName;
}

bool FillAddress(const std::string& path, sockaddr_un& addr) {
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// The process's one listener. Created on first use; its destructor runs at
// process exit or library unload, stops and joins the thread and removes
// the socket file, so no thread outlives the library's code.
class EventListener {
  public:
    static EventListener& Instance() {
        static EventListener listener;
        return listener;
    }

    void Subscribe(const std::string& name) {
        std::lock_guard<std::mutex> lock(mMutex);
        mSubscribed.insert(name);
    }

    // Stores the callback and starts the thread on the first call.
    bool SetCallback(vex_event_callback_t callback) {
        std::lock_guard<std::mutex> lock(mMutex);
        mCallback = callback;
        return mRunning || StartLocked();
    }

    ~EventListener() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (!mRunning) return;
            mRunning = false;
        }
        if (getpid() == mOwnerPid) {
            char stop = 1;
            ssize_t n;
            do {
                n = write(mStopPipe[1], &stop, 1);
            } while (n < 0 && errno == EINTR);
            pthread_join(mThread, nullptr);
            unlink(mSocketPath.c_str());
        }
        // A child forked without exec has no listener thread and must not
        // remove its parent's socket: it only drops its copies of the fds.
        close(mSocket);
        close(mStopPipe[0]);
        close(mStopPipe[1]);
    }

  private:
    EventListener() = default;

    // REQUIRES: mMutex held.
    bool StartLocked() {
        std::string dir = VexEventsDir();
        if (!MakeDirs(dir)) return false;
        std::string path = dir + "/" + std::to_string(getpid()) + ".sock";
        sockaddr_un addr;
        if (!FillAddress(path, addr)) return false;
        int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return false;
        // A file of this name belongs to a dead process whose pid we reuse.
        unlink(path.c_str());
        int stopPipe[2];
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            pipe2(stopPipe, O_CLOEXEC) != 0) {
            close(fd);
            unlink(path.c_str());
            return false;
        }
        mSocket = fd;
        mStopPipe[0] = stopPipe[0];
        mStopPipe[1] = stopPipe[1];
        mSocketPath = path;
        mOwnerPid = getpid();

        // The thread takes no signals: the application's handlers stay on
        // its own threads, and poll() is never interrupted.
        sigset_t all, old;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &old);
        int rc = pthread_create(&mThread, nullptr, &EventListener::ThreadMain, this);
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
        if (rc != 0) {
            close(mSocket);
            close(mStopPipe[0]);
            close(mStopPipe[1]);
            unlink(path.c_str());
            return false;
        }
        mRunning = true;
        return true;
    }

    static void* ThreadMain(void* self) {
        static_cast<EventListener*>(self)->Run();
        return nullptr;
    }

    void Run() {
        std::vector<char> buf(kMaxDatagram + 1);
        for (;;) {
            pollfd fds[2] = {{mSocket, POLLIN, 0}, {mStopPipe[0], POLLIN, 0}};
            int r = poll(fds, 2, -1);
            if (r < 0) {
                if (errno == EINTR) continue;
                return;
            }
            if (fds[1].revents != 0) return;
            if ((fds[0].revents & POLLIN) != 0) {
                ssize_t n = recv(mSocket, buf.data(), buf.size(), MSG_DONTWAIT);
                if (n > 0) Deliver(buf.data(), static_cast<size_t>(n));
            } else if ((fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
                return;
            }
        }
    }

    void Deliver(const char* data, size_t len) {
        if (len < 3) return;
        int kind = static_cast<unsigned char>(data[0]);
        if (kind != VEX_EVENT_RAISED && kind != VEX_EVENT_VAR_CHANGED) return;
        const char* nul = static_cast<const char*>(std::memchr(data + 1, '\0', len - 1));
        if (nul == nullptr || nul == data + 1) return;
        std::string name(data + 1, nul);
        std::vector<char> payload(nul + 1, data + len);

        vex_event_callback_t callback = nullptr;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mSubscribed.count(name) != 0) callback = mCallback;
        }
        // Called without the lock, so the callback may subscribe or raise.
        if (callback != nullptr) {
            callback(static_cast<EVENT_TYPE>(kind), &name[0], static_cast<int>(payload.size()),
                     payload.empty() ? nullptr : payload.data());
        }
    }

    std::mutex mMutex;
    // Guarded by mMutex.
    std::set<std::string> mSubscribed;
    vex_event_callback_t mCallback = nullptr;
    bool mRunning = false;
    // Set once before the thread starts, constant afterwards.
    pid_t mOwnerPid = -1;
    pthread_t mThread{};
    int mSocket = -1;
    int mStopPipe[2] = {-1, -1};
    std::string mSocketPath;
};

}  // namespace

bool VexRaise(EVENT_TYPE kind, const char* name, const void* data, int dataLen) {
    if (!IsValidEventName(name) || dataLen < 0 || dataLen > kMaxEventPayload ||
        (dataLen > 0 && data == nullptr)) {
        return false;
    }
    std::string datagram(1, static_cast<char>(kind));
    datagram += name;
    datagram += '\0';
    if (dataLen > 0) datagram.append(static_cast<const char*>(data), static_cast<size_t>(dataLen));

    std::string dir = VexEventsDir();
    std::vector<std::string> sockets;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* entry = readdir(d)) {
            std::string file = entry->d_name;
            if (file.size() > 5 && file[0] != '.' &&
                file.compare(file.size() - 5, 5, ".sock") == 0) {
                sockets.push_back(dir + "/" + file);
            }
        }
        closedir(d);
    }
    if (sockets.empty()) return true;

    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    for (const std::string& path : sockets) {
        sockaddr_un addr;
        if (!FillAddress(path, addr)) continue;
        for (int attempt = 0; attempt < kFullQueueRetries; ++attempt) {
            ssize_t n = sendto(fd, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                               reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
            if (n >= 0) break;
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                struct timespec ms = {0, 1000000};
                nanosleep(&ms, nullptr);
                continue;
            }
            // Nobody is bound any more: the process is gone.
            if (errno == ECONNREFUSED) unlink(path.c_str());
            break;
        }
    }
    close(fd);
    return true;
}

}  // namespace OrbelSim

extern "C" {

int vex_event_register(const char* eventName) {
    if (!OrbelSim::IsValidEventName(eventName)) return 0;
    OrbelSim::EventListener::Instance().Subscribe(eventName);
    return 1;
}

int vex_event_callback_register(vex_event_callback_t callback) {
    if (callback == nullptr) return 0;
    return OrbelSim::EventListener::Instance().SetCallback(callback) ? 1 : 0;
}

int vex_event_raise(const char* eventName, const void* data, int dataLen) {
    return OrbelSim::VexRaise(VEX_EVENT_RAISED, eventName, data, dataLen) ? 1 : 0;
}

}  // extern "C"
