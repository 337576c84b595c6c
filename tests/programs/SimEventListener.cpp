// A process that listens for VEX events, for the platform tests: subscribes
// to the names given on its command line, prints "ready", then prints one
// line "event <kind> <name> <payload>" per event received, and exits 0 after
// the event named "quit" (which it always subscribes to).
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

#include "vex.h"

namespace {

std::mutex gMutex;
std::condition_variable gCv;
bool gQuit = false;

void OnEvent(EVENT_TYPE type, char* name, int dataLen, void* data) {
    std::string payload = data != nullptr ? std::string(static_cast<char*>(data), dataLen) : "";
    std::printf("event %d %s %s\n", static_cast<int>(type), name, payload.c_str());
    std::fflush(stdout);
    if (std::string(name) == "quit") {
        std::lock_guard<std::mutex> lock(gMutex);
        gQuit = true;
        gCv.notify_one();
    }
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (vex_event_register(argv[i]) == 0) return 1;
    }
    if (vex_event_register("quit") == 0 || vex_event_callback_register(&OnEvent) == 0) return 1;
    std::printf("ready\n");
    std::fflush(stdout);
    std::unique_lock<std::mutex> lock(gMutex);
    gCv.wait(lock, [] { return gQuit; });
    // Returning runs the listener's clean-up: thread joined, socket removed.
    return 0;
}
