// ZTask: construction, accessors, the task list and Destory.
#include "ZTask.h"

#include "FixedPaths.h"
#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZSchema.h"

namespace Orbel {

namespace {

const char* const kStateWords[] = {
    "New",       "Starting", "Running",   "Suspended", "Interrupted", "Pending",   "Stopping",
    "Completed", "Killed",   "Exception", "Service",   "Cancelling",  "Cancelled",
};
const char* const kStatusWords[] = {"OK", "Warning", "Critical"};

// The hash the front end fills before it forwards a request that may run as
// a task: request key -> task monitor URL.
const char kMappingKey[] = "TaskMonitorAndResourceMapping";

constexpr unsigned kQuitTries = 100;
constexpr unsigned kQuitWaitMs = 100;
constexpr unsigned kReadGraceMs = 100;

// A URL the task can build keys and link texts from: a Redfish URI of
// printable ASCII with none of the characters that break a link text or a
// key pattern, and with a last component.
bool IsWellFormedTaskURL(const std::string& url) {
    static const std::string kRoot = "/redfish/v1/";
    if (url.size() <= kRoot.size() || url.compare(0, kRoot.size(), kRoot) != 0) return false;
    if (url.back() == '/') return false;
    for (unsigned char ch : url) {
        if (ch <= 0x20 || ch >= 0x7F) return false;
        if (ch == '"' || ch == '\\' || ch == '*' || ch == '?' || ch == '[' || ch == ']') {
            return false;
        }
    }
    return true;
}

// A stored value text without its JSON quotes ("\"7\"" -> "7").
std::string Unquoted(const std::string& text) {
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
        return text.substr(1, text.size() - 2);
    }
    return text;
}

}  // namespace

const char* TaskStateWord(eTaskState state) {
    const int v = static_cast<int>(state);
    return v >= 0 && v <= TASK_STATE_Cancelled ? kStateWords[v] : "";
}

const char* TaskStatusWord(eTaskStatus status) {
    const int v = static_cast<int>(status);
    return v >= 0 && v <= TASK_STATUS_Critical ? kStatusWords[v] : "";
}

bool IsFinalTaskState(eTaskState state) {
    return state == TASK_STATE_Completed || state == TASK_STATE_Killed ||
           state == TASK_STATE_Exception || state == TASK_STATE_Cancelled;
}

Mutex& ZTask::mTaskListMutex = *new Mutex;
std::map<std::string, ZTask*>& ZTask::mTaskList = *new std::map<std::string, ZTask*>;
size_t ZTask::mRunningTasks = 0;
size_t ZTask::mFinishingTasks = 0;
CondVar& ZTask::mTaskEndCv = *new CondVar;

// ---------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------

ZTask::ZTask(const std::string& reqKey, const std::string& channel, ZSchema* schema,
             ZResource* resource, TaskRun_t run, void* privData)
    : ResponseExtendedInfo(schema, resource),
      mReqKey(reqKey),
      mChannel(channel),
      mRun(run),
      mPrivData(privData),
      mSocketPath(RedisSocketPath()) {
    _GetTaskURL();
    if (!mTaskURL.empty()) _GetTaskId();
    mValid = !mTaskURL.empty() && !mTaskId.empty() && !mChannel.empty() && _BuildNodes();
    SetTaskState(TASK_STATE_New);
    SetTaskStatus(TASK_STATUS_OK);
    MutexLock lock(mTaskListMutex);
    // A key already listed belongs to a task that is still running: the
    // newer one is reachable only through its pointer.
    mTaskList.emplace(mReqKey, this);
}

ZTask::~ZTask() {
    for (ZJsonObject** node : {&mOemObj, &mExtraInfoObj, &mResultObj, &mResponseDataObj}) {
        // The keys stay: the front end serves the finished task from them.
        if (*node != nullptr) (*node)->_Destroy(ZObject::eDestroyDelete, false);
        *node = nullptr;
    }
}

void ZTask::_GetTaskURL() {
    std::string url;
    if (RedisHashGet(_ExtInfoContext(), kMappingKey, mReqKey.c_str(), url) != RT_SUCCESS ||
        url.empty()) {
        ZLOG(eZLogError, "Cannot find %s In %s\n", mReqKey.c_str(), kMappingKey);
        return;
    }
    url = Unquoted(url);
    if (!IsWellFormedTaskURL(url)) {
        ZLOG(eZLogError, "Invalid Task Monitor URL %s\n", url.c_str());
        return;
    }
    mTaskURL = url;
    ZLOG(eZLogDebug, "Task URL: %s\n", mTaskURL.c_str());
}

void ZTask::_GetTaskId() {
    std::string id;
    if (RedisHashGet(_ExtInfoContext(), mTaskURL.c_str(), "Id", id) != RT_SUCCESS ||
        Unquoted(id).empty()) {
        ZLOG(eZLogError, "Cannot find 'Id' In %s\n", mTaskURL.c_str());
        return;
    }
    mTaskId = Unquoted(id);
    ZLOG(eZLogDebug, "Task ID: %s\n", mTaskId.c_str());
}

