// OrbelTestKit: the private store, the plug-in and the front end of a test,
// and its HTTP requests.
#include "OrbelTestKit.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <httplib.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "StoreTreeReader.h"
#include "ZApplication.h"

namespace fs = std::filesystem;

namespace OrbelTestKit {

namespace {

constexpr int kPollMs = 50;

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Polls `ready` every 50 ms for up to `ms`.
template <class F>
bool WaitUntil(int ms, F ready) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!ready()) {
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
    }
    return true;
}

bool StoreAnswers(const std::string& socket) {
    redisContext* c = redisConnectUnix(socket.c_str());
    bool ok = false;
    if (c != nullptr && c->err == 0) {
        auto* r = static_cast<redisReply*>(redisCommand(c, "PING"));
        ok = r != nullptr && r->type == REDIS_REPLY_STATUS;
        if (r != nullptr) freeReplyObject(r);
    }
    if (c != nullptr) redisFree(c);
    return ok;
}

// The directory of the installed kit library: its programs and data lie
// beside it, one or two levels up (lib/ or lib/<multiarch>/).
std::string KitLibDir() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&KitLibDir), &info) == 0 || info.dli_fname == nullptr) {
        return std::string();
    }
    return fs::path(info.dli_fname).parent_path().string();
}

std::string FindBeside(const char* envName, const std::string& relative) {
    const char* forced = getenv(envName);
    if (forced != nullptr && *forced != '\0') return forced;
    const std::string lib = KitLibDir();
    for (const char* up : {"/..", "/../.."}) {
        const fs::path candidate = fs::path(lib + up) / relative;
        std::error_code ec;
        if (fs::exists(candidate, ec)) return fs::weakly_canonical(candidate, ec).string();
    }
    return std::string();
}

}  // namespace

std::string sResponse::Header(const std::string& name) const {
    auto it = headers.find(name);
    return it != headers.end() ? it->second : std::string();
}

Service::Service(sConfig config) : mConfig(std::move(config)) {
    if (mConfig.appName.empty()) mConfig.appName = fs::path(mConfig.pluginPath).filename().string();
    if (mConfig.env.count("PLATFLAGS") == 0) mConfig.env["PLATFLAGS"] = "0x0";
}

Service::~Service() {
    Stop();
}

std::string Service::Output(const std::string& child) const {
    const sChild& c = child == "redis" ? mRedis : child == "plugin" ? mPlugin : mFront;
    return c.out.empty() ? std::string() : ReadAll(c.out);
}

