// JSON text into trees: the body parser (apostrophe dialect) and the JSON
// value checker that the RawJson format relies on.
#include "ZObject_JsonStringTrans.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Orbel.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZObject.h"

namespace Orbel {

namespace {

// Log lines quote client text; this much of it is enough to find the spot.
constexpr size_t kSnippetLen = 64;
constexpr size_t kStepSnippetLen = 256;
// The step log is written from this debug level on.
constexpr int kStepLogLevel = 4;

bool IsBlank(char ch) {
    return ch == ' ' || ch == '\t' || ch == '\n' || ch == '\r';
}

bool IsPrintable(char ch) {
    const unsigned char b = static_cast<unsigned char>(ch);
    return b >= 0x20 && b <= 0x7E;
}

char Printable(char ch) {
    return IsPrintable(ch) ? ch : '.';
}

// Client text as it may appear in a log line: cut, and with every byte that
// is not printable shown as '.', so that a body cannot forge log lines.
std::string Sanitized(const std::string& text, size_t start, size_t maxLen) {
    std::string out;
    if (start >= text.size()) return out;
    const size_t len = std::min(maxLen, text.size() - start);
    out.reserve(len + 3);
    for (size_t i = 0; i < len; ++i) out += Printable(text[start + i]);
    if (start + len < text.size()) out += "...";
    return out;
}

// A body that names a secret anywhere is not quoted at all: the mask stands
// where the excerpt would.
std::string Snippet(const std::string& text, uint32_t pos) {
    return TextNamesSecret(text) ? std::string(kSecretMask) : Sanitized(text, pos, kSnippetLen);
}

std::string ShownKey(const std::string& key) {
    return Sanitized(key, 0, kSnippetLen);
}

// A property holding an object or an array names a node: its id becomes the
// last segment of a Redis key and a word of a link text. Blanks would split
// the link text, "/" would read as a deeper path, and the glob characters
// would turn the key into a pattern where the store client deletes keys.
bool IsNodeKey(const std::string& key) {
    if (key.empty()) return false;
    for (char ch : key) {
        if (!IsPrintable(ch)) return false;
        switch (ch) {
            case ' ':
            case '/':
            case '*':
            case '?':
            case '[':
            case ']':
            case '\\':
                return false;
            default:
                break;
        }
    }
    return true;
}

// Whole-text conversions. The Is...NumString checks ran first, so only the
// range is in question; a value out of range falls to the next kind.
bool ParseUnsigned(const std::string& s, unsigned long long* out) {
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(s.c_str(), &end, 10);
    if (errno != 0 || end != s.c_str() + s.size()) return false;
    *out = v;
    return true;
}

bool ParseSigned(const std::string& s, long long* out) {
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(s.c_str(), &end, 10);
    if (errno != 0 || end == s.c_str() || end != s.c_str() + s.size()) return false;
    *out = v;
    return true;
}

bool ParseDouble(const std::string& s, double* out) {
    errno = 0;
    char* end = nullptr;
    double v = std::strtod(s.c_str(), &end);
    // An underflow still gives a usable (tiny) value; an overflow does not.
    if (end == s.c_str() || end != s.c_str() + s.size() || !std::isfinite(v)) return false;
    *out = v;
    return true;
}

void StepLog(const std::string& s, uint32_t pos, sJStr2ZObj_Params* p) {
    ++p->step;
    p->pos = pos;
    ZLogPrint* log = zLogPrint;
    if (log == nullptr || log->GetDebugLevel() < kStepLogLevel) return;
    // Decided once per parse: the text is scanned whole.
    if (p->maskText < 0) p->maskText = TextNamesSecret(s) ? 1 : 0;
    ZLOG(eZLogDebug, "Step[%d]: Str[%s]\n\n", static_cast<int>(p->step),
         p->maskText != 0 ? kSecretMask : Sanitized(s, pos, kStepSnippetLen).c_str());
}

// Counts one open container for the duration of a scope.
class DepthGuard {
public:
    explicit DepthGuard(sJStr2ZObj_Params* p) : mP(p) { ++mP->depth; }
    ~DepthGuard() { --mP->depth; }
    DepthGuard(const DepthGuard&) = delete;
    DepthGuard& operator=(const DepthGuard&) = delete;

private:
    sJStr2ZObj_Params* mP;
};

// Children a resource keeps for the library and the front end (the request
// routing lists, a collection's member list): no text may refill them.
bool IsLibraryChild(ZObject* obj, const std::string& id) {
    if (!obj->IsResourceType()) return false;
    if (id == "POSTCREATEQ" || id == "GETQ" || id == "PATCHQ" || id == "DELETEQ" ||
        id == "POSTACTIONQ") {
        return true;
    }
    return obj->GetType() == ZObject::eResourceCollection && id == "Members";
}

// The child node that receives a nested container, with a using count that
// the caller releases. For a property, an existing JSON object or array of
// that id is reused (an array is emptied first) and linked again, so that a
// child whose first link was discarded is reachable all the same; else a
// new one is made and linked. An array item always gets a new node.
ZObject* ContainerChild(ZObject* obj, const std::string* key, const std::string& id, bool array,
                        sJStr2ZObj_Params* p) {
    ZObject* child = nullptr;
    if (key != nullptr) {
        if (IsLibraryChild(obj, id)) {
            ZLOG(eZLogError, "Child[%s] of Object[%s] is kept by the library.\n",
                 ShownKey(id).c_str(), obj->GetJPath().c_str());
            return nullptr;
        }
        ZObject* existing = obj->GetChild(id, true);
        if (existing != nullptr) {
            if (existing->IsResourceType()) {
                ZLOG(eZLogError, "Child[%s] of Object[%s] is a resource.\n", ShownKey(id).c_str(),
                     obj->GetJPath().c_str());
                return nullptr;
            }
            const bool isArray = existing->GetType() == ZObject::eJsonArray;
            if (isArray != array) {
                ZLOG(eZLogError, "Child[%s] of Object[%s] is not a %s.\n", ShownKey(id).c_str(),
                     obj->GetJPath().c_str(), array ? "JsonArray" : "JsonObject");
                return nullptr;
            }
            if (!Use(existing)) return nullptr;
            if (array && existing->ListRemoveAll() != RT_SUCCESS) {
                existing->DecreaseUsingCount();
                return nullptr;
            }
            child = existing;
        }
    }
    if (child == nullptr) {
        ZObject* made = array ? static_cast<ZObject*>(new ZJsonArray(obj, id, 0))
                              : static_cast<ZObject*>(new ZJsonObject(obj, id, 0));
        if (made->GetJPath().empty()) {
            ZLOG(eZLogError, "Failed to create child[%s] of Object[%s].\n", ShownKey(id).c_str(),
                 obj->GetJPath().c_str());
            made->ObjDestroy(ZObject::eDestroyDelete, false);
            return nullptr;
        }
        if (!Use(made)) return nullptr;
        ++p->nodesMade;
        child = made;
    }
    // Linked before it is filled: whatever happens below, the node the tree
    // holds is reachable from its parent once the queue is applied.
    if (_J2OWrite(obj, key, nullptr, child) != RT_SUCCESS) {
        child->DecreaseUsingCount();
        return nullptr;
    }
    ++p->writes;
    return child;
}

// Parses the nested container at *i into a child (see ContainerChild).
eRtCode Nested(const std::string& s, uint32_t* i, ZObject* obj, const std::string* key,
               const std::string& id, sJStr2ZObj_Params* p) {
    ZObject* child = ContainerChild(obj, key, id, s[*i] == '[', p);
    if (child == nullptr) return RT_FAILURE;
    UseRelease release(child);
    return _JsonString2ZObjTree(s, i, child, p);
}

// One member "'key' : value" starting at the key's apostrophe at *i; *i
// ends just past the value.
eRtCode Member(const std::string& s, uint32_t* i, ZObject* obj, sJStr2ZObj_Params* p) {
    uint32_t keyEnd = 0;
    if (!_J2OFind(*i + 1, s, "'", &keyEnd)) {
        ZLOG(eZLogError, "Failed to find hash key in JsonStr[%s].\n", Snippet(s, *i).c_str());
        return RT_FAILURE;
    }
    const std::string key = s.substr(*i + 1, keyEnd - *i - 1);
    if (key.empty()) {
        ZLOG(eZLogError, "Empty hash key in JsonStr[%s].\n", Snippet(s, *i).c_str());
        return RT_FAILURE;
    }
    if (!IsPureString(key, false)) {
        ZLOG(eZLogError, "Hash key[%s] is not a pure string in JsonStr[%s].\n",
             ShownKey(key).c_str(), Snippet(s, *i).c_str());
        return RT_FAILURE;
    }
    // Fields named "&&..." are the library's and the front end's own (links,
    // routing): client text must not be able to write one.
    if (key.compare(0, 2, "&&") == 0) {
        ZLOG(eZLogError, "Hash key[%s] is a meta key in JsonStr[%s].\n", ShownKey(key).c_str(),
             Snippet(s, *i).c_str());
        return RT_FAILURE;
    }
    uint32_t at = 0;
    if (!_J2OLeftStrip(keyEnd + 1, s, &at) || s[at] != ':') {
        ZLOG(eZLogError, "Failed to find ':' after hash key[%s] in JsonStr[%s].\n",
             ShownKey(key).c_str(), Snippet(s, keyEnd + 1).c_str());
        return RT_FAILURE;
    }
    if (!_J2OLeftStrip(at + 1, s, &at)) {
        ZLOG(eZLogError, "Failed to find a hash value in JsonStr[%s].\n", Snippet(s, *i).c_str());
        return RT_FAILURE;
    }
    const char first = s[at];
    eRtCode rt = RT_SUCCESS;
    if (first == '{' || first == '[') {
        if (!IsNodeKey(key)) {
            ZLOG(eZLogError, "Hash key[%s] cannot name a nested node in JsonStr[%s].\n",
                 ShownKey(key).c_str(), Snippet(s, *i).c_str());
            return RT_FAILURE;
        }
        rt = Nested(s, &at, obj, &key, key, p);
    } else if (first == '\'') {
        uint32_t end = 0;
        if (!_J2OFind(at + 1, s, "'", &end)) {
            ZLOG(eZLogError, "Failed to find a hash string value in JsonStr[%s].\n",
                 Snippet(s, at).c_str());
            return RT_FAILURE;
        }
        rt = _J2OWriteString(obj, &key, StringRightStrip(s.substr(at + 1, end - at - 1), " "));
        at = end + 1;
        if (rt == RT_SUCCESS) ++p->writes;
    } else {
        uint32_t end = 0;
        const bool found = _J2OFind(at, s, ",}", &end);
        const std::string value = found ? StringRightStrip(s.substr(at, end - at), " ") : "";
        if (value.empty()) {
            ZLOG(eZLogError, "Failed to find a hash value in JsonStr[%s].\n",
                 Snippet(s, at).c_str());
            return RT_FAILURE;
        }
        rt = _J2OWrite(obj, &key, nullptr, nullptr, value);
        at = end;
        if (rt == RT_SUCCESS) ++p->writes;
    }
    *i = at;
    return rt;
}

// One array item at *i (not a blank), appended to `array` as element
// `index`; *i ends just past the item.
eRtCode Item(const std::string& s, uint32_t* i, ZObject* array, uint32_t index,
             sJStr2ZObj_Params* p) {
    const char first = s[*i];
    if (first == '{' || first == '[') {
        // The element's position names its node.
        return Nested(s, i, array, nullptr, std::to_string(index), p);
    }
    eRtCode rt = RT_SUCCESS;
    if (first == '\'') {
        uint32_t end = 0;
        if (!_J2OFind(*i + 1, s, "'", &end)) {
            ZLOG(eZLogError, "Failed to find a list string value in JsonStr[%s].\n",
                 Snippet(s, *i).c_str());
            return RT_FAILURE;
        }
        rt = _J2OWriteString(array, nullptr, StringRightStrip(s.substr(*i + 1, end - *i - 1), " "));
        *i = end + 1;
    } else {
        uint32_t end = 0;
        const bool found = _J2OFind(*i, s, ",]", &end);
        const std::string value = found ? StringRightStrip(s.substr(*i, end - *i), " ") : "";
        if (value.empty()) {
            ZLOG(eZLogError, "Failed to find a list value in JsonStr[%s].\n",
                 Snippet(s, *i).c_str());
            return RT_FAILURE;
        }
        rt = _J2OWrite(array, nullptr, nullptr, nullptr, value);
        *i = end;
    }
    if (rt == RT_SUCCESS) ++p->writes;
    return rt;
}

eRtCode Members(const std::string& s, uint32_t* pos, ZObject* obj, sJStr2ZObj_Params* p) {
    uint32_t i = *pos + 1;
    for (;;) {
        StepLog(s, i, p);
        if (!_J2OLeftStrip(i, s, &i)) {
            ZLOG(eZLogError, "Failed to find hash key in JsonStr[%s].\n", Snippet(s, *pos).c_str());
            return RT_FAILURE;
        }
        const char ch = s[i];
        if (ch == '}') {
            // "{}" or a trailing ",": the object simply ends here.
            ZLOG(eZLogDebug, "Normal break by unexpected char[}] in JsonStr[%s].\n",
                 Snippet(s, i).c_str());
            *pos = i + 1;
            return RT_SUCCESS;
        }
        if (ch != '\'') {
            ZLOG(eZLogError, "Unexpected char[%c] in JsonStr[%s] for parser a hash key.\n",
                 Printable(ch), Snippet(s, i).c_str());
            return RT_FAILURE;
        }
        if (Member(s, &i, obj, p) != RT_SUCCESS) return RT_FAILURE;
        if (!_J2OLeftStrip(i, s, &i)) {
            ZLOG(eZLogError, "Failed to find '}' in JsonStr[%s].\n", Snippet(s, *pos).c_str());
            return RT_FAILURE;
        }
        if (s[i] == '}') {
            *pos = i + 1;
            return RT_SUCCESS;
        }
        if (s[i] != ',') {
            ZLOG(eZLogError, "Unexpected char[%c] in JsonStr[%s] after a hash value.\n",
                 Printable(s[i]), Snippet(s, i).c_str());
            return RT_FAILURE;
        }
        ++i;
    }
}

eRtCode Items(const std::string& s, uint32_t* pos, ZObject* array, sJStr2ZObj_Params* p) {
    uint32_t i = *pos + 1;
    for (uint32_t index = 0;; ++index) {
        StepLog(s, i, p);
        if (!_J2OLeftStrip(i, s, &i)) {
            ZLOG(eZLogError, "Failed to find a list value in JsonStr[%s].\n",
                 Snippet(s, *pos).c_str());
            return RT_FAILURE;
        }
        if (s[i] == ']') {
            // "[]" or a trailing ",".
            *pos = i + 1;
            return RT_SUCCESS;
        }
        if (Item(s, &i, array, index, p) != RT_SUCCESS) return RT_FAILURE;
        if (!_J2OLeftStrip(i, s, &i)) {
            ZLOG(eZLogError, "Failed to find ']' in JsonStr[%s].\n", Snippet(s, *pos).c_str());
            return RT_FAILURE;
        }
        if (s[i] == ']') {
            *pos = i + 1;
            return RT_SUCCESS;
        }
        if (s[i] != ',') {
            ZLOG(eZLogError, "Unexpected char[%c] in JsonStr[%s] after a list value.\n",
                 Printable(s[i]), Snippet(s, i).c_str());
            return RT_FAILURE;
        }
        ++i;
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Steps
// ---------------------------------------------------------------------------

bool _J2OLeftStrip(uint32_t pos, const std::string& jsonStr, uint32_t* out) {
    size_t i = pos;
    while (i < jsonStr.size() && IsBlank(jsonStr[i])) ++i;
    if (out != nullptr) *out = static_cast<uint32_t>(std::min(i, jsonStr.size()));
    return i < jsonStr.size();
}

bool _J2OFind(uint32_t pos, const std::string& jsonStr, const char* stops, uint32_t* out) {
    const size_t at = stops == nullptr ? std::string::npos : jsonStr.find_first_of(stops, pos);
    if (out != nullptr) {
        *out = static_cast<uint32_t>(at == std::string::npos ? jsonStr.size() : at);
    }
    return at != std::string::npos;
}

namespace {

// URIs of the service are links, except the one an action is posted to. A
// link is one word in a field name or element, so a text with a blank or a
// quote (prose that mentions a URI), or a name with a blank or a leading
// "/", keeps the value a plain string.
bool IsLinkValue(const std::string* key, const std::string& value) {
    if (value.find("/redfish/v") == std::string::npos) return false;
    for (char ch : value) {
        const unsigned char b = static_cast<unsigned char>(ch);
        if (b <= 0x20 || b >= 0x7F || ch == '"' || ch == '\\') return false;
    }
    if (key == nullptr) return true;
    return *key != "target" && key->find(' ') == std::string::npos && !key->empty() &&
           (*key)[0] != '/';
}

}  // namespace

eRtCode _J2OWriteString(ZObject* obj, const std::string* key, const std::string& value) {
    if (obj == nullptr) return RT_INVALID_ARG;
    const bool link = IsLinkValue(key, value);
    if (key != nullptr) return obj->HashWrite(*key, value, link);
    return obj->ListWrite(-1, value, link);
}

eRtCode _J2OWrite(ZObject* obj, const std::string* key, const int* index, ZObject* child,
                  const std::string& value) {
    if (obj == nullptr) return RT_INVALID_ARG;
    const int at = index != nullptr ? *index : -1;
    if (child != nullptr) {
        return key != nullptr ? obj->HashWrite(*key, child, false)
                              : obj->ListWrite(at, child, false);
    }
    bool b = false;
    if (BoolStr2Value(value, b) == RT_SUCCESS) {
        return key != nullptr ? obj->HashWrite(*key, b) : obj->ListWrite(at, b);
    }
    unsigned long long u = 0;
    if (IsUnsignedNumString(value) && ParseUnsigned(value, &u)) {
        return key != nullptr ? obj->HashWrite(*key, u) : obj->ListWrite(at, u);
    }
    long long ll = 0;
    if (IsSignedNumString(value) && ParseSigned(value, &ll)) {
        return key != nullptr ? obj->HashWrite(*key, ll) : obj->ListWrite(at, ll);
    }
    double d = 0;
    if (IsFloatString(value) && ParseDouble(value, &d)) {
        return key != nullptr ? obj->HashWrite(*key, d) : obj->ListWrite(at, d);
    }
    if (value == "null") return key != nullptr ? obj->HashWrite(*key) : obj->ListWrite(at);
    if (key != nullptr) return _J2OWriteString(obj, key, value);
    if (at == -1) return _J2OWriteString(obj, nullptr, value);
    return obj->ListWrite(at, value, IsLinkValue(nullptr, value));
}

eRtCode _JsonString2ZObjTree(const std::string& jsonStr, uint32_t* pos, ZObject* obj,
                             sJStr2ZObj_Params* params) {
    if (pos == nullptr || obj == nullptr || params == nullptr) {
        ZLOG(eZLogError, "NULL arg! pos:%p obj:%p params:%p\n", static_cast<void*>(pos),
             static_cast<void*>(obj), static_cast<void*>(params));
        return RT_FAILURE;
    }
    if (*pos >= jsonStr.size()) {
        ZLOG(eZLogError, "Position[%u] is past the end of JsonStr.\n", *pos);
        return RT_FAILURE;
    }
    if (params->depth >= kJ2OMaxDepth) {
        ZLOG(eZLogError, "JsonStr nests deeper than %u levels at pos[%u]: JsonStr[%s].\n",
             kJ2OMaxDepth, *pos, Snippet(jsonStr, *pos).c_str());
        return RT_FAILURE;
    }
    DepthGuard depth(params);
    const bool isArray = obj->GetType() == ZObject::eJsonArray;
    const char open = jsonStr[*pos];
    if (open == '{' && !isArray) return Members(jsonStr, pos, obj, params);
    if (open == '[' && isArray) return Items(jsonStr, pos, obj, params);
    if (open == '{' && isArray) {
        // A lone object given for an array is its one element.
        uint32_t i = *pos;
        if (Item(jsonStr, &i, obj, 0, params) != RT_SUCCESS) return RT_FAILURE;
        *pos = i;
        return RT_SUCCESS;
    }
    ZLOG(eZLogError, "Unexpected char[%c] in JsonStr[%s] for Object[%s] type[%d].\n",
         Printable(open), Snippet(jsonStr, *pos).c_str(), obj->GetJPath().c_str(),
         static_cast<int>(obj->GetType()));
    return RT_FAILURE;
}

// ---------------------------------------------------------------------------
// Entry point
// ---------------------------------------------------------------------------

eRtCode JsonString2ZObjTree(const std::string& jsonStr, ZObject* rootObj, uint32_t flags) {
    if (rootObj == nullptr) {
        ZLOG(eZLogError, "rootObj shouldn't be NULL!\n");
        return RT_FAILURE;
    }
    if ((flags & ~(J2O_APPLY | J2O_DISCARD_ON_FAILURE)) != 0) {
        ZLOG(eZLogError, "Unknown flag bits[0x%x].\n", static_cast<unsigned>(flags));
        return RT_INVALID_ARG;
    }
    if (!Use(rootObj)) return RT_FAILURE;
    UseRelease release(rootObj);
    if (rootObj->IsDied()) {
        ZLOG(eZLogError, "rootObj[%s] is died.\n", rootObj->GetJPath().c_str());
        return RT_FAILURE;
    }
    // Positions are 32-bit, as on the target.
    if (jsonStr.size() >= UINT32_MAX) {
        ZLOG(eZLogError, "JsonStr is too long (%zu bytes).\n", jsonStr.size());
        return RT_FAILURE;
    }

    // A NUL would end the text early wherever it is read as a C string.
    const size_t nul = jsonStr.find('\0');
    if (nul != std::string::npos) {
        ZLOG(eZLogError, "JsonStr holds a NUL byte at pos[%zu].\n", nul);
        return RT_INVALID_ARG;
    }

    const bool isArray = rootObj->GetType() == ZObject::eJsonArray;
    uint32_t i = 0;
    const bool any = _J2OLeftStrip(0, jsonStr, &i);
    eRtCode rt = RT_SUCCESS;
    if (!isArray && (!any || jsonStr[i] != '{')) {
        ZLOG(eZLogError, "The first char should be '{' in JsonStr.\n");
        rt = RT_FAILURE;
    } else if (isArray && (!any || (jsonStr[i] != '{' && jsonStr[i] != '['))) {
        ZLOG(eZLogError, "The first char should be '{' or '[' in JsonStr.\n");
        rt = RT_FAILURE;
    } else {
        sJStr2ZObj_Params params;
        params.flags = flags;
        // The text gives the whole array: what it held goes first.
        if (isArray) rt = rootObj->ListRemoveAll();
        if (rt == RT_SUCCESS) rt = _JsonString2ZObjTree(jsonStr, &i, rootObj, &params);
        if (rt != RT_SUCCESS) {
            ZLOG(eZLogError, "Failed to call _JsonString2ZObjTree().\n");
        } else if (_J2OLeftStrip(i, jsonStr, &i)) {
            ZLOG(eZLogError, "Unexpected text after the end of JsonStr[%s].\n",
                 Snippet(jsonStr, i).c_str());
            rt = RT_FAILURE;
        }
    }
    if (rt != RT_SUCCESS) {
        if ((flags & J2O_DISCARD_ON_FAILURE) != 0) rootObj->DiscardRedisChanges(true, nullptr);
        return rt;
    }
    if ((flags & J2O_APPLY) != 0) return rootObj->ApplyRedisChanges(true, nullptr);
    return RT_SUCCESS;
}

// ---------------------------------------------------------------------------
// JSON value checker
// ---------------------------------------------------------------------------

namespace {

// Length of the well-formed UTF-8 sequence at s[i]; 0 when the bytes there
// are not one (overlong forms, surrogates, code points past U+10FFFF).
size_t Utf8SeqLen(const std::string& s, size_t i) {
    const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char b0 = b(i);
    if (b0 < 0x80) return 1;
    size_t len = 0;
    unsigned char lo = 0x80, hi = 0xBF;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        len = 2;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        len = 3;
        if (b0 == 0xE0) lo = 0xA0;
        if (b0 == 0xED) hi = 0x9F;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        len = 4;
        if (b0 == 0xF0) lo = 0x90;
        if (b0 == 0xF4) hi = 0x8F;
    } else {
        return 0;
    }
    if (i + len > s.size()) return 0;
    if (b(i + 1) < lo || b(i + 1) > hi) return 0;
    for (size_t k = 2; k < len; ++k) {
        if (b(i + k) < 0x80 || b(i + k) > 0xBF) return 0;
    }
    return len;
}

// An explicit stack of open containers instead of recursion, and at least
// one byte consumed per step.
class JsonChecker {
public:
    explicit JsonChecker(const std::string& s) : mS(s) {}

    bool IsValue() {
        std::vector<char> open;
        for (;;) {
            Blanks();
            if (At('{') || At('[')) {
                const char opener = mS[mI++];
                Blanks();
                if (!Accept(opener == '{' ? '}' : ']')) {
                    open.push_back(opener);
                    if (opener == '{' && !Key()) return false;
                    continue;
                }
            } else if (!Scalar()) {
                return false;
            }
            for (;;) {
                Blanks();
                if (open.empty()) return mI == mS.size();
                const bool inObject = open.back() == '{';
                if (Accept(',')) {
                    if (inObject && !Key()) return false;
                    break;
                }
                if (!Accept(inObject ? '}' : ']')) return false;
                open.pop_back();
            }
        }
    }

private:
    bool At(char ch) const { return mI < mS.size() && mS[mI] == ch; }
    bool Accept(char ch) {
        if (!At(ch)) return false;
        ++mI;
        return true;
    }
    bool AtDigit() const { return mI < mS.size() && mS[mI] >= '0' && mS[mI] <= '9'; }
    void Blanks() {
        while (mI < mS.size() && IsBlank(mS[mI])) ++mI;
    }
    bool Word(const char* w) {
        const std::string word(w);
        if (mS.compare(mI, word.size(), word) != 0) return false;
        mI += word.size();
        return true;
    }
    bool Digits() {
        if (!AtDigit()) return false;
        while (AtDigit()) ++mI;
        return true;
    }
    bool Number() {
        Accept('-');
        if (!Accept('0') && !Digits()) return false;
        if (Accept('.') && !Digits()) return false;
        if (Accept('e') || Accept('E')) {
            if (!Accept('+')) Accept('-');
            if (!Digits()) return false;
        }
        return true;
    }
    static bool IsHex(char ch) {
        return (ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'f') || (ch >= 'A' && ch <= 'F');
    }
    bool String() {
        if (!Accept('"')) return false;
        while (mI < mS.size()) {
            const unsigned char ch = static_cast<unsigned char>(mS[mI]);
            if (ch == '"') {
                ++mI;
                return true;
            }
            if (ch < 0x20) return false;
            if (ch == '\\') {
                if (++mI >= mS.size()) return false;
                const char e = mS[mI++];
                if (e == 'u') {
                    for (int k = 0; k < 4; ++k, ++mI) {
                        if (mI >= mS.size() || !IsHex(mS[mI])) return false;
                    }
                } else if (std::string("\"\\/bfnrt").find(e) == std::string::npos) {
                    return false;
                }
                continue;
            }
            const size_t len = Utf8SeqLen(mS, mI);
            if (len == 0) return false;
            mI += len;
        }
        return false;
    }
    bool Scalar() {
        if (At('"')) return String();
        if (At('-') || AtDigit()) return Number();
        return Word("true") || Word("false") || Word("null");
    }
    bool Key() {
        Blanks();
        if (!String()) return false;
        Blanks();
        return Accept(':');
    }

    const std::string& mS;
    size_t mI = 0;
};

}  // namespace

bool IsJsonValueText(const std::string& text) {
    return JsonChecker(text).IsValue();
}

std::string JsonQuoteString(const std::string& text) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size() + 2);
    out += '"';
    for (size_t i = 0; i < text.size();) {
        const unsigned char ch = static_cast<unsigned char>(text[i]);
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += static_cast<char>(ch);
            ++i;
            continue;
        }
        if (ch >= 0x20 && ch < 0x80) {
            out += static_cast<char>(ch);
            ++i;
            continue;
        }
        const char* named = nullptr;
        switch (ch) {
            case '\b':
                named = "\\b";
                break;
            case '\f':
                named = "\\f";
                break;
            case '\n':
                named = "\\n";
                break;
            case '\r':
                named = "\\r";
                break;
            case '\t':
                named = "\\t";
                break;
            default:
                break;
        }
        if (named != nullptr) {
            out += named;
            ++i;
            continue;
        }
        const size_t len = ch >= 0x80 ? Utf8SeqLen(text, i) : 0;
        if (len > 0) {
            out.append(text, i, len);
            i += len;
        } else {
            out += "\\u00";
            out += kHex[ch >> 4];
            out += kHex[ch & 0x0F];
            ++i;
        }
    }
    out += '"';
    return out;
}

