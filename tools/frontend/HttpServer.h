// The connection side of the development front end: cpp-httplib's request
// parsing and routing, on connections this class reads and writes itself so
// that it can bound what a client may hold (docs/frontend.md, "Connections").
//
// - Answers go out with TCP_NODELAY and the header and body of one answer in
//   one write: a keep-alive client never waits on its own delayed ACK.
// - Keep-alive connections serve up to `keepAliveMaxRequests` requests.
// - A request (line, headers and body) must arrive within `requestArrivalMs`
//   of its first byte; the header is bounded in lines and bytes (431).
// - One client address holds at most `perClientConnections` connections: a
//   new one past the bound closes that client's oldest connection that is
//   still waiting for (or receiving) a request, so slow clients cannot keep
//   a fast one out.
// - With a TLS context the connections speak HTTPS (TLS 1.2 or newer).
//
// Threads: the handlers run on the server's worker pool; the connection
// table is shared by the workers under one mutex.
#ifndef ORBEL_FRONTEND_HTTPSERVER_H
#define ORBEL_FRONTEND_HTTPSERVER_H

#include <httplib.h>
#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include "Orbel_Mutex.h"

namespace OrbelFrontEnd {

using Orbel::CondVar;
using Orbel::Mutex;
using Orbel::MutexLock;

struct sConnectionLimits {
    int requestArrivalMs = 10000;
    int keepAliveIdleMs = 5000;
    int writeTimeoutMs = 5000;
    size_t keepAliveMaxRequests = 10000;
    size_t maxHeaderLines = 64;
    size_t maxHeaderBytes = 16 * 1024;
    int perClientConnections = 16;
    int workerThreads = 40;
};

// Why the connection layer refused a request, for the error answer that the
// worker thread writes next ("" when it did not).
const char* ConnectionFault();
// Ends the calling worker's connection after the answer it writes now (the
// request could not be parsed whole: what follows it is out of step).
void EndConnectionAfterAnswer();
// The answer of this thread's request streams (Server-Sent Events): each
// write is sent at once instead of with the next request's read.
void StreamThisAnswer();

class HttpServer : public httplib::Server {
public:
    // `tls` (owned by the caller, may be null) makes the server speak HTTPS.
    explicit HttpServer(const sConnectionLimits& limits, SSL_CTX* tls = nullptr);
    // Binds to `host`:`port` (0: a free port) with a listen backlog that
    // lets a burst of clients in at once; the port, or -1.
    int Bind(const std::string& host, int port);

private:
    struct sConn {
        int fd;
        std::string client;
        bool arriving;  // waiting for or receiving a request
        uint64_t since;
    };

    bool process_and_close_socket(socket_t sock) override;
    std::list<sConn>::iterator _Register(int fd, const std::string& client);
    void _Unregister(std::list<sConn>::iterator it);

    // Constant after construction.
    const sConnectionLimits mLimits;
    SSL_CTX* mTls;
    Mutex mMutex;
    std::list<sConn> mConns GUARDED_BY(mMutex);
    uint64_t mTick GUARDED_BY(mMutex) = 0;

    friend class ConnStream;
};

// A TLS server context with a self-signed certificate for 127.0.0.1 and
// localhost, made now (EC P-256, valid for one year; the key stays in
// memory, the certificate is written to `certOut` when not empty); null with
// `*error` set when OpenSSL fails. `certFile`/`keyFile`, when not empty, name
// PEM files to use instead.
SSL_CTX* MakeTlsContext(const std::string& certFile, const std::string& keyFile,
                        const std::string& certOut, std::string* error);

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_HTTPSERVER_H
