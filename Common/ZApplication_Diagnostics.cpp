// The application's diagnostics: the debug-info requests answered through
// the <app>_dbg_Info variable, the thread list, and the runtime summary that
// the log cache dump appends. Part of ZApplication.
#include <sys/resource.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "Orbel.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZObject.h"
#include "ZResource.h"
#include "ZSchema.h"

namespace Orbel {

// The debug-info variable (<app>_dbg_Info) carries one request word. The
// answer is written into WorkDir() + ".dbginfo" (replacing the previous one)
// and the variable is cleared, so each request is answered once.
void ZApplication::_ServeDbgInfoRequest() {
    std::string request;
    if (GetVEX(mDbgInfoVexName, request, true) != RT_SUCCESS || request.empty()) return;

    std::ostringstream out;
    if (request == "?") {
        out << "Debug info requests for " << mAppName << " (set " << mDbgInfoVexName << "):\n"
            << "  ?   this list\n"
            << "  ru  resource usage and threads\n"
            << "  rb  length of the recycle queue\n";
    } else if (request == "ru") {
        out << _DbgInfoResourceUsage();
    } else if (request == "rb") {
        size_t waiting = 0;
        {
            MutexLock lock(mRecycleMutex);
            waiting = mRecycleList.size();
        }
        out << "Waiting Recycled Object Num = " << waiting << "\n";
    } else {
        out << "Unknown request[" << request << "]. Set \"?\" to list the requests.\n";
    }

    std::string path = mWorkDir + ".dbginfo";
    if (!WriteWholeFile(path, out.str())) {
        ZLOG(eZLogError, "Failed to write debug info file[%s]\n", path.c_str());
    } else {
        ZLOG(eZLogInfo, "Debug info request[%s] answered in [%s]\n", request.c_str(), path.c_str());
    }
    SetVEX(mDbgInfoVexName, std::string(""));
}

std::string ZApplication::_DbgInfoResourceUsage() {
    std::ostringstream out;
    out << "Resource usage of " << mAppName << ":\n";
    struct rusage ru;
    if (getrusage(RUSAGE_SELF, &ru) == 0) {
        char line[128];
        std::snprintf(line, sizeof(line), "  CPU user   = %lld.%06lld s\n",
                      static_cast<long long>(ru.ru_utime.tv_sec),
                      static_cast<long long>(ru.ru_utime.tv_usec));
        out << line;
        std::snprintf(line, sizeof(line), "  CPU system = %lld.%06lld s\n",
                      static_cast<long long>(ru.ru_stime.tv_sec),
                      static_cast<long long>(ru.ru_stime.tv_usec));
        out << line;
        out << "  Max RSS    = " << static_cast<long long>(ru.ru_maxrss) << " KiB\n";
    }
    // Current memory and thread count, as the kernel sees them.
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0 || line.compare(0, 7, "VmSize:") == 0 ||
            line.compare(0, 8, "Threads:") == 0) {
            out << "  " << line << "\n";
        }
    }
    out << "Threads:\n" << _ThreadInfoText();
    return out.str();
}

// ---------------------------------------------------------------------------
// The tree check after each start-up stage
// ---------------------------------------------------------------------------

// The two mistakes that leave a plug-in's data out of the store in silence:
// a queue never applied, and a nested node created under a parent that no
// property or list of the parent links to (the front end reaches nested
// nodes only through such links). One walk over the registry per stage.
bool ZApplication::_FirstTreeWarning(ZObject* node, int kind) {
    MutexLock lock(mTreeWarnedMutex);
    return mTreeWarned.insert({node->GetOID(), kind}).second;
}

