// Reading a request body from the store into the user-input cache: the
// front end's tree of hashes and lists, linked by meta keys, with
// JSON-ready value texts (docs/wire-protocol.md, sections 1 and 5).
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Orbel.h"
#include "RedisCli.h"
#include "ZLogPrint.h"
#include "ZUserInputTemplate.h"

namespace Orbel {

namespace {

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void AppendUtf8(std::string& out, unsigned cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// Decodes a JSON string text ("..." with its escapes, as the client wrote
// it); false when it is not one. A backslash-u escape gives its UTF-8 bytes (a
// surrogate half stays the three bytes of its code unit: the value is only
// compared and shown, never re-encoded).
bool DecodeJsonString(const std::string& text, std::string& out) {
    if (text.size() < 2 || text.front() != '"' || text.back() != '"') return false;
    const size_t end = text.size() - 1;
    out.clear();
    out.reserve(end);
    for (size_t i = 1; i < end; ++i) {
        // The plain run up to the next quote or backslash goes in at once.
        size_t run = i;
        while (run < end && text[run] != '"' && text[run] != '\\') ++run;
        if (run > i) {
            out.append(text, i, run - i);
            i = run;
            if (i == end) break;
        }
        const char c = text[i];
        if (c == '"') return false;
        if (++i >= end) return false;
        switch (text[i]) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                if (i + 4 >= end) return false;
                unsigned cp = 0;
                for (size_t k = 1; k <= 4; ++k) {
                    const int h = HexValue(text[i + k]);
                    if (h < 0) return false;
                    cp = cp * 16 + static_cast<unsigned>(h);
                }
                i += 4;
                AppendUtf8(out, cp);
                break;
            }
            default:
                return false;
        }
    }
    return true;
}

// The parts of a JSON number text (RFC 8259): -? int frac? exp?. False for
// any other text.
bool ParseJsonNumber(const std::string& t, bool& integral) {
    size_t i = 0;
    const size_t n = t.size();
    if (i < n && t[i] == '-') ++i;
    if (i >= n || t[i] < '0' || t[i] > '9') return false;
    if (t[i] == '0') {
        ++i;
    } else {
        while (i < n && t[i] >= '0' && t[i] <= '9') ++i;
    }
    integral = true;
    if (i < n && t[i] == '.') {
        integral = false;
        if (++i >= n || t[i] < '0' || t[i] > '9') return false;
        while (i < n && t[i] >= '0' && t[i] <= '9') ++i;
    }
    if (i < n && (t[i] == 'e' || t[i] == 'E')) {
        integral = false;
        ++i;
        if (i < n && (t[i] == '+' || t[i] == '-')) ++i;
        if (i >= n || t[i] < '0' || t[i] > '9') return false;
        while (i < n && t[i] >= '0' && t[i] <= '9') ++i;
    }
    return i == n;
}

// A JSON number text as a cache item; false when no double holds it.
bool ClassifyNumber(const std::string& text, sUsrInCacheItem& item) {
    bool plainInteger = false;
    ParseJsonNumber(text, plainInteger);
    const bool negative = text[0] == '-';
    if (plainInteger) {
        errno = 0;
        if (negative) {
            std::strtoll(text.c_str(), nullptr, 10);
        } else {
            std::strtoull(text.c_str(), nullptr, 10);
        }
        if (errno == 0) {
            item.type = negative ? USRIN_SNUM : USRIN_UNUM;
            item.value = text;
            return true;
        }
    }
    errno = 0;
    const double v = std::strtod(text.c_str(), nullptr);
    if (std::isinf(v)) return false;
    // Rounded to zero: no double holds a non-zero number that small.
    if (v == 0.0 && text.find_first_of("123456789") < text.find_first_of("eE")) return false;
    // 1e5, 2.5E+3: integers written with an exponent, exact in a double
    // ("1.0" stays a double, as it always was).
    constexpr double kExact = 9007199254740992.0;  // 2^53
    const bool exponent = text.find_first_of("eE") != std::string::npos;
    if (exponent && v == std::floor(v) && std::fabs(v) <= kExact) {
        const long long whole = static_cast<long long>(v);
        item.type = whole < 0 || negative ? USRIN_SNUM : USRIN_UNUM;
        item.value = std::to_string(whole);
        return true;
    }
    item.type = USRIN_DOUBLE;
    item.value = text;
    return true;
}

class TreeReader {
public:
    TreeReader(redisContext* c, UsrInCache& out, const std::string& schema,
               sUsrInReadFault* fault)
        : mCtx(c), mOut(out), mSchema(schema), mFault(fault) {}

