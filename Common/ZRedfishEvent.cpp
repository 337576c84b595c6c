// Redfish events: the event tree, its records and OEM blocks, and the hand-over
// to the event service's scripts.
#include "ZRedfishEvent.h"

#include <unistd.h>

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <memory>

#include "Orbel_Mutex.h"
#include "RedisCli.h"
#include "vpdd.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZObject_JsonStringTrans.h"
#include "ZResource.h"

namespace Orbel {

namespace {

constexpr const char* kAlertOdataType = "#VeltraEvent.v1_0_0.VeltraEventRecord";

// Caller texts (names, messages, arguments) are stored as JSON strings, so
// a quote or a control character in them cannot break the event body.
eRtCode WriteText(ZObject* node, const std::string& field, const std::string& text) {
    return node->HashWriteRawString(field, JsonQuoteString(text));
}

// The UUID of the machine record grouped 8-4-4-4-12, as a JSON string; null
// when the field is not 32 hexadecimal digits (an unprogrammed record).
std::string UuidText(const unsigned char* record) {
    const unsigned char* u = record + VPDD_UUID_OFFSET;
    for (int i = 0; i < VPDD_UUID_LENGTH; ++i) {
        if (!std::isxdigit(u[i])) {
            ZLOG(eZLogWarning, "The machine UUID in the vital product data is not %d hex digits.\n",
                 VPDD_UUID_LENGTH);
            return "null";
        }
    }
    char text[40];
    std::snprintf(text, sizeof(text),
                  "%c%c%c%c%c%c%c%c-%c%c%c%c-%c%c%c%c-%c%c%c%c-%c%c%c%c%c%c%c%c%c%c%c%c", u[0],
                  u[1], u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13],
                  u[14], u[15], u[16], u[17], u[18], u[19], u[20], u[21], u[22], u[23], u[24],
                  u[25], u[26], u[27], u[28], u[29], u[30], u[31]);
    return JsonQuoteString(text);
}

// A text field of the machine record (padded with zeros or blanks) as a
// JSON string; null when it holds a byte that is not printable.
std::string RecordText(const unsigned char* record, int offset, int length, const char* what) {
    std::string text;
    for (int i = 0; i < length && record[offset + i] != 0; ++i) {
        const unsigned char ch = record[offset + i];
        if (ch < 0x20 || ch > 0x7E) {
            ZLOG(eZLogWarning, "The machine %s in the vital product data is not printable.\n",
                 what);
            return "null";
        }
        text += static_cast<char>(ch);
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return JsonQuoteString(text);
}

}  // namespace

// ---------------------------------------------------------------------------
// Ids
// ---------------------------------------------------------------------------

std::string ZRedfishEvent::_NewEventId() {
    static Mutex idMutex;
    static uint64_t counter GUARDED_BY(idMutex) = 0;
    static int64_t lastSecond GUARDED_BY(idMutex) = 0;
    static std::string prefix GUARDED_BY(idMutex);  // "<seconds>-<pid>-" of lastSecond

    MutexLock lock(idMutex);
    // A clock stepped back must not make a later id sort before an earlier one.
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    if (prefix.empty() || now > lastSecond) {
        lastSecond = now;
        char text[48];
        std::snprintf(text, sizeof(text), "%" PRId64 "-%ld-", lastSecond,
                      static_cast<long>(getpid()));
        prefix = text;
    }
    char number[24];
    std::snprintf(number, sizeof(number), "%06" PRIu64, ++counter);
    return prefix + number;
}

// ---------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------

ZRedfishEvent::ZRedfishEvent(std::string name) : mEventId(_NewEventId()), mName(std::move(name)) {
    if (zApp == nullptr) {
        // Nodes live in the application's registry.
        ZLOG(eZLogError, "No application: event[%s] cannot be built.\n", mEventId.c_str());
        return;
    }
    std::optional<RedisConnectionScope> scope;
    _UseConnection(scope);
    mRoot = new ZJsonObject(nullptr, "&&" + mEventId);
    if (mRoot->IsDied() || mRoot->GetJPath().empty()) {
        ZLOG(eZLogError, "Failed to create the root of event[%s].\n", mEventId.c_str());
        return;  // the destructor retires it
    }
    WriteText(mRoot, "Id", mEventId);
    WriteText(mRoot, "Name", mName);
    mEvents = new ZJsonArray(mRoot, "Events");
    mRoot->HashWriteRawString("&&Events", mEvents->GetJPath());
    ZLOGM("ZComLib", eZLogRaw, "New event[%s].\n", mRoot->GetJPath().c_str());
}

ZRedfishEvent::~ZRedfishEvent() {
    if (mRoot != nullptr) {
        std::optional<RedisConnectionScope> scope;
        if (mClearStoreOnDelete) _UseConnection(scope);
        mRoot->Destroy(mClearStoreOnDelete);
        mRoot = nullptr;
        mEvents = nullptr;
    }
    if (mCtx != nullptr) RedisDisconnect(mCtx);
    mCtx = nullptr;
}

redisContext* ZRedfishEvent::_UseConnection(std::optional<RedisConnectionScope>& scope) {
    redisContext* current = RedisConnectionScope::Current();
    if (current != nullptr && current->err == 0) return current;
    if (mCtx != nullptr && mCtx->err != 0) {
        // A connection that met an error is never used again.
        RedisDisconnect(mCtx);
        mCtx = nullptr;
    }
    if (mCtx == nullptr) mCtx = RedisConnect();  // logged on failure
    if (mCtx != nullptr) scope.emplace(mCtx);
    return mCtx;
}

// ---------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------

ZJsonObject* ZRedfishEvent::CreateEventRecord(const std::string& prefix, const std::string& key,
                                              const std::string& severity,
                                              const std::string& message, ZResource* origin) {
    return _CreateEventRecord(prefix, key, severity, message, origin);
}

ZJsonObject* ZRedfishEvent::CreateEventRecord(const std::string& messageId,
                                              const std::string& message, ZResource* origin) {
    const size_t dot = messageId.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == messageId.size()) {
        ZLOG(eZLogError, "MessageId[%s] is not <prefix>.<key>.\n", messageId.c_str());
        return nullptr;
    }
    return _CreateEventRecord(messageId.substr(0, dot), messageId.substr(dot + 1), "OK", message,
                              origin);
}

