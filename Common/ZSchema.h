// The base class of every handler of one Redfish resource type.
//
// A plug-in derives one class per type, overrides the virtual operations it
// needs, and creates one instance from a schema factory of its Exec table:
//
//     int SystemsFactory(void*) {
//         auto* s = new SystemsSchema();      // a ZSchema
//         return s->Init() == RT_SUCCESS ? 0 : -1;
//     }
//
// Init() hands the schema to the application, which owns it from then on and
// deletes it at the end of Exec. The schema owns its resources (by resource
// name). The application drives the staged initialisation: InitialBackendImpl
// and PreCorvelReady_* before the front end is ready, PostCorvelReady_* and
// PostCorvelReady_AfterTreatment after.
//
// Requests. Each schema runs up to three dispatcher threads, one per role
// whose methods it serves: "CRUDQ:Read" (GETQ), "CRUDQ:Update" (PATCHQ) and
// "CRUDQ:Create/Action/Delete" (POSTCREATEQ, DELETEQ, POSTACTIONQ). A
// dispatcher takes a request hash off its channels, builds an
// HTTP_MethodContext, finds and locks the target and runs the request path
// of the method (DoHttpMethod*), which calls the virtual handlers below; then
// it sends the answer. docs/wire-protocol.md gives the request side.
//
// Defined in: ZSchema.cpp (construction, hooks, handlers' defaults),
// ZSchema_Resources.cpp (the resource map), ZSchema_Dispatcher.cpp (threads,
// parsing, access log), ZSchema_RequestPaths.cpp (request paths, target
// resolution, action callbacks), ZSchema_Backend.cpp (backend-originated
// changes).
//
// Threads: the staged hooks run on the main thread; the handlers, privilege
// checks and action callbacks on the schema's dispatcher threads (reads,
// updates and the rest in parallel, one request per resource at a time). The
// resource map and the action map have their own mutexes and may be used
// from any thread. The backend paths (DoBackend_*) run on the caller's
// thread, any thread, each change under the lock of its resource.
#ifndef ORBEL_ZSCHEMA_H
#define ORBEL_ZSCHEMA_H

#include <hiredis/hiredis.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Orbel_Mutex.h"
#include "OrbelDefs.h"

namespace Orbel {

class Backend_MethodContext;
class HTTP_MethodContext;
class ZApplication;
class ZBackendImpl;
class ZObject;
class ZResource;
class ZTask;
class ZUserInputTemplate;
struct sCRUD_ReqData;

class ZSchema {
public:
    // CRUD-queue flag bits: the methods the schema serves through a queue.
    static constexpr uint32_t CRUDQ_CREATE = 1u << eReqCreate;
    static constexpr uint32_t CRUDQ_READ = 1u << eReqRead;
    static constexpr uint32_t CRUDQ_UPDATE = 1u << eReqUpdate;
    static constexpr uint32_t CRUDQ_DELETE = 1u << eReqDelete;
    static constexpr uint32_t CRUDQ_ACTION = 1u << eReqAction;
    static constexpr uint32_t CRUDQ_ALL = 0x1Fu;

    // An action's handler, registered by action name (the part of the target
    // URI behind "/Actions/", e.g. "ComputerSystem.Reset").
    typedef eRtCode (*ActionCallback_t)(HTTP_MethodContext* ctx);
    // Fills the answer of a request whose resource stayed locked.
    typedef void (*FillRetStatusWhenLocked_t)(HTTP_MethodContext* ctx, ZResource* resource);

    // `name` is the Redfish type name (e.g. "ComputerSystem"), `version` its
    // schema version (e.g. "v1_20_0", may be empty), `crudqFlag` the methods
    // served, `memberSchemaName` the schema of a collection's members (empty
    // for non-collection schemas).
    ZSchema(const std::string& name, const std::string& version, uint32_t crudqFlag = CRUDQ_READ,
            const std::string& memberSchemaName = std::string());
    virtual ~ZSchema();

    ZSchema(const ZSchema&) = delete;
    ZSchema& operator=(const ZSchema&) = delete;

    // Registers the schema with the application (which then owns it).
    // Returns 2 when a schema of the same name is already registered; the
    // caller then still owns the object and must delete it.
    eRtCode Init();

    // Staged initialisation, driven by the application. The base
    // InitialBackendImpl gives the schema a plain ZBackendImpl unless it has
    // one; the other base versions do nothing.
    virtual eRtCode InitialBackendImpl();
    virtual eRtCode PreCorvelReady_InitialResources();
    virtual eRtCode PostCorvelReady_InitialResources();
    virtual eRtCode PreCorvelReady_InitResourceData(ZResource* resource);
    virtual eRtCode PostCorvelReady_InitResourceData(ZResource* resource);
    virtual eRtCode PostCorvelReady_AfterTreatment();

