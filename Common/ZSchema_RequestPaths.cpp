// ZSchema: the request paths that a dispatcher runs for each method, the
// return-status rule, the user-input templates and their check, target
// resolution and the action callbacks.
#include "CRUDRequest.h"
#include "HTTP_MethodContext.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"
#include "ZUserInputTemplate.h"

namespace Orbel {

namespace {

// The return-status rule: a failed handler that did not answer with an
// error itself answers "EXCEPTION" with "Base.1.12.InternalError".
void AutoSet500(HTTP_MethodContext* ctx, const char* handler) {
    if (ctx->GetReturnStatus() > HTTP_RT_OK_EMPTY) return;
    ZLOGM("ZComLib", eZLogDebug,
          "Auto set Http returnStatus to '500' due to get failed from %s() function.\n", handler);
    ctx->SetReturnStatus(HTTP_RT_EXCEPTION, ctx->NewExtendedInfo(RESP_Base_InternalError));
}

}  // namespace

eRtCode ZSchema::_RefusePrivileges(HTTP_MethodContext* ctx) {
    if (ctx->GetReturnStatus() <= HTTP_RT_OK_EMPTY) {
        ctx->SetReturnStatus(HTTP_RT_FORBIDDEN,
                             ctx->NewExtendedInfo(RESP_Base_InsufficientPrivilege));
    }
    return RT_FAILURE;
}

eRtCode ZSchema::_CheckUserInput(HTTP_MethodContext* ctx, const char* method) {
    // The body is checked against the template of the schema that serves
    // the request (for a create, the members' schema) and of its resource.
    ZSchema* schema = ctx->GetTargetSchema() != nullptr ? ctx->GetTargetSchema() : this;
    std::shared_ptr<ZUserInputTemplate> tmpl =
        schema->_FindUserInputTemplate(ctx->GetTargetResource());
    if (tmpl == nullptr) {
        // A plug-in fault: without a template no body is let through.
        ZLOG(eZLogError, "Schema[%s]: no user input template for %s on [%s].\n",
             schema->GetName().c_str(), method, ctx->GetReqData()->targetUri.c_str());
    }
    return ctx->VerifyUserInputData(tmpl.get()) == RT_SUCCESS ? RT_SUCCESS : RT_FAILURE;
}

void ZSchema::_AssignUserInputFlags(HTTP_MethodContext* ctx) {
    if (ctx->GetUserInCache().empty() || ctx->GetTargetSchema() == nullptr) return;
    std::shared_ptr<ZUserInputTemplate> tmpl =
        ctx->GetTargetSchema()->_FindUserInputTemplate(ctx->GetTargetResource());
    ctx->AssignUsrInPptFlagFromUsrInTemplate(tmpl.get());
}

eRtCode ZSchema::DoHttpMethodRead(HTTP_MethodContext* ctx) {
    if (HttpMethod_READ_CheckPrivileges(ctx) != RT_SUCCESS) return _RefusePrivileges(ctx);
    eRtCode rt = HttpMethod_READ(ctx);
    if (rt != RT_SUCCESS) AutoSet500(ctx, "HttpMethod_READ");
    ZResource* target = ctx->GetTargetResource();
    if (target != nullptr) {
        target->UpdateTtlTable();
        if (target->GetType() == ZObject::eResourceCollection &&
            (target->Attributes() & ZResource::RES_ATTR_MemberCount) != 0) {
            static_cast<ZResourceCollection*>(target)->UpdateMemberCount();
        }
    }
    return rt == RT_SUCCESS ? RT_SUCCESS : RT_FAILURE;
}

eRtCode ZSchema::DoHttpMethodCreate(HTTP_MethodContext* ctx) {
    if (HttpMethod_CREATE_CheckPrivileges(ctx) != RT_SUCCESS) return _RefusePrivileges(ctx);
    if (_CheckUserInput(ctx, "CREATE") != RT_SUCCESS) return RT_FAILURE;
    if (HttpMethod_CREATE_Validation(ctx) != RT_SUCCESS) {
        if (ctx->GetReturnStatus() <= HTTP_RT_OK_EMPTY) {
            ctx->SetReturnStatus(HTTP_RT_FAILURE, ctx->NewExtendedInfo(RESP_ExtErr_BadRequest));
        }
        return RT_FAILURE;
    }
    if (HttpMethod_CREATE(ctx) != RT_SUCCESS) {
        AutoSet500(ctx, "HttpMethod_CREATE");
        return RT_FAILURE;
    }
    if (ctx->GetReturnStatus() <= HTTP_RT_OK_EMPTY) ctx->SetReturnStatus(HTTP_RT_OK);
    return RT_SUCCESS;
}

eRtCode ZSchema::DoHttpMethodUpdate(HTTP_MethodContext* ctx) {
    if (HttpMethod_UPDATE_CheckPrivileges(ctx) != RT_SUCCESS) return _RefusePrivileges(ctx);
    if (_CheckUserInput(ctx, "UPDATE") != RT_SUCCESS) return RT_FAILURE;
    if (HttpMethod_UPDATE_Validation(ctx) != RT_SUCCESS) {
        if (ctx->GetReturnStatus() <= HTTP_RT_OK_EMPTY) {
            ctx->SetReturnStatus(HTTP_RT_FAILURE, ctx->NewExtendedInfo(RESP_ExtErr_BadRequest));
        }
        return RT_FAILURE;
    }
    eRtCode rt = HttpMethod_UPDATE(ctx);
    if (rt != RT_SUCCESS) {
        AutoSet500(ctx, "HttpMethod_UPDATE");
    } else if (ctx->GetReturnStatus() <= HTTP_RT_OK_EMPTY) {
        ctx->SetReturnStatus(HTTP_RT_OK);
    }
    if (ctx->GetTargetResource() != nullptr) ctx->GetTargetResource()->UpdateTtlTable();
    return rt == RT_SUCCESS ? RT_SUCCESS : RT_FAILURE;
}

eRtCode ZSchema::DoHttpMethodDelete(HTTP_MethodContext* ctx) {
    if (HttpMethod_DELETE_CheckPrivileges(ctx) != RT_SUCCESS) return _RefusePrivileges(ctx);
    if (HttpMethod_DELETE(ctx) != RT_SUCCESS) {
        // One text for update and delete.
        AutoSet500(ctx, "HttpMethod_UPDATE");
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode ZSchema::DoHttpMethodAction(HTTP_MethodContext* ctx) {
    if (HttpMethod_ACTION_CheckPrivileges(ctx) != RT_SUCCESS) return _RefusePrivileges(ctx);
    if (_CheckUserInput(ctx, "ACTION") != RT_SUCCESS) return RT_FAILURE;
    const std::string action = ctx->GetTargetActionName();
    ActionCallback_t callback = GetActionCallback(action);
    if (callback == nullptr) {
        ZLOG(eZLogError, "Failed to get action callback by ActionName[%s].\n", action.c_str());
        ctx->SetReturnStatus(HTTP_RT_FAILURE,
                             ctx->NewExtendedInfo(RESP_Base_ActionNotSupported, action.c_str()));
        return RT_FAILURE;
    }
    if (callback(ctx) != RT_SUCCESS) {
        AutoSet500(ctx, "ActionCallback");
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

// ---------------------------------------------------------------------------
// User-input templates
// ---------------------------------------------------------------------------

eRtCode ZSchema::AddUserInputTemplate(const std::string& name, ZUserInputTemplate* tmpl) {
    if (tmpl == nullptr || name.empty()) {
        ZLOG(eZLogError, "Schema[%s]: template[%s] needs a name and a template.\n", mName.c_str(),
             name.c_str());
        return RT_INVALID_ARG;
    }
    std::shared_ptr<ZUserInputTemplate> added(tmpl);
    std::shared_ptr<ZUserInputTemplate> replaced;
    {
        MutexLock lock(mTemplateMutex);
        replaced.swap(mUserInputTemplates[name]);
        mUserInputTemplates[name] = added;
    }
    // `replaced` goes here, or with the last request still checking a body
    // against it.
    return RT_SUCCESS;
}

eRtCode ZSchema::LoadUserInputTemplate(const std::string& name, const std::string& fileName,
                                       bool multiExtInfoMode) {
    std::string file = fileName;
    auto* tmpl = new ZUserInputTemplate(this, &file, multiExtInfoMode);
    const eRtCode rt = tmpl->GetLoadResult();
    if (rt != RT_SUCCESS) {
        delete tmpl;
        return rt;
    }
    return AddUserInputTemplate(name, tmpl);
}

std::shared_ptr<ZUserInputTemplate> ZSchema::_FindUserInputTemplate(ZResource* resource) {
    MutexLock lock(mTemplateMutex);
    if (resource != nullptr) {
        auto it = mUserInputTemplates.find(resource->GetName());
        if (it != mUserInputTemplates.end()) return it->second;
    }
    auto it = mUserInputTemplates.find("default");
    return it != mUserInputTemplates.end() ? it->second : nullptr;
}

ZUserInputTemplate* ZSchema::GetUserInputTemplate(ZResource* resource) {
    if (resource == nullptr) {
        ZLOG(eZLogError, "[%s]: resource obj is NULL.\n", mName.c_str());
    }
    return _FindUserInputTemplate(resource).get();
}

std::string ZSchema::DumpUserInputTemplate() {
    std::string text = "Dump " + mName + " user input template list:\n";
    MutexLock lock(mTemplateMutex);
    for (const auto& entry : mUserInputTemplates) {
        char line[64];
        snprintf(line, sizeof(line), "  %p = ", static_cast<void*>(entry.second.get()));
        text += line + entry.first + "\n";
    }
    ZLOGM("ZComLib", eZLogRaw, "%s", text.c_str());
    return text;
}

// ---------------------------------------------------------------------------
// Target resolution
// ---------------------------------------------------------------------------

eRtCode ZSchema::CRUDRequest_GetTargetResource(sCRUD_ReqData* req, HTTP_MethodContext* ctx,
                                               ZObject* target) {
    if (req == nullptr || ctx == nullptr || target == nullptr) return RT_FAILURE;
    ZApplication* app = zApp;
    const std::string jpath = target->GetJPath();
    ZResource* resource = nullptr;
    if (target->IsResourceType()) {
        resource = static_cast<ZResource*>(target);
    } else if (target->GetType() == ZObject::eJsonObject) {
        resource = target->GetOwnedByResource();
        if (resource == nullptr) {
            ZLOG(eZLogError, "Failed to get parent resource by JPath[%s].\n", jpath.c_str());
            return RT_NO_SUCH_KEY;
        }
    } else {
        ZLOG(eZLogError, "Target[%s] is not a ZResource or ZJsonObject.\n", jpath.c_str());
        return RT_NO_SUCH_KEY;
    }

    ZSchema* schema = resource->OwnedBySchema();
    if (schema == nullptr) {
        ZLOG(eZLogError, "Get targetSchema from resource[%s] is NULL.\n", jpath.c_str());
        return RT_FAILURE;
    }
    if (req->method == eReqCreate) {
        // A new member is made by the schema of the members.
        if (resource->GetType() != ZObject::eResourceCollection) {
            ZLOG(eZLogError, "Resource[%s] is not a Collection.\n", jpath.c_str());
            ctx->AssignTargetSchema(schema);
            ctx->AssignTargetResource(resource);
            return RT_INVALID_ARG;
        } else {
            const std::string& memberName = schema->GetMemberSchemaName();
            ZSchema* member = app != nullptr ? app->GetSchemaObj(memberName) : nullptr;
            if (member == nullptr) {
                ZLOG(eZLogError, "Failed to GetSchemaObj by MemberSchemaName[%s]\n",
                     memberName.c_str());
                ZLOG(eZLogError, "Failed to get target Schema object from Resource[%s].\n",
                     jpath.c_str());
                return RT_FAILURE;
            }
            schema = member;
        }
    }
    ctx->AssignTargetSchema(schema);
    ctx->AssignTargetResource(resource);
    return RT_SUCCESS;
}

// ---------------------------------------------------------------------------
// Action callbacks
// ---------------------------------------------------------------------------

eRtCode ZSchema::AddActionCallback(const std::string& actionName, ActionCallback_t callback) {
    if (callback == nullptr || actionName.empty()) {
        ZLOG(eZLogError, "Schema[%s]: action[%s] needs a name and a callback.\n", mName.c_str(),
             actionName.c_str());
        return RT_INVALID_ARG;
    }
    MutexLock lock(mActionMutex);
    if (!mActionCallbacks.emplace(actionName, callback).second) {
        ZLOG(eZLogError, "Schema[%s]: action[%s] has a callback already.\n", mName.c_str(),
             actionName.c_str());
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode ZSchema::DelActionCallback(const std::string& actionName) {
    MutexLock lock(mActionMutex);
    return mActionCallbacks.erase(actionName) != 0 ? RT_SUCCESS : RT_FAILURE;
}

ZSchema::ActionCallback_t ZSchema::GetActionCallback(const std::string& actionName) {
    MutexLock lock(mActionMutex);
    auto it = mActionCallbacks.find(actionName);
    return it != mActionCallbacks.end() ? it->second : nullptr;
}

// ---------------------------------------------------------------------------
// Asynchronous-upload tasks
// ---------------------------------------------------------------------------

std::string ZSchema::_AsyncUploadTaskName(const std::string& resourceURI) const {
    return mName + "_AUDTask_" + resourceURI;
}

eRtCode ZSchema::RegisterAsyncUploadCallback(const std::string& resourceURI, AsyncUploadTask_t run,
                                             void* arg) {
    if (run == nullptr || resourceURI.empty()) {
        ZLOG(eZLogError, "Schema[%s]: an upload task needs a resource and a work function.\n",
             mName.c_str());
        return RT_INVALID_ARG;
    }
    MutexLock lock(mActionMutex);
    mAsyncUploadTasks[_AsyncUploadTaskName(resourceURI)] = std::make_pair(run, arg);
    return RT_SUCCESS;
}

eRtCode ZSchema::GetAsyncUploadTaskParam(ZResource* resource, AsyncUploadTask_t& run, void*& arg) {
    if (resource == nullptr) return RT_INVALID_ARG;
    MutexLock lock(mActionMutex);
    auto it = mAsyncUploadTasks.find(_AsyncUploadTaskName(resource->GetJPath()));
    if (it == mAsyncUploadTasks.end()) return RT_NO_SUCH_KEY;
    run = it->second.first;
    arg = it->second.second;
    return RT_SUCCESS;
}

}  // namespace Orbel
