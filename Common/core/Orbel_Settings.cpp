// VEX and KOBA settings, the controller clock, run level and controller state:
// the platform side of the helpers (Orbel.h). Log lines name "Orbel.cpp", as
// for every helper.
#include "Orbel.h"
#include "Orbel_Mutex.h"

#include <dirent.h>
#include <fcntl.h>
#include <paths.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utmp.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <sstream>

#include "FixedPaths.h"
#include "ZLogPrint.h"
#include "koba.h"
#include "proc_system.h"
#include "tarn_clock.h"
#include "vex.h"

#undef ORBEL_LOG_FILE_NAME
#define ORBEL_LOG_FILE_NAME "Orbel.cpp"

namespace Orbel {

// ---------------------------------------------------------------------------
// VEX and KOBA settings, controller clock, run level, controller state
// ---------------------------------------------------------------------------

namespace {

// A VEX call's result (non-zero success) as an eRtCode; a failure is logged
// under the calling wrapper's name `func` unless `quiet`.
eRtCode VexGetResult(int rc, const char* func, const std::string& name, bool quiet) {
    if (rc != 0) return RT_SUCCESS;
    if (!quiet) {
        LogPrintf("", eZLogError, ORBEL_LOG_FILE_NAME, func, __LINE__, "Get vex[%s] variable failed\n",
                  name.c_str());
    }
    return RT_FAILURE;
}

eRtCode VexSetResult(int rc, const char* func, const std::string& name, bool quiet) {
    if (rc != 0) return RT_SUCCESS;
    if (!quiet) {
        LogPrintf("", eZLogError, ORBEL_LOG_FILE_NAME, func, __LINE__, "Set vex[%s] variable failed\n",
                  name.c_str());
    }
    return RT_FAILURE;
}

// The store's instance selectors: the controller's own instance.
#define ORBEL_KOBA_INSTANCE -1, 0, 0, 0

// Room for every string the store holds in practice; values set through
// SetKOBA are at most 511 bytes.
constexpr int kKobaStringReadSize = 1024;
constexpr size_t kKobaStringWriteSize = 512;

// A KOBA call's result (0 success) as an eRtCode, logging the store's error
// word `err` under the wrapper's name `func`.
eRtCode KobaGetResult(int rc, int err, const char* func, const std::string& name,
                      bool quietIfMissing = false) {
    if (rc == 0) return RT_SUCCESS;
    if (quietIfMissing && err == KOBA_ERR_NOT_FOUND) return RT_NO_SUCH_KEY;
    LogPrintf("", eZLogError, ORBEL_LOG_FILE_NAME, func, __LINE__,
              "Get kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(), err);
    return RT_FAILURE;
}

// `formatLine`: a type clash gets a line of its own (the bool and string
// setters), since a flag kept as a number or a text is the usual mistake.
eRtCode KobaSetResult(int rc, int err, const char* func, const std::string& name, bool formatLine) {
    if (rc == 0) return RT_SUCCESS;
    if (formatLine && err == KOBA_ERR_FORMAT) {
        LogPrintf("", eZLogError, ORBEL_LOG_FILE_NAME, func, __LINE__, "Set kobaName[%s] format error.\n",
                  name.c_str());
    } else {
        LogPrintf("", eZLogError, ORBEL_LOG_FILE_NAME, func, __LINE__,
                  "Set kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(), err);
    }
    return RT_FAILURE;
}

}  // namespace

eRtCode GetVEX(const std::string& name, bool& value, bool quiet) {
    // Callers poll flags such as "nginx_redfish_ready" and take a failed
    // read as "not yet": the reset makes that the natural result.
    value = false;
    int v = 0;
    eRtCode rc = VexGetResult(vex_config_get_bool(name.c_str(), &v), __func__, name, quiet);
    if (rc == RT_SUCCESS) value = v != 0;
    return rc;
}

eRtCode GetVEX(const std::string& name, int& value, bool quiet) {
    int v = 0;
    eRtCode rc = VexGetResult(vex_config_get_int(name.c_str(), &v), __func__, name, quiet);
    if (rc == RT_SUCCESS) value = v;
    return rc;
}

eRtCode GetVEX(const std::string& name, long long& value, bool quiet) {
    long long v = 0;
    eRtCode rc = VexGetResult(vex_config_get_int64(name.c_str(), &v), __func__, name, quiet);
    if (rc == RT_SUCCESS) value = v;
    return rc;
}

eRtCode GetVEX(const std::string& name, std::string& value, bool quiet) {
    char buffer[1024] = {};
    eRtCode rc =
        VexGetResult(vex_config_get_str_n(name.c_str(), buffer, static_cast<int>(sizeof(buffer))),
                     __func__, name, quiet);
    buffer[sizeof(buffer) - 1] = '\0';
    if (rc == RT_SUCCESS) value = buffer;
    return rc;
}

eRtCode GetVEX(const std::string& name, char* buffer, int size, bool quiet) {
    bool usable = buffer != nullptr && size > 0;
    return VexGetResult(usable ? vex_config_get_str_n(name.c_str(), buffer, size) : 0, __func__,
                        name, quiet);
}

eRtCode SetVEX(const std::string& name, bool value, bool persist, bool quiet) {
    return VexSetResult(vex_config_set_bool(name.c_str(), value ? 1 : 0, persist ? 1 : 0), __func__,
                        name, quiet);
}

eRtCode SetVEX(const std::string& name, int value, bool persist, bool quiet) {
    return VexSetResult(vex_config_set_int(name.c_str(), value, persist ? 1 : 0), __func__, name,
                        quiet);
}

eRtCode SetVEX(const std::string& name, long long value, bool persist, bool quiet) {
    return VexSetResult(vex_config_set_int64(name.c_str(), value, persist ? 1 : 0), __func__, name,
                        quiet);
}

eRtCode SetVEX(const std::string& name, const std::string& value, bool persist, bool quiet) {
    return VexSetResult(vex_config_set_str_n(name.c_str(), value.c_str(),
                                             static_cast<int>(value.size()), persist ? 1 : 0),
                        __func__, name, quiet);
}

eRtCode SetVEX(const std::string& name, const char* value, bool persist, bool quiet) {
    // A null value is never handed to the platform, whose behaviour on it
    // is not ours to rely on; it fails like a refused set.
    int rc = value != nullptr
                 ? vex_config_set_str_n(name.c_str(), value, static_cast<int>(std::strlen(value)),
                                        persist ? 1 : 0)
                 : 0;
    return VexSetResult(rc, __func__, name, quiet);
}

eRtCode GetKOBA(const std::string& name, unsigned int& value, bool quietIfMissing) {
    int err = 0;
    unsigned int v = 0;
    // The call is a statement of its own: `err` is read only after it.
    int rc = GetVarValueUINT(ORBEL_KOBA_INSTANCE, name.c_str(), &err, &v);
    eRtCode result = KobaGetResult(rc, err, __func__, name, quietIfMissing);
    if (result != RT_SUCCESS) return result == RT_NO_SUCH_KEY ? result : RT_FAILURE;
    value = v;
    return RT_SUCCESS;
}

eRtCode GetKOBA(const std::string& name, int& value) {
    int err = 0;
    int v = 0;
    // The call is a statement of its own: `err` is read only after it.
    int rc = GetVarValueSINT(ORBEL_KOBA_INSTANCE, name.c_str(), &err, &v);
    if (KobaGetResult(rc, err, __func__, name) != RT_SUCCESS) return RT_FAILURE;
    value = v;
    return RT_SUCCESS;
}

eRtCode GetKOBA(const std::string& name, bool& value) {
    int err = 0;
    int v = 0;
    // The call is a statement of its own: `err` is read only after it.
    int rc = GetVarValueBOOL(ORBEL_KOBA_INSTANCE, name.c_str(), &err, &v);
    if (KobaGetResult(rc, err, __func__, name) != RT_SUCCESS) return RT_FAILURE;
    value = v != 0;
    return RT_SUCCESS;
}

eRtCode GetKOBA(const std::string& name, char* buffer, int size) {
    int err = 0;
    int rc = GetVarValueSTRING(ORBEL_KOBA_INSTANCE, name.c_str(), &err, buffer, size);
    return KobaGetResult(rc, err, __func__, name);
}

eRtCode GetKOBA(const std::string& name, std::string& value, bool quietIfMissing) {
    int err = 0;
    char buffer[kKobaStringReadSize] = {};
    int rc =
        GetVarValueSTRING(ORBEL_KOBA_INSTANCE, name.c_str(), &err, buffer, kKobaStringReadSize);
    eRtCode result = KobaGetResult(rc, err, __func__, name, quietIfMissing);
    if (result != RT_SUCCESS) return result == RT_NO_SUCH_KEY ? result : RT_FAILURE;
    buffer[kKobaStringReadSize - 1] = '\0';
    value = buffer;
    return RT_SUCCESS;
}

eRtCode SetKOBA(const std::string& name, unsigned int value) {
    int err = 0;
    int rc = SetVarValueUINT(ORBEL_KOBA_INSTANCE, name.c_str(), &err, value);
    return KobaSetResult(rc, err, __func__, name, false);
}

eRtCode SetKOBA(const std::string& name, int value) {
    int err = 0;
    int rc = SetVarValueSINT(ORBEL_KOBA_INSTANCE, name.c_str(), &err, value);
    return KobaSetResult(rc, err, __func__, name, false);
}

eRtCode SetKOBA(const std::string& name, bool value) {
    int err = 0;
    int rc = SetVarValueBOOL(ORBEL_KOBA_INSTANCE, name.c_str(), &err, value ? 1 : 0);
    return KobaSetResult(rc, err, __func__, name, true);
}

eRtCode SetKOBA(const std::string& name, const std::string& value) {
    int err = 0;
    // The store takes at most 511 bytes of text; longer values are cut here.
    char buffer[kKobaStringWriteSize];
    std::snprintf(buffer, sizeof(buffer), "%s", value.c_str());
    int rc = SetVarValueSTRING(ORBEL_KOBA_INSTANCE, name.c_str(), &err, buffer);
    return KobaSetResult(rc, err, __func__, name, true);
}

eRtCode SetKOBA(const std::string& name, const char* value) {
    // A null value is refused the way the store refuses an unusable buffer.
    if (value == nullptr)
        return KobaSetResult(KOBA_ERR_BUFFER, KOBA_ERR_BUFFER, __func__, name, true);
    return SetKOBA(name, std::string(value));
}

eRtCode GetTarnClock(std::string& dateTime, std::string& zone) {
    struct tm tm;
    std::memset(&tm, 0, sizeof(tm));
    char zoneText[16] = {};
    int rc = getTarnClock(&tm, zoneText, static_cast<int>(sizeof(zoneText)));
    if (rc != 0) {
        ZLOG(eZLogWarning, "Get Tarn Clock, return:%d\n", rc);
        return RT_FAILURE;
    }
    zoneText[sizeof(zoneText) - 1] = '\0';
    char text[64];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d%s", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, zoneText);
    dateTime = text;
    zone = zoneText;
    return RT_SUCCESS;
}

int GetSysRunLevel() {
    // The utmp reader keeps one cursor per process inside the C library.
    static Mutex utmpMutex;
    MutexLock lock(utmpMutex);
    // The system's utmp file, relocated like every fixed path so a
    // development host or a test can supply its own.
    std::string path = SysrootPath(_PATH_UTMP);
    if (utmpname(path.c_str()) != 0) return 0;
    int level = 0;
    setutent();
    while (struct utmp* record = getutent()) {
        if (record->ut_type == RUN_LVL) {
            level = record->ut_pid & 0xF;
            if (level > 7) level = 7;
            break;
        }
    }
    endutent();
    return level;
}

bool IsTARNShuttingDown() {
    FILE* marker = std::fopen(ShuttingDownMarkerPath().c_str(), "r");
    if (marker == nullptr) return false;
    std::fclose(marker);
    return true;
}

}  // namespace Orbel