    // Request handlers, called on a dispatcher thread with the target
    // resource locked. A result other than 0 is a failure: unless the handler
    // set an error status itself, the answer becomes "EXCEPTION" with
    // "Base.1.12.InternalError". The privilege checks default to the common
    // rule (CRUDPrivilegesGranted); a refusal answers "FORBIDDEN" with
    // "Base.1.12.InsufficientPrivilege". READ defaults to success (the stored
    // content is the answer); CREATE, UPDATE and DELETE default to
    // "NOT_ALLOWED" with "ExtendedError.1.2.MethodNotAllowed".
    virtual eRtCode HttpMethod_CREATE_CheckPrivileges(HTTP_MethodContext* ctx);
    virtual eRtCode HttpMethod_READ_CheckPrivileges(HTTP_MethodContext* ctx);
    virtual eRtCode HttpMethod_UPDATE_CheckPrivileges(HTTP_MethodContext* ctx);
    virtual eRtCode HttpMethod_DELETE_CheckPrivileges(HTTP_MethodContext* ctx);
    virtual eRtCode HttpMethod_ACTION_CheckPrivileges(HTTP_MethodContext* ctx);
    virtual eRtCode HttpMethod_CREATE_Validation(HTTP_MethodContext* ctx);
    virtual eRtCode HttpMethod_UPDATE_Validation(HTTP_MethodContext* ctx);
    virtual eRtCode HttpMethod_CREATE(HTTP_MethodContext* ctx);
    virtual eRtCode HttpMethod_READ(HTTP_MethodContext* ctx);
    virtual eRtCode HttpMethod_UPDATE(HTTP_MethodContext* ctx);
    virtual eRtCode HttpMethod_DELETE(HTTP_MethodContext* ctx);

    // Backend-originated changes, run by DoBackend_* on the caller's thread
    // with `arg` passed through. A create records its new resources in the
    // context, each locked by the handler until the path unlocks it; an
    // update or delete finds its resource locked in GetTargetResource().
    // The base versions change nothing and fail (2).
    virtual eRtCode BackendMethod_CREATE(Backend_MethodContext* ctx, void* arg);
    virtual eRtCode BackendMethod_UPDATE(Backend_MethodContext* ctx, void* arg);
    virtual eRtCode BackendMethod_DELETE(Backend_MethodContext* ctx, void* arg);

    // The answer for a resource that stays locked by another request, and
    // how long (ms) to keep retrying after the first 3 s: by default
    // FillRetStatusWhenLocked ("UNAVAILABLE" with "Base.1.12.ResourceInUse")
    // and kLockWaitBudgetMs.
    virtual FillRetStatusWhenLocked_t GetCallBack_FillRetStatusWhenLocked(ZResource* resource,
                                                                         int& waitBudgetMs);
    static void FillRetStatusWhenLocked(HTTP_MethodContext* ctx, ZResource* resource);
    static constexpr int kLockWaitBudgetMs = 2000;

    const std::string& GetName() const { return mName; }
    const std::string& GetVersion() const { return mVersion; }
    const std::string& GetMemberSchemaName() const { return mMemberSchemaName; }
    // The type name printed in "@odata.type" and "@odata.context"; defaults
    // to the schema name.
    std::string GetOdataPrintName();
    void SetOdataPrintName(const std::string& printName);
    uint32_t GetCRUDqFlag() const { return mCRUDqFlag; }
    // The methods whose requests run as tasks (same bits as the CRUD flag).
    uint32_t GetTaskFlag() const { return mTaskFlag; }
    void SetTaskFlag(uint32_t methods) { mTaskFlag = methods; }
    // Resources of this schema publish an empty "@odata.etag" when on.
    bool IsEtagEnabled() const { return mEtagEnabled; }
    void SetEtagEnabled(bool on) { mEtagEnabled = on; }
    // The channel a dispatcher role subscribes to (see docs/wire-protocol.md).
    std::string GetCRUDqChannel(eReqMethod method);

    // Resource map, by resource name.
    eRtCode AddResource(ZResource* resource);
    eRtCode DelResource(const std::string& name);
    // As DelResource(name), but only when the entry designates `expected`
    // (a resource refused for a duplicate name must not remove the first).
    eRtCode DelResource(const std::string& name, ZResource* expected);
    ZResource* GetResource(const std::string& name);
    std::map<std::string, ZResource*> GetResourceList();  // a copy
    size_t GetResourceNum();
    // Retires every resource of the schema (destroy mode delete).
    void DestroyAllResources();
    std::string DumpResources();

