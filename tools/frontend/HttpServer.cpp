// Connections of the development front end: bounded arrival, keep-alive
// without a Nagle stall, TLS.
#include "HttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>

namespace OrbelFrontEnd {

namespace {

using Clock = std::chrono::steady_clock;

thread_local const char* tFault = "";
// Set while an answer streams (Server-Sent Events): every write goes out at once.
thread_local bool tStreaming = false;

int MsUntil(Clock::time_point t) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t - Clock::now()).count();
    return ms < 0 ? 0 : static_cast<int>(ms);
}

std::string Address(int fd, bool peer, int* port) {
    sockaddr_storage ss;
    socklen_t len = sizeof ss;
    const int rc = peer ? getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &len)
                        : getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len);
    char text[INET6_ADDRSTRLEN] = "";
    *port = 0;
    if (rc != 0) return std::string();
    if (ss.ss_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(&ss);
        inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
        *port = ntohs(in->sin_port);
    } else if (ss.ss_family == AF_INET6) {
        const auto* in = reinterpret_cast<const sockaddr_in6*>(&ss);
        inet_ntop(AF_INET6, &in->sin6_addr, text, sizeof text);
        *port = ntohs(in->sin6_port);
    }
    return text;
}

}  // namespace

const char* ConnectionFault() { return tFault; }

void StreamThisAnswer() { tStreaming = true; }

void EndConnectionAfterAnswer() {
    if (*tFault == '\0') tFault = "end";
}

// One connection as cpp-httplib reads it: byte-wise reads from a buffer,
// answers collected and sent in one write when the next read begins.
class ConnStream : public httplib::Stream {
public:
    ConnStream(HttpServer& server, std::list<HttpServer::sConn>::iterator conn, int fd, SSL* ssl)
        : mServer(server), mConn(conn), mFd(fd), mSsl(ssl) {}

    // Waits up to `ms` for the next request's first byte; false when the
    // connection ends or stays idle (answers still unsent go out first).
    bool WaitRequest(int ms, const std::function<bool()>& running) {
        if (!Flush()) return false;
        const auto until = Clock::now() + std::chrono::milliseconds(ms);
        while (running()) {
            if (mPos < mLen || (mSsl != nullptr && SSL_pending(mSsl) > 0)) break;
            const int left = MsUntil(until);
            if (left == 0) return false;
            pollfd p{mFd, POLLIN, 0};
            const int rc = poll(&p, 1, left < 200 ? left : 200);
            if (rc < 0 && errno != EINTR) return false;
            if (rc > 0) break;
        }
        if (!running()) return false;
        mDeadline = Clock::now() + std::chrono::milliseconds(mServer.mLimits.requestArrivalMs);
        mInHeader = true;
        mNoBody = false;
        mHeader.clear();
        mHeaderBytes = mHeaderLines = mLineBytes = 0;
        tFault = "";
        tStreaming = false;
        return true;
    }

