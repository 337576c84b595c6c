// Tasks from request to final answer: a front-end driver prepares the task,
// sends the action, follows "TASK_STATE_CHANGE" as a front end does (taking
// each change into the Task resource and removing the change key), reads the
// task monitor through the task's read thread, and checks the final answer
// in the request hash.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "FrontEnd.h"
#include "HTTP_MethodContext.h"
#include "ObjectModelFixture.h"
#include "TaskFollower.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZSchema.h"
#include "ZTask.h"
#include "ZUserInputTemplate.h"

using namespace Orbel;
using namespace OrbelTest;
using OrbelFrontEnd::TaskFollower;

namespace {

const std::string kSys = "/redfish/v1/Systems/1";
const std::string kActionQ = "RF_Test:ComputerSystem:POSTACTIONQ";

// What the work function does, chosen per test before the request is sent.
enum eWork { kProgress, kFail, kFailConflict, kThrow, kUntilStopped, kIgnoreStop, kShort, kAtOnce, kHelperThread, kGated };
std::atomic<int> gWork{kProgress};
// A gate the test opens to let a kProgress work finish.
std::mutex gGateMutex;
std::condition_variable gGateCv;
bool gGateOpen = true;
// What an upload task saw.
std::mutex gSeenMutex;
sAsyncUploadParams gSeen;
ZSchema* gLeftSchema = nullptr;  // kept reachable once its application is gone

void SetGate(bool open) {
    std::lock_guard<std::mutex> lock(gGateMutex);
    gGateOpen = open;
    gGateCv.notify_all();
}

eRtCode Work(ZTask* task) {
    const std::string id = task->GetTaskID();
    switch (gWork.load()) {
        case kProgress: {
            task->AddTaskMessage(RESP_Task_TaskProgressChanged, {id, "50"});
            task->UpdatePercentComplete(50);
            task->ApplyTaskChange(true);
            std::unique_lock<std::mutex> lock(gGateMutex);
            gGateCv.wait(lock, []() { return gGateOpen; });
            task->GetTaskMonitorResponseDataObject()->HashWrite("Version", std::string("2.0"));
            task->SetTaskMonitorLocation(kSys);
            return RT_SUCCESS;
        }
        case kFail:
            return RT_FAILURE;
        case kFailConflict:
            task->NewExtendedInfo(RESP_Base_ResourceInUse);
            task->SetReturnStatus(HTTP_RT_CONFLICT);
            return RT_FAILURE;
        case kThrow:
            throw std::runtime_error("flash gone");
        case kUntilStopped:
            while (!task->IsStopRequested())
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            return RT_FAILURE;
        case kIgnoreStop:
            std::this_thread::sleep_for(std::chrono::milliseconds(600));
            return RT_SUCCESS;
        case kAtOnce:
            return RT_SUCCESS;
        case kGated: {
            std::unique_lock<std::mutex> lock(gGateMutex);
            gGateCv.wait(lock, []() { return gGateOpen; });
            return RT_SUCCESS;
        }
        case kHelperThread: {
            // Progress from a helper thread while the work thread publishes
            // whole changes.
            std::thread helper([task]() {
                for (int p = 1; p <= 40; ++p) task->UpdatePercentComplete(p);
            });
            for (int i = 0; i < 10; ++i) {
                task->AddTaskMessage(RESP_Task_TaskProgressChanged, {id, std::to_string(i)});
                task->ApplyTaskChange(i % 2 == 0);
            }
            helper.join();
            return RT_SUCCESS;
        }
        default:
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            return RT_SUCCESS;
    }
}

eRtCode Upload(ZTask* task) {
    std::lock_guard<std::mutex> lock(gSeenMutex);
    gSeen = task->GetAsyncUploadParams();
    return RT_SUCCESS;
}

eRtCode RunAsTask(HTTP_MethodContext* ctx) {
    ctx->CreateTask(Work, nullptr);
    return RT_SUCCESS;
}

class TaskTest : public ObjectModelTest {
protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        gWork = kProgress;
        SetGate(true);
        mSchema =
            new ZSchema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_ACTION);
        ASSERT_EQ(mSchema->Init(), RT_SUCCESS);
        ASSERT_EQ(mSchema->AddUserInputTemplate("default",
                                                new ZUserInputTemplate(mSchema, nullptr, false)),
                  RT_SUCCESS);
        mSchema->AddActionCallback("Orbel.Update", RunAsTask);
        mSchema->SetTaskFlag(ZSchema::CRUDQ_ACTION);
        new ZResource(nullptr, mSchema, kSys);
        mSchema->_InitCRUDqDispather();
        mFollower.reset(new TaskFollower(RedisServer::Instance().SocketPath()));
        ASSERT_TRUE(mFollower->Listening());
    }
    void TearDown() override {
        SetGate(true);
        EXPECT_TRUE(ZTask::WaitRunningTasks(10000));
        mFollower.reset();
        if (mSchema != nullptr) mSchema->WaitThreadsExit();
        ObjectModelTest::TearDown();
    }

    // Sends the action with a prepared task ("&&Task" = its monitor) unless
    // `extra` says otherwise.
    FrontEnd::Answer SendAction(FrontEnd& fe, std::string* taskUrl, FrontEnd::Fields extra = {}) {
        const std::string key = fe.NextKey();
        const std::string url = fe.PrepareTask(key);
        if (taskUrl != nullptr) *taskUrl = url;
        if (extra.count("&&Task") == 0) extra["&&Task"] = url;
        FrontEnd::Answer a =
            fe.Send(kActionQ, "POSTACTION", kSys + "/Actions/Orbel.Update", nullptr, extra);
        if (a.status == "PROCESSING" && mFollower) mFollower->Adopt(a.key, {});
        return a;
    }

    ZSchema* mSchema = nullptr;
    std::unique_ptr<TaskFollower> mFollower;
};

