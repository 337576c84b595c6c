// The sample plug-in behind the development front end (orbel-frontend), both
// children against the suite's store, for suites that talk HTTP to it on
// 127.0.0.1: curl, raw sockets, or a client of their own.
#ifndef ORBEL_TEST_HTTPFRONTEND_H
#define ORBEL_TEST_HTTPFRONTEND_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ChildProcess.h"

namespace OrbelTest {

struct sHttp {
    int status = 0;
    std::map<std::string, std::string> headers;  // last value of each name
    std::string body;
    nlohmann::json doc;  // the body parsed (null when it is not JSON)
};

class HttpFrontEndTest : public ::testing::Test {
public:
    // Starts RF_Root, then the front end with `users` as its users file and
    // `frontArgs` added, and waits until the plug-in serves.
    static void StartServices(const std::string& users, std::vector<std::string> frontArgs = {});
    // Stops the front end (a sanitizer's finding fails its exit status; the
    // readiness it set must be cleared) and the plug-in.
    static void TearDownTestSuite();

    // curl with `more` before the URL; the answer split into its parts.
    static sHttp Curl(const std::string& method, const std::string& path,
                      std::vector<std::string> more = {}, bool secure = false);
    // `request` sent whole on a connection of its own to `port`, the answer
    // read until the peer closes, split into its parts.
    static sHttp Exchange(const std::string& request, int port = sPort);
    // An answer as the peer sent it, split into its parts (status 0 when it
    // is not one).
    static sHttp Parse(std::string out);
    // The "code" of an error answer.
    static std::string ErrorId(const sHttp& r);
    // A raw connection to the front end's HTTP port, or another one on
    // 127.0.0.1 (-1 on failure).
    static int Connect(int port = sPort);
    // Everything the peer sends until it closes or `ms` pass.
    static std::string ReadAll(int fd, int ms);

    static constexpr int kTimeoutMs = 15000;
    static std::unique_ptr<ChildProcess> sPlugin;
    static std::unique_ptr<ChildProcess> sFront;
    static int sPort;
    static int sSecurePort;  // 0 unless the front end was asked for HTTPS
};

}  // namespace OrbelTest

#endif  // ORBEL_TEST_HTTPFRONTEND_H
