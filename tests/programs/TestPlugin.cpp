// A plug-in for the process-level tests of the application frame.
//
// Five schemas, IDs 2 to 6: Alpha, Bravo, Charlie, Delta (created) and Echo
// (its factory fails). Everything the tests observe is printed on stdout, one
// line at a time: schema creation and deletion, the staged initialisation
// hooks, the application hooks, VEX event registrations and deliveries.
//
// Environment:
//   ORBEL_TEST_APP_NAME  application name (default "RF_Session"), so that
//                        parallel children have their own ready and log files.
//   ORBEL_TEST_MISTAKES  when set, Alpha makes the first-hour mistakes the
//                        frame reports: a node never linked, a queue never
//                        applied, a collection without a member schema, and
//                        Bravo's post-ready hook fails.
#include <cstdio>
#include <cstdlib>

#include "ZApplication.h"
#include "ZJsonObject.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"

using Orbel::eRtCode;
using Orbel::ZApplication;
using Orbel::ZResource;
using Orbel::ZSchema;

namespace {

void OnEvent(EVENT_TYPE type, char* eventName, int dataLen, void* data) {
    int shown = (data != nullptr && dataLen > 0) ? dataLen : 0;
    std::printf("Event[%s] type[%d] len[%d] data[%.*s]\n", eventName, static_cast<int>(type),
                dataLen, shown, data != nullptr ? static_cast<const char*>(data) : "");
}

void PrintRegistration(const char* when, const char* event, eRtCode rt) {
    std::printf("Register[%s] at %s: rt=%d\n", event, when, static_cast<int>(rt));
}

class TestSchema : public ZSchema {
public:
    explicit TestSchema(const char* name) : ZSchema(name, "v1_0_0") {}
    ~TestSchema() override { std::printf("Deleted schema[%s]\n", GetName().c_str()); }

    eRtCode PreCorvelReady_InitialResources() override {
        std::printf("Stage pre[%s] step[%u]\n", GetName().c_str(), Orbel::zApp->GetInitStep());
        if (Mistakes() && GetName() == "Alpha") MakeMistakes();
        return Orbel::RT_SUCCESS;
    }
    eRtCode PostCorvelReady_InitialResources() override {
        std::printf("Stage post[%s] step[%u]\n", GetName().c_str(), Orbel::zApp->GetInitStep());
        return Mistakes() && GetName() == "Bravo" ? Orbel::RT_FAILURE : Orbel::RT_SUCCESS;
    }
    static bool Mistakes() { return std::getenv("ORBEL_TEST_MISTAKES") != nullptr; }

    void MakeMistakes() {
        // Resources join their schema's map by themselves.
        auto* res = new ZResource(nullptr, this, "/redfish/v1/Mistakes");
        new Orbel::ZJsonObject(res, "Orphan");  // never linked into a property
        res->HashWrite("Pending", 1);           // never applied
        new Orbel::ZResourceCollection(nullptr, this, "/redfish/v1/Things");
    }

    eRtCode PostCorvelReady_AfterTreatment() override {
        std::printf("Stage after[%s] step[%u]\n", GetName().c_str(), Orbel::zApp->GetInitStep());
        return Orbel::RT_SUCCESS;
    }
};

int CreateSchema(const char* name) {
    auto* schema = new TestSchema(name);
    if (schema->Init() != Orbel::RT_SUCCESS) {
        delete schema;
        return -1;
    }
    std::printf("Created schema[%s]\n", name);
    return 0;
}

int AlphaFactory(void*) {
    // Factories run at init step 1, where event callbacks may still be added.
    PrintRegistration("factory", "TestEvent",
                      Orbel::zApp->RegisterVexEventCallback("TestEvent", OnEvent));
    PrintRegistration("factory", "FactoryEvent",
                      Orbel::zApp->RegisterVexEventCallback("FactoryEvent", OnEvent));
    return CreateSchema("Alpha");
}

const ZApplication::sSchemaFactory kSchemaTable[] = {
    {"Alpha", AlphaFactory},
    {"Bravo", [](void*) { return CreateSchema("Bravo"); }},
    {"Charlie", [](void*) { return CreateSchema("Charlie"); }},
    {"Delta", [](void*) { return CreateSchema("Delta"); }},
    {"Echo", [](void*) { return -3; }},
};

class TestApp : public ZApplication {
public:
    explicit TestApp(const std::string& name) : ZApplication(name) {}

    void AppInitDoneProcess() override {
        std::printf("AppInitDoneProcess step[%u]\n", GetInitStep());
        PrintRegistration("init-done", "LateEvent", RegisterVexEventCallback("LateEvent", OnEvent));
    }
    void AppExitProcess() override { std::printf("AppExitProcess\n"); }
    void SigHandle(int sig) override {
        std::printf("SigHandle(%d)\n", sig);
        ZApplication::SigHandle(sig);
    }
};

}  // namespace

int main(int argc, char** argv) {
    // The tests read stdout from a file: one line at a time, in order.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    const char* name = std::getenv("ORBEL_TEST_APP_NAME");
    TestApp app(name != nullptr && name[0] != '\0' ? name : "RF_Session");
    PrintRegistration("main", "TestEvent", app.RegisterVexEventCallback("TestEvent", OnEvent));

    ZApplication::sExecParams params;
    params.argc = argc;
    params.argv = argv;
    params.schemaTable = kSchemaTable;
    params.schemaNum = static_cast<int>(sizeof(kSchemaTable) / sizeof(kSchemaTable[0]));
    int rt = app.Exec(params);
    std::printf("Exec returned %d\n", rt);
    return rt;
}