TEST_F(TaskTest, ProgressMonitorReadsAndTheFinalAnswer) {
    SetGate(false);
    FrontEnd fe;
    std::string url;
    const FrontEnd::Answer a = SendAction(fe, &url);
    ASSERT_TRUE(a.answered);
    EXPECT_EQ(a.status + " " + a.hash.at("&&Location"), "PROCESSING " + url);
    EXPECT_EQ(url, "/redfish/v1/TaskService/Tasks/1");
    const std::string key = a.key;
    const std::string change = "&&TaskChange:" + key;

    // While the work waits, the monitor is read through the task's channel.
    const Items queue = LRange("&&" + url + "/GETQ");
    ASSERT_EQ(queue, Items{"RF_Test:Task:" + key});
    FrontEnd::Answer read = fe.Send(queue[0], "GET", url);
    ASSERT_TRUE(read.answered);
    EXPECT_EQ(read.status + " " + read.hash.at("&&Location"), "PROCESSING " + url);
    // The work announces its progress, then waits at the gate.
    EXPECT_TRUE(WaitUntil([&] { return HGetAll(url)["PercentComplete"] == "50"; }, 10000));
    EXPECT_EQ(HGetAll(url)["TaskState"], "\"Running\"");

    SetGate(true);
    const TaskFollower::sTaskRecord rec = mFollower->Wait(key, 10000);
    ASSERT_TRUE(rec.done);
    EXPECT_EQ(rec.changes,
              (std::vector<std::string>{
                  key + " null Running OK " + change, key + " 50 null null null",
                  key + " 50 Running OK " + change, key + " 100 Completed OK " + change}));
    EXPECT_EQ(rec.finalStatus, "OK_RES");
    EXPECT_TRUE(ZTask::WaitRunningTasks(5000));

    const Fields task = HGetAll(url);
    EXPECT_EQ(task.at("TaskState") + task.at("PercentComplete"), "\"Completed\"100");
    EXPECT_EQ(task.at("&&FinalResponseData") + " " + task.at("&&FinalLocation"),
              url + "/ResponseData " + kSys);
    EXPECT_EQ(task.count("&&Array GETQ &&" + url + "/GETQ"), 0u);  // reads go to the store now
    EXPECT_EQ(HGetAll(url + "/ResponseData"), (Fields{{"Version", "\"2.0\""}}));
    EXPECT_EQ(HGetAll(url + "/ExtraInfo"),
              (Fields{{"IsCancelSupported", "false"}, {"TaskStatus", "\"OK\""}}));
    // The messages, read as the task resource links them.
    std::string messages;
    for (const std::string& item : LRange(url + "/Messages_")) {
        const std::string node = item.substr(std::string("&&Object ").size());
        messages += HGetAll(node)["MessageId"] + ":" +
                    std::to_string(LRange(node + "/MessageArgs").size()) + " ";
    }
    EXPECT_EQ(messages,
              "\"TaskEvent.1.0.TaskStarted\":1 \"TaskEvent.1.0.TaskProgressChanged\":2 "
              "\"TaskEvent.1.0.TaskCompletedOK\":1 ");
    EXPECT_FALSE(Exists(change));
    EXPECT_FALSE(Exists(key));  // the follower cleaned up the request
    EXPECT_EQ(ZTask::GetTaskNum(), 0u);
}

