#include "HttpFrontEnd.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "TestEnv.h"
#include "vex.h"

namespace OrbelTest {

std::unique_ptr<ChildProcess> HttpFrontEndTest::sPlugin;
std::unique_ptr<ChildProcess> HttpFrontEndTest::sFront;
int HttpFrontEndTest::sPort = 0;
int HttpFrontEndTest::sSecurePort = 0;

namespace {
int PortAfter(const std::string& out, const std::string& scheme) {
    const size_t at = out.find(scheme + "://127.0.0.1:");
    return at == std::string::npos ? 0 : atoi(out.c_str() + at + scheme.size() + 13);
}
}  // namespace

void HttpFrontEndTest::StartServices(const std::string& users, std::vector<std::string> frontArgs) {
    ASSERT_TRUE(RedisServer::Instance().Start());
    RedisServer::Instance().FlushAll();
    ASSERT_NE(vex_config_set_bool("nginx_redfish_ready", 0, 0), 0);
    const std::string usersFile = SysrootDir() + "/frontend-users";
    WriteFile(usersFile, users);
    InstallSampleTemplates();
    sPlugin.reset(
        new ChildProcess({BuiltProgram("examples/RF_Root/RF_Root")}, {{"PLATFLAGS", "0x0"}}));
    ASSERT_TRUE(sPlugin->Start());
    ASSERT_TRUE(sPlugin->WaitForOutput("PreCorvelReady_InitAllSchemaResources done!\n", kTimeoutMs))
        << sPlugin->Output();
    frontArgs.insert(frontArgs.begin(),
                     {BuiltProgram("tools/frontend/orbel-frontend"), "--users", usersFile,
                      "--registries", SourceDir() + "/tools/frontend/registries"});
    sFront.reset(new ChildProcess(frontArgs));
    ASSERT_TRUE(sFront->Start());
    ASSERT_TRUE(sFront->WaitForOutput("/ (store ", kTimeoutMs)) << sFront->Output();
    sPort = PortAfter(sFront->Output(), "http");
    sSecurePort = PortAfter(sFront->Output(), "https");
    ASSERT_NE(sPort, 0) << sFront->Output();
    // The front end reported itself ready: the plug-in starts serving.
    ASSERT_TRUE(WaitForFile(SysrootDir() + "/tmp/Redfish/RF_Root.run", kTimeoutMs))
        << sPlugin->Output();
}

void HttpFrontEndTest::TearDownTestSuite() {
    if (sFront && sFront->Signal(SIGTERM)) {
        const int rc = sFront->Wait(kTimeoutMs);
        if (rc != 0)
            ADD_FAILURE() << "orbel-frontend ended with " << rc << "\n" << sFront->Output();
        int ready = -1;
        vex_config_get_bool("nginx_redfish_ready", &ready);
        if (ready != 0) ADD_FAILURE() << "nginx_redfish_ready still " << ready;
    }
    sFront.reset();
    sPlugin.reset();
}

sHttp HttpFrontEndTest::Curl(const std::string& method, const std::string& path,
                             std::vector<std::string> more, bool secure) {
    std::vector<std::string> argv = {"/usr/bin/curl", "-s", "-i", "--max-time", "20", "-k"};
    if (method == "HEAD") {
        argv.push_back("-I");
    } else {
        argv.insert(argv.end(), {"-X", method});
    }
    argv.insert(argv.end(), more.begin(), more.end());
    argv.push_back((secure ? "https://127.0.0.1:" + std::to_string(sSecurePort)
                           : "http://127.0.0.1:" + std::to_string(sPort)) +
                   path);
    ChildProcess curl(argv);
    return curl.Start() && curl.Wait(30000) == 0 ? Parse(curl.Output()) : sHttp();
}

sHttp HttpFrontEndTest::Exchange(const std::string& request, int port) {
    const int fd = Connect(port);
    if (fd < 0) return sHttp();
    std::string out;
    if (write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
        out = ReadAll(fd, 30000);
    }
    close(fd);
    return Parse(out);
}

sHttp HttpFrontEndTest::Parse(std::string out) {
    sHttp r;
    // A 100 Continue comes before the answer.
    while (out.compare(0, 25, "HTTP/1.1 100 Continue\r\n\r\n") == 0) out.erase(0, 25);
    const size_t end = out.find("\r\n\r\n");
    if (out.size() < 12 || end == std::string::npos) return r;
    const std::string head = out.substr(0, end);
    r.body = out.substr(end + 4);
    r.status = atoi(head.c_str() + head.find(' ') + 1);
    for (size_t pos = head.find("\r\n"); pos != std::string::npos;) {
        const size_t next = head.find("\r\n", pos + 2);
        const std::string line = head.substr(pos + 2, next - pos - 2);
        const size_t colon = line.find(": ");
        if (colon != std::string::npos) r.headers[line.substr(0, colon)] = line.substr(colon + 2);
        pos = next;
    }
    r.doc = nlohmann::json::parse(r.body, nullptr, false);
    if (r.doc.is_discarded()) r.doc = nullptr;
    return r;
}

std::string HttpFrontEndTest::ErrorId(const sHttp& r) {
    return r.doc.is_object() && r.doc.contains("error") ? r.doc["error"].value("code", "<no code>")
                                                        : "<no error body>";
}

int HttpFrontEndTest::Connect(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::string HttpFrontEndTest::ReadAll(int fd, int ms) {
    std::string out;
    char buf[4096];
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, ms) > 0) {
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

}  // namespace OrbelTest
