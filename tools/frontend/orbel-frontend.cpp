// orbel-frontend: a development front end. Serves Redfish over HTTP on
// 127.0.0.1 from the plug-ins' store, so curl and redfishtool can talk to a
// plug-in on a development host (docs/frontend.md).
//
//   orbel-frontend --users FILE [--port N]
//                  [--https-port N [--cert PEM --key PEM | --cert-out PEM]]
//                  [--registries DIR] [--schemas DIR] [--timeout-ms N]
//                  [--session-timeout SECONDS] [--quiet]
//
// Port 0 (the default) takes a free port; the line
// "orbel-frontend: listening on http://127.0.0.1:<port>/" tells which (and
// "... https://127.0.0.1:<port>/" the HTTPS one, with a self-signed
// certificate made at start unless --cert and --key name one; --cert-out
// writes the made one, for clients that verify). Once
// listening it sets "nginx_redfish_ready" in the (simulated) platform, so
// waiting plug-ins start serving; SIGINT or SIGTERM clears it and ends.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "FixedPaths.h"
#include "HttpServer.h"
#include "MessageRegistry.h"
#include "RedfishService.h"
#include "UserTable.h"
#include "vex.h"

#ifndef ORBEL_FRONTEND_REGISTRY_DIR
#define ORBEL_FRONTEND_REGISTRY_DIR "."
#endif

