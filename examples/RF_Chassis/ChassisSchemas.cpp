// The three schemas of RF_Chassis (ChassisSchemas.h).
#include "ChassisSchemas.h"

#include <string>

#include "HTTP_MethodContext.h"
#include "ZApplication.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZResourceCollection.h"

using Orbel::eRtCode;
using Orbel::HTTP_MethodContext;
using Orbel::ZJsonObject;
using Orbel::ZObject;
using Orbel::ZResource;

namespace {

constexpr const char* kRootUri = "/redfish/v1/";

ZJsonObject* AddObject(ZObject* owner, const char* name) {
    auto* obj = new ZJsonObject(owner, name);
    if (obj->GetJPath().empty()) {
        obj->ObjDestroy(ZObject::eDestroyDelete, false);
        return nullptr;
    }
    owner->HashWrite(name, obj);
    return obj;
}

}  // namespace

// The root's schema name and version are RF_Root's: the node writes the
// root's "@odata.type", which must not change when this process starts.
SharedRootSchema::SharedRootSchema() : ZSchema("ServiceRoot", "v1_15_0", 0) {}

eRtCode SharedRootSchema::PreCorvelReady_InitialResources() {
    auto* root = new ZResource(nullptr, this, kRootUri, "", ZObject::ATTR_MultiBackend);
    if (root->GetJPath().empty()) {
        root->ObjDestroy(ZObject::eDestroyDelete, false);
        return Orbel::RT_FAILURE;
    }
    return Orbel::RT_SUCCESS;
}

ChassisCollectionSchema::ChassisCollectionSchema()
    : ZSchema("ChassisCollection", "", CRUDQ_READ, "Chassis") {
    LoadUserInputTemplate("default", "ChassisCollection");
}

eRtCode ChassisCollectionSchema::PreCorvelReady_InitialResources() {
    ZResource* root = Orbel::zApp->GetResource(kRootUri);
    if (root == nullptr) return Orbel::RT_FAILURE;
    auto* chassis = new Orbel::ZResourceCollection(root, this, "Chassis");
    if (chassis->GetJPath().empty()) {
        chassis->ObjDestroy(ZObject::eDestroyDelete, false);
        return Orbel::RT_FAILURE;
    }
    chassis->HashWrite("Name", "Chassis Collection");
    // The link in the root is this process's field of the shared hash.
    root->HashWrite("Chassis", chassis, true);
    if (root->ApplyRedisChanges(false) != Orbel::RT_SUCCESS) return Orbel::RT_FAILURE;
    return chassis->ApplyRedisChanges();
}

ChassisSchema::ChassisSchema()
    : ZSchema("Chassis", "v1_28_0", CRUDQ_READ | CRUDQ_UPDATE | CRUDQ_ACTION) {
    AddActionCallback("Chassis.Reset", ActionReset);
    LoadUserInputTemplate("default", "Chassis");
}

eRtCode ChassisSchema::PreCorvelReady_InitialResources() {
    ZResource* collection = Orbel::zApp->GetResource(std::string(kRootUri) + "Chassis");
    if (collection == nullptr || collection->GetType() != ZObject::eResourceCollection) {
        return Orbel::RT_FAILURE;
    }
    auto* members = static_cast<Orbel::ZResourceCollection*>(collection);
    auto* chassis = new ZResource(members, this, std::to_string(members->GetFreeMemberId()));
    if (chassis->GetJPath().empty()) {
        chassis->ObjDestroy(ZObject::eDestroyDelete, false);
        return Orbel::RT_FAILURE;
    }
    chassis->HashWrite("Id", chassis->GetId());
    chassis->HashWrite("Name", "Sample Chassis");
    chassis->HashWrite("ChassisType", "RackMount");
    chassis->HashWrite("Manufacturer", "Orbel Samples");
    chassis->HashWrite("AssetTag");  // null until a client sets it
    chassis->HashWrite("IndicatorLED", "Off");
    chassis->HashWrite("PowerState", "On");
    ZJsonObject* status = AddObject(chassis, "Status");
    ZJsonObject* actions = AddObject(chassis, "Actions");
    if (status == nullptr || actions == nullptr) return Orbel::RT_FAILURE;
    status->HashWrite("State", "Enabled");
    status->HashWrite("Health", "OK");
    actions->HashAppendAction(this, "#Chassis.Reset", chassis->GetJPath() + "/Actions/Chassis.Reset",
                              "Reset");
    ZObject* reset = actions->GetChild("#Chassis.Reset", true);
    if (reset == nullptr) return Orbel::RT_FAILURE;
    for (const char* type : {"On", "ForceOff", "PowerCycle"}) {
        reset->HashAppendAllowableValues("ResetType", type);
    }
    return chassis->ApplyRedisChanges();
}

// The template lets through only AssetTag (text or null) and IndicatorLED
// (Lit or Off): the handler has nothing left to check.
eRtCode ChassisSchema::HttpMethod_UPDATE(HTTP_MethodContext* ctx) {
    ZResource* chassis = ctx->GetTargetResource();
    auto tag = ctx->GetUserInCache().find("/AssetTag");
    if (tag != ctx->GetUserInCache().end()) {
        if (tag->second.type == Orbel::USRIN_NULL) {
            chassis->HashWrite("AssetTag");
        } else {
            chassis->HashWrite("AssetTag", tag->second.value);
        }
    }
    std::string led;
    if (ctx->HasUserInputData("/IndicatorLED") &&
        ctx->GetUserInputData("/IndicatorLED", led) == Orbel::RT_SUCCESS) {
        chassis->HashWrite("IndicatorLED", led);
    }
    return chassis->ApplyRedisChanges(true, ctx->GetRedisContext());
}

eRtCode ChassisSchema::ActionReset(HTTP_MethodContext* ctx) {
    std::string type = "On";
    if (ctx->HasUserInputData("/ResetType")) ctx->GetUserInputData("/ResetType", type);
    if (type != "On" && type != "ForceOff" && type != "PowerCycle") {
        ctx->SetReturnStatus(Orbel::HTTP_RT_FAILURE,
                             ctx->NewExtendedInfo(Orbel::RESP_Base_ActionParameterNotSupported,
                                                  type.c_str(), "Reset"));
        return Orbel::RT_SUCCESS;
    }
    ZResource* chassis = ctx->GetTargetResource();
    chassis->HashWrite("PowerState", type == "ForceOff" ? "Off" : "On");
    ZLOG(eZLogInfo, "Chassis[%s] reset (%s).\n", chassis->GetJPath().c_str(), type.c_str());
    return chassis->ApplyRedisChanges(false, ctx->GetRedisContext());
}
