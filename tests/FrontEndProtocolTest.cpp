// The development front end's protocol rules over real connections: the
// sample plug-in and orbel-frontend run as children against the suite's
// store; curl (and raw sockets where curl cannot misbehave enough) talk to
// it on 127.0.0.1.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "HttpFrontEnd.h"
#include "TestEnv.h"

using namespace OrbelTest;
using nlohmann::json;

namespace {

class FrontEndProtocolTest : public HttpFrontEndTest {
protected:
    static void SetUpTestSuite() {
        StartServices("admin:admin-pw:Administrator\nro:ro-pw:ReadOnly\n",
                      {"--https-port", "0", "--session-timeout", "3"});
    }
    static std::vector<std::string> Basic() { return {"-u", "admin:admin-pw"}; }
};

// Keep-alive: many requests on one connection (also over HTTPS), and each
// answer in one write: a header sent apart from its body waits for the
// client's delayed ACK (40 ms) on every request after the first.
TEST_F(FrontEndProtocolTest, KeepAliveServesManyRequestsInOneWriteEach) {
    for (bool secure : {false, true}) {
        const std::string url = (secure ? "https://127.0.0.1:" + std::to_string(sSecurePort)
                                        : "http://127.0.0.1:" + std::to_string(sPort)) +
                                "/redfish/v1/Systems/1";
        std::vector<std::string> argv = {"/usr/bin/curl", "-s", "-k", "-u", "admin:admin-pw"};
        for (int i = 0; i < 20; ++i) {
            argv.insert(argv.end(), {"-o", "/dev/null", "-w", "%{num_connects}", url});
        }
        const long reads = ServerStat("stats", "total_reads_processed:");
        ChildProcess curl(argv);
        ASSERT_TRUE(curl.Start());
        ASSERT_EQ(curl.Wait(60000), 0);
        EXPECT_EQ(curl.Output(), "1" + std::string(19, '0')) << "keep-alive cut";
        // The front end's share of a GET is two round trips (the look at the
        // resource with the forwarding, then the answer with the document
        // and the clean-up); the plug-in's share is at most 5.
        if (!secure) {
            EXPECT_LE(ServerStat("stats", "total_reads_processed:") - reads, 20 * 7 + 12);
        }
    }
    const int fd = Connect();
    ASSERT_GE(fd, 0);
    const auto get = [fd](const std::string& uri) {
        const std::string req = "GET " + uri +
                                " HTTP/1.1\r\nHost: x\r\nAuthorization: Basic "
                                "YWRtaW46YWRtaW4tcHc=\r\n\r\n";
        EXPECT_EQ(send(fd, req.data(), req.size(), MSG_NOSIGNAL), static_cast<ssize_t>(req.size()));
        pollfd p{fd, POLLIN, 0};
        EXPECT_EQ(poll(&p, 1, kTimeoutMs), 1);
        char buf[65536];
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        const std::string got(buf, static_cast<size_t>(std::max<ssize_t>(n, 0)));
        const size_t end = got.find("\r\n\r\n");
        const size_t length = got.find("Content-Length: ");
        EXPECT_TRUE(end != std::string::npos && length != std::string::npos) << got;
        EXPECT_EQ(got.size(), end + 4 + strtoul(got.c_str() + length + 16, nullptr, 10))
            << "an answer came in pieces";
        return got;
    };
    for (int i = 0; i < 3; ++i) get("/redfish/v1/");
    // A document read again is served anew once the store holds another.
    const std::string before = get("/redfish/v1/Systems/1");
    EXPECT_EQ(get("/redfish/v1/Systems/1"), before);
    ASSERT_TRUE(RawCommand({"HSET", "/redfish/v1/Systems/1", "AssetTag", "\"moved\""}));
    EXPECT_EQ(before.find("\"AssetTag\":\"moved\""), std::string::npos);
    EXPECT_NE(get("/redfish/v1/Systems/1").find("\"AssetTag\":\"moved\""), std::string::npos);
    close(fd);
}

// Hostile clients: a header past its bounds answers 431; 100 clients that
// send a byte at a time keep nobody else out.
TEST_F(FrontEndProtocolTest, HostileConnectionsAreBounded) {
    std::string big = "GET /redfish/v1/ HTTP/1.1\r\nHost: x\r\n";
    for (int i = 0; i < 10000; ++i) big += "X-H" + std::to_string(i) + ": v\r\n";
    const int fd = Connect();
    ASSERT_GE(fd, 0);
    send(fd, big.data(), big.size(), MSG_NOSIGNAL);
    EXPECT_EQ(ReadAll(fd, 5000).compare(0, 12, "HTTP/1.1 431"), 0);
    close(fd);

    std::vector<int> slow;
    for (int i = 0; i < 100; ++i) {
        const int s = Connect();
        if (s >= 0 && send(s, "GE", 2, MSG_NOSIGNAL) == 2) slow.push_back(s);
    }
    EXPECT_GT(slow.size(), 50u);
    const auto start = std::chrono::steady_clock::now();
    const sHttp r = Curl("GET", "/redfish/v1/Systems/1", Basic());
    EXPECT_EQ(r.status, 200);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
    for (int s : slow) close(s);

    // Raw bytes of a request stay escaped in the front end's log line.
    Exchange("GET /redfish/v1/\xff\x1b[31mX HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    const std::string log = sFront->Output();
    EXPECT_EQ(log.find("\x1b"), std::string::npos);
    EXPECT_EQ(log.find("\xff"), std::string::npos);
    EXPECT_NE(log.find("/redfish/v1/\\xFF\\x1B[31mX 400"), std::string::npos) << log;
}

// A request that reaches no listener answers 503 with Retry-After at once.
TEST_F(FrontEndProtocolTest, NoListenerAnswersUnavailableAtOnce) {
    RawCommand({"HSET", "/redfish/v1/Orphan", "@odata.id", "\"/redfish/v1/Orphan\""});
    RawCommand({"RPUSH", "&&/redfish/v1/Orphan/PATCHQ", "Nobody:PATCH"});
    const auto start = std::chrono::steady_clock::now();
    sHttp r = Curl(
        "PATCH", "/redfish/v1/Orphan",
        {"-u", "admin:admin-pw", "-H", "Content-Type: application/json", "-d", R"({"Name":"x"})"});
    EXPECT_EQ(r.status, 503);
    EXPECT_EQ(r.headers["Retry-After"], "5");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    RawCommand({"DEL", "/redfish/v1/Orphan", "&&/redfish/v1/Orphan/PATCHQ"});
}

}  // namespace

namespace {

// Sessions: login, use (the plug-in sees the session), logout, refusals; a
// name that keeps failing is locked out, and no password is logged.
TEST_F(FrontEndProtocolTest, SessionsLoginUseAndLogout) {
    const std::vector<std::string> json = {"-H", "Content-Type: application/json", "-d"};
    auto login = [&json](const std::string& body) {
        std::vector<std::string> args = json;
        args.push_back(body);
        return Curl("POST", "/redfish/v1/SessionService/Sessions", args);
    };
    sHttp r = login(R"({"UserName":"admin","Password":"admin-pw"})");
    ASSERT_EQ(r.status, 201) << r.body;
    const std::string token = r.headers["X-Auth-Token"];
    const std::string session = r.headers["Location"];
    EXPECT_EQ(token.size(), 48u);
    EXPECT_EQ(r.doc["@odata.id"], session);
    EXPECT_EQ(r.doc["UserName"], "admin");
    EXPECT_TRUE(r.doc["Password"].is_null());

    const std::vector<std::string> auth = {"-H", "X-Auth-Token: " + token};
    EXPECT_EQ(Curl("GET", "/redfish/v1/Systems/1", auth).status, 200);
    EXPECT_EQ(Curl("GET", session, auth).doc["Id"], session.substr(session.rfind('/') + 1));
    EXPECT_EQ(Curl("GET", "/redfish/v1/SessionService/Sessions", auth).doc["Members@odata.count"],
              1);
    // The plug-in logged the request as one made with a session.
    EXPECT_TRUE(WaitUntil(
        [] {
            return ReadFile(SysrootDir() + "/tmp/Redfish/RF_Root.accesslog").find("SESS[admin:") !=
                   std::string::npos;
        },
        kTimeoutMs));
    EXPECT_EQ(Curl("DELETE", session, auth).status, 204);
    EXPECT_EQ(Curl("GET", "/redfish/v1/Systems/1", auth).status, 401);
    // A session left unused ends by itself (the suite's idle time-out: 3 s).
    // Watched with Basic credentials: a use of the token would keep it alive.
    const std::string idle =
        login(R"({"UserName":"admin","Password":"admin-pw"})").headers["Location"];
    EXPECT_TRUE(
        WaitUntil([&idle] { return Curl("GET", idle, Basic()).status == 404; }, kTimeoutMs));

    struct Row {
        const char* body;
        int status;
        const char* messageId;
    } rows[] = {
        {R"({"UserName":"admin","Password":"wrong"})", 401, "Base.1.12.NoValidSession"},
        {R"({"UserName":"admin"})", 400, "Base.1.12.PropertyMissing"},
        {"not json", 400, "Base.1.12.MalformedJSON"},
    };
    for (const Row& row : rows) {
        r = login(row.body);
        EXPECT_EQ(r.status, row.status) << row.body;
        EXPECT_EQ(ErrorId(r), row.messageId) << row.body;
    }
    // Five failures in a row lock the name: then even its password fails.
    for (int i = 0; i < 5; ++i) login(R"({"UserName":"ro","Password":"Guess-1234"})");
    EXPECT_EQ(login(R"({"UserName":"ro","Password":"ro-pw"})").status, 401);
    EXPECT_EQ(Curl("GET", "/redfish/v1/Systems", {"-u", "ro:ro-pw"}).status, 401);
    const std::string log = sFront->Output();
    EXPECT_NE(log.find("user[ro] locked out"), std::string::npos) << log;
    EXPECT_EQ(log.find("Guess-1234"), std::string::npos);
}

// The front end's own documents: $metadata and the service document open,
// accounts without passwords, the predefined roles, the root's links.
TEST_F(FrontEndProtocolTest, OwnResourcesAndRootLinks) {
    sHttp r = Curl("GET", "/redfish/v1/$metadata");
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(r.headers["Content-Type"], "application/xml");
    for (const char* ns :
         {"ComputerSystem.v1_20_0", "ServiceRoot.v1_15_0", "Session.v1_7_0", "EntityContainer"}) {
        EXPECT_NE(r.body.find(ns), std::string::npos) << ns;
    }
    r = Curl("GET", "/redfish/v1/odata");
    EXPECT_EQ(r.doc["@odata.context"], "/redfish/v1/$metadata");
    EXPECT_TRUE(r.doc["value"].is_array());

    r = Curl("GET", "/redfish/v1/", Basic());
    EXPECT_EQ(r.doc["Links"]["Sessions"]["@odata.id"], "/redfish/v1/SessionService/Sessions");
    EXPECT_EQ(r.doc["AccountService"]["@odata.id"], "/redfish/v1/AccountService");
    EXPECT_TRUE(r.doc["ProtocolFeaturesSupported"]["SelectQuery"]);

    r = Curl("GET", "/redfish/v1/AccountService/Accounts/admin", Basic());
    EXPECT_EQ(r.doc["RoleId"], "Administrator");
    EXPECT_TRUE(r.doc["Password"].is_null());
    EXPECT_EQ(r.body.find("admin-pw"), std::string::npos);
    r = Curl("GET", "/redfish/v1/AccountService/Roles/ReadOnly", Basic());
    EXPECT_EQ(r.doc["AssignedPrivileges"], json({"Login", "ConfigureSelf"}));
    // Accounts come from the users file: not changed over HTTP.
    r = Curl("POST", "/redfish/v1/AccountService/Accounts",
             {"-u", "admin:admin-pw", "-H", "Content-Type: application/json", "-d", "{}"});
    EXPECT_EQ(r.status, 405);
    EXPECT_EQ(r.headers["Allow"], "GET, HEAD");
}

// Headers and methods, ETags and queries.
TEST_F(FrontEndProtocolTest, HeadersEtagsAndQueries) {
    sHttp r = Curl("GET", "/redfish/v1/Systems/1", Basic());
    EXPECT_EQ(r.headers["Allow"], "GET, HEAD, PATCH, DELETE");
    EXPECT_EQ(r.headers["Cache-Control"], "no-cache");
    EXPECT_EQ(r.headers["Link"],
              "<http://redfish.dmtf.org/schemas/v1/ComputerSystem.v1_20_0.json>; rel=describedby");
    // Action objects carry only what the schema allows.
    EXPECT_FALSE(r.doc["Actions"]["#ComputerSystem.Reset"].contains("PercentComplete"));
    EXPECT_FALSE(r.doc["Actions"]["Oem"]["#Orbel.FailingSelfTest"].contains("HidePayload"));
    const std::string etag = r.headers["ETag"];
    ASSERT_EQ(etag.compare(0, 3, "W/\""), 0);

    const std::vector<std::string> patch = {"-u", "admin:admin-pw",
                                            "-H", "Content-Type: application/json",
                                            "-d", R"({"AssetTag":"etag-test"})"};
    auto with = [&patch](std::vector<std::string> more) {
        more.insert(more.begin(), patch.begin(), patch.end());
        return more;
    };
    struct Row {
        const char* what;
        const char* method;
        const char* path;
        std::vector<std::string> args;
        int status;
    } rows[] = {
        {"If-None-Match current",
         "GET",
         "/redfish/v1/Systems/1",
         {"-u", "admin:admin-pw", "-H", "If-None-Match: " + etag},
         304},
        {"OData-Version 4.1",
         "GET",
         "/redfish/v1/Systems/1",
         {"-u", "admin:admin-pw", "-H", "OData-Version: 4.1"},
         412},
        {"unknown method", "FROB", "/redfish/v1/Systems/1", Basic(), 501},
        {"text body",
         "PATCH",
         "/redfish/v1/Systems/1",
         {"-u", "admin:admin-pw", "-H", "Content-Type: text/plain", "-d", "{}"},
         415},
        {"current If-Match", "PATCH", "/redfish/v1/Systems/1", with({"-H", "If-Match: " + etag}),
         200},
        {"unknown plain parameter", "GET", "/redfish/v1/Systems?foo=bar", Basic(), 200},
        {"bad $top", "GET", "/redfish/v1/Systems?$top=-1", Basic(), 400},
        {"deep $expand", "GET", "/redfish/v1/Systems?$expand=*($levels=9)", Basic(), 400},
    };
    for (const Row& row : rows) {
        r = Curl(row.method, row.path, row.args);
        EXPECT_EQ(r.status, row.status) << row.what << ": " << r.body;
        EXPECT_EQ(r.headers["OData-Version"], "4.0") << row.what;
    }
    // A refused method names the ones served (the 405 itself, and the stale
    // If-Match and $filter answers, are rows of FrontEndHttpTest's table).
    EXPECT_EQ(Curl("PUT", "/redfish/v1/Systems/1", Basic()).headers["Allow"],
              "GET, HEAD, PATCH, DELETE");
    // The PATCH changed the document: its ETag changed with it.
    EXPECT_NE(Curl("GET", "/redfish/v1/Systems/1", Basic()).headers["ETag"], etag);

    r = Curl("GET", "/redfish/v1/Systems?$skip=1&$top=1", Basic());
    EXPECT_EQ(r.doc["Members"], json::parse(R"([{"@odata.id":"/redfish/v1/Systems/2"}])"));
    EXPECT_EQ(r.doc["Members@odata.count"], 2);
    r = Curl("GET", "/redfish/v1/Systems?$top=1", Basic());
    EXPECT_EQ(r.doc["Members@odata.nextLink"], "/redfish/v1/Systems?$skip=1&$top=1");
    r = Curl("GET", "/redfish/v1/Systems/1?$select=Status/Health,Name", Basic());
    EXPECT_EQ(r.doc, json::parse(R"({"@odata.context":"/redfish/v1/$metadata#ComputerSystem",
        "@odata.id":"/redfish/v1/Systems/1","@odata.type":"#ComputerSystem.v1_20_0.ComputerSystem",
        "Name":"Sample System 1","Status":{"Health":"OK"}})"));
    r = Curl("GET", "/redfish/v1/Systems?$expand=.($levels=1)", Basic());
    EXPECT_EQ(r.doc["Members"][1]["Id"], "2");
    r = Curl("GET", "/redfish/v1/Systems/1?$expand=~", Basic());
    EXPECT_EQ(r.doc["Links"]["ConsumingComputerSystems"][0]["Id"], "2");
    // The open root expands nothing for a client without credentials.
    r = Curl("GET", "/redfish/v1/?$expand=*");
    EXPECT_EQ(r.doc["Systems"], json::parse(R"({"@odata.id":"/redfish/v1/Systems"})"));
    // Messages carry MessageSeverity, not the deprecated Severity.
    r = Curl("GET", "/redfish/v1/NoSuchThing", Basic());
    EXPECT_FALSE(r.doc["error"]["@Message.ExtendedInfo"][0].contains("Severity"));
    EXPECT_TRUE(r.doc["error"]["@Message.ExtendedInfo"][0].contains("MessageSeverity"));
}

}  // namespace
