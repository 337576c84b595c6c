// Fixture for the object-model suites: a store (StoreTest) and one in-process
// ZApplication per test, whose log output is routed back to the binary's
// test log so LogMark()/LogSince() see what the nodes logged.
#ifndef ORBEL_TEST_OBJECTMODELFIXTURE_H
#define ORBEL_TEST_OBJECTMODELFIXTURE_H

#include <string>

#include "TestEnv.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZObject.h"

namespace OrbelTest {

// Reaches the registry's test hook.
class TestApplication : public Orbel::ZApplication {
public:
    TestApplication() : Orbel::ZApplication("RF_Test") {}
    using Orbel::ZApplication::SetNextOIDCandidate;
};

class ObjectModelTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        Orbel::ZLogPrint* testLog = Orbel::zLogPrint;
        mApp = new TestApplication();
        // The application's own log service stays alive (it deletes it), but
        // the nodes log into the test log.
        Orbel::zLogPrint = testLog;
    }
    void TearDown() override {
        delete mApp;
        mApp = nullptr;
    }

    // Frees every retired node nobody holds (what the process loop does).
    void Recycle() { mApp->RecycleProcess(); }

    TestApplication* mApp = nullptr;
};

}  // namespace OrbelTest

#endif  // ORBEL_TEST_OBJECTMODELFIXTURE_H