    // One node: `key` is expected to be a hash (`object`) or a list. A key
    // that does not exist is an empty container: the store keeps no empty
    // hash or list.
    // An object's key is asked for its type and its fields in one round
    // trip (the fields come back only when it is a hash); a list's type is
    // `knownType` when the caller has just asked the store for it, else -1.
    bool ReadNode(const std::string& key, const std::string& jpath, bool object, unsigned depth,
                  int knownType = -1) {
        if (depth > ZUserInputTemplate::kMaxDepth) {
            ZLOG(eZLogError, "Request data deeper than %u levels at [%s]. schema[%s]\n",
                 ZUserInputTemplate::kMaxDepth, key.c_str(), mSchema.c_str());
            return _Fault("deeper than " + std::to_string(ZUserInputTemplate::kMaxDepth) +
                              " levels",
                          jpath);
        }
        mItems = 0;
        Fields fields;
        int type = knownType;
        eRtCode read = RT_SUCCESS;
        if (object) {
            read = RedisHashVisitTyped(mCtx, key.c_str(), type, &TreeReader::_Collect, &fields);
        } else if (type < 0) {
            type = RedisType(mCtx, key.c_str());
        }
        if (type == REDIS_TABLE_NONE) return true;
        if (type != (object ? REDIS_TABLE_HASH : REDIS_TABLE_LIST)) {
            ZLOG(eZLogError, "Table[%s] is not a hash or list or empty. schema[%s]\n", key.c_str(),
                 mSchema.c_str());
            return false;
        }
        if (object) {
            if (read != RT_SUCCESS) {
                ZLOG(eZLogError, "Failed to call RedisHashGetAll(). schema[%s]\n", mSchema.c_str());
                return false;
            }
            for (const auto& field : _Sorted(fields)) {
                if (!_Member(field.first, field.second, jpath, depth)) return false;
            }
            return true;
        }
        std::vector<std::string> items;
        if (RedisListGetAll(mCtx, key.c_str(), 0, -1, items) != RT_SUCCESS) {
            ZLOG(eZLogError, "Failed to call RedisHashGetAll(). schema[%s]\n", mSchema.c_str());
            return false;
        }
        for (size_t i = 0; i < items.size(); ++i) {
            if (!_Item(items[i], jpath + "/" + std::to_string(i), depth)) return false;
        }
        mItems = items.size();
        return true;
    }

    bool Enter(std::string jpath, eUsrInValueType type, std::string value) {
        if (mOut.size() >= ZUserInputTemplate::kMaxUsrInItems) {
            ZLOG(eZLogError, "Request data holds more than %u values at [%s]. schema[%s]\n",
                 static_cast<unsigned>(ZUserInputTemplate::kMaxUsrInItems), jpath.c_str(),
                 mSchema.c_str());
            return _Fault("more than " + std::to_string(ZUserInputTemplate::kMaxUsrInItems) +
                              " values",
                          jpath);
        }
        auto at = mOut.lower_bound(jpath);
        if (at != mOut.end() && at->first == jpath) {
            ZLOG(eZLogError, "Duplicate JPath[%s]. schema[%s]\n", jpath.c_str(), mSchema.c_str());
            return false;
        }
        mOut.emplace_hint(at, std::move(jpath), sUsrInCacheItem{type, std::move(value), 0});
        return true;
    }

    // The body's root: read as an object when it is a hash, as a list when
    // it is one. `type` gets the root's table type.
    bool ReadRoot(const std::string& key, int& type) {
        Fields fields;
        if (RedisHashVisitTyped(mCtx, key.c_str(), type, &TreeReader::_Collect, &fields) !=
                RT_SUCCESS &&
            type == REDIS_TABLE_HASH) {
            ZLOG(eZLogError, "Failed to call RedisHashGetAll(). schema[%s]\n", mSchema.c_str());
            return false;
        }
        if (type == REDIS_TABLE_LIST) return ReadNode(key, "", false, 1, type);
        if (type != REDIS_TABLE_HASH) return true;
        for (const auto& field : _Sorted(fields)) {
            if (!_Member(field.first, field.second, "", 1)) return false;
        }
        return true;
    }

private:
    // A hash's fields, read in name order, as the body has always been read
    // (the first fault found is the one reported). A vector sorted once: a
    // map cost a tree node per field.
    using Fields = std::vector<std::pair<std::string, std::string>>;
    static void _Collect(void* arg, std::string_view name, std::string_view value) {
        static_cast<Fields*>(arg)->emplace_back(name, value);
    }
    // Puts the fields in name order (a hash holds each name once).
    static Fields& _Sorted(Fields& fields) {
        std::sort(fields.begin(), fields.end(),
                  [](const auto& a, const auto& b) { return a.first < b.first; });
        return fields;
    }

    bool _Fault(const std::string& value, const std::string& jpath) {
        if (mFault != nullptr && mFault->value.empty()) *mFault = sUsrInReadFault{value, jpath};
        return false;
    }

