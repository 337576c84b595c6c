// JSON text into trees: the body parser (apostrophe dialect). The JSON
// value checker and the text checks are in ZObject_JsonStringTrans_Text.cpp.
#include "ZObject_JsonStringTrans.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Orbel.h"
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

}  // namespace Orbel