ZJsonObject* ZRedfishEvent::_CreateEventRecord(const std::string& prefix, const std::string& key,
                                               const std::string& severity,
                                               const std::string& message, ZResource* origin) {
    if (mEvents == nullptr) {
        ZLOG(eZLogError, "Event[%s] has no Events list.\n", mEventId.c_str());
        return nullptr;
    }
    std::string originPath;
    if (origin != nullptr) {
        if (!Use(origin)) {
            ZLOG(eZLogError, "Origin[%p] is not a valid object.\n", static_cast<void*>(origin));
            return nullptr;
        }
        originPath = origin->GetJPath();
        origin->DecreaseUsingCount();
    }

    std::optional<RedisConnectionScope> scope;
    _UseConnection(scope);
    auto* record = new ZJsonObject(mEvents, std::to_string(mNextRecord++));
    if (record->IsDied() || record->GetJPath().empty()) {
        ZLOG(eZLogError, "Failed to create a record of event[%s].\n", mEventId.c_str());
        record->ObjDestroy(ZObject::eDestroyDelete, false);
        return nullptr;
    }
    mEvents->ListWriteRawString(record->GetJPath());
    WriteText(record, "MessageId", prefix + "." + key);
    if (origin != nullptr) record->HashWriteRawString("&&OriginOfCondition", originPath);
    record->HashWriteRawString("&&ResourceType", "LogService");
    WriteText(record, "MessageSeverity", severity);
    WriteText(record, "Message", message);
    auto* args = new ZJsonArray(record, "MessageArgs");
    record->HashWriteRawString("&&MessageArgs", args->GetJPath());
    return record;
}

bool ZRedfishEvent::_IsOwnRecord(ZJsonObject* record, const char* func) {
    if (record == nullptr || mEvents == nullptr || !Use(record)) {
        ZLOG(eZLogError, "%s: record[%p] is not a valid object.\n", func,
             static_cast<void*>(record));
        return false;
    }
    const bool own = record->GetParent() == mEvents && !record->IsDied();
    record->DecreaseUsingCount();
    if (!own) {
        ZLOG(eZLogError, "%s: record[%p] is not a record of event[%s].\n", func,
             static_cast<void*>(record), mEventId.c_str());
    }
    return own;
}

eRtCode ZRedfishEvent::EventRecord_AppendMessageArgs(ZJsonObject* record, const std::string& arg) {
    if (!_IsOwnRecord(record, __func__)) return RT_FAILURE;
    ZObject* args = record->GetChild("MessageArgs", true);
    if (args == nullptr || args->GetType() != ZObject::eJsonArray) {
        ZLOG(eZLogError, "Failed to get child( 'MessageArgs' ).\n");
        return RT_FAILURE;
    }
    return args->ListWriteRawString(JsonQuoteString(arg));
}

ZJsonObject* ZRedfishEvent::_FindOrCreateOem(ZJsonObject* record) {
    ZObject* found = record->GetChild("Oem", true);
    if (found != nullptr) {
        return found->GetType() == ZObject::eJsonObject ? static_cast<ZJsonObject*>(found)
                                                        : nullptr;
    }
    auto* oem = new ZJsonObject(record, "Oem");
    if (oem->IsDied() || oem->GetJPath().empty()) {
        oem->ObjDestroy(ZObject::eDestroyDelete, false);
        return nullptr;
    }
    record->HashWriteRawString("&&Oem", oem->GetJPath());
    return oem;
}

