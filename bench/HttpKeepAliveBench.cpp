// A GET over HTTP with keep-alive against the same GET at the store level.
//
// Runs against a service that tools/frontend/serve.sh started (the front end
// and the sample plug-ins over a private store):
//
//   tools/frontend/serve.sh build/release 8480 > serve.out &
//   ORBEL_SYSROOT=<the sysroot serve.out names>
//   build/release/bench/HttpKeepAliveBench 8480 /redfish/v1/Systems/1
//
// In turn, request by request: one GET over one kept-alive HTTP connection
// (Basic authentication, as curl sends it), and the same GET written into the
// store the way the front end forwards it (HSET of the request hash, PUBLISH
// on the resource's read channel, wait for the key on a return channel).
// Reports both p50 and their ratio (goal: HTTP <= 2x the store level), and
// whether the connection stayed open for every request.
#include <arpa/inet.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRequests = 2000;

double Us(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::micro>(b - a).count();
}

double P50(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

// One kept-alive connection; false when the server closed it.
class HttpClient {
public:
    explicit HttpClient(int port) {
        mFd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int one = 1;
        setsockopt(mFd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (connect(mFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            std::perror("bench: connect");
            std::exit(1);
        }
    }
    ~HttpClient() { close(mFd); }

    // The status code, or -1 when the connection failed or was closed.
    int Get(const std::string& uri) {
        const std::string req = "GET " + uri +
                                " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Basic "
                                "YWRtaW46YWRtaW4tcHc=\r\nAccept: */*\r\n\r\n";
        if (write(mFd, req.data(), req.size()) != static_cast<ssize_t>(req.size())) return -1;
        std::string in;
        size_t headerEnd = std::string::npos;
        char buf[8192];
        while (headerEnd == std::string::npos) {
            const ssize_t n = read(mFd, buf, sizeof buf);
            if (n <= 0) return -1;
            in.append(buf, static_cast<size_t>(n));
            headerEnd = in.find("\r\n\r\n");
        }
        size_t length = 0;
        const size_t at = in.find("Content-Length: ");
        if (at != std::string::npos && at < headerEnd) length = std::strtoul(in.c_str() + at + 16, nullptr, 10);
        while (in.size() < headerEnd + 4 + length) {
            const ssize_t n = read(mFd, buf, sizeof buf);
            if (n <= 0) return -1;
            in.append(buf, static_cast<size_t>(n));
        }
        mClosed = in.compare(0, headerEnd, "Connection: close") == 0 ||
                  in.find("Connection: close") < headerEnd;
        return std::atoi(in.c_str() + 9);
    }
    bool Closed() const { return mClosed; }

private:
    int mFd = -1;
    bool mClosed = false;
};

redisContext* Connect() {
    const char* root = std::getenv("ORBEL_SYSROOT");
    const std::string sock = std::string(root != nullptr ? root : "") + "/tmp/redis.sock";
    redisContext* c = redisConnectUnix(sock.c_str());
    if (c == nullptr || c->err != 0) {
        std::fprintf(stderr, "bench: no store at %s (set ORBEL_SYSROOT)\n", sock.c_str());
        std::exit(1);
    }
    return c;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: HttpKeepAliveBench PORT URI (ORBEL_SYSROOT set)\n");
        return 2;
    }
    const int port = std::atoi(argv[1]);
    const std::string uri = argv[2];
    redisContext* cmd = Connect();
    redisContext* listen = Connect();
    const std::string ret = "Bench:KeepAlive:Return";
    redisReply* r = static_cast<redisReply*>(redisCommand(listen, "SUBSCRIBE %s", ret.c_str()));
    freeReplyObject(r);
    // The resource's read channel, as its GETQ list names it.
    r = static_cast<redisReply*>(redisCommand(cmd, "LINDEX &&%s/GETQ 0", uri.c_str()));
    if (r == nullptr || r->type != REDIS_REPLY_STRING) {
        std::fprintf(stderr, "bench: %s has no read channel in the store\n", uri.c_str());
        return 1;
    }
    const std::string channel(r->str, r->len);
    freeReplyObject(r);

    HttpClient http(port);
    std::vector<double> httpUs, storeUs;
    int closed = 0, failed = 0;
    for (int i = 0; i < kRequests; ++i) {
        auto t0 = Clock::now();
        const int status = http.Get(uri);
        auto t1 = Clock::now();
        if (status != 200) ++failed;
        if (http.Closed()) ++closed;
        httpUs.push_back(Us(t0, t1));

        const std::string key = "Bench:KeepAlive:Req:" + std::to_string(i);
        t0 = Clock::now();
        freeReplyObject(redisCommand(cmd,
                                     "HSET %s &&RequestMethod GET &&TargetURI %s &&ReturnChannel %s "
                                     "&&RemoteIP 127.0.0.1 &&Username admin &&AuthHeader BasicAuth "
                                     "&&UserPrivNumber 0x1f8 &&OperationPrivileges Login",
                                     key.c_str(), uri.c_str(), ret.c_str()));
        freeReplyObject(redisCommand(cmd, "PUBLISH %s %s", channel.c_str(), key.c_str()));
        for (;;) {
            void* raw = nullptr;
            if (redisGetReply(listen, &raw) != REDIS_OK) return 1;
            redisReply* m = static_cast<redisReply*>(raw);
            const bool mine = m->type == REDIS_REPLY_ARRAY && m->elements == 3 &&
                              key == std::string(m->element[2]->str, m->element[2]->len);
            freeReplyObject(m);
            if (mine) break;
        }
        t1 = Clock::now();
        storeUs.push_back(Us(t0, t1));
        // The front end releases the lock once it has read the answer.
        freeReplyObject(redisCommand(cmd, "DEL &&ResourceLock:%s", uri.c_str()));
        freeReplyObject(redisCommand(cmd, "DEL %s", key.c_str()));
    }
    const double h = P50(httpUs), s = P50(storeUs);
    std::printf("%d GETs of %s, in turn:\n", kRequests, uri.c_str());
    std::printf("  HTTP, one kept-alive connection   p50 %8.1f us  (%d not 200, %d answers closing it)\n",
                h, failed, closed);
    std::printf("  store level (HSET, PUBLISH, wait)  p50 %8.1f us\n", s);
    std::printf("  HTTP / store level                 %.2fx (goal <= 2x)\n", h / s);
    redisFree(cmd);
    redisFree(listen);
    return failed == 0 && closed == 0 ? 0 : 1;
}
