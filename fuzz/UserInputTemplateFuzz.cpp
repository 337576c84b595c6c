// libFuzzer target: user-input template texts.
//
// Each input is parsed as a whole template file and, on its own, as one
// attribute string. A template that loads must hold the root and, for each
// property, its parent: the parser never enters a JPath whose block it did
// not read. Everything the parser made is freed by the parsed record.
//
// No store and no log service are needed: the parser only logs.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ZLogPrint.h"
#include "ZUserInputTemplate.h"

using namespace Orbel;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Log lines are echoed to standard output; the fuzzer reports on
    // standard error, which stays.
    int devNull = open("/dev/null", O_WRONLY);
    if (devNull >= 0) {
        dup2(devNull, STDOUT_FILENO);
        close(devNull);
    }
    zLogPrint = nullptr;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    ZUserInputTemplate::sParsed parsed;
    if (ZUserInputTemplate::ParseTemplateText(text, "Fuzz", "Fuzz.dat", parsed) == RT_SUCCESS) {
        const UsrInTemplateCache& cache = *parsed.cache;
        if (cache.find(ZUserInputTemplate::kRootJPath) == cache.end()) {
            std::fprintf(stderr, "loaded template without its root\n");
            std::abort();
        }
        for (const auto& entry : cache) {
            const std::string& jpath = entry.first;
            if (jpath == ZUserInputTemplate::kRootJPath) continue;
            const size_t slash = jpath.rfind('/');
            const std::string parent = slash == 0 ? "/" : jpath.substr(0, slash);
            if (jpath[0] != '/' || cache.find(parent) == cache.end()) {
                std::fprintf(stderr, "property [%s] without its parent\n", jpath.c_str());
                std::abort();
            }
        }
    } else if (parsed.cache != nullptr) {
        std::fprintf(stderr, "a failed load kept its cache\n");
        std::abort();
    }

    sPropertyAttrTag attr;
    ZUserInputTemplate::ParsePropertyAttr(text, attr);
    return 0;
}