// What a front end reads is never ahead of the Task document: the answer
// that starts a task finds a whole Task (state and first message with its
// argument), and the monitor's first final answer finds the final state.
TEST_F(TaskTest, AnswersNeverRunAheadOfTheTaskDocument) {
    gWork = kGated;
    FrontEnd fe;
    for (int i = 0; i < 15; ++i) {
        SCOPED_TRACE(i);
        SetGate(false);  // the work waits until the answer's document is checked
        std::string url;
        const FrontEnd::Answer a = SendAction(fe, &url);
        ASSERT_EQ(a.status, "PROCESSING");
        const std::string id = url.substr(url.rfind('/') + 1);
        const Fields task = HGetAll(url);
        EXPECT_EQ(task.at("TaskState"), "\"Running\"");
        const Items messages = LRange(url + "/Messages_");
        ASSERT_TRUE(task.count("&&Array Messages " + url + "/Messages_") && !messages.empty());
        const std::string node = messages[0].substr(std::string("&&Object ").size());
        EXPECT_EQ(HGetAll(node)["MessageId"], "\"TaskEvent.1.0.TaskStarted\"");
        EXPECT_EQ(LRange(node + "/MessageArgs"), Items{"\"" + id + "\""});
        EXPECT_EQ(task.count("&&Object Oem " + url + "/Oem"), 0u);  // nothing in it

        // Polled as fast as it answers until it says the task is done.
        const std::string channel = "RF_Test:Task:" + a.key;
        SetGate(true);
        for (;;) {
            const FrontEnd::Answer read =
                fe.Send(channel, fe.RequestFields("GET", url, false), nullptr, 300);
            if (!read.answered) break;  // the read thread is gone
            if (read.status == "PROCESSING") continue;
            ASSERT_EQ(read.status, "OK");
            EXPECT_EQ(HGetAll(url)["TaskState"], "\"Completed\"");
            break;
        }
        ASSERT_TRUE(mFollower->Wait(a.key, 10000).done);
    }
}

// Without a front end following the task, work that returns at once still
// ends after its "PROCESSING" answer, never before it.
TEST_F(TaskTest, WorkThatReturnsAtOnceEndsAfterItsAnswer) {
    mFollower.reset();
    gWork = kAtOnce;
    FrontEnd fe;
    for (int i = 0; i < 30; ++i) {
        const FrontEnd::Answer a = SendAction(fe, nullptr);
        EXPECT_EQ(a.status, "PROCESSING") << i;
        EXPECT_TRUE(WaitUntil([&] { return HGetAll(a.key)["&&ReturnStatus"] == "OK_EMPTY"; }, 10000))
            << i << " " << HGetAll(a.key)["&&ReturnStatus"];
    }
    EXPECT_TRUE(ZTask::WaitRunningTasks(10000));
}

TEST_F(TaskTest, ProgressFromAnyThreadKeepsItsOrder) {
    gWork = kHelperThread;
    FrontEnd fe;
    std::string url;
    const FrontEnd::Answer a = SendAction(fe, &url);
    const TaskFollower::sTaskRecord rec = mFollower->Wait(a.key, 10000);
    ASSERT_TRUE(rec.done);
    EXPECT_EQ(rec.finalStatus, "OK_EMPTY");
    int last = -1;  // the helper's percentages arrive in the order it sent them
    for (const std::string& change : rec.changes) {
        const size_t blank = change.find(' ');
        const std::string rest = change.substr(blank + 1);
        if (rest.find(" null null null") == std::string::npos) continue;
        const int percent = std::stoi(rest);
        EXPECT_GT(percent, last);
        last = percent;
    }
    EXPECT_EQ(last, 40);
    EXPECT_EQ(LRange(url + "/Messages_").size(), 12u);  // started, ten, completed
}