    bool Flush() {
        size_t done = 0;
        while (done < mOut.size()) {
            pollfd p{mFd, POLLOUT, 0};
            if (poll(&p, 1, mServer.mLimits.writeTimeoutMs) <= 0) return false;
            const ssize_t n = mSsl != nullptr
                                  ? SSL_write(mSsl, mOut.data() + done,
                                              static_cast<int>(mOut.size() - done))
                                  : send(mFd, mOut.data() + done, mOut.size() - done, MSG_NOSIGNAL);
            if (n <= 0) {
                if (mSsl == nullptr && n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
                return false;
            }
            done += static_cast<size_t>(n);
        }
        mOut.clear();
        return true;
    }

    bool is_readable() const override {
        return mPos < mLen || (mSsl != nullptr && SSL_pending(mSsl) > 0);
    }
    bool is_writable() const override { return true; }

    ssize_t read(char* ptr, size_t size) override {
        // A request without a length has no body (HTTP/1.1): its end is here,
        // not at the end of the connection.
        if (mNoBody) return 0;
        if (mPos == mLen && !_Fill()) return -1;
        size_t n = mLen - mPos;
        if (n > size) n = size;
        if (mInHeader && !_CountHeader(mBuf + mPos, n)) return -1;
        memcpy(ptr, mBuf + mPos, n);
        mPos += n;
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const char* ptr, size_t size) override {
        mOut.append(ptr, size);
        if ((tStreaming || mOut.size() >= 64 * 1024) && !Flush()) return -1;
        return static_cast<ssize_t>(size);
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        ip = Address(mFd, true, &port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        ip = Address(mFd, false, &port);
    }
    socket_t socket() const override { return mFd; }

private:
    bool _Fill() {
        if (!Flush()) return false;
        mPos = mLen = 0;
        for (;;) {
            if (mSsl == nullptr || SSL_pending(mSsl) == 0) {
                const int left = MsUntil(mDeadline);
                pollfd p{mFd, POLLIN, 0};
                const int rc = left == 0 ? 0 : poll(&p, 1, left);
                if (rc < 0 && errno == EINTR) continue;
                if (rc <= 0) {
                    tFault = "slow";
                    return false;
                }
            }
            const ssize_t n = mSsl != nullptr ? SSL_read(mSsl, mBuf, sizeof mBuf)
                                              : recv(mFd, mBuf, sizeof mBuf, 0);
            if (n > 0) {
                mLen = static_cast<size_t>(n);
                return true;
            }
            if (mSsl != nullptr && SSL_get_error(mSsl, static_cast<int>(n)) == SSL_ERROR_WANT_READ)
                continue;
            if (mSsl == nullptr && n < 0 && errno == EINTR) continue;
            return false;
        }
    }

    // Counts header lines and bytes as cpp-httplib consumes them; the
    // blank line ends the header and makes the connection busy (no longer
    // the one a new connection of the same client may close).
    bool _CountHeader(const char* p, size_t n) {
        for (size_t i = 0; i < n && mInHeader; ++i) {
            if (++mHeaderBytes > mServer.mLimits.maxHeaderBytes) return _TooLarge();
            if (p[i] == '\n') {
                if (mLineBytes == 0) {
                    mInHeader = false;
                    mNoBody = !_DeclaresBody();
                    MutexLock lock(mServer.mMutex);
                    mConn->arriving = false;
                } else if (++mHeaderLines > mServer.mLimits.maxHeaderLines) {
                    return _TooLarge();
                }
                mLineBytes = 0;
            } else if (p[i] != '\r') {
                ++mLineBytes;
            }
            mHeader += static_cast<char>(tolower(static_cast<unsigned char>(p[i])));
        }
        return true;
    }
    bool _DeclaresBody() const {
        return mHeader.find("\ncontent-length:") != std::string::npos ||
               mHeader.find("\ntransfer-encoding:") != std::string::npos;
    }
    bool _TooLarge() {
        tFault = "header";
        return false;
    }

    HttpServer& mServer;
    std::list<HttpServer::sConn>::iterator mConn;
    int mFd;
    SSL* mSsl;
    char mBuf[4096];
    size_t mPos = 0;
    size_t mLen = 0;
    std::string mOut;
    Clock::time_point mDeadline;
    bool mInHeader = false;
    bool mNoBody = false;
    std::string mHeader;  // lowered, for the length headers
    size_t mHeaderBytes = 0;
    size_t mHeaderLines = 0;
    size_t mLineBytes = 0;
};

HttpServer::HttpServer(const sConnectionLimits& limits, SSL_CTX* tls)
    : mLimits(limits), mTls(tls) {
    const size_t threads = static_cast<size_t>(limits.workerThreads);
    new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    // Only the Keep-Alive header reads these; the loop below applies them.
    set_keep_alive_max_count(limits.keepAliveMaxRequests);
    set_keep_alive_timeout(limits.keepAliveIdleMs / 1000);
}

int HttpServer::Bind(const std::string& host, int port) {
    int bound = port;
    if (port == 0) {
        bound = bind_to_any_port(host);
    } else if (!bind_to_port(host, port)) {
        bound = -1;
    }
    // cpp-httplib listens with a backlog of 5: a burst of connections past it
    // waits out SYN retransmits (a second and more) before the accept.
    if (bound > 0) ::listen(svr_sock_, 256);
    return bound;
}

std::list<HttpServer::sConn>::iterator HttpServer::_Register(int fd, const std::string& client) {
    MutexLock lock(mMutex);
    int held = 0;
    auto oldest = mConns.end();
    for (auto it = mConns.begin(); it != mConns.end(); ++it) {
        if (it->client != client) continue;
        ++held;
        if (it->arriving && (oldest == mConns.end() || it->since < oldest->since)) oldest = it;
    }
    if (held >= mLimits.perClientConnections && oldest != mConns.end()) {
        // Its worker sees the end of the stream and closes it.
        shutdown(oldest->fd, SHUT_RDWR);
        oldest->arriving = false;
    }
    return mConns.insert(mConns.end(), sConn{fd, client, true, ++mTick});
}

void HttpServer::_Unregister(std::list<sConn>::iterator it) {
    MutexLock lock(mMutex);
    mConns.erase(it);
}

bool HttpServer::process_and_close_socket(socket_t sock) {
    const int one = 1;
    setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    int port = 0;
    auto conn = _Register(sock, Address(sock, true, &port));
    SSL* ssl = nullptr;
    bool ok = true;
    if (mTls != nullptr) {
        // The handshake is bounded like the arrival of a request.
        timeval tv{mLimits.requestArrivalMs / 1000, (mLimits.requestArrivalMs % 1000) * 1000};
        setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        // Plain HTTP sent to the HTTPS port gets a plain refusal, not a
        // silent close (a TLS record starts with 0x16).
        unsigned char first = 0;
        pollfd p{sock, POLLIN, 0};
        if (poll(&p, 1, mLimits.requestArrivalMs) == 1 && recv(sock, &first, 1, MSG_PEEK) == 1 &&
            first != 0x16) {
            static const char kPlain[] =
                "HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain\r\nContent-Length: 35\r\n"
                "Connection: close\r\n\r\nThis port speaks HTTPS, not HTTP.\r\n";
            send(sock, kPlain, sizeof kPlain - 1, MSG_NOSIGNAL);
            ok = false;
        } else {
            ssl = SSL_new(mTls);
            ok = ssl != nullptr && SSL_set_fd(ssl, sock) == 1 && SSL_accept(ssl) == 1;
        }
    }
    if (ok) {
        ConnStream strm(*this, conn, sock, ssl);
        auto running = [this] { return is_running(); };
        for (size_t n = 0; n < mLimits.keepAliveMaxRequests; ++n) {
            if (!strm.WaitRequest(n == 0 ? mLimits.requestArrivalMs : mLimits.keepAliveIdleMs,
                                  running)) {
                break;
            }
            bool closed = false;
            const bool last = n + 1 == mLimits.keepAliveMaxRequests;
            if (!process_request(strm, last, closed, [](httplib::Request&) {}) || closed) break;
            // After a refused header or a late request the stream is out of
            // step: the answer ends the connection.
            if (*ConnectionFault() != '\0') break;
            MutexLock lock(mMutex);
            conn->arriving = true;
            conn->since = ++mTick;
        }
        strm.Flush();
    }
    if (ssl != nullptr) {
        if (ok) SSL_shutdown(ssl);
        SSL_free(ssl);
    }
    _Unregister(conn);
    shutdown(sock, SHUT_RDWR);
    close(sock);
    return ok;
}

SSL_CTX* MakeTlsContext(const std::string& certFile, const std::string& keyFile,
                        const std::string& certOut, std::string* error) {
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    if (ctx == nullptr) {
        *error = "SSL_CTX_new failed";
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    SSL_CTX_set_mode(ctx, SSL_MODE_AUTO_RETRY);
    if (!certFile.empty()) {
        if (SSL_CTX_use_certificate_chain_file(ctx, certFile.c_str()) != 1 ||
            SSL_CTX_use_PrivateKey_file(ctx, keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
            SSL_CTX_check_private_key(ctx) != 1) {
            *error = "cannot use the certificate " + certFile + " with the key " + keyFile;
            SSL_CTX_free(ctx);
            return nullptr;
        }
        return ctx;
    }
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    bool ok = key != nullptr && cert != nullptr;
    if (ok) {
        X509_set_version(cert, 2);
        unsigned char serial[8] = {1};
        RAND_bytes(serial, sizeof serial);
        serial[0] = static_cast<unsigned char>((serial[0] & 0x7F) | 0x01);
        BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
        BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert));
        BN_free(bn);
        X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
        X509_gmtime_adj(X509_getm_notAfter(cert), 365L * 24 * 3600);
        X509_set_pubkey(cert, key);
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("orbel-frontend"), -1, -1,
                                   0);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
        X509_set_issuer_name(cert, name);
        X509V3_CTX v3;
        X509V3_set_ctx_nodb(&v3);
        X509V3_set_ctx(&v3, cert, cert, nullptr, nullptr, 0);
        for (const auto& ext : {std::make_pair(NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"),
                                std::make_pair(NID_basic_constraints, "critical,CA:FALSE"),
                                std::make_pair(NID_key_usage, "critical,digitalSignature"),
                                std::make_pair(NID_ext_key_usage, "serverAuth")}) {
            X509_EXTENSION* e = X509V3_EXT_conf_nid(nullptr, &v3, ext.first, ext.second);
            ok = ok && e != nullptr && X509_add_ext(cert, e, -1) == 1;
            X509_EXTENSION_free(e);
        }
        ok = ok && X509_sign(cert, key, EVP_sha256()) > 0 &&
             SSL_CTX_use_certificate(ctx, cert) == 1 && SSL_CTX_use_PrivateKey(ctx, key) == 1;
    }
    if (ok && !certOut.empty()) {
        // The certificate only (public): clients that verify may trust it.
        FILE* f = fopen(certOut.c_str(), "w");
        ok = f != nullptr && PEM_write_X509(f, cert) == 1;
        if (f != nullptr) ok = fclose(f) == 0 && ok;
        if (!ok) *error = "cannot write the certificate to " + certOut;
    }
    X509_free(cert);
    EVP_PKEY_free(key);
    if (!ok && !error->empty()) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    if (!ok) {
        char text[256];
        ERR_error_string_n(ERR_get_error(), text, sizeof text);
        *error = std::string("cannot make a self-signed certificate: ") + text;
        SSL_CTX_free(ctx);
        return nullptr;
    }
    return ctx;
}

}  // namespace OrbelFrontEnd
