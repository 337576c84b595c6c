// The context of a create, update or delete that starts in the backend (the
// plug-in's own code reacting to a change in the managed system) rather than
// in a front-end request.
//
// ZSchema::DoBackend_Create/Update/Delete make one, hand it to the schema's
// BackendMethod_* handler and destroy it afterwards; a handler never makes
// or deletes one itself. A create handler records here the resources it
// made (AssignNewInstance for one, AppendNewInstance for several); the path
// unlocks each of them when the handler is done. There is no request, no
// user input, no return status and no messages: nobody waits for an answer.
//
// Threads: a context belongs to the one thread that runs the backend
// operation. Its store connection is its own (opened by the constructor,
// closed by the destructor), so it never competes with a dispatcher
// thread's. Misuse (a null instance, a second AssignNewInstance) is logged
// at ERROR with the owning schema's name and changes nothing.
#ifndef ORBEL_BACKEND_METHODCONTEXT_H
#define ORBEL_BACKEND_METHODCONTEXT_H

#include <hiredis/hiredis.h>

#include <set>

namespace Orbel {

class ZBackendImpl;
class ZResource;
class ZSchema;

class Backend_MethodContext {
public:
    // `schema` becomes owner and target schema, `resource` (may be null) the
    // target resource; neither is owned. Opens the context's connection; a
    // failed connection is logged and leaves GetRedisContext() null (the
    // store wrappers then connect by themselves).
    Backend_MethodContext(ZSchema* schema, ZResource* resource);
    // Closes the connection. The new instances are the schema's, not the
    // context's: they stay.
    virtual ~Backend_MethodContext();

    Backend_MethodContext(const Backend_MethodContext&) = delete;
    Backend_MethodContext& operator=(const Backend_MethodContext&) = delete;

    // The context's own connection (owned by the context; null when the
    // store could not be reached). Use it for the applies of the handler.
    redisContext* GetRedisContext() const { return mRedisCtx; }
    ZSchema* GetOwnerSchema() const { return mOwnerSchema; }
    ZSchema* GetTargetSchema() const { return mTargetSchema; }
    // The resource an update or delete is about; null for a create.
    ZResource* GetTargetResource() const { return mTargetResource; }
    // The resources a create handler recorded, ordered by address.
    const std::set<ZResource*>& GetNewInstances() const { return mNewInstances; }

    // The target schema's backend; null (logged) without a target schema.
    ZBackendImpl* GetBackendImpl();

    // For a handler that makes one resource: recorded only while no other
    // is (a second call is refused, logged, and changes nothing).
    void AssignNewInstance(ZResource* instance);
    // For a handler that makes several: recorded once however often given.
    void AppendNewInstance(ZResource* instance);

private:
    const char* _OwnerName() const;

    // Fields in this order: connection, owner, target schema, target
    // resource, new instances.
    redisContext* mRedisCtx = nullptr;
    ZSchema* const mOwnerSchema;
    ZSchema* mTargetSchema;
    ZResource* mTargetResource;
    std::set<ZResource*> mNewInstances;
};

}  // namespace Orbel

#endif  // ORBEL_BACKEND_METHODCONTEXT_H