// A work function that outlives the application object ends without it.
TEST_F(TaskTest, WorkThatOutlivesTheApplicationEndsWithoutIt) {
    gWork = kGated;  // runs until the application is gone
    SetGate(false);
    FrontEnd fe;
    const FrontEnd::Answer a = SendAction(fe, nullptr);
    ASSERT_EQ(a.status, "PROCESSING");
    mSchema->WaitThreadsExit();
    gLeftSchema = mSchema;  // the application leaves it to the process
    mSchema = nullptr;
    Recycle();  // what the requests retired; the rest stays with the process
    ZTask::SetExitWaitMs(50);
    delete mApp;
    mApp = nullptr;
    ZTask::SetExitWaitMs(10000);
    SetGate(true);
    EXPECT_TRUE(ZTask::WaitRunningTasks(5000));
    const TaskFollower::sTaskRecord rec = mFollower->Wait(a.key, 5000);
    EXPECT_EQ(rec.finalStatus + " " + rec.state, "EXCEPTION Killed");
}

TEST_F(TaskTest, FailingWorkAnswersFailOrException) {
    struct {
        eWork work;
        const char* status;
        const char* message;
        const char* state;
    } rows[] = {
        {kFail, "FAIL", "\"Base.1.12.InternalError\"", "Exception"},
        {kFailConflict, "FAIL", "\"Base.1.12.ResourceInUse\"", "Exception"},
        {kThrow, "EXCEPTION", "\"Base.1.12.InternalError\"", "Exception"},
    };
    FrontEnd fe;
    for (const auto& row : rows) {
        gWork = row.work;
        std::string url;
        const FrontEnd::Answer a = SendAction(fe, &url);
        ASSERT_EQ(a.status, "PROCESSING");
        const TaskFollower::sTaskRecord rec = mFollower->Wait(a.key, 10000);
        ASSERT_TRUE(rec.done) << row.status;
        EXPECT_EQ(rec.finalStatus, row.status);
        EXPECT_EQ(rec.changes.back(),
                  a.key + " null " + row.state + " Critical &&TaskChange:" + a.key);
        const Fields task = HGetAll(url);
        const Items infos = LRange(task.at("&&FinalExtendedInfo"));
        ASSERT_EQ(infos.size(), 1u) << row.status;
        EXPECT_EQ(HGetAll(infos[0])["&&MessageId"], row.message);
    }
}

TEST_F(TaskTest, RequestsWithoutAPreparedTaskAreRefused) {
    struct {
        const char* what;
        std::string mapping;  // "" = none; "-" = leave Prepare's
        bool withTask;
        const char* log;
    } rows[] = {
        {"no &&Task", "-", false, "No Task Monitor URL In Request Data\n"},
        {"no mapping", "", true, "Cannot find Corvel:Req:FE:"},
        {"malformed URL", "/redfish/v1/Task s/9", true,
         "Invalid Task Monitor URL /redfish/v1/Task s/9\n"},
    };
    FrontEnd fe;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const size_t mark = LogMark();
        const std::string key = fe.NextKey();
        FrontEnd::Fields extra;
        if (!row.withTask) extra["&&Task"] = "";
        const std::string url = fe.PrepareTask(key);
        if (row.mapping.empty()) RawCommand({"HDEL", "TaskMonitorAndResourceMapping", key});
        if (row.mapping.size() > 1)
            RawCommand({"HSET", "TaskMonitorAndResourceMapping", key, row.mapping});
        if (row.withTask) extra["&&Task"] = url;
        const FrontEnd::Answer a =
            fe.Send(kActionQ, "POSTACTION", kSys + "/Actions/Orbel.Update", nullptr, extra);
        ASSERT_TRUE(a.answered);
        EXPECT_EQ(a.status, "EXCEPTION");
        EXPECT_NE(a.extInfo.find("Base.1.12.InternalError"), std::string::npos);
        // The answer's messages are the request's own again.
        EXPECT_EQ(a.hash.at("&&ExtendedInfo"),
                  kSys + "/Actions/Orbel.Update/" + kActionQ + "/ExtendedInfo");
        EXPECT_TRUE(Logged(mark, row.log));
        EXPECT_EQ(ZTask::GetTaskNum(), 0u);
    }
}

TEST_F(TaskTest, AFrontEndThatNeverTakesTheChangeIsWaitedForBoundedly) {
    zLogPrint->SetDebugLevel(1);
    ZTask::SetChangeWaitMs(150);
    mFollower->SetTakeChanges(false);
    gWork = kShort;
    const size_t mark = LogMark();
    FrontEnd fe;
    const FrontEnd::Answer a = SendAction(fe, nullptr);
    const TaskFollower::sTaskRecord rec = mFollower->Wait(a.key, 10000);
    ZTask::SetChangeWaitMs(3000);
    zLogPrint->SetDebugLevel(0);
    ASSERT_TRUE(rec.done);
    EXPECT_EQ(rec.finalStatus, "OK_EMPTY");
    EXPECT_TRUE(Logged(mark, "Wait key[&&TaskChange:" + a.key + "] been removed timeout.\n"));
}

