// libFuzzer target: user input checked against a template.
//
// Each input line is one user-input entry: a type digit (taken modulo 9),
// the JPath, "=", the value; the first byte picks the method. The template
// (every block form, limits, patterns, required members, an action) is
// loaded once from the sysroot's template directory. A verification must
// end with a result that matches its faults and leave no pin on the cache.
//
// No store is needed: the messages are only returned, not written.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "FixedPaths.h"
#include "ZLogPrint.h"
#include "ZUserInputTemplate.h"

using namespace Orbel;

namespace {

const char kTemplate[] =
    "{'AssetTag':'S,n@p,c@@M:8','Name':'S@cr@@','Id':'S@@@','Mode':'S@p@@e:A,B',"
    "'Code':'S@p@@m:2,p:^[0-9]+$','Count':'u@p@@m:1,M:4','Level':'s,f@p@@e:-1,2.5',"
    "'Secret':'S@p@s@','Any':'i@p@@',"
    "'Boot':'o@p@@'{'Target':'S@pr@@e:None,Pxe','Order':'a@p@@m:R,M:2'['S@p@@']},"
    "'Slots':'a@p,c@@m:2,M:2'['u@p,c@@'],'Grid':'a@p@@'['a@p@@'['u@p@@']],"
    "'Servers':'a@p@@'[{'Address':'S@pr@@'}],'Raw':'a@p@@'[],"
    "'Actions':'o@a@@'{'#Sys.Reset':'o@a@@'{'ResetType':'S@ar@@e:On,Off','Delay':'u@a@@M:60'}}}";

ZUserInputTemplate* gTemplate = nullptr;
std::string gSysroot;

void RemoveSysroot() {
    std::error_code ec;
    if (!gSysroot.empty()) std::filesystem::remove_all(gSysroot, ec);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char dir[] = "/tmp/orbel-fuzz-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    gSysroot = dir;
    setenv("ORBEL_SYSROOT", dir, 1);
    std::atexit(RemoveSysroot);
    int devNull = open("/dev/null", O_WRONLY);
    if (devNull >= 0) {
        dup2(devNull, STDOUT_FILENO);
        close(devNull);
    }
    zLogPrint = nullptr;
    std::filesystem::create_directories(UserInputTemplateDir());
    std::ofstream(UserInputTemplateDir() + "Fuzz.dat") << kTemplate;
    std::string name = "Fuzz";
    gTemplate = new ZUserInputTemplate(nullptr, &name, true);
    if (gTemplate->GetLoadResult() != RT_SUCCESS) std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    static const eReqMethod kMethods[] = {eReqCreate, eReqUpdate, eReqAction};
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    UsrInCache input;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        const size_t eq = line.find('=');
        if (line.size() < 2 || eq == std::string::npos) continue;
        sUsrInCacheItem item;
        item.type = static_cast<eUsrInValueType>(static_cast<unsigned char>(line[0]) % 9);
        item.value = line.substr(eq + 1);
        input[line.substr(1, eq - 1)] = item;
    }
    sUsrInVerifyArgs args;
    args.method = kMethods[data[0] % 3];
    args.actionName = "#Sys.Reset";
    args.input = &input;
    std::vector<sUsrInFault> faults;
    const eRtCode rt = ZUserInputTemplate::VerifyUserInputData(gTemplate, args, &faults);
    if ((rt == RT_SUCCESS) != faults.empty() || (rt != RT_SUCCESS && rt != RT_FAILURE)) {
        std::fprintf(stderr, "result %d with %zu faults\n", static_cast<int>(rt), faults.size());
        std::abort();
    }
    if (gTemplate->DetachCache() != RT_INVALID_ARG) {
        std::fprintf(stderr, "a verification left its pin on the cache\n");
        std::abort();
    }
    return 0;
}
