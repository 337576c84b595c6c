// Sessions and the login lockout of the development front end.
#include "SessionTable.h"

#include <openssl/rand.h>

#include <cstdio>
#include <ctime>

namespace OrbelFrontEnd {

namespace {

std::string RandomHex(size_t bytes) {
    std::vector<unsigned char> raw(bytes);
    if (RAND_bytes(raw.data(), static_cast<int>(bytes)) != 1) return std::string();
    std::string out;
    char hex[3];
    for (unsigned char c : raw) {
        snprintf(hex, sizeof hex, "%02x", c);
        out += hex;
    }
    return out;
}

std::string NowIso() {
    const time_t now = time(nullptr);
    struct tm tm;
    gmtime_r(&now, &tm);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S+00:00", &tm);
    return text;
}

}  // namespace

std::string LogText(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c < 0x20 || c >= 0x7F || c == '\\') {
            char hex[5];
            snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

void SessionTable::_Expire() {
    const auto now = Clock::now();
    for (auto it = mById.begin(); it != mById.end();) {
        if (now - it->second.lastUse >= std::chrono::seconds(mIdleSeconds)) {
            it = mById.erase(it);
        } else {
            ++it;
        }
    }
}

bool SessionTable::Create(const sUser& user, const std::string& remoteIp, sSession* out) {
    MutexLock lock(mMutex);
    _Expire();
    if (mById.size() >= mMax) return false;
    sEntry e;
    e.session.id = RandomHex(8);
    e.session.token = RandomHex(24);
    if (e.session.id.empty() || e.session.token.empty() || mById.count(e.session.id) != 0)
        return false;
    e.session.user = user;
    e.session.remoteIp = remoteIp;
    e.session.created = NowIso();
    e.lastUse = Clock::now();
    *out = e.session;
    mById.emplace(e.session.id, e);
    return true;
}

bool SessionTable::Use(const std::string& token, sSession* out) {
    if (token.empty()) return false;
    MutexLock lock(mMutex);
    _Expire();
    for (auto& kv : mById) {
        // Compared without stopping at the first difference.
        const std::string& t = kv.second.session.token;
        unsigned char diff = t.size() == token.size() ? 0 : 1;
        for (size_t i = 0; i < t.size(); ++i)
            diff |= static_cast<unsigned char>(t[i] ^ (i < token.size() ? token[i] : 0));
        if (diff == 0) {
            kv.second.lastUse = Clock::now();
            *out = kv.second.session;
            return true;
        }
    }
    return false;
}

bool SessionTable::Find(const std::string& id, sSession* out) {
    MutexLock lock(mMutex);
    _Expire();
    auto it = mById.find(id);
    if (it == mById.end()) return false;
    *out = it->second.session;
    return true;
}

bool SessionTable::Remove(const std::string& id) {
    MutexLock lock(mMutex);
    return mById.erase(id) != 0;
}

std::vector<sSession> SessionTable::List() {
    MutexLock lock(mMutex);
    _Expire();
    std::vector<sSession> out;
    for (const auto& kv : mById) out.push_back(kv.second.session);
    return out;
}

bool LoginGuard::Locked(const std::string& name) {
    MutexLock lock(mMutex);
    auto it = mCounts.find(name);
    return it != mCounts.end() && Clock::now() < it->second.lockedUntil;
}

void LoginGuard::Failed(const std::string& name, const std::string& remoteIp) {
    MutexLock lock(mMutex);
    if (mCounts.size() >= 4096 && mCounts.count(name) == 0) mCounts.clear();
    sCount& c = mCounts[name];
    const auto now = Clock::now();
    if (now < c.lockedUntil) return;  // refused while locked: not counted again
    ++c.failures;
    fprintf(stderr, "orbel-frontend: login failed for user[%s] from %s (%u of %u)\n",
            LogText(name).c_str(), LogText(remoteIp).c_str(), c.failures, mThreshold);
    if (c.failures >= mThreshold) {
        c.failures = 0;
        c.lockedUntil = now + std::chrono::seconds(mLockSeconds);
        fprintf(stderr, "orbel-frontend: user[%s] locked out for %d s\n", LogText(name).c_str(),
                mLockSeconds);
    }
}

void LoginGuard::Succeeded(const std::string& name) {
    MutexLock lock(mMutex);
    mCounts.erase(name);
}

}  // namespace OrbelFrontEnd