namespace {

bool IsHexDigit(char ch) {
    return (ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'f') || (ch >= 'A' && ch <= 'F');
}

// Length of the JSON escape that starts with the backslash at i, 0 when the
// backslash starts none.
size_t EscapeLen(const std::string& s, size_t i) {
    if (i + 1 >= s.size()) return 0;
    switch (s[i + 1]) {
        case '"':
        case '\\':
        case '/':
        case 'b':
        case 'f':
        case 'n':
        case 'r':
        case 't':
            return 2;
        case 'u':
            for (size_t k = i + 2; k < i + 6; ++k) {
                if (k >= s.size() || !IsHexDigit(s[k])) return 0;
            }
            return 6;
        default:
            return 0;
    }
}

// Walks `text`; with `out` it builds the repaired copy, without it it stops
// at the first byte that needs repair. Returns true when none did.
bool WalkStringContent(const std::string& text, std::string* out) {
    bool clean = true;
    for (size_t i = 0; i < text.size();) {
        const unsigned char ch = static_cast<unsigned char>(text[i]);
        size_t keep = 0;
        if (ch == '\\') {
            keep = EscapeLen(text, i);
        } else if (ch == '"' || ch < 0x20) {
            keep = 0;
        } else if (ch < 0x80) {
            keep = 1;
        } else {
            keep = Utf8SeqLen(text, i);
        }
        if (keep > 0) {
            if (out != nullptr) out->append(text, i, keep);
            i += keep;
            continue;
        }
        clean = false;
        if (out == nullptr) return false;
        // JsonQuoteString escapes one byte the standard way.
        const std::string quoted = JsonQuoteString(std::string(1, static_cast<char>(ch)));
        out->append(quoted, 1, quoted.size() - 2);
        ++i;
    }
    return clean;
}

bool IsWordByte(char ch) {
    return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') ||
           ch == '_' || ch == '@' || ch == '.' || ch == '#' || ch == '-';
}

}  // namespace