TEST_F(TaskTest, HundredTasksAtOnceEndWithoutLossOrLeftoverThreads) {
    gWork = kShort;
    constexpr int kDrivers = 4, kEach = 25;
    std::vector<std::vector<std::string>> keys(kDrivers);
    OnThreads(kDrivers, [this, &keys](int d) {
        FrontEnd fe("D" + std::to_string(d));
        for (int i = 0; i < kEach; ++i) {
            const FrontEnd::Answer a = SendAction(fe, nullptr);
            if (a.status == "PROCESSING") keys[d].push_back(a.key);
        }
    });
    size_t ended = 0;
    for (const auto& list : keys) {
        for (const std::string& key : list) {
            const TaskFollower::sTaskRecord rec = mFollower->Wait(key, 20000);
            if (rec.done && rec.finalStatus == "OK_EMPTY") ++ended;
        }
    }
    EXPECT_EQ(ended, static_cast<size_t>(kDrivers * kEach));
    EXPECT_TRUE(ZTask::WaitRunningTasks(10000));
    EXPECT_EQ(ZTask::GetTaskNum(), 0u);
}

TEST_F(TaskTest, StopAtExitIsAskedAndBounded) {
    FrontEnd fe;
    gWork = kUntilStopped;
    const FrontEnd::Answer stoppable = SendAction(fe, nullptr);
    ASSERT_EQ(stoppable.status, "PROCESSING");
    EXPECT_TRUE(ZTask::StopAllTasks(5000));
    const TaskFollower::sTaskRecord rec = mFollower->Wait(stoppable.key, 5000);
    EXPECT_EQ(rec.finalStatus + " " + rec.state, "FAIL Killed");

    gWork = kIgnoreStop;
    const FrontEnd::Answer stubborn = SendAction(fe, nullptr);
    const size_t mark = LogMark();
    EXPECT_FALSE(ZTask::StopAllTasks(100));
    EXPECT_TRUE(
        Logged(mark, "Task[" + stubborn.key +
                         "] at [/redfish/v1/TaskService/Tasks/2] did not end within 100 ms.\n"));
    EXPECT_TRUE(ZTask::WaitRunningTasks(5000));
}

TEST_F(TaskTest, AnUploadRunsItsRegisteredTaskWithTheUploadParameters) {
    ASSERT_EQ(mSchema->RegisterAsyncUploadCallback(kSys, Upload, nullptr), RT_SUCCESS);
    FrontEnd fe;
    const std::string key = fe.NextKey();
    FrontEnd::Body body;
    body.top = {{"FileReady", "\"/tmp/image.bin\""},
                {"@Redfish.OperationApplyTime", "\"OnReset\""},
                {"&&Array Targets &&" + key + "/Targets", ""}};
    body.lists["&&" + key + "/Targets"] = {"\"/redfish/v1/Managers/1\"", "null", "7"};
    const size_t mark = LogMark();
    const FrontEnd::Answer a =
        fe.Send(kActionQ, "POSTACTION", kSys + "/Actions/Orbel.Update", &body,
                {{"&&Task", fe.PrepareTask(key)}, {"&&TransferMethod", "MultipartUpload"}});
    ASSERT_EQ(a.status, "PROCESSING");
    ASSERT_TRUE(mFollower->Wait(a.key, 10000).done);
    std::lock_guard<std::mutex> lock(gSeenMutex);
    EXPECT_TRUE(gSeen.asyncUpload && gSeen.maintenanceWindowDurationSec == -1);
    EXPECT_EQ(gSeen.filePath + " " + gSeen.operationApplyTime, "/tmp/image.bin OnReset");
    EXPECT_EQ(gSeen.targets, (std::vector<std::string>{"/redfish/v1/Managers/1"}));
    EXPECT_TRUE(Logged(
        mark, {"AsyncUpload filePath[/tmp/image.bin].\n",
               "AsyncUpload @Redfish.MaintenanceWindow/@Redfish.MaintenanceWindowStartTime is not "
               "found.\n",
               "AsyncUpload target1 is null.\n", "AsyncUpload target2 is unexpected. res[13]\n",
               "AsyncUpload target0[/redfish/v1/Managers/1].\n"}));
}

}  // namespace