ZJsonObject* ZRedfishEvent::EventRecord_NewOemObj(ZJsonObject* record) {
    if (!_IsOwnRecord(record, __func__)) return nullptr;
    std::optional<RedisConnectionScope> scope;
    _UseConnection(scope);
    return _FindOrCreateOem(record);
}

ZJsonObject* ZRedfishEvent::EventRecord_NewAlertOemObj(ZJsonObject* record) {
    if (!_IsOwnRecord(record, __func__)) return nullptr;
    std::optional<RedisConnectionScope> scope;
    _UseConnection(scope);
    ZJsonObject* oem = _FindOrCreateOem(record);
    if (oem == nullptr) {
        ZLOG(eZLogError, "Failed to get the Oem object of record[%s].\n",
             record->GetJPath().c_str());
        return nullptr;
    }
    ZObject* found = oem->GetChild("Veltra", true);
    ZJsonObject* veltra = nullptr;
    if (found != nullptr) {
        if (found->GetType() != ZObject::eJsonObject) return nullptr;
        veltra = static_cast<ZJsonObject*>(found);
    } else {
        veltra = new ZJsonObject(oem, "Veltra");
        if (veltra->IsDied() || veltra->GetJPath().empty()) {
            veltra->ObjDestroy(ZObject::eDestroyDelete, false);
            return nullptr;
        }
        oem->HashWriteRawString("&&Veltra", veltra->GetJPath());
    }

    unsigned char vpd[VPDD_MACHINE_RECORD_SIZE];
    const int res = vpdd_machine_vpd_read(vpd, static_cast<int>(sizeof(vpd)));
    if (res != VPDD_OK) {
        ZLOG(eZLogError, "Failed to call vpdd_machine_vpd_read() res[%d].\n", res);
        // The block keeps its shape; the reader sees that the values are unknown.
        veltra->HashWriteRawString("SystemUUID", "null");
        veltra->HashWriteRawString("SystemSerialNumber", "null");
        veltra->HashWriteRawString("SystemMachineTypeModel", "null");
    } else {
        veltra->HashWriteRawString("SystemUUID", UuidText(vpd));
        veltra->HashWriteRawString(
            "SystemSerialNumber",
            RecordText(vpd, VPDD_SERIAL_OFFSET, VPDD_SERIAL_LENGTH, "serial number"));
        veltra->HashWriteRawString(
            "SystemMachineTypeModel",
            RecordText(vpd, VPDD_MTM_OFFSET, VPDD_MTM_LENGTH, "machine type-model"));
    }
    veltra->HashWrite("@odata.type", kAlertOdataType);
    return veltra;
}

// ---------------------------------------------------------------------------
// Hand-over to the event service
// ---------------------------------------------------------------------------

void ZRedfishEvent::_SendEvent(ZRedfishEvent* event) {
    if (event == nullptr) {
        ZLOG(eZLogError, "NULL arg! event:%p\n", static_cast<void*>(event));
        return;
    }
    std::unique_ptr<ZRedfishEvent> owned(event);                       // deleted on every path
    if (event->mRoot == nullptr || event->mEvents == nullptr) return;  // logged when built

    std::optional<RedisConnectionScope> scope;
    redisContext* c = event->_UseConnection(scope);
    if (c == nullptr) {
        ZLOG(eZLogError, "Failed to connect Redis.\n");
        return;
    }
    const std::string key = event->mRoot->GetJPath();
    // Nothing half-written is handed over: the service would deliver it.
    if (event->mRoot->ApplyRedisChanges(true, c) != RT_SUCCESS || c->err != 0) {
        ZLOG(eZLogError, "Failed to write event[%s] into Redis.\n", key.c_str());
        event->mClearStoreOnDelete = true;
        return;
    }
    int result = -1;
    if (RedisEvalEnqueueEvent(c, key.c_str(), result) != RT_SUCCESS) {
        // 2 (nobody subscribed) and 3 (nothing to deliver) are the service's
        // normal refusals.
        if (result != 2 && result != 3) {
            ZLOG(eZLogError, "Failed to call RedisEvalEnqueueEvent() errCode:%d.\n", result);
        }
        // Not queued: nobody else will remove the stored tree.
        event->mClearStoreOnDelete = true;
    }
}

void ZRedfishEvent::_SendMetricReport(ZObject* report) {
    if (!Use(report)) {
        ZLOG(eZLogError, "NULL arg! report:%p\n", static_cast<void*>(report));
        return;
    }
    const std::string key = report->GetJPath();
    report->DecreaseUsingCount();
    int result = -1;
    if (RedisEvalEnqueueMetricReport(nullptr, key.c_str(), result) == RT_SUCCESS) return;
    if (result == 2) {
        ZLOG(eZLogDebug,
             "RedisEvalEnqueueMetricReport() ignore this event due to no subscription.\n");
    } else {
        ZLOG(eZLogError, "Failed to call RedisEvalEnqueueMetricReport() errCode:%d.\n", result);
    }
}

}  // namespace Orbel