namespace {

int Usage() {
    fprintf(stderr,
            "usage: orbel-frontend --users FILE [--port N]\n"
            "                      [--https-port N [--cert PEM --key PEM | --cert-out PEM]]\n"
            "                      [--registries DIR] [--schemas DIR] [--timeout-ms N]\n"
            "                      [--session-timeout SECONDS] [--quiet]\n"
            "  FILE: one user a line, name:password:role\n"
            "        (roles: Administrator, Operator, ReadOnly, NoAccess)\n");
    return 2;
}

// The message registries: ORBEL_FRONTEND_REGISTRIES when set; else beside
// the program, wherever its prefix was installed or moved
// (<bin>/ORBEL_FRONTEND_REGISTRY_DIR, a path relative to the program's
// directory), or in the build tree (<dir>/registries).
std::string DefaultRegistryDir() {
    const char* forced = getenv("ORBEL_FRONTEND_REGISTRIES");
    if (forced != nullptr && *forced != '\0') return forced;
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) return ORBEL_FRONTEND_REGISTRY_DIR;
    std::string dir(self, static_cast<size_t>(n));
    dir.erase(dir.rfind('/'));
    const std::string installed = dir + "/" + ORBEL_FRONTEND_REGISTRY_DIR;
    for (const std::string& candidate : {installed, dir + "/registries"}) {
        struct stat st{};
        if (stat(candidate.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return candidate;
    }
    return installed;
}

bool Number(const char* text, long lo, long hi, long* out) {
    char* end = nullptr;
    const long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string usersPath;
    std::string registryDir;
    long port = 0;
    long httpsPort = -1;
    std::string certFile;
    std::string keyFile;
    std::string certOut;
    OrbelFrontEnd::sServiceConfig config;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        long n = 0;
        if (a == "--users" && hasValue) {
            usersPath = argv[++i];
        } else if (a == "--registries" && hasValue) {
            registryDir = argv[++i];
        } else if (a == "--port" && hasValue && Number(argv[i + 1], 0, 65535, &port)) {
            ++i;
        } else if (a == "--https-port" && hasValue && Number(argv[i + 1], 0, 65535, &httpsPort)) {
            ++i;
        } else if (a == "--schemas" && hasValue) {
            config.schemaDir = argv[++i];
        } else if (a == "--cert" && hasValue) {
            certFile = argv[++i];
        } else if (a == "--cert-out" && hasValue) {
            certOut = argv[++i];
        } else if (a == "--key" && hasValue) {
            keyFile = argv[++i];
        } else if (a == "--session-timeout" && hasValue &&
                   Number(argv[i + 1], 1, 86400, &n)) {
            config.sessionIdleSeconds = static_cast<int>(n);
            ++i;
        } else if (a == "--timeout-ms" && hasValue && Number(argv[i + 1], 1, 600000, &n)) {
            config.answerTimeoutMs = static_cast<int>(n);
            ++i;
        } else if (a == "--quiet") {
            config.quiet = true;
        } else {
            return Usage();
        }
    }
    if (usersPath.empty() || certFile.empty() != keyFile.empty()) return Usage();
    if (registryDir.empty()) registryDir = DefaultRegistryDir();

    OrbelFrontEnd::UserTable users;
    std::string error;
    if (!users.Load(usersPath, &error)) {
        fprintf(stderr, "orbel-frontend: %s (option --users)\n", error.c_str());
        return 1;
    }
    OrbelFrontEnd::MessageRegistry registry;
    if (registry.Load(registryDir, &error) == 0) {
        fprintf(stderr,
                "orbel-frontend: no message registry in %s (%s); name the directory with "
                "--registries DIR or ORBEL_FRONTEND_REGISTRIES\n",
                registryDir.c_str(), error.c_str());
        return 1;
    }
    config.socketPath = Orbel::RedisSocketPath();

    // Signals are taken by one thread that stops the server; the worker
    // threads never see them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    OrbelFrontEnd::sConnectionLimits limits;
    OrbelFrontEnd::HttpServer server(limits);
    OrbelFrontEnd::RedfishService service(config, users, registry);
    OrbelFrontEnd::sEventConfig eventConfig;
    eventConfig.socketPath = config.socketPath;
    OrbelFrontEnd::EventService events(
        eventConfig, registry,
        [&service](const httplib::Request& req, OrbelFrontEnd::sUser* user) {
            return service.Authenticate(req, user);
        });
    if (!events.Start(&server, &error)) {
        fprintf(stderr, "orbel-frontend: event service: %s\n", error.c_str());
        return 1;
    }
    service.SetEventService(&events);
    service.Install(server);
    auto bind = [](OrbelFrontEnd::HttpServer& s, long wanted) {
        return s.Bind("127.0.0.1", static_cast<int>(wanted));
    };
    const int bound = bind(server, port);
    if (bound <= 0) {
        fprintf(stderr, "orbel-frontend: cannot listen on 127.0.0.1:%ld\n", port);
        return 1;
    }
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> tls(nullptr, SSL_CTX_free);
    std::unique_ptr<OrbelFrontEnd::HttpServer> secure;
    std::thread secureThread;
    if (httpsPort >= 0) {
        tls.reset(OrbelFrontEnd::MakeTlsContext(certFile, keyFile, certOut, &error));
        if (!tls) {
            fprintf(stderr, "orbel-frontend: %s\n", error.c_str());
            return 1;
        }
        secure.reset(new OrbelFrontEnd::HttpServer(limits, tls.get()));
        service.Install(*secure);
        const int securePort = bind(*secure, httpsPort);
        if (securePort <= 0) {
            fprintf(stderr, "orbel-frontend: cannot listen on 127.0.0.1:%ld\n", httpsPort);
            return 1;
        }
        printf("orbel-frontend: listening on https://127.0.0.1:%d/ (%s)\n", securePort,
               certFile.empty() ? "self-signed certificate" : certFile.c_str());
        secureThread = std::thread([&secure] { secure->listen_after_bind(); });
    }
    std::thread stopper([&server, &secure, stopSignals] {
        int sig = 0;
        sigwait(&stopSignals, &sig);
        server.stop();
        if (secure) secure->stop();
    });
    if (vex_config_set_bool("nginx_redfish_ready", 1, 0) == 0) {
        fprintf(stderr, "orbel-frontend: could not set nginx_redfish_ready\n");
    }
    printf("orbel-frontend: listening on http://127.0.0.1:%d/ (store %s)\n", bound,
           config.socketPath.c_str());
    fflush(stdout);
    server.listen_after_bind();
    vex_config_set_bool("nginx_redfish_ready", 0, 0);
    events.Stop();
    if (stopper.joinable()) {
        // listen ended without a signal (an error): wake the stopper.
        pthread_kill(stopper.native_handle(), SIGTERM);
        stopper.join();
    }
    if (secureThread.joinable()) secureThread.join();
    printf("orbel-frontend: stopped\n");
    return 0;
}
