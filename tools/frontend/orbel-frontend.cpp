// orbel-frontend: a development front end. Serves Redfish over HTTP on
// 127.0.0.1 from the plug-ins' store, so curl and redfishtool can talk to a
// plug-in on a development host (docs/frontend.md).
//
//   orbel-frontend --users FILE [--port N] [--registries DIR]
//                  [--timeout-ms N] [--quiet]
//
// Port 0 (the default) takes a free port; the line
// "orbel-frontend: listening on http://127.0.0.1:<port>/" tells which. Once
// listening it sets "nginx_redfish_ready" in the (simulated) platform, so
// waiting plug-ins start serving; SIGINT or SIGTERM clears it and ends.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "FixedPaths.h"
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
            "usage: orbel-frontend --users FILE [--port N] [--registries DIR]\n"
            "                      [--timeout-ms N] [--quiet]\n"
            "  FILE: one user a line, name:password:role\n"
            "        (roles: Administrator, Operator, ReadOnly, NoAccess)\n");
    return 2;
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
    std::string registryDir = ORBEL_FRONTEND_REGISTRY_DIR;
    long port = 0;
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
        } else if (a == "--timeout-ms" && hasValue && Number(argv[i + 1], 1, 600000, &n)) {
            config.answerTimeoutMs = static_cast<int>(n);
            ++i;
        } else if (a == "--quiet") {
            config.quiet = true;
        } else {
            return Usage();
        }
    }
    if (usersPath.empty()) return Usage();

    OrbelFrontEnd::UserTable users;
    std::string error;
    if (!users.Load(usersPath, &error)) {
        fprintf(stderr, "orbel-frontend: %s\n", error.c_str());
        return 1;
    }
    OrbelFrontEnd::MessageRegistry registry;
    if (registry.Load(registryDir, &error) == 0) {
        fprintf(stderr, "orbel-frontend: no message registry in %s (%s)\n", registryDir.c_str(),
                error.c_str());
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

    httplib::Server server;
    OrbelFrontEnd::RedfishService service(config, users, registry);
    OrbelFrontEnd::sEventConfig eventConfig;
    eventConfig.socketPath = config.socketPath;
    OrbelFrontEnd::EventService events(
        eventConfig, registry, [&users](const httplib::Request& req, OrbelFrontEnd::sUser* user) {
            return users.Authenticate(req.get_header_value("Authorization"), user);
        });
    if (!events.Start(&server, &error)) {
        fprintf(stderr, "orbel-frontend: event service: %s\n", error.c_str());
        return 1;
    }
    service.SetEventService(&events);
    service.Install(server);
    int bound = static_cast<int>(port);
    if (port == 0) {
        bound = server.bind_to_any_port("127.0.0.1");
    } else if (!server.bind_to_port("127.0.0.1", bound)) {
        bound = -1;
    }
    if (bound <= 0) {
        fprintf(stderr, "orbel-frontend: cannot listen on 127.0.0.1:%ld\n", port);
        return 1;
    }
    std::thread stopper([&server, stopSignals] {
        int sig = 0;
        sigwait(&stopSignals, &sig);
        server.stop();
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
    printf("orbel-frontend: stopped\n");
    return 0;
}