bool Service::_Spawn(sChild& child, const std::vector<std::string>& argv,
                     const std::map<std::string, std::string>& env, const std::string& name) {
    child.out = mSysroot + "/" + name + ".out";
    // Everything the child needs is made before fork: after it, in a process
    // with threads, only async-signal-safe calls are allowed.
    std::map<std::string, std::string> all;
    for (char** e = environ; *e != nullptr; ++e) {
        const char* eq = strchr(*e, '=');
        if (eq != nullptr) all[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
    }
    for (const auto& kv : env) all[kv.first] = kv.second;
    std::vector<std::string> envText;
    for (const auto& kv : all) envText.push_back(kv.first + "=" + kv.second);
    std::vector<char*> envp, args;
    for (std::string& s : envText) envp.push_back(&s[0]);
    envp.push_back(nullptr);
    std::vector<std::string> argText = argv;
    for (std::string& s : argText) args.push_back(&s[0]);
    args.push_back(nullptr);
    const int fd = open(child.out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    child.pid = fork();
    if (child.pid == 0) {
        dup2(fd, 1);
        dup2(fd, 2);
        execvpe(args[0], args.data(), envp.data());
        _exit(127);
    }
    close(fd);
    return child.pid > 0;
}

int Service::_Reap(sChild& child, int timeoutMs) {
    if (child.pid <= 0) return 0;
    int status = 0;
    const bool ended = WaitUntil(timeoutMs, [&child, &status]() {
        return waitpid(child.pid, &status, WNOHANG) == child.pid;
    });
    if (!ended) {
        kill(child.pid, SIGKILL);
        waitpid(child.pid, &status, 0);
        child.pid = -1;
        return -1;
    }
    child.pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Service::Start(std::string* why) {
    auto fail = [this, why](const std::string& text) {
        if (why != nullptr) {
            *why = text + "\n--- plug-in:\n" + Output("plugin") + "\n--- front end:\n" +
                   Output("frontend") + "\n--- redis:\n" + Output("redis");
        }
        Stop();
        return false;
    };
    if (mStarted) return true;
    char dir[] = "/tmp/orbel-kit-XXXXXX";
    if (mkdtemp(dir) == nullptr) return fail("cannot make a sysroot");
    mSysroot = dir;
    mStarted = true;
    setenv("ORBEL_SYSROOT", mSysroot.c_str(), 1);
    std::error_code ec;
    fs::create_directories(mSysroot + "/tmp/Redfish", ec);
    const std::string templates = mSysroot + "/var/PellPlugin/UserInputTemplate";
    fs::create_directories(templates, ec);
    if (!mConfig.templateDir.empty()) {
        // A wrong directory would show only as every write answered 500.
        if (!fs::is_directory(mConfig.templateDir, ec)) {
            return fail("sConfig::templateDir " + mConfig.templateDir +
                        " is not a directory (the plug-in's *.dat templates)");
        }
        for (const auto& entry : fs::directory_iterator(mConfig.templateDir, ec)) {
            if (entry.path().extension() == ".dat") {
                fs::copy_file(entry.path(), templates + "/" + entry.path().filename().string(),
                              fs::copy_options::overwrite_existing, ec);
            }
        }
    }

    // The store.
    if (!_Spawn(mRedis,
                {"redis-server", "--port", "0", "--unixsocket", SocketPath(), "--unixsocketperm",
                 "700", "--save", "", "--appendonly", "no", "--dir", mSysroot},
                {}, "redis")) {
        return fail("cannot start redis-server");
    }
    if (!WaitUntil(mConfig.timeoutMs, [this]() { return StoreAnswers(SocketPath()); })) {
        return fail("redis-server does not answer");
    }

    // The plug-in.
    if (!_StartPlugin(nullptr)) return fail("cannot start " + mConfig.pluginPath);

    // The front end, which reports itself ready to the plug-in.
    const std::string front = FindBeside("ORBEL_TESTKIT_FRONTEND", "bin/orbel-frontend");
    const std::string registries =
        FindBeside("ORBEL_TESTKIT_REGISTRIES", "share/PellCommon_Orbel/registries");
    if (front.empty()) return fail("orbel-frontend not found (set ORBEL_TESTKIT_FRONTEND)");
    const std::string users = mSysroot + "/frontend-users";
    {
        std::ofstream file(users);
        for (const sUser& u : mConfig.users)
            file << u.name << ':' << u.password << ':' << u.role << '\n';
    }
    std::vector<std::string> argv = {front, "--users", users, "--port", "0", "--quiet"};
    if (!registries.empty()) argv.insert(argv.end(), {"--registries", registries});
    if (!_Spawn(mFront, argv, {{"ORBEL_SYSROOT", mSysroot}}, "frontend")) {
        return fail("cannot start orbel-frontend");
    }
    const std::string mark = "listening on http://127.0.0.1:";
    if (!WaitUntil(mConfig.timeoutMs, [this, &mark]() {
            return Output("frontend").find(mark) != std::string::npos;
        })) {
        return fail("orbel-frontend did not start listening");
    }
    const std::string out = Output("frontend");
    mPort = atoi(out.c_str() + out.find(mark) + mark.size());
    mHost = "127.0.0.1";
    mUrl = "http://127.0.0.1:" + std::to_string(mPort);

    const std::string readyFile = mSysroot + "/tmp/Redfish/" + mConfig.appName + ".run";
    if (!WaitUntil(mConfig.timeoutMs, [&readyFile]() { return fs::exists(readyFile); })) {
        return fail("the plug-in did not become ready (no " + readyFile + ")");
    }
    return true;
}

bool Service::_StartPlugin(std::string* why) {
    std::map<std::string, std::string> env = mConfig.env;
    env["ORBEL_SYSROOT"] = mSysroot;
    if (mConfig.pluginMain) {
        for (const auto& kv : env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
        std::vector<std::string> args = {mConfig.appName};
        args.insert(args.end(), mConfig.pluginArgs.begin(), mConfig.pluginArgs.end());
        mInProcess = std::thread([this, args]() mutable {
            std::vector<char*> argv;
            for (std::string& a : args) argv.push_back(&a[0]);
            argv.push_back(nullptr);
            mInProcessResult = mConfig.pluginMain(static_cast<int>(args.size()), argv.data());
        });
        return true;
    }
    std::vector<std::string> argv = {mConfig.pluginPath};
    argv.insert(argv.end(), mConfig.pluginArgs.begin(), mConfig.pluginArgs.end());
    if (_Spawn(mPlugin, argv, env, "plugin")) return true;
    if (why != nullptr) *why = "cannot start " + mConfig.pluginPath;
    return false;
}

int Service::_StopPlugin() {
    if (mInProcess.joinable()) {
        // Exec returns once told to exit; it may still be starting up.
        WaitUntil(mConfig.timeoutMs, []() { return Orbel::zApp != nullptr; });
        if (Orbel::zApp != nullptr) Orbel::zApp->Exit();
        mInProcess.join();
        return mInProcessResult;
    }
    if (mPlugin.pid > 0) kill(mPlugin.pid, SIGTERM);
    return _Reap(mPlugin, mConfig.timeoutMs);
}

bool Service::Reset(std::string* why) {
    if (!mStarted) {
        if (why != nullptr) *why = "the service is not started";
        return false;
    }
    _StopPlugin();
    redisContext* c = redisConnectUnix(SocketPath().c_str());
    bool flushed = false;
    if (c != nullptr && c->err == 0) {
        auto* reply = static_cast<redisReply*>(redisCommand(c, "FLUSHALL"));
        flushed = reply != nullptr && reply->type == REDIS_REPLY_STATUS;
        if (reply != nullptr) freeReplyObject(reply);
    }
    if (c != nullptr) redisFree(c);
    const std::string readyFile = mSysroot + "/tmp/Redfish/" + mConfig.appName + ".run";
    std::error_code ec;
    fs::remove(readyFile, ec);
    // What a plug-in keeps across restarts lives in the platform's settings:
    // the start state has none of it.
    fs::remove_all(mSysroot + "/var/lib/koba", ec);
    if (!flushed || !_StartPlugin(why)) {
        if (why != nullptr && why->empty()) *why = "cannot empty the store";
        return false;
    }
    if (!WaitUntil(mConfig.timeoutMs, [&readyFile]() { return fs::exists(readyFile); })) {
        if (why != nullptr) {
            *why = "the plug-in did not become ready again (no " + readyFile + ")\n" +
                   Output("plugin");
        }
        return false;
    }
    return true;
}

nlohmann::json Service::Stored(const std::string& jpath) const {
    redisContext* c = redisConnectUnix(SocketPath().c_str());
    std::string text;
    const bool ok = c != nullptr && c->err == 0 && Orbel::ReadStoreTree(c, jpath, text);
    if (c != nullptr) redisFree(c);
    if (!ok) return nullptr;
    nlohmann::json doc = nlohmann::json::parse(text, nullptr, false);
    return doc.is_discarded() ? nlohmann::json() : doc;
}

int Service::Stop() {
    if (!mStarted) return 0;
    mStarted = false;
    if (mFront.pid > 0) kill(mFront.pid, SIGTERM);
    _Reap(mFront, mConfig.timeoutMs);
    const int result = _StopPlugin();
    if (mRedis.pid > 0) kill(mRedis.pid, SIGTERM);
    _Reap(mRedis, mConfig.timeoutMs);
    std::error_code ec;
    if (!mSysroot.empty()) fs::remove_all(mSysroot, ec);
    return result;
}

sResponse Service::_Send(const std::string& method, const std::string& path,
                         const std::string& body, const std::string& user) {
    sRequest request;
    request.method = method;
    request.path = path;
    request.body = body;
    request.user = user;
    return Send(request);
}

sResponse Service::Send(const sRequest& request) {
    sResponse r;
    if (mPort == 0) return r;
    httplib::Client client(mHost, mPort);
    const int seconds = mConfig.timeoutMs / 1000 + 1;
    client.set_read_timeout(seconds, 0);
    client.set_write_timeout(seconds, 0);
    httplib::Request req;
    req.method = request.method;
    req.path = request.path;
    for (const auto& h : request.headers) req.headers.emplace(h.first, h.second);
    for (const sUser& u : mConfig.users) {
        if (!request.user.empty() && u.name == request.user && !req.has_header("Authorization")) {
            req.headers.emplace(
                "Authorization",
                httplib::make_basic_authentication_header(u.name, u.password).second);
        }
    }
    if (!request.body.empty()) {
        req.body = request.body;
        if (!request.contentType.empty() && !req.has_header("Content-Type")) {
            req.headers.emplace("Content-Type", request.contentType);
        }
    }
    httplib::Result res = client.send(req);
    if (!res) return r;
    r.status = res->status;
    for (const auto& h : res->headers) r.headers[h.first] = h.second;
    r.text = res->body;
    r.body = nlohmann::json::parse(r.text, nullptr, false);
    if (r.body.is_discarded()) r.body = nullptr;
    return r;
}

sResponse Service::Get(const std::string& path, const std::string& user) {
    return _Send("GET", path, std::string(), user);
}
sResponse Service::Patch(const std::string& path, const nlohmann::json& body,
                         const std::string& user) {
    return _Send("PATCH", path, body.dump(), user);
}
sResponse Service::Post(const std::string& path, const nlohmann::json& body,
                        const std::string& user) {
    return _Send("POST", path, body.dump(), user);
}
sResponse Service::Delete(const std::string& path, const std::string& user) {
    return _Send("DELETE", path, std::string(), user);
}
sResponse Service::Action(const std::string& resource, const std::string& action,
                          const nlohmann::json& params, const std::string& user) {
    return Post(resource + "/Actions/" + action, params, user);
}

sResponse Service::Login(const std::string& user, std::string* token) {
    std::string password;
    for (const sUser& u : mConfig.users) {
        if (u.name == user) password = u.password;
    }
    sRequest request;
    request.method = "POST";
    request.path = "/redfish/v1/SessionService/Sessions";
    request.body = nlohmann::json{{"UserName", user}, {"Password", password}}.dump();
    request.user.clear();
    sResponse r = Send(request);
    if (token != nullptr) *token = r.status == 201 ? r.Header("X-Auth-Token") : std::string();
    return r;
}

sResponse Service::WaitTask(const std::string& monitor, const std::string& user) {
    // A monitor answers 202 while the task runs; a front end that serves the
    // Task itself instead answers 200 with a state that is not final yet.
    const auto running = [](const sResponse& r) {
        if (r.status == 202) return true;
        if (r.status != 200 || !r.body.is_object() || !r.body.contains("TaskState")) return false;
        const std::string state =
            r.body["TaskState"].is_string() ? r.body["TaskState"].get<std::string>() : "";
        return state == "New" || state == "Starting" || state == "Running" || state == "Pending" ||
               state == "Stopping" || state == "Suspended" || state == "Service" ||
               state == "Cancelling";
    };
    sResponse r = Get(monitor, user);
    WaitUntil(mConfig.timeoutMs, [&]() {
        if (!running(r)) return true;
        r = Get(monitor, user);
        return !running(r);
    });
    return r;
}

}  // namespace OrbelTestKit
