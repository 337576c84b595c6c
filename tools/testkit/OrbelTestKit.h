// OrbelTestKit: test a plug-in the way a client sees it, over HTTP.
//
// A Service starts, in a private sysroot (a fresh directory that
// ORBEL_SYSROOT points at), a private redis-server on the sysroot's socket,
// the plug-in (as a child process, or in this process on a thread of its
// own), and the development front end orbel-frontend on a free port of
// 127.0.0.1; the plug-in's templates are installed where it loads them, and
// the simulated platform lives in the sysroot. Get/Patch/Post/Delete/Action
// then send real HTTP requests and return the status, the headers and the
// parsed JSON body; Send takes any method, headers and raw body. Stored reads
// a document from the store as the front end assembles it; Reset brings the
// store back to the plug-in's start state. PluginTest<Derived> wraps one
// Service per test suite, or one per test (sConfig::freshServicePerTest),
// for GoogleTest. docs/plugin-guide.md ("Testing a plug-in") shows a whole
// test.
//
// Programs: orbel-frontend and its registries are found beside the installed
// kit (<prefix>/bin, <prefix>/share/PellCommon_Orbel/registries), or where
// ORBEL_TESTKIT_FRONTEND and ORBEL_TESTKIT_REGISTRIES say; redis-server on
// PATH.
//
// Threads: one Service is used by one test thread at a time. The process
// environment is changed (ORBEL_SYSROOT, and the plug-in's variables for an
// in-process plug-in), so run one Service at a time per process.
#ifndef ORBEL_TESTKIT_H
#define ORBEL_TESTKIT_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace OrbelTestKit {

// One answer. `status` is 0 when no answer came (the front end is down).
struct sResponse {
    int status = 0;
    std::map<std::string, std::string> headers;  // by name as sent
    std::string text;                            // the body as sent
    nlohmann::json body;                         // parsed; null when not JSON
    // A header's value, "" when absent.
    std::string Header(const std::string& name) const;
};

// One request as a client sends it: any method (HEAD included), any
// headers (If-Match, If-None-Match, X-Auth-Token, ...), and the body as raw
// bytes, malformed JSON included.
struct sRequest {
    std::string method = "GET";
    std::string path;
    std::map<std::string, std::string> headers;
    std::string body;                            // sent as it is ("" sends none)
    std::string contentType = "application/json";  // with a body; "" sends none
    std::string user = "admin";                  // Basic credentials; "" sends none
};

struct sUser {
    std::string name;
    std::string password;
    std::string role;  // Administrator, Operator, ReadOnly or NoAccess
};

struct sConfig {
    // The plug-in: a program to run as a child with its arguments...
    std::string pluginPath;
    std::vector<std::string> pluginArgs;
    // ...or, when set, a function run in this process in its place (what
    // the plug-in's main() does: make its ZApplication and Exec it). It is
    // stopped with ZApplication::Exit.
    std::function<int(int argc, char** argv)> pluginMain;
    // The application name (its ready file is /tmp/Redfish/<name>.run);
    // by default the last component of pluginPath.
    std::string appName;
    // Where the plug-in's user-input templates (*.dat) are; copied into the
    // sysroot's template directory.
    std::string templateDir;
    // Extra environment of the plug-in (PLATFLAGS=0x0 unless given here).
    std::map<std::string, std::string> env;
    // The front end's users (name:password:role).
    std::vector<sUser> users = {{"admin", "admin-pw", "Administrator"},
                                {"operator", "operator-pw", "Operator"},
                                {"readonly", "readonly-pw", "ReadOnly"}};
    int timeoutMs = 20000;  // for each start step and each request
    // PluginTest: a new Service (store, plug-in, front end) for every test
    // instead of one per suite, so no test sees another's changes.
    bool freshServicePerTest = false;
};

class Service {
public:
    explicit Service(sConfig config);
    // Stops everything and removes the sysroot.
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Starts the store, the plug-in and the front end and waits until the
    // plug-in is ready. False with `*why` (and what the children printed)
    // when a step failed.
    bool Start(std::string* why);
    // Stops the front end, the plug-in (SIGTERM, or Exit for an in-process
    // one) and the store. The plug-in's exit status (-1 when it had to be
    // killed) is returned.
    int Stop();

