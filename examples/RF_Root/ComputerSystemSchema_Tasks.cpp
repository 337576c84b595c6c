// ComputerSystem: two actions that run as tasks.
//
// "Oem/Orbel.SimulatedFirmwareUpdate" stands for a firmware update: the answer is
// "202 Accepted" with a task monitor, and the work (a few steps of sleeping)
// goes on on the task's thread, announcing its progress with a message per
// step, and ends with the new version as the task's response data.
// "Oem/Orbel.FailingSelfTest" shows a task whose work fails: its final answer is
// an error with the reason as a message.
//
// Threads: the action handlers run on the schema's dispatcher thread; the
// work functions on each task's own thread. The work touches only the task
// (its nodes and messages), never the system resource, so it takes no lock.
#include <cstdint>
#include <string>

#include "ComputerSystemSchema.h"
#include "HTTP_MethodContext.h"
#include "Orbel.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZTask.h"

using Orbel::eRtCode;
using Orbel::HTTP_MethodContext;
using Orbel::ZTask;

namespace {

constexpr unsigned kStepMs = 250;
constexpr unsigned kSteps = 4;

eRtCode RunFirmwareUpdate(ZTask* task) {
    const auto steps = static_cast<unsigned>(reinterpret_cast<uintptr_t>(task->GetPrivateData()));
    const std::string id = ZTask::TaskMsgArgText(task->GetTaskID());
    for (unsigned step = 1; step <= steps; ++step) {
        if (task->IsStopRequested()) return Orbel::RT_FAILURE;  // the plug-in is leaving
        Orbel::MyMSleep(kStepMs);
        const unsigned percent = step * 100 / (steps + 1);
        task->AddTaskMessage(Orbel::RESP_Task_TaskProgressChanged, {id, std::to_string(percent)});
        task->UpdatePercentComplete(static_cast<int>(percent));
        task->ApplyTaskChange(true);
    }
    Orbel::ZJsonObject* data = task->GetTaskMonitorResponseDataObject();
    data->HashWrite("FirmwareVersion", std::string("1.1.0"));
    data->HashWrite("Steps", steps);
    ZLOG(eZLogInfo, "Task[%s]: simulated firmware update done in %u steps.\n",
         task->GetTaskID().c_str(), steps);
    return Orbel::RT_SUCCESS;
}

eRtCode RunFailingSelfTest(ZTask* task) {
    Orbel::MyMSleep(kStepMs);
    task->UpdatePercentComplete(50);
    // The reason of the failure goes into the final answer's messages.
    task->NewExtendedInfo(Orbel::RESP_Base_ResourceInUse);
    task->SetReturnStatus(Orbel::HTTP_RT_CONFLICT);
    return Orbel::RT_FAILURE;
}

}  // namespace

eRtCode ComputerSystemSchema::ActionSimulatedFirmwareUpdate(HTTP_MethodContext* ctx) {
    ctx->CreateTask(RunFirmwareUpdate, reinterpret_cast<void*>(static_cast<uintptr_t>(kSteps)));
    return Orbel::RT_SUCCESS;
}

eRtCode ComputerSystemSchema::ActionFailingSelfTest(HTTP_MethodContext* ctx) {
    ctx->CreateTask(RunFailingSelfTest, nullptr);
    return Orbel::RT_SUCCESS;
}