bool IsJsonStringContent(const std::string& text) {
    return WalkStringContent(text, nullptr);
}

std::string JsonStringContent(const std::string& text) {
    if (WalkStringContent(text, nullptr)) return text;
    std::string out;
    out.reserve(text.size() + 8);
    WalkStringContent(text, &out);
    return out;
}

bool IsKeySafeId(const std::string& id, bool isRoot) {
    if (id.empty()) return false;
    for (char ch : id) {
        const unsigned char b = static_cast<unsigned char>(ch);
        if (b <= 0x20 || b >= 0x7F) return false;
        switch (ch) {
            case '"':
            case '\\':
            case '*':
            case '?':
            case '[':
            case ']':
                return false;
            case '/':
                if (!isRoot) return false;
                break;
            default:
                break;
        }
    }
    return true;
}

std::string SanitizedText(const std::string& text, size_t maxLen) {
    return Sanitized(text, 0, maxLen);
}

bool TextNamesSecret(const std::string& text) {
    for (size_t i = 0; i < text.size();) {
        if (!IsWordByte(text[i])) {
            ++i;
            continue;
        }
        size_t end = i;
        while (end < text.size() && IsWordByte(text[end])) ++end;
        if (IsSecretLikeName(text.substr(i, end - i))) return true;
        i = end;
    }
    return false;
}

}  // namespace Orbel
