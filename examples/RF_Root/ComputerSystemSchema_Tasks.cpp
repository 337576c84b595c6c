// ComputerSystem: two actions that run as tasks.
//
// "Oem/Orbel.SimulatedFirmwareUpdate" stands for a firmware update: the answer is
// "202 Accepted" with a task monitor, and the work (a few steps of sleeping)
// goes on on the task's thread, announcing its progress with a message per
// step, sets the system's firmware version (its "BiosVersion") and ends with
// the new version as the task's response data.
// "Oem/Orbel.FailingSelfTest" shows a task whose work fails: its final answer is
// an error with the reason as a message.
//
// Threads: the action handlers run on the schema's dispatcher thread; the
// work functions on each task's own thread. The work changes the system
// resource only through the schema's backend path (DoBackend_Update), which
// locks the resource around the change as a request would; everything else
// it touches is the task's own.
#include <cstdint>
#include <string>

#include "Backend_MethodContext.h"
#include "ComputerSystemSchema.h"
#include "HTTP_MethodContext.h"
#include "Orbel.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZTask.h"

using Orbel::eRtCode;
using Orbel::HTTP_MethodContext;
using Orbel::ZResource;
using Orbel::ZTask;

namespace {

constexpr unsigned kStepMs = 500;
constexpr unsigned kSelfTestMs = 250;
constexpr unsigned kSteps = 4;
const char kNewVersion[] = "1.1.0";

eRtCode RunFirmwareUpdate(ZTask* task) {
    const auto steps = static_cast<unsigned>(reinterpret_cast<uintptr_t>(task->GetPrivateData()));
    const std::string id = task->GetTaskID();
    for (unsigned step = 1; step <= steps; ++step) {
        if (task->IsStopRequested()) return Orbel::RT_FAILURE;  // the plug-in is leaving
        Orbel::MyMSleep(kStepMs);
        const unsigned percent = step * 100 / (steps + 1);
        task->AddTaskMessage(Orbel::RESP_Task_TaskProgressChanged, {id, std::to_string(percent)});
        task->UpdatePercentComplete(static_cast<int>(percent));
        task->ApplyTaskChange(true);
    }
    // The system shows the new version from now on: changed through the
    // backend path, under the resource's lock, like any change that no
    // request carries.
    std::string version = kNewVersion;
    if (task->GetTargetSchema()->DoBackend_Update(task->GetTargetResource()->GetJPath(),
                                                  &version) != Orbel::RT_SUCCESS) {
        task->NewExtendedInfo(Orbel::RESP_Base_InternalError);
        return Orbel::RT_FAILURE;
    }
    Orbel::ZJsonObject* data = task->GetTaskMonitorResponseDataObject();
    data->HashWrite("FirmwareVersion", version);
    data->HashWrite("Steps", steps);
    ZLOG(eZLogInfo, "Task[%s]: simulated firmware update done in %u steps.\n",
         task->GetTaskID().c_str(), steps);
    return Orbel::RT_SUCCESS;
}

eRtCode RunFailingSelfTest(ZTask* task) {
    Orbel::MyMSleep(kSelfTestMs);
    task->UpdatePercentComplete(50);
    // The reason of the failure goes into the final answer's messages.
    task->NewExtendedInfo(Orbel::RESP_Base_ResourceInUse);
    task->SetReturnStatus(Orbel::HTTP_RT_CONFLICT);
    return Orbel::RT_FAILURE;
}

}  // namespace

eRtCode ComputerSystemSchema::BackendMethod_UPDATE(Orbel::Backend_MethodContext* ctx, void* arg) {
    ZResource* system = ctx->GetTargetResource();
    if (system == nullptr || arg == nullptr) return Orbel::RT_FAILURE;
    system->HashWrite("BiosVersion", *static_cast<const std::string*>(arg));
    return system->ApplyRedisChanges(false, ctx->GetRedisContext());
}

eRtCode ComputerSystemSchema::ActionSimulatedFirmwareUpdate(HTTP_MethodContext* ctx) {
    ctx->CreateTask(RunFirmwareUpdate, reinterpret_cast<void*>(static_cast<uintptr_t>(kSteps)));
    return Orbel::RT_SUCCESS;
}

eRtCode ComputerSystemSchema::ActionFailingSelfTest(HTTP_MethodContext* ctx) {
    ctx->CreateTask(RunFailingSelfTest, nullptr);
    return Orbel::RT_SUCCESS;
}