    // One value text; a number that no double holds ends the read.
    bool _Value(const std::string& jpath, const std::string& text) {
        bool representable = true;
        sUsrInCacheItem item = ZUserInputTemplate::ClassifyValueText(text, &representable);
        if (!representable) {
            ZLOG(eZLogError, "Request data: the number at [%s] is out of range. schema[%s]\n",
                 jpath.c_str(), mSchema.c_str());
            return _Fault(text.size() > 64 ? text.substr(0, 64) + "..." : text, jpath);
        }
        return Enter(jpath, item.type, std::move(item.value));
    }

    // _ParserCorvelMetaKey: a link field or element; `name` empty for an element.
    bool _Link(const std::string& meta, const std::string& jpath, unsigned depth) {
        std::string name, target;
        bool isLink = false;
        if (!IsACorvelMetaKey(meta, &name, &target, &isLink)) {
            ZLOG(eZLogError, "Failed to call _ParserCorvelMetaKey(). schema[%s]\n",
                 mSchema.c_str());
            return false;
        }
        if (isLink) {
            // A link the client gives is an object with its "@odata.id".
            return Enter(jpath, USRIN_OBJECT, "") &&
                   Enter(jpath + "/@odata.id", USRIN_STRING, target);
        }
        const bool object = meta.compare(0, 9, "&&Object ") == 0;
        if (!Enter(jpath, object ? USRIN_OBJECT : USRIN_ARRAY, "") ||
            !ReadNode(target, jpath, object, depth + 1)) {
            return false;
        }
        // An array's value is its item count (GetUserInputListSize, the dumps).
        if (!object) mOut[jpath].value = std::to_string(mItems);
        return true;
    }

    bool _Member(const std::string& field, const std::string& value, const std::string& jpath,
                 unsigned depth) {
        if (field.compare(0, 2, "&&") != 0) return _Value(jpath + "/" + field, value);
        std::string name;
        if (!IsACorvelMetaKey(field, &name) || name.empty()) return true;  // the front end's own
        return _Link(field, jpath + "/" + name, depth);
    }

    bool _Item(const std::string& text, const std::string& jpath, unsigned depth) {
        std::string name;
        if (text.compare(0, 2, "&&") == 0 && IsACorvelMetaKey(text, &name) && name.empty()) {
            return _Link(text, jpath, depth);
        }
        return _Value(jpath, text);
    }

    redisContext* mCtx;
    UsrInCache& mOut;
    const std::string& mSchema;
    sUsrInReadFault* mFault;
    size_t mItems = 0;  // the item count of the list read last
};

}  // namespace

sUsrInCacheItem ZUserInputTemplate::ClassifyValueText(const std::string& text,
                                                      bool* representable) {
    sUsrInCacheItem item;
    if (representable != nullptr) *representable = true;
    if (text.empty() || text == "null") {  // an empty value text reads as null
        item.value = "null";
        return item;
    }
    if (text == "true" || text == "false") {
        item.type = USRIN_BOOL;
        item.value = text;
    } else if (DecodeJsonString(text, item.value)) {
        item.type = USRIN_STRING;
    } else if (bool integral = false; ParseJsonNumber(text, integral)) {
        const bool held = ClassifyNumber(text, item);
        if (!held) {
            item.type = USRIN_DOUBLE;  // typed as a number all the same
            item.value = text;
        }
        if (representable != nullptr) *representable = held;
    } else if (text != "-" && IsSignedNumString(text)) {
        item.type = text[0] == '-' ? USRIN_SNUM : USRIN_UNUM;
        item.value = text;
    } else if (text != "-" && text != "." && IsFloatString(text)) {
        item.type = USRIN_DOUBLE;
        item.value = text;
    } else {
        item.type = USRIN_RAWSTR;  // already JSON, or nothing the front end writes
        item.value = text;
    }
    return item;
}

eRtCode ZUserInputTemplate::ParserUserInputData(redisContext* c, const std::string& rootKey,
                                                UsrInCache& out, const std::string& schemaName,
                                                sUsrInReadFault* fault) {
    TreeReader reader(c, out, schemaName, fault);
    int type = REDIS_TABLE_UNSUPPORTED;
    const bool read = reader.ReadRoot(rootKey, type);
    if (type != REDIS_TABLE_HASH && type != REDIS_TABLE_LIST) {
        ZLOG(eZLogError, "Table[%s] is not a hash or list or empty. schema[%s]\n", rootKey.c_str(),
             schemaName.c_str());
        // No body at all is an empty one; the verification answers it.
        return type == REDIS_TABLE_NONE ? RT_SUCCESS : RT_FAILURE;
    }
    return read ? RT_SUCCESS : RT_FAILURE;
}

}  // namespace Orbel