size_t ZApplication::CheckTreeAfterStage(const char* stage) {
    std::vector<ZObject*> nodes;
    {
        // A listed node is not freed while listed; the count taken here keeps
        // it after the lock is gone. Reported in JPath order.
        MutexLock lock(mObjectListMutex);
        const auto listed = _SortedObjectList();
        nodes.reserve(listed.size());
        for (const auto& entry : listed) {
            entry.second->IncreaseUsingCount();
            nodes.push_back(entry.second);
        }
    }
    size_t warnings = 0;
    for (ZObject* node : nodes) {
        if (!node->IsDied()) {
            // Each node is reported once per kind, at the first stage that
            // finds it, not again after every later stage.
            if (node->GetPendingChangeNum() > 0 && _FirstTreeWarning(node, 0)) {
                ZLOG(eZLogWarning,
                     "After stage[%s]: node[%s] has changes that were never applied to the "
                     "store (ApplyRedisChanges).\n",
                     stage, node->GetJPath().c_str());
                ++warnings;
            }
            ZObject* parent = node->GetParent();
            // Resources are keys of their own; a RawJson parent keeps its
            // children inside its one text.
            if (!node->IsResourceType() && parent != nullptr && UseIfValid(parent)) {
                if (!parent->IsDied() && !parent->IsDataFmtRawJson() &&
                    !node->IsReferencedBy(parent) &&
                    _FirstTreeWarning(node, 1)) {
                    ZLOG(eZLogWarning,
                         "After stage[%s]: node[%s] is linked by no property or list of its "
                         "parent[%s], so it never reaches the store.\n",
                         stage, node->GetJPath().c_str(), parent->GetJPath().c_str());
                    ++warnings;
                }
                parent->DecreaseUsingCount();
            }
        }
        node->DecreaseUsingCount();
    }
    return warnings;
}

// ---------------------------------------------------------------------------
// Thread information
// ---------------------------------------------------------------------------

void ZApplication::RegisterThreadInfo(const std::string& owner, const std::string& threadName) {
    MutexLock lock(mThreadInfoMutex);
    mThreadInfo[CurrentThreadId()] = sThreadInfo{owner, threadName};
}

bool ZApplication::RegisterThreadInfoIfAbsent(const std::string& owner,
                                              const std::string& threadName) {
    MutexLock lock(mThreadInfoMutex);
    return mThreadInfo.emplace(CurrentThreadId(), sThreadInfo{owner, threadName}).second;
}

void ZApplication::UnregisterThreadInfo() {
    MutexLock lock(mThreadInfoMutex);
    mThreadInfo.erase(CurrentThreadId());
}

std::string ZApplication::_ThreadInfoText() {
    MutexLock lock(mThreadInfoMutex);
    std::string text;
    for (const auto& kv : mThreadInfo) {
        text += std::to_string(kv.first) + " " + kv.second.owner + " " + kv.second.name + "\n";
    }
    return text;
}

void ZApplication::UpdateThreadInfoProcess() {
    std::string path = mWorkDir + ".threads";
    if (!WriteWholeFile(path, _ThreadInfoText())) {
        ZLOG(eZLogError, "Failed to write thread info file[%s]\n", path.c_str());
    }
}

// ---------------------------------------------------------------------------
// Runtime summary (appended to the log by DumpMsgCache2File)
// ---------------------------------------------------------------------------

std::string ZApplication::_RuntimeSummary() {
    std::string text = mAppName + " Summary:\n";
    text += "   ZSchema Num = " + std::to_string(SchemaListSize()) + "\n";
    // No line break after the object count: the dump's readers expect the
    // two counts on one line.
    text += "   ZObject Num = " + std::to_string(ObjectListSize());
    text += "   Waiting Recycled Object Num = " + std::to_string(RecycledListSize()) + "\n";
    text += DumpMonitorList();
    // Busy resources are the ones a request (or a stuck handler) holds.
    text += "Dump all resources that are in the BUSY state ====>\n";
    std::string busy;
    for (ZSchema* schema : GetSchemaList()) {
        for (const auto& entry : schema->GetResourceList()) {
            ZResource* res = entry.second;
            if (!UseIfValid(res)) continue;
            ZResource::eResStatus status = ZResource::eResIdle;
            bool mine = false;
            res->GetStatus(status, mine);
            if (status == ZResource::eResBusy) {
                char line[64];
                std::snprintf(line, sizeof(line), "  Resource(%p) : [", static_cast<void*>(res));
                busy += line + entry.first + "] owner[" + std::to_string(res->LockOwner()) + "]@";
            }
            res->DecreaseUsingCount();
        }
    }
    // One entry per line.
    for (char& ch : busy) {
        if (ch == '@') ch = '\n';
    }
    text += busy;
    text += "\n\n";
    text += "Dump orphan objects ====>\n";
    for (const std::string& jpath : GetOrphanObjsList()) text += "  " + jpath + "\n";
    return text;
}

}  // namespace Orbel
