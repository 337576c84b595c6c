// Reading a request body from the store into the user-input cache: the
// front end's tree of hashes and lists, linked by meta keys, with
// JSON-ready value texts (docs/wire-protocol.md, sections 1 and 5).
#include <map>
#include <string>
#include <vector>

#include "Orbel.h"
#include "RedisCli.h"
#include "ZLogPrint.h"
#include "ZUserInputTemplate.h"

namespace Orbel {

namespace {

class TreeReader {
public:
    TreeReader(redisContext* c, UsrInCache& out, const std::string& schema)
        : mCtx(c), mOut(out), mSchema(schema) {}

    // One node: `key` is expected to be a hash (`object`) or a list. A key
    // that does not exist is an empty container: the store keeps no empty
    // hash or list.
    bool ReadNode(const std::string& key, const std::string& jpath, bool object, unsigned depth) {
        if (depth > ZUserInputTemplate::kMaxDepth) {
            ZLOG(eZLogError, "Request data deeper than %u levels at [%s]. schema[%s]\n",
                 ZUserInputTemplate::kMaxDepth, key.c_str(), mSchema.c_str());
            return false;
        }
        const int type = RedisType(mCtx, key.c_str());
        if (type == REDIS_TABLE_NONE) return true;
        if (type != (object ? REDIS_TABLE_HASH : REDIS_TABLE_LIST)) {
            ZLOG(eZLogError, "Table[%s] is not a hash or list or empty. schema[%s]\n", key.c_str(),
                 mSchema.c_str());
            return false;
        }
        if (object) {
            std::map<std::string, std::string> fields;
            if (RedisHashGetAll(mCtx, key.c_str(), fields) != RT_SUCCESS) {
                ZLOG(eZLogError, "Failed to call RedisHashGetAll(). schema[%s]\n", mSchema.c_str());
                return false;
            }
            for (const auto& field : fields) {
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
        return true;
    }

    bool Enter(const std::string& jpath, eUsrInValueType type, const std::string& value) {
        if (!mOut.emplace(jpath, sUsrInCacheItem{type, value, 0}).second) {
            ZLOG(eZLogError, "Duplicate JPath[%s]. schema[%s]\n", jpath.c_str(), mSchema.c_str());
            return false;
        }
        return true;
    }

private:
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
        return Enter(jpath, object ? USRIN_OBJECT : USRIN_ARRAY, "") &&
               ReadNode(target, jpath, object, depth + 1);
    }

    bool _Member(const std::string& field, const std::string& value, const std::string& jpath,
                 unsigned depth) {
        if (field.compare(0, 2, "&&") != 0) {
            const sUsrInCacheItem item = ZUserInputTemplate::ClassifyValueText(value);
            return Enter(jpath + "/" + field, item.type, item.value);
        }
        std::string name;
        if (!IsACorvelMetaKey(field, &name) || name.empty()) return true;  // the front end's own
        return _Link(field, jpath + "/" + name, depth);
    }

    bool _Item(const std::string& text, const std::string& jpath, unsigned depth) {
        std::string name;
        if (text.compare(0, 2, "&&") == 0 && IsACorvelMetaKey(text, &name) && name.empty()) {
            return _Link(text, jpath, depth);
        }
        const sUsrInCacheItem item = ZUserInputTemplate::ClassifyValueText(text);
        return Enter(jpath, item.type, item.value);
    }

    redisContext* mCtx;
    UsrInCache& mOut;
    const std::string& mSchema;
};

}  // namespace

sUsrInCacheItem ZUserInputTemplate::ClassifyValueText(const std::string& text) {
    sUsrInCacheItem item;
    if (text.empty() || text == "null") return item;  // an empty value text reads as null
    if (text == "true" || text == "false") {
        item.type = USRIN_BOOL;
        item.value = text;
    } else if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
        item.type = USRIN_STRING;
        item.value = StringEscapeRevert(text.substr(1, text.size() - 2));
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
                                                UsrInCache& out, const std::string& schemaName) {
    const int type = RedisType(c, rootKey.c_str());
    if (type != REDIS_TABLE_HASH && type != REDIS_TABLE_LIST) {
        ZLOG(eZLogError, "Table[%s] is not a hash or list or empty. schema[%s]\n", rootKey.c_str(),
             schemaName.c_str());
        // No body at all is an empty one; the verification answers it.
        return type == REDIS_TABLE_NONE ? RT_SUCCESS : RT_FAILURE;
    }
    TreeReader reader(c, out, schemaName);
    return reader.ReadNode(rootKey, "", type == REDIS_TABLE_HASH, 1) ? RT_SUCCESS : RT_FAILURE;
}

}  // namespace Orbel
