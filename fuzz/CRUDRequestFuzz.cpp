// libFuzzer target: request hashes into request records.
//
// The input is read as a request hash's field map: one field per line,
// its name and value separated by the first tab (a line without a tab is a
// field with an empty value). The pure parser must take any map without a
// crash, a leak or a hang, and what it makes must hang together: the method
// is one of the five or -1, the target splits into resource and action
// exactly at the first "/Actions/", a session id comes only from a session
// URI, and the dump names every field.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "CRUDRequest.h"
#include "ZLogPrint.h"

using namespace Orbel;

namespace {

void Fail(const char* what) {
    std::fprintf(stderr, "request record inconsistent: %s\n", what);
    std::abort();
}

}  // namespace

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
    std::map<std::string, std::string> fields;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(start, end - start);
        size_t tab = line.find('\t');
        if (tab == std::string::npos) {
            fields[line] = std::string();
        } else {
            fields[line.substr(0, tab)] = line.substr(tab + 1);
        }
        start = end + 1;
    }

    sCRUD_ReqData req;
    eRtCode rt = CRUDParseReqFields("RF_Fuzz:req", fields, req);
    if (rt != RT_SUCCESS && rt != RT_FIELD_MISSING) Fail("result code");
    if (req.method < -1 || req.method > eReqAction) Fail("method");
    if (req.method >= 0 && CRUDMethodFromText(req.methodText) != req.method) Fail("method text");
    if (req.targetAction.empty()) {
        if (req.resourceUri != req.targetUri) Fail("resource without action");
    } else if (req.resourceUri + "/Actions/" + req.targetAction != req.targetUri ||
               req.resourceUri.find("/Actions/") != std::string::npos) {
        Fail("action split");
    }
    if (!req.authSessionId.empty() && req.authSession.find("Sessions/") == std::string::npos) {
        Fail("session id");
    }
    if (req.authType < eReqAuthNone || req.authType > eReqAuthOAuth) Fail("auth type");
    if (req.transferMethod < eReqTransferNone || req.transferMethod > eReqTransferMultipartUpload) {
        Fail("transfer method");
    }
    const std::string dump = CRUDReqDataDump(req, rt);
    if (dump.compare(0, 19, "CRUD message data: ") != 0 ||
        dump.find("  TransferMethod   : ") == std::string::npos) {
        Fail("dump");
    }
    (void)CRUDPrivilegesGranted(req);
    return 0;
}
