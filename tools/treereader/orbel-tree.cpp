// orbel-tree: prints the JSON document the front end would serve for a JPath,
// assembled from the store by the store tree reader, or lists store keys.
// A developer's window on what the library wrote; tests and the demo use it
// as a child process too.
#include <getopt.h>
#include <hiredis/hiredis.h>
#include <sys/time.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "FixedPaths.h"
#include "StoreTreeReader.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // a JPath not found, the store unreachable
constexpr int kExitUsage = 2;

void PrintUsage(FILE* to) {
    const std::string socket = Orbel::RedisSocketPath();
    std::fprintf(to,
                 "Usage: orbel-tree [-s SOCKET] [--compact] [--meta] JPATH...\n"
                 "       orbel-tree [-s SOCKET] --keys PATTERN\n"
                 "Prints the JSON document stored under each JPATH, assembled as the front\n"
                 "end serves it, or lists the store keys that match PATTERN.\n"
                 "  -s, --socket SOCKET  the store's Unix socket (default %s)\n"
                 "      --compact        print each document on one line\n"
                 "      --meta           keep the library's && fields (debug view)\n"
                 "      --keys PATTERN   list the keys matching the glob PATTERN, sorted\n"
                 "  -h, --help           print this text\n"
                 "Exit status: 0 ok, 1 a JPATH not found or the store unreachable, 2 usage.\n",
                 socket.c_str());
}

// Keys and documents may hold any byte: written with their length.
void PrintLine(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
}

struct ContextFree {
    void operator()(redisContext* c) const {
        if (c != nullptr) redisFree(c);
    }
};

}  // namespace

int main(int argc, char** argv) {
    enum { kOptCompact = 1000, kOptMeta, kOptKeys };
    static const option kLongOptions[] = {
        {"socket", required_argument, nullptr, 's'}, {"compact", no_argument, nullptr, kOptCompact},
        {"meta", no_argument, nullptr, kOptMeta},    {"keys", required_argument, nullptr, kOptKeys},
        {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0},
    };
    std::string socket = Orbel::RedisSocketPath();
    Orbel::sStoreTreeOptions options;
    bool listKeys = false;
    std::string pattern;

    // Our own messages instead of getopt's, so they name the program the same
    // way whatever argv[0] is.
    opterr = 0;
    int opt;
    while ((opt = getopt_long(argc, argv, ":s:h", kLongOptions, nullptr)) != -1) {
        switch (opt) {
            case 's':
                socket = optarg;
                break;
            case kOptCompact:
                options.pretty = false;
                break;
            case kOptMeta:
                options.includeMeta = true;
                break;
            case kOptKeys:
                listKeys = true;
                pattern = optarg;
                break;
            case 'h':
                PrintUsage(stdout);
                return kExitOk;
            case ':':
                std::fprintf(stderr, "orbel-tree: option %s needs an argument\n", argv[optind - 1]);
                PrintUsage(stderr);
                return kExitUsage;
            default:
                // optopt holds the letter of an unknown short option; for a
                // long one the word is the argument just passed over.
                if (optopt > 0 && optopt < 128) {
                    std::fprintf(stderr, "orbel-tree: unknown option -%c\n", optopt);
                } else {
                    std::fprintf(stderr, "orbel-tree: unknown option %s\n", argv[optind - 1]);
                }
                PrintUsage(stderr);
                return kExitUsage;
        }
    }
    std::vector<std::string> jpaths(argv + optind, argv + argc);
    if (jpaths.empty() && !listKeys) {
        std::fprintf(stderr, "orbel-tree: no JPATH given\n");
        PrintUsage(stderr);
        return kExitUsage;
    }

    // A store that accepts the connection but never answers must not hang a
    // test or a shell forever.
    const timeval timeout = {10, 0};
    std::unique_ptr<redisContext, ContextFree> c(
        redisConnectUnixWithTimeout(socket.c_str(), timeout));
    if (!c || c->err != 0) {
        std::fprintf(stderr, "orbel-tree: cannot connect to %s: %s\n", socket.c_str(),
                     c ? c->errstr : "out of memory");
        return kExitFailed;
    }
    redisSetTimeout(c.get(), timeout);

    int rc = kExitOk;
    std::string error;
    if (listKeys) {
        std::vector<std::string> keys;
        if (!Orbel::ListStoreKeys(c.get(), pattern, keys, &error)) {
            std::fprintf(stderr, "orbel-tree: --keys %s: %s\n", pattern.c_str(), error.c_str());
            return kExitFailed;
        }
        for (const auto& key : keys) PrintLine(key);
    }
    for (const auto& jpath : jpaths) {
        std::string json;
        if (!Orbel::ReadStoreTree(c.get(), jpath, json, &error, options)) {
            std::fprintf(stderr, "orbel-tree: %s: %s\n", jpath.c_str(), error.c_str());
            rc = kExitFailed;
            // A connection that failed stays failed: the remaining JPaths
            // would only repeat the message.
            if (c->err != 0) break;
            continue;
        }
        PrintLine(json);
    }
    std::fflush(stdout);
    return rc;
}