bool ZTask::_BuildNodes() {
    if (zApp == nullptr) {
        ZLOG(eZLogError, "No application to hold task[%s].\n", mTaskURL.c_str());
        return false;
    }
    struct {
        ZJsonObject** node;
        const char* name;
    } nodes[] = {{&mOemObj, "/Oem"},
                 {&mExtraInfoObj, "/ExtraInfo"},
                 {&mResultObj, "/Result"},
                 {&mResponseDataObj, "/ResponseData"}};
    for (auto& n : nodes) {
        const std::string jpath = mTaskURL + n.name;
        // What an earlier task left under the same URL is not this task's.
        RedisDelTable(_ExtInfoContext(), jpath.c_str());
        auto* node = new ZJsonObject(nullptr, jpath);
        if (node->GetJPath().empty() || node->IsDied()) {
            ZLOG(eZLogError, "Failed to create task node[%s].\n", jpath.c_str());
            node->ObjDestroy(ZObject::eDestroyDelete, false);
            return false;
        }
        *n.node = node;
    }
    if (NewExtInfoObj(mReqKey, mTaskURL + "/ExtendedInfo") != RT_SUCCESS) return false;
    return TaskMsgsSetParentJPath(mTaskURL) == RT_SUCCESS;
}

// ---------------------------------------------------------------------------
// Accessors
// ---------------------------------------------------------------------------

void ZTask::RegisterReadCallback(TaskReadCallback_t fn, void* arg) {
    MutexLock lock(mReadCbMutex);
    mReadCb = fn;
    mReadCbArg = arg;
}

void ZTask::UnregisterReadCallback() {
    RegisterReadCallback(nullptr, nullptr);
}

ZBackendImpl* ZTask::GetBackendImpl() {
    return mSchema != nullptr ? mSchema->GetBackendImpl() : nullptr;
}

ZTask* ZTask::GetTask(const std::string& key) {
    MutexLock lock(mTaskListMutex);
    auto it = mTaskList.find(key);
    return it != mTaskList.end() ? it->second : nullptr;
}

size_t ZTask::GetTaskNum() {
    MutexLock lock(mTaskListMutex);
    return mTaskList.size();
}

size_t ZTask::GetRunningTaskNum() {
    MutexLock lock(mTaskListMutex);
    return mRunningTasks;
}

// ---------------------------------------------------------------------------
// The end
// ---------------------------------------------------------------------------

void ZTask::_WriteTaskLinks() {
    // The task resource belongs to the front end; the task adds the link
    // that makes its messages part of the resource's document (once the list
    // exists, so the document never shows a null list), and the read queue
    // that sends reads of the monitor to the read thread.
    const char* url = mTaskURL.c_str();
    RedisHashSet(nullptr, url, ("&&Array Messages " + GetTaskMsgsJPath()).c_str(), "");
    const std::string queue = "&&" + mTaskURL + "/GETQ";
    RedisDelTable(nullptr, queue.c_str());
    RedisListPushBack(nullptr, queue.c_str(), mChannel.c_str());
    RedisHashSet(nullptr, url, ("&&Array GETQ " + queue).c_str(), "");
}

void ZTask::_LinkNodes() {
    // After the nodes were applied.
    if (!mLinksWritten) {
        _WriteTaskLinks();
        mLinksWritten = true;
    }
    // Oem is linked once it holds something: a link to a key never written
    // would read as null.
    if (!mOemLinked &&
        RedisType(nullptr, mOemObj->GetJPath().c_str()) == REDIS_TABLE_HASH) {
        RedisHashSet(nullptr, mTaskURL.c_str(), ("&&Object Oem " + mOemObj->GetJPath()).c_str(),
                     "");
        mOemLinked = true;
    }
}

void ZTask::_RemoveReadQueue() {
    // From now on the front end serves the monitor from the store alone.
    const std::string queue = "&&" + mTaskURL + "/GETQ";
    RedisHashDel(nullptr, mTaskURL.c_str(), ("&&Array GETQ " + queue).c_str());
    RedisDelTable(nullptr, queue.c_str());
}

void ZTask::_StopReadThread() {
    if (!mReadThread.joinable()) return;
    mReadStop.store(true);
    // QUIT ends a listening read thread, the flag one that is between
    // connections. A QUIT sent while the thread was subscribing again
    // (after a store restart) is lost, so it is repeated until the
    // thread is done.
    for (unsigned tries = 0; !mReadEnded.load() && tries < kQuitTries; ++tries) {
        RedisPublishToChannel(nullptr, mChannel, "QUIT");
        for (unsigned ms = 0; !mReadEnded.load() && ms < kQuitWaitMs; ms += 5) MyMSleep(5);
    }
    mReadThread.join();
}

void ZTask::Destory() {
    if (mStarted) {
        // Reads go to the store from now on. One that a front end routed by
        // the list a moment ago is still answered: the thread serves on for
        // a short grace before it is told to quit.
        _RemoveReadQueue();
        if (mReadThread.joinable()) MyMSleep(kReadGraceMs);
    }
    _StopReadThread();
    {
        MutexLock lock(mTaskListMutex);
        auto it = mTaskList.find(mReqKey);
        if (it != mTaskList.end() && it->second == this) mTaskList.erase(it);
    }
    delete this;
}

}  // namespace Orbel