    // Action callbacks by action name. Add refuses a null callback and a name
    // already present (2).
    eRtCode AddActionCallback(const std::string& actionName, ActionCallback_t callback);
    eRtCode DelActionCallback(const std::string& actionName);
    ActionCallback_t GetActionCallback(const std::string& actionName);

    // Asynchronous uploads (a file pushed with "&&TransferMethod"): the work
    // function that runs an upload to `resourceURI` as a task, kept under
    // the name "<schema>_AUDTask_<resource URI>" (a second registration
    // replaces the first). The dispatcher hands such a request to
    // HTTP_MethodContext::CreateTask instead of the method's handler.
    // Register refuses a null function or an empty URI (13); Get returns 0
    // with the function and its argument, or 5.
    typedef eRtCode (*AsyncUploadTask_t)(ZTask* task);
    eRtCode RegisterAsyncUploadCallback(const std::string& resourceURI, AsyncUploadTask_t run,
                                        void* arg);
    eRtCode GetAsyncUploadTaskParam(ZResource* resource, AsyncUploadTask_t& run, void*& arg);

    // User-input templates by name: a resource's name, or "default" for
    // every resource without its own (ZSchema_RequestPaths.cpp). The schema
    // owns them; a replaced template lives on until the last request that
    // checks a body against it is done. Add refuses null (13).
    eRtCode AddUserInputTemplate(const std::string& name, ZUserInputTemplate* tmpl);
    // Loads "<template dir><fileName>.dat" as the template `name`. 0, or
    // the load's code (logged by the loader; nothing is added then).
    eRtCode LoadUserInputTemplate(const std::string& name, const std::string& fileName,
                                  bool multiExtInfoMode = false);
    // The template of `resource` (by its name), else "default"; null when
    // neither exists. Valid while the template stays registered.
    ZUserInputTemplate* GetUserInputTemplate(ZResource* resource);
    std::string DumpUserInputTemplate();

    // The schema's backend: made by the base InitialBackendImpl (a schema
    // with a backend class of its own sets one there instead), owned by the
    // schema and deleted with it. Null before the pre-ready stage.
    ZBackendImpl* GetBackendImpl() const { return mBackendImpl.load(); }
    // Takes `impl` over and deletes the backend it replaces. Meant for
    // InitialBackendImpl, before requests and backend changes run.
    void SetBackendImpl(ZBackendImpl* impl);

    // ---------------------------------------------------------------------
    // Request paths (dispatcher threads). Each returns 0, or 2 when the path
    // ended early or the handler failed; the answer is in the context.
    // ---------------------------------------------------------------------
    eRtCode DoHttpMethodRead(HTTP_MethodContext* ctx);
    eRtCode DoHttpMethodCreate(HTTP_MethodContext* ctx);
    eRtCode DoHttpMethodUpdate(HTTP_MethodContext* ctx);
    eRtCode DoHttpMethodDelete(HTTP_MethodContext* ctx);
    eRtCode DoHttpMethodAction(HTTP_MethodContext* ctx);
    // Assigns the request's target schema and resource to `ctx`, `target`
    // being the node found at the request's resource URI: a resource serves
    // itself, except that a create on a collection goes to the schema of its
    // members; a JSON object is served by the resource that holds it.
    // Returns 0; 5 when the target cannot be served (no such resource);
    // 13 for a create on a resource that is not a collection (target
    // assigned, nothing is created there); 2 when a schema is missing (a
    // fault of the plug-in). Logged.
    eRtCode CRUDRequest_GetTargetResource(sCRUD_ReqData* req, HTTP_MethodContext* ctx,
                                          ZObject* target);

    // ---------------------------------------------------------------------
    // Backend paths (ZSchema_Backend.cpp), any thread. Each builds a
    // Backend_MethodContext, runs the handler and destroys the context.
    // Create: 0; 2 when the handler failed or threw, or made nothing. The
    // new instances are unlocked (one thrown out of the handler is retired
    // as well: it was never finished). Update and delete: the resource of
    // that name in this schema, locked around the handler (waiting up to
    // kBackendLockWaitMs): 0; 5 when there is no such resource; RT_BUSY
    // when it stays locked; 2 when the handler failed or threw. Logged.
    // ---------------------------------------------------------------------
    eRtCode DoBackend_Create(void* arg);
    eRtCode DoBackend_Update(const std::string& name, void* arg);
    eRtCode DoBackend_Delete(const std::string& name, void* arg);
    static constexpr int kBackendLockWaitMs = 5000;

