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
// Threads: the staged hooks run on the main thread; the resource map has its
// own mutex and may be used from any thread.
#ifndef ORBEL_ZSCHEMA_H
#define ORBEL_ZSCHEMA_H

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "OrbelDefs.h"

namespace Orbel {

class ZApplication;
class ZResource;

class ZSchema {
public:
    // CRUD-queue flag bits: the methods the schema serves through a queue.
    static constexpr uint32_t CRUDQ_CREATE = 1u << eReqCreate;
    static constexpr uint32_t CRUDQ_READ = 1u << eReqRead;
    static constexpr uint32_t CRUDQ_UPDATE = 1u << eReqUpdate;
    static constexpr uint32_t CRUDQ_DELETE = 1u << eReqDelete;
    static constexpr uint32_t CRUDQ_ACTION = 1u << eReqAction;
    static constexpr uint32_t CRUDQ_ALL = 0x1Fu;

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

    // Staged initialisation, driven by the application. Base versions do nothing.
    virtual eRtCode InitialBackendImpl();
    virtual eRtCode PreCorvelReady_InitialResources();
    virtual eRtCode PostCorvelReady_InitialResources();
    virtual eRtCode PreCorvelReady_InitResourceData(ZResource* resource);
    virtual eRtCode PostCorvelReady_InitResourceData(ZResource* resource);
    virtual eRtCode PostCorvelReady_AfterTreatment();

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

    // Publishes "QUIT" on each of the schema's channels and joins its
    // dispatcher threads (none yet: request dispatch comes with the queues).
    void WaitThreadsExit();

protected:
    // Constant after construction.
    const std::string mName;
    const std::string mVersion;
    const std::string mMemberSchemaName;
    const uint32_t mCRUDqFlag;

    uint32_t mTaskFlag = 0;
    bool mEtagEnabled = false;

private:
    // Retires every resource that names this schema as owner (the mapped
    // ones and any refused for a duplicate name), so none outlives it.
    void _RetireOwnedResources();

    // The application whose list holds this schema (set by a successful
    // Init); the destructor takes the schema off that list.
    ZApplication* mOwnerApp = nullptr;

    std::mutex mMutex;  // guards mOdataPrintName and mResources
    std::string mOdataPrintName;
    std::map<std::string, ZResource*> mResources;
};

}  // namespace Orbel

#endif  // ORBEL_ZSCHEMA_H