    const std::string& Sysroot() const { return mSysroot; }
    const std::string& Url() const { return mUrl; }
    std::string SocketPath() const { return mSysroot + "/tmp/redis.sock"; }
    // What a child wrote so far ("redis", "plugin" or "frontend").
    std::string Output(const std::string& child) const;

    // The plug-in stopped, the store and the platform settings emptied and the plug-in started again:
    // the state a test starts from, without a new front end or store
    // process. False with `*why` when the plug-in does not come back.
    bool Reset(std::string* why = nullptr);

    // The document stored under `jpath` as the front end assembles it
    // (links followed, "&&" fields left out); null when there is none.
    nlohmann::json Stored(const std::string& jpath) const;

    // Any request (see sRequest).
    sResponse Send(const sRequest& request);
    // Logs in through the front end's session service (POST
    // /redfish/v1/SessionService/Sessions) as a user of the configuration;
    // the answer's X-Auth-Token is `*token` ("" when the front end serves no
    // sessions). Send it back with headers {{"X-Auth-Token", token}} and
    // user "".
    sResponse Login(const std::string& user, std::string* token);

    // One request as `user` ("" sends none). Bodies are JSON.
    sResponse Get(const std::string& path, const std::string& user = "admin");
    sResponse Patch(const std::string& path, const nlohmann::json& body,
                    const std::string& user = "admin");
    sResponse Post(const std::string& path, const nlohmann::json& body,
                   const std::string& user = "admin");
    sResponse Delete(const std::string& path, const std::string& user = "admin");
    // POST <resource>/Actions/<action>.
    sResponse Action(const std::string& resource, const std::string& action,
                     const nlohmann::json& params = nlohmann::json::object(),
                     const std::string& user = "admin");
    // Reads a task monitor until it stops answering 202 and, when it
    // answers with a Task, until its TaskState is final (or the time-out);
    // the last answer.
    sResponse WaitTask(const std::string& monitor, const std::string& user = "admin");

private:
    struct sChild {
        pid_t pid = -1;
        std::string out;  // file of its output
    };
    sResponse _Send(const std::string& method, const std::string& path, const std::string& body,
                    const std::string& user);
    bool _StartPlugin(std::string* why);
    int _StopPlugin();
    bool _Spawn(sChild& child, const std::vector<std::string>& argv,
                const std::map<std::string, std::string>& env, const std::string& name);
    static int _Reap(sChild& child, int timeoutMs);

    sConfig mConfig;
    std::string mSysroot;
    std::string mUrl;
    std::string mHost;
    int mPort = 0;
    sChild mRedis, mPlugin, mFront;
    std::thread mInProcess;
    int mInProcessResult = -1;
    bool mStarted = false;
};

// A GoogleTest fixture with one Service per test suite. Derived supplies
// `static OrbelTestKit::sConfig KitConfig();`.
template <class Derived>
class PluginTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!Derived::KitConfig().freshServicePerTest) _StartService();
    }
    static void TearDownTestSuite() { _StopService(); }
    void SetUp() override {
        if (Derived::KitConfig().freshServicePerTest) _StartService();
        ASSERT_NE(sService, nullptr) << "the plug-in's service did not start: " << sStartFailure;
    }
    void TearDown() override {
        if (Derived::KitConfig().freshServicePerTest) _StopService();
    }
    static Service& Kit() { return *sService; }

private:
    static void _StartService() {
        sService = new Service(Derived::KitConfig());
        std::string why;
        if (!sService->Start(&why)) {
            sStartFailure = why;
            delete sService;
            sService = nullptr;
        }
    }
    static void _StopService() {
        delete sService;
        sService = nullptr;
    }
    static Service* sService;
    static std::string sStartFailure;
};

template <class Derived>
Service* PluginTest<Derived>::sService = nullptr;
template <class Derived>
std::string PluginTest<Derived>::sStartFailure;

}  // namespace OrbelTestKit

#endif  // ORBEL_TESTKIT_H