    // ---------------------------------------------------------------------
    // Dispatch (ZSchema_Dispatcher.cpp).
    // ---------------------------------------------------------------------
    // HGETALL of `key` and the pure parse (CRUDParseReqFields), with the
    // record's dump logged. 0; 3 for a missing or empty hash; 2 when the
    // store cannot be read ("Failed to call RedisHashGetAll( %s )\n").
    eRtCode CRUDParserReqMessage(redisContext* c, const std::string& key, sCRUD_ReqData& req);
    // Starts the dispatcher threads of the roles the schema serves (once;
    // the application calls it after the pre-ready stage). Each thread opens
    // its own connections, retrying every 500 ms until the store answers.
    // Returns once every thread listens (a request published earlier would
    // be lost), or after kSubscribeWaitMs when the store does not answer.
    void _InitCRUDqDispather();
    // Publishes "QUIT" on each of the schema's channels and joins its
    // dispatcher threads.
    void WaitThreadsExit();
    size_t GetDispatcherNum();
    // One access-log line for a request (isResponse false) or its answer.
    void PrintAccessLog(bool isResponse, const sCRUD_ReqData* req, HTTP_MethodContext* ctx);
    // The thread function of one role (an eReqMethod: read, update, or
    // create for the create/action/delete role).
    static void CRUDRequestDispatcher(int role, ZSchema* schema);
    static constexpr int kSubscribeWaitMs = 2000;

protected:
    // Constant after construction.
    const std::string mName;
    const std::string mVersion;
    const std::string mMemberSchemaName;
    const uint32_t mCRUDqFlag;

    // No lock: the plug-in sets these in its schema's constructor or pre-ready
    // stage, before the dispatchers start.
    uint32_t mTaskFlag = 0;
    bool mEtagEnabled = false;

private:
    // Dispatch internals (ZSchema_Dispatcher.cpp).
    std::vector<std::string> _RoleChannels(int role);
    void _DispatchLoop(int role);
    void _ServeRequest(redisContext* c, const std::string& channel, const std::string& key);
    void _RunHandler(HTTP_MethodContext& ctx, sCRUD_ReqData& req, ZResource* target);
    // The template step of create, update and action (see ZSchema_RequestPaths.cpp).
    eRtCode _CheckUserInput(HTTP_MethodContext* ctx, const char* method);
    // Marks the request's SecureProperty values (for the access line) once
    // its target is known.
    void _AssignUserInputFlags(HTTP_MethodContext* ctx);
    eRtCode _RefusePrivileges(HTTP_MethodContext* ctx);

    // The common part of DoBackend_Update and DoBackend_Delete.
    eRtCode _DoBackendOnResource(int method, const std::string& name, void* arg);

    // Retires every resource that names this schema as owner (the mapped
    // ones and any refused for a duplicate name), so none outlives it.
    void _RetireOwnedResources();

    // The application whose list holds this schema (set by a successful
    // Init); the destructor takes the schema off that list.
    // No lock: set on the main thread before the dispatchers start.
    ZApplication* mOwnerApp = nullptr;

    Mutex mMutex;
    std::string mOdataPrintName GUARDED_BY(mMutex);
    // Keyed by views of the resources' own names (constant while listed:
    // a resource leaves the map when it is retired or deleted). Hashed, as
    // the application's registry; what lists them sorts its own copy.
    std::unordered_map<std::string_view, ZResource*> mResources GUARDED_BY(mMutex);

    Mutex mActionMutex;
    std::map<std::string, ActionCallback_t> mActionCallbacks GUARDED_BY(mActionMutex);
    std::map<std::string, std::pair<AsyncUploadTask_t, void*>> mAsyncUploadTasks
        GUARDED_BY(mActionMutex);
    std::string _AsyncUploadTaskName(const std::string& resourceURI) const;
    std::atomic<ZBackendImpl*> mBackendImpl{nullptr};  // owned

    Mutex mTemplateMutex;
    std::map<std::string, std::shared_ptr<ZUserInputTemplate>> mUserInputTemplates
        GUARDED_BY(mTemplateMutex);
    std::shared_ptr<ZUserInputTemplate> _FindUserInputTemplate(ZResource* resource);

    // Dispatcher threads: started and joined by the application's thread.
    Mutex mDispatchMutex;
    CondVar mDispatchCv;  // a thread listens for the first time
    std::vector<std::thread> mDispatchers GUARDED_BY(mDispatchMutex);
    size_t mListening GUARDED_BY(mDispatchMutex) = 0;
    std::atomic<bool> mDispatchStop{false};
};

}  // namespace Orbel

#endif  // ORBEL_ZSCHEMA_H
