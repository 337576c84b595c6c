// Thread identity and whole-file writes, shared by the application frame, its
// diagnostics and the request dispatcher threads.
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "Orbel.h"

namespace Orbel {

long CurrentThreadId() {
    return static_cast<long>(syscall(SYS_gettid));
}

void NameCurrentThread(const char* name) {
    if (name == nullptr) return;
    // The kernel refuses a longer name outright; a cut one still tells the
    // threads apart in `ps -L` ("CRUDQ:Create/Ac").
    char cut[16];
    std::snprintf(cut, sizeof(cut), "%s", name);
    pthread_setname_np(pthread_self(), cut);
}

bool WriteWholeFile(const std::string& path, const std::string& text) {
    std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        if (!out) return false;
        out << text;
        if (!out) return false;
    }
    return std::rename(tmp.c_str(), path.c_str()) == 0;
}

}  // namespace Orbel
