// Login sessions of the development front end, and the lockout of names
// that keep failing to log in.
//
// A session is made by a login (POST of UserName and Password to the
// Sessions collection): it has an id (its URI's last segment) and a token
// (the X-Auth-Token a client sends). It ends by DELETE of its URI, or when
// it was not used for the idle time-out. The table holds a bounded number.
//
// Threads: every member is safe to call from any number of HTTP worker
// threads at once (one mutex each for sessions and for the lockout).
// Tokens and passwords are never logged.
#ifndef ORBEL_FRONTEND_SESSIONTABLE_H
#define ORBEL_FRONTEND_SESSIONTABLE_H

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "Orbel_Mutex.h"
#include "UserTable.h"

namespace OrbelFrontEnd {

using Orbel::CondVar;
using Orbel::Mutex;
using Orbel::MutexLock;

constexpr const char* kSessionsUri = "/redfish/v1/SessionService/Sessions";

struct sSession {
    std::string id;
    std::string token;
    sUser user;
    std::string remoteIp;
    std::string created;  // ISO 8601, UTC
};

class SessionTable {
public:
    SessionTable(size_t maxSessions, int idleSeconds)
        : mMax(maxSessions), mIdleSeconds(idleSeconds) {}

    // A new session for `user`; false when the table is full.
    bool Create(const sUser& user, const std::string& remoteIp, sSession* out);
    // The session of `token`, which counts as a use; false when there is none
    // (or it idled out).
    bool Use(const std::string& token, sSession* out);
    bool Find(const std::string& id, sSession* out);
    bool Remove(const std::string& id);
    std::vector<sSession> List();

    size_t Max() const { return mMax; }
    int IdleSeconds() const { return mIdleSeconds; }

private:
    using Clock = std::chrono::steady_clock;
    struct sEntry {
        sSession session;
        Clock::time_point lastUse;
    };
    void _Expire() REQUIRES(mMutex);

    const size_t mMax;
    const int mIdleSeconds;
    Mutex mMutex;
    std::map<std::string, sEntry> mById GUARDED_BY(mMutex);
};

// After `threshold` failed logins of one name in a row, the name is refused
// for `lockSeconds` whatever the password (AccountService's
// AccountLockoutThreshold and AccountLockoutDuration). Each failure and each
// lock is logged with the name (escaped) and the client's address.
class LoginGuard {
public:
    LoginGuard(unsigned threshold, int lockSeconds)
        : mThreshold(threshold), mLockSeconds(lockSeconds) {}

    bool Locked(const std::string& name);
    void Failed(const std::string& name, const std::string& remoteIp);
    void Succeeded(const std::string& name);

    unsigned Threshold() const { return mThreshold; }
    int LockSeconds() const { return mLockSeconds; }

private:
    using Clock = std::chrono::steady_clock;
    struct sCount {
        unsigned failures = 0;
        Clock::time_point lockedUntil;
    };
    const unsigned mThreshold;
    const int mLockSeconds;
    Mutex mMutex;
    std::map<std::string, sCount> mCounts GUARDED_BY(mMutex);  // bounded: cleared past 4096 names
};

// Client text for a log line: control bytes, bytes past ASCII and "\" as
// \xHH, so one request stays one line.
std::string LogText(const std::string& text);

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_SESSIONTABLE_H
