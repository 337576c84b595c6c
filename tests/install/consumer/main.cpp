// A tiny plug-in built against the installed library. It exits 0 only when
// the headers, the library and its run-time dependencies work from the
// install prefix: printable-text checks, sysroot paths, a log service writing
// a line with the expected layout, and an application with one schema that
// answers -h the way every plug-in does.
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "FixedPaths.h"
#include "Orbel.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZSchema.h"

// The package hands its consumers the library's 64-bit file offset and time
// widths (both the CMake target and the pkg-config flags): on the 32-bit
// controller a consumer built without them disagrees with the library on
// the size of every time_t and off_t it passes.
#if !defined(_FILE_OFFSET_BITS) || _FILE_OFFSET_BITS != 64 || !defined(_TIME_BITS) || \
    _TIME_BITS != 64
#error "the installed package did not pass _FILE_OFFSET_BITS=64 and _TIME_BITS=64"
#endif

namespace {

int ConsumerFactory(void*) {
    auto* schema = new Orbel::ZSchema("ConsumerThing", "v1_0_0");
    if (schema->Init() == Orbel::RT_SUCCESS) return 0;
    delete schema;
    return -1;
}

int gFailures = 0;

void Check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "consumer: FAILED: %s\n", what);
        ++gFailures;
    }
}

}  // namespace

int main() {
    Check(Orbel::IsPureString("plain text", false), "IsPureString of printable text");

    char tmpl[] = "/tmp/orbel-consumer-XXXXXX";
    const char* dir = mkdtemp(tmpl);
    if (dir == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string root = dir;
    setenv("ORBEL_SYSROOT", root.c_str(), 1);
    Check(Orbel::SysrootPath("/tmp/redis.sock") == root + "/tmp/redis.sock",
          "SysrootPath under ORBEL_SYSROOT");

    {
        const std::string base = Orbel::RedfishWorkDir() + "consumer";
        Orbel::ZLogPrint log(base, 16000);
        log.LogPrint("", Orbel::eZLogWarning, "main.cpp", "main", __LINE__, "consumer %d\n", 42);
        std::ifstream in(base + ".log");
        std::ostringstream text;
        text << in.rdbuf();
        Check(text.str().find("[WARNING] main.cpp:main(): consumer 42\n") != std::string::npos,
              "ZLogPrint line in the log file");
    }

    {
        Orbel::ZApplication app("RF_Consumer");
        static const Orbel::ZApplication::sSchemaFactory table[] = {
            {"ConsumerThing", ConsumerFactory}};
        char arg0[] = "consumer";
        char arg1[] = "-h";
        char* argv[] = {arg0, arg1, nullptr};
        Orbel::ZApplication::sExecParams params{2, argv, table, 1};
        Check(app.Exec(params) == 0, "Exec returns 0 after -h");
    }
    Check(Orbel::zApp == nullptr, "zApp cleared with the application");

    Orbel::DelDirTree(root);
    Check(access(root.c_str(), F_OK) != 0, "DelDirTree of the temporary sysroot");
    if (gFailures == 0) std::printf("consumer: all checks passed\n");
    return gFailures == 0 ? 0 : 1;
}
