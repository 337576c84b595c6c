// libFuzzer target: body texts into trees.
//
// Each input is parsed into a fresh JSON object root, a fresh RawJson
// resource and a JSON array inside it, and a fresh plain array root. The
// trees are then retired and the recycle queue drained, so every node the
// parser made is freed within the run (a leak shows up as one).
//
// No store is needed: the process runs under an empty sysroot, so every
// connection fails at once, writes stay queued and RawJson roots still merge
// and render their text. The rendered text must always be valid JSON.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZObject_JsonStringTrans.h"
#include "ZResource.h"

using namespace Orbel;

namespace {

ZApplication* gApp = nullptr;
std::string gSysroot;

void RemoveSysroot() {
    std::error_code ec;
    if (!gSysroot.empty()) std::filesystem::remove_all(gSysroot, ec);
}

// A RawJson root's text is what the front end splices into a body as is.
void CheckRendered(ZObject* root) {
    const std::string text = root->ObjData2RawJsonString();
    if (!IsJsonValueText(text)) {
        std::fprintf(stderr, "RawJson text is not JSON: %s\n", text.c_str());
        std::abort();
    }
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
    // Log lines are echoed to standard output; the fuzzer reports on
    // standard error, which stays.
    int devNull = open("/dev/null", O_WRONLY);
    if (devNull >= 0) {
        dup2(devNull, STDOUT_FILENO);
        close(devNull);
    }
    gApp = new ZApplication("RF_Fuzz");
    // Without a log service the library formats only what would pass the
    // default filter, and writes no files that grow with the run.
    zLogPrint = nullptr;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    auto* obj = new ZJsonObject(nullptr, "FuzzRoot", 0);
    JsonString2ZObjTree(text, obj, J2O_NONE);
    obj->ObjDestroy(ZObject::eDestroyDelete, false);

    auto* raw = new ZResource(nullptr, nullptr, "/redfish/v1/Fuzz", "", ZObject::ATTR_RawJson);
    JsonString2ZObjTree(text, raw, J2O_DISCARD_ON_FAILURE);
    raw->ApplyRedisChanges(true, nullptr);
    CheckRendered(raw);
    auto* rawArray = new ZJsonArray(raw, "FuzzArray", ZJsonArray::ARRAY_ATTR_OdataCount);
    raw->HashWrite("FuzzArray", static_cast<ZObject*>(rawArray));
    JsonString2ZObjTree(text, rawArray, J2O_APPLY);
    raw->ApplyRedisChanges(true, nullptr);
    CheckRendered(raw);
    raw->ObjDestroy(ZObject::eDestroyDelete, false);

    // A plain array is emptied in the store first: without one the parse
    // stops there, cleanly.
    auto* array = new ZJsonArray(nullptr, "FuzzList", 0);
    JsonString2ZObjTree(text, array, J2O_NONE);
    array->ObjDestroy(ZObject::eDestroyDelete, false);

    // Every node is retired and nobody holds one: the queue must drain. A
    // using count the parser failed to release would keep a node here.
    gApp->RecycleProcess();
    if (gApp->RecycledListSize() != 0 || gApp->ObjectListSize() != 0) {
        std::fprintf(stderr, "nodes left behind: %zu recycled, %zu listed\n",
                     gApp->RecycledListSize(), gApp->ObjectListSize());
        std::abort();
    }
    return 0;
}
