#include "StoreTreeReader.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <utility>

namespace Orbel {

namespace {

// ---------------------------------------------------------------------------
// hiredis plumbing
// ---------------------------------------------------------------------------

using ReplyPtr = StoreReply;

ReplyPtr Command(redisContext* c, const std::vector<std::string>& args) {
    return StoreCommand(c, args);
}

std::string ReplyText(const redisReply* r) {
    if (r == nullptr || r->str == nullptr) return std::string();
    return std::string(r->str, r->len);
}

std::string ContextError(const redisContext* c) {
    if (c == nullptr) return "no store connection";
    if (c->err != 0) return std::string("store connection error: ") + c->errstr;
    return "store connection error";
}

// ---------------------------------------------------------------------------
// JSON texts
// ---------------------------------------------------------------------------

// Length of the well-formed UTF-8 sequence at s[i], 0 when the bytes there
// are not one (overlong forms, surrogates and code points above U+10FFFF
// included).
size_t Utf8SeqLen(const std::string& s, size_t i) {
    const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char b0 = b(i);
    if (b0 < 0x80) return 1;
    size_t len = 0;
    unsigned char lo = 0x80, hi = 0xBF;  // bounds of the second byte
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

// The text as a JSON string. A byte that does not start a well-formed UTF-8
// sequence is written as the code point of the same value, so that any byte
// string gives a valid (if not byte-identical) JSON string.
std::string Quote(const std::string& s) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(s.size() + 2);
    out += '"';
    for (size_t i = 0; i < s.size();) {
        const unsigned char ch = static_cast<unsigned char>(s[i]);
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += static_cast<char>(ch);
            ++i;
            continue;
        }
        if (ch >= 0x20 && ch < 0x80) {
            // A run of plain characters goes in at once.
            size_t end = i + 1;
            while (end < s.size()) {
                const unsigned char next = static_cast<unsigned char>(s[end]);
                if (next < 0x20 || next >= 0x80 || next == '"' || next == '\\') break;
                ++end;
            }
            out.append(s, i, end - i);
            i = end;
            continue;
        }
        switch (ch) {
            case '\b':
                out += "\\b";
                ++i;
                continue;
            case '\f':
                out += "\\f";
                ++i;
                continue;
            case '\n':
                out += "\\n";
                ++i;
                continue;
            case '\r':
                out += "\\r";
                ++i;
                continue;
            case '\t':
                out += "\\t";
                ++i;
                continue;
            default:
                break;
        }
        const size_t len = ch >= 0x80 ? Utf8SeqLen(s, i) : 0;
        if (len > 0) {
            out.append(s, i, len);
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

// Checks that a text is exactly one JSON value (RFC 8259), blanks around it
// allowed. Iterative with an explicit stack of open containers, so a hostile
// text cannot exhaust the call stack, and each step consumes at least one
// byte, so it always ends.
class JsonChecker {
public:
    explicit JsonChecker(const std::string& s) : mS(s) {}

    bool IsValue() {
        std::vector<char> open;  // '{' or '[' of every container not yet closed
        for (;;) {
            // A value starts here.
            SkipBlanks();
            if (At('{') || At('[')) {
                const char opener = mS[mI++];
                SkipBlanks();
                if (!Accept(opener == '{' ? '}' : ']')) {
                    open.push_back(opener);
                    if (opener == '{' && !MemberKey()) return false;
                    continue;
                }
            } else if (!Scalar()) {
                return false;
            }
            // A value ended: close what it ends and find where the next starts.
            for (;;) {
                SkipBlanks();
                if (open.empty()) return mI == mS.size();
                const bool inObject = open.back() == '{';
                if (Accept(',')) {
                    if (inObject && !MemberKey()) return false;
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
    void SkipBlanks() {
        while (At(' ') || At('\t') || At('\n') || At('\r')) ++mI;
    }
    bool Literal(const char* word) {
        const std::string w(word);
        if (mS.compare(mI, w.size(), w) != 0) return false;
        mI += w.size();
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
                ++mI;
                if (mI >= mS.size()) return false;
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
        return Literal("true") || Literal("false") || Literal("null");
    }
    bool MemberKey() {
        SkipBlanks();
        if (!String()) return false;
        SkipBlanks();
        return Accept(':');
    }

    const std::string& mS;
    size_t mI = 0;
};

// What a stored value text becomes in the document: the text itself when it
// is JSON (the normal case), else something that keeps the output valid.
std::string ValueText(const std::string& text) {
    if (text.empty()) return "null";
    if (JsonChecker(text).IsValue()) return text;
    return Quote(text);
}

// ---------------------------------------------------------------------------
// Link texts
// ---------------------------------------------------------------------------

enum class eLinkWord { kObject, kArray, kObjectRef };

struct sLink {
    eLinkWord word = eLinkWord::kObject;
    std::string name;  // empty for a list element
    std::string target;
};

// Splits a link text by the rule of docs/meta-keys.md: the type word, one
// blank, then either a target beginning "&&" or "/" (a list element), a
// property name up to the next blank and a non-empty target (a hash field),
// or a single word (a list element linking a plain text). "&&ArraySimple"
// is read as "&&Array". False for any other text.
bool ParseLink(const std::string& text, sLink& link) {
    const size_t blank = text.find(' ');
    if (blank == std::string::npos) return false;
    const std::string word = text.substr(0, blank);
    if (word == "&&Object") {
        link.word = eLinkWord::kObject;
    } else if (word == "&&Array" || word == "&&ArraySimple") {
        link.word = eLinkWord::kArray;
    } else if (word == "&&ObjectRef") {
        link.word = eLinkWord::kObjectRef;
    } else {
        return false;
    }
    const std::string rest = text.substr(blank + 1);
    if (rest.empty()) return false;
    const size_t nameEnd = rest.find(' ');
    if (rest.compare(0, 2, "&&") == 0 || rest[0] == '/' || nameEnd == std::string::npos) {
        link.name.clear();
        link.target = rest;
        return true;
    }
    link.name = rest.substr(0, nameEnd);
    link.target = rest.substr(nameEnd + 1);
    return !link.name.empty() && !link.target.empty();
}

// The lists through which the front end reaches a resource's handlers: they
// are routing data, linked like arrays but never part of a body.
bool IsQueueWord(const std::string& name) {
    return name == "GETQ" || name == "PATCHQ" || name == "POSTCREATEQ" || name == "DELETEQ" ||
           name == "POSTACTIONQ";
}

// ---------------------------------------------------------------------------
// Gathering inside the store
// ---------------------------------------------------------------------------

// Defines the Lua function gather(roots): reads, breadth first, the roots
// and every key their documents link to by the rules of ParseLink, Links and
// the message fields below, each key once, at most ARGV[1] keys and ARGV[2]
// levels below a root. Returns key, tag, reply for each: a root and a bare
// JPath of a message list are typed first (the tag is the type word:
// "hash", "list", "none" or another, with an empty reply for the last two);
// a linked key is read as its link says (tag "h" or "l"), "wrong" when it is
// of the other kind. Reads only.
constexpr const char* kGatherLua = R"LUA(
local function gather(roots)
  local maxNodes, maxDepth = tonumber(ARGV[1]), tonumber(ARGV[2])
  local queues = {GETQ=true, PATCHQ=true, POSTCREATEQ=true, DELETEQ=true, POSTACTIONQ=true}
  local out, seen, todo, n = {}, {}, {}, 0
  local function add(key, kind, depth)
    if depth <= maxDepth and not seen[kind .. key] then
      seen[kind .. key] = true
      todo[#todo + 1] = {key, kind, depth}
    end
  end
  local function link(text, inHash)
    if string.sub(text, 1, 2) ~= '&&' then return nil end
    local blank = string.find(text, ' ', 1, true)
    if not blank then return nil end
    local word, rest = string.sub(text, 1, blank - 1), string.sub(text, blank + 1)
    local kind
    if word == '&&Object' then kind = 'h'
    elseif word == '&&Array' or word == '&&ArraySimple' then kind = 'l'
    else return nil end
    if rest == '' then return nil end
    local name, target = '', rest
    local nameEnd = string.find(rest, ' ', 1, true)
    if string.sub(rest, 1, 2) ~= '&&' and string.sub(rest, 1, 1) ~= '/' and nameEnd then
      name, target = string.sub(rest, 1, nameEnd - 1), string.sub(rest, nameEnd + 1)
      if name == '' or target == '' then return nil end
    end
    if (name == '') == inHash then return nil end
    if kind == 'l' and queues[name] then return nil end
    return kind, target
  end
  for _, root in ipairs(roots) do add(root, '?', 0) end
  local i = 1
  while i <= #todo and n < maxNodes do
    local key, kind, depth = todo[i][1], todo[i][2], todo[i][3]
    i, n = i + 1, n + 1
    local tag = kind
    if kind == '?' then
      tag = redis.call('TYPE', key).ok
      kind = tag == 'hash' and 'h' or (tag == 'list' and 'l' or '')
      seen[kind .. key] = true
    end
    local data = {}
    if kind ~= '' then
      data = kind == 'h' and redis.pcall('HGETALL', key) or redis.pcall('LRANGE', key, 0, -1)
      if data.err then tag, data = 'wrong', {} end
    end
    out[#out + 1] = key
    out[#out + 1] = tag
    out[#out + 1] = data
    if kind == 'h' then
      for f = 1, #data, 2 do
        local k, target = link(data[f], true)
        if k then add(target, k, depth + 1)
        elseif data[f] == '&&MessageArgs' or data[f] == '&&RelatedProperties' then
          add(data[f + 1], 'l', depth + 1)
        end
      end
    elseif kind == 'l' then
      for _, e in ipairs(data) do
        if string.sub(e, 1, 3) == '&&/' and not string.find(e, ' ', 1, true) then
          add(e, '?', depth + 1)
        else
          local k, target = link(e, false)
          if k then add(target, k, depth + 1) end
        end
      end
    end
  end
  return out
end
)LUA";

// The digests of the scripts this thread has loaded into the store, by
// script text (one per thread: no lock on the read path).
thread_local std::map<std::string, std::string> tDigests;

// ---------------------------------------------------------------------------
// Assembly
// ---------------------------------------------------------------------------

enum class eNodeKind { kHash, kList };

struct sMember {
    std::string name;   // the member's name in the document
    std::string field;  // the stored field name: orders members of the same name
    std::string value;  // rendered value
};

// The replies of one run of the gathering script, indexed for rendering.
struct sGathered {
    explicit sGathered(const redisReply* g) { Index(g); }

    static std::string AheadKey(const std::string& key, eNodeKind kind) {
        return (kind == eNodeKind::kHash ? "h" : "l") + key;
    }

    const redisReply* Ahead(const std::string& key, eNodeKind kind) const {
        auto it = ahead.find(AheadKey(key, kind));
        return it == ahead.end() ? nullptr : it->second;
    }

    // The script's reply: key, tag, reply of the read, for each key. Only a
    // typed key's type word stands for the key; a linked key read as a hash
    // ("h") may be missing, so its reply serves only reads of that kind. A
    // node read as the other kind ("wrong") is left to rendering.
    void Index(const redisReply* g) {
        if (g == nullptr || g->type != REDIS_REPLY_ARRAY) return;
        for (size_t i = 0; i + 2 < g->elements; i += 3) {
            const std::string key = ReplyText(g->element[i]);
            const std::string tag = ReplyText(g->element[i + 1]);
            const redisReply* data = g->element[i + 2];
            if (tag == "wrong" || data->type != REDIS_REPLY_ARRAY) continue;
            const bool hash = tag == "h" || tag == "hash" || tag == "none";
            const bool list = tag == "l" || tag == "list" || tag == "none";
            if (tag.size() > 1) types.emplace(key, tag);
            // An empty reply is a missing key for either kind.
            if (hash) ahead.emplace(AheadKey(key, eNodeKind::kHash), data);
            if (list) ahead.emplace(AheadKey(key, eNodeKind::kList), data);
        }
    }

    std::map<std::string, const redisReply*> ahead;  // replies, by kind and key
    std::map<std::string, std::string> types;         // type words of typed keys
};

class TreeAssembler {
public:
    TreeAssembler(redisContext* c, const sStoreTreeOptions& options, const sGathered* gathered)
        : mC(c), mOpt(options), mGathered(gathered) {}

    // Whether a read went to the store instead of the gathering.
    bool ReadOnItsOwn() const { return mOwnReads; }

    bool Read(const std::string& jpath, std::string& json, std::string& error) {
        std::string typeName;
        ReplyPtr type;
        if (const std::string* known = KnownType(jpath)) {
            typeName = *known;
        } else {
            mOwnReads = true;
            type = Command(mC, {"TYPE", jpath});
            if (!type) return Fail(error, ContextError(mC));
            if (type->type == REDIS_REPLY_ERROR)
                return Fail(error, "store error: " + ReplyText(type.get()));
            typeName = ReplyText(type.get());
        }
        eNodeKind kind;
        if (typeName == "hash") {
            kind = eNodeKind::kHash;
        } else if (typeName == "list") {
            kind = eNodeKind::kList;
        } else if (typeName == "none") {
            return Fail(error, "no such key");
        } else {
            return Fail(error, "the key is a " + typeName + ", not a hash or a list");
        }
        bool missing = false;
        if (!Node(jpath, kind, 0, 0, json, &missing)) return Fail(error, mError);
        // Deleted between TYPE and the read.
        if (missing) return Fail(error, "no such key");
        return true;
    }

private:
    bool Fail(std::string& error, const std::string& why) {
        error = why;
        return false;
    }

    // Appends the document of `key`, expected to be of `kind`, at link depth
    // `depth` and indent level `indent`. A missing key, a key of another kind,
    // a key already being expanded on this path and a depth beyond the limit
    // give null (`*missing` set for the first). False when the store fails or
    // the node budget is spent; the reason is in mError.
    bool Node(const std::string& key, eNodeKind kind, unsigned depth, unsigned indent,
              std::string& out, bool* missing = nullptr) {
        if (depth > kStoreTreeMaxDepth ||
            std::find(mPath.begin(), mPath.end(), key) != mPath.end()) {
            out += "null";
            return true;
        }
        if (++mNodes > kStoreTreeMaxNodes) {
            mError =
                "the document needs more than " + std::to_string(kStoreTreeMaxNodes) + " nodes";
            return false;
        }
        ReplyPtr own;
        const redisReply* r = Ahead(key, kind);
        if (r == nullptr) {
            mOwnReads = true;
            own = kind == eNodeKind::kHash ? Command(mC, {"HGETALL", key})
                                           : Command(mC, {"LRANGE", key, "0", "-1"});
            r = own.get();
        }
        if (r == nullptr) {
            mError = ContextError(mC);
            return false;
        }
        if (r->type == REDIS_REPLY_ERROR) {
            const std::string text = ReplyText(r);
            if (text.compare(0, 9, "WRONGTYPE") == 0) {
                out += "null";
                return true;
            }
            mError = "store error: " + text;
            return false;
        }
        if (r->type != REDIS_REPLY_ARRAY) {
            mError = "unexpected store reply";
            return false;
        }
        // Redis keeps no empty hashes or lists: no element means no key.
        if (r->elements == 0) {
            if (missing != nullptr) *missing = true;
            out += "null";
            return true;
        }
        mPath.push_back(key);
        const bool ok = kind == eNodeKind::kHash ? Hash(r, depth, indent, out)
                                                 : List(r, depth, indent, out);
        mPath.pop_back();
        return ok;
    }

    bool Hash(const redisReply* r, unsigned depth, unsigned indent, std::string& out) {
        if (RawJsonHash(r, out)) return true;
        std::vector<sMember> members;
        for (size_t i = 0; i + 1 < r->elements; i += 2) {
            sMember m;
            m.field = ReplyText(r->element[i]);
            const std::string value = ReplyText(r->element[i + 1]);
            if (m.field.compare(0, 2, "&&") != 0) {
                m.name = m.field;
                m.value = ValueText(value);
                members.push_back(std::move(m));
                continue;
            }
            bool isMessageField = false;
            if (!MessageField(m, value, depth, indent, isMessageField)) return false;
            if (isMessageField) {
                members.push_back(std::move(m));
                continue;
            }
            sLink link;
            const bool isLink = ParseLink(m.field, link) && !link.name.empty();
            const bool isQueue = isLink && link.word == eLinkWord::kArray && IsQueueWord(link.name);
            if (!isLink || isQueue) {
                // Meta data and routing lists: only the debug view shows them,
                // under the whole field name.
                if (!mOpt.includeMeta) continue;
                m.name = m.field;
                if (isQueue) {
                    if (!Node(link.target, eNodeKind::kList, depth + 1, indent + 1, m.value))
                        return false;
                } else {
                    m.value = ValueText(value);
                }
                members.push_back(std::move(m));
                continue;
            }
            m.name = link.name;
            if (link.word == eLinkWord::kObjectRef) {
                // A link written into "@odata.id" is the URI itself.
                m.value = link.name == "@odata.id" ? Quote(link.target)
                                                   : RefObject(link.target, indent + 1);
            } else if (!Linked(link, depth, indent, m.value)) {
                return false;
            }
            members.push_back(std::move(m));
        }
        std::sort(members.begin(), members.end(), [](const sMember& a, const sMember& b) {
            return a.name != b.name ? a.name < b.name : a.field < b.field;
        });
        std::vector<std::string> items;
        items.reserve(members.size());
        for (const auto& m : members) {
            items.push_back(Quote(m.name) + (mOpt.pretty ? ": " : ":") + m.value);
        }
        Container('{', '}', items, indent, out);
        return true;
    }

    bool List(const redisReply* r, unsigned depth, unsigned indent, std::string& out) {
        std::vector<std::string> items;
        items.reserve(r->elements);
        for (size_t i = 0; i < r->elements; ++i) {
            const std::string text = ReplyText(r->element[i]);
            if (text.compare(0, 2, "&&") != 0) {
                items.push_back(ValueText(text));
                continue;
            }
            if (IsBareJPath(text)) {
                std::string value;
                if (!BareJPathElement(text, depth, indent, value)) return false;
                items.push_back(std::move(value));
                continue;
            }
            sLink link;
            if (!ParseLink(text, link) || !link.name.empty()) {
                if (mOpt.includeMeta) items.push_back(Quote(text));
                continue;
            }
            std::string value;
            if (link.word == eLinkWord::kObjectRef) {
                value = RefObject(link.target, indent + 1);
            } else if (!Linked(link, depth, indent, value)) {
                return false;
            }
            items.push_back(std::move(value));
        }
        Container('[', ']', items, indent, out);
        return true;
    }

    // The document that an "&&Object" or "&&Array" link names. Redis keeps
    // no empty list and no empty hash, so an array whose list is missing is
    // the empty array and an object whose hash is missing the empty object;
    // a key of the other kind gives null.
    bool Linked(const sLink& link, unsigned depth, unsigned indent, std::string& out) {
        const bool array = link.word == eLinkWord::kArray;
        bool missing = false;
        std::string value;
        if (!Node(link.target, array ? eNodeKind::kList : eNodeKind::kHash, depth + 1, indent + 1,
                  value, &missing)) {
            return false;
        }
        out += missing ? (array ? "[]" : "{}") : value;
        return true;
    }

    // -----------------------------------------------------------------------
    // Extended-info messages. A message array lists its message nodes by bare
    // JPath ("&&/..."), and a message hash names its MessageId and its two
    // lists in "&&" fields that become plain members.
    // -----------------------------------------------------------------------

    static bool IsBareJPath(const std::string& text) {
        return text.compare(0, 3, "&&/") == 0 && text.find(' ') == std::string::npos;
    }

    // The document of `key`, a hash or a list as the store says; a missing key
    // or one of another type gives null. False when the store fails.
    bool BareJPathElement(const std::string& key, unsigned depth, unsigned indent,
                          std::string& out) {
        if (const std::string* known = KnownType(key)) {
            return TypedElement(key, *known, depth, indent, out);
        }
        mOwnReads = true;
        ReplyPtr type = Command(mC, {"TYPE", key});
        if (!type) {
            mError = ContextError(mC);
            return false;
        }
        if (type->type == REDIS_REPLY_ERROR) {
            mError = "store error: " + ReplyText(type.get());
            return false;
        }
        return TypedElement(key, ReplyText(type.get()), depth, indent, out);
    }

    bool TypedElement(const std::string& key, const std::string& typeName, unsigned depth,
                      unsigned indent, std::string& out) {
        if (typeName != "hash" && typeName != "list") {
            out += "null";
            return true;
        }
        return Node(key, typeName == "hash" ? eNodeKind::kHash : eNodeKind::kList, depth + 1,
                    indent + 1, out);
    }

    // "&&MessageId" becomes "MessageId" with the stored value text;
    // "&&MessageArgs" and "&&RelatedProperties" become "MessageArgs" and
    // "RelatedProperties", the lists their values name. Redis keeps no empty
    // list, so a missing one is the empty array. `handled` tells whether
    // `m.field` was one of them. False when the store fails.
    bool MessageField(sMember& m, const std::string& value, unsigned depth, unsigned indent,
                      bool& handled) {
        handled = m.field == "&&MessageId" || m.field == "&&MessageArgs" ||
                  m.field == "&&RelatedProperties";
        if (!handled) return true;
        m.name = m.field.substr(2);
        if (m.field == "&&MessageId") {
            m.value = ValueText(value);
            return true;
        }
        bool missing = false;
        std::string list;
        if (!Node(value, eNodeKind::kList, depth + 1, indent + 1, list, &missing)) return false;
        m.value = missing ? "[]" : list;
        return true;
    }

    // A RawJson node keeps its whole document as one JSON text in the field
    // "&&RawJSON"; the hash's other fields are meta data. The text is
    // spliced in as stored (a text that is not JSON becomes a string).
    static bool RawJsonHash(const redisReply* r, std::string& out) {
        for (size_t i = 0; i + 1 < r->elements; i += 2) {
            if (ReplyText(r->element[i]) == "&&RawJSON") {
                out += ValueText(ReplyText(r->element[i + 1]));
                return true;
            }
        }
        return false;
    }

    // {"@odata.id": "<target>"} at indent level `indent`.
    std::string RefObject(const std::string& target, unsigned indent) const {
        std::string out;
        Container('{', '}', {Quote("@odata.id") + (mOpt.pretty ? ": " : ":") + Quote(target)},
                  indent, out);
        return out;
    }

    void Container(char open, char close, const std::vector<std::string>& items, unsigned indent,
                   std::string& out) const {
        out += open;
        if (items.empty()) {
            out += close;
            return;
        }
        const std::string inner = mOpt.pretty ? "\n" + std::string(4 * (indent + 1), ' ') : "";
        for (size_t i = 0; i < items.size(); ++i) {
            if (i > 0) out += ',';
            out += inner;
            out += items[i];
        }
        if (mOpt.pretty) out += "\n" + std::string(4 * indent, ' ');
        out += close;
    }

    redisContext* mC;
    const sStoreTreeOptions& mOpt;
    // -----------------------------------------------------------------------
    // Gathering. A document is a tree of keys; read one by one, a resource
    // with a few nested objects costs a round trip per key. The gathering
    // script (kGatherLua) reads, inside the store, every key that
    // rendering would read, in one round trip, and rendering takes the
    // replies from here. It reads only what rendering reads, so what it
    // missed or could not read the same way (a key of the other kind, keys
    // past a limit, a store that refused the script) rendering reads on its
    // own, as before. One script run is one snapshot of the store.
    // -----------------------------------------------------------------------

    const redisReply* Ahead(const std::string& key, eNodeKind kind) const {
        return mGathered != nullptr ? mGathered->Ahead(key, kind) : nullptr;
    }
    const std::string* KnownType(const std::string& key) const {
        if (mGathered == nullptr) return nullptr;
        auto it = mGathered->types.find(key);
        return it == mGathered->types.end() ? nullptr : &it->second;
    }

    const sGathered* mGathered;
    bool mOwnReads = false;  // a node or type was read from the store, not the gathering
    std::vector<std::string> mPath;  // keys being expanded, top first
    unsigned mNodes = 0;             // nodes read so far
    std::string mError;
};

}  // namespace

bool ReadStoreTree(redisContext* c, const std::string& jpath, std::string& json, std::string* error,
                   const sStoreTreeOptions& options) {
    std::vector<sStoreTreeDoc> docs = ReadStoreTrees(c, {jpath}, options);
    json = std::move(docs[0].json);
    if (!docs[0].ok && error != nullptr) *error = docs[0].error;
    return docs[0].ok;
}

const std::string& StoreTreeGatherLua() {
    static const std::string text = kGatherLua;
    return text;
}

std::vector<std::string> StoreTreeGatherArgs() {
    return {std::to_string(kStoreTreeMaxNodes + 1), std::to_string(kStoreTreeMaxDepth)};
}

StoreReply StoreEval(redisContext* c, const std::string& script,
                     const std::vector<std::string>& args) {
    if (c == nullptr || c->err != 0) return nullptr;
    auto known = tDigests.find(script);
    if (known == tDigests.end()) {
        ReplyPtr loaded = Command(c, {"SCRIPT", "LOAD", script});
        if (!loaded || loaded->type != REDIS_REPLY_STRING) return loaded;
        known = tDigests.emplace(script, ReplyText(loaded.get())).first;
    }
    std::vector<std::string> cmd = {"EVALSHA", known->second, "0"};
    cmd.insert(cmd.end(), args.begin(), args.end());
    ReplyPtr r = Command(c, cmd);
    // The store restarted or dropped its scripts since: the text loads it
    // again.
    if (r && r->type == REDIS_REPLY_ERROR && ReplyText(r.get()).compare(0, 8, "NOSCRIPT") == 0) {
        cmd[0] = "EVAL";
        cmd[1] = script;
        r = Command(c, cmd);
    }
    return r;
}

std::vector<sStoreTreeDoc> RenderStoreTrees(redisContext* c, const redisReply* gathered,
                                            const std::vector<std::string>& jpaths,
                                            const sStoreTreeOptions& options) {
    std::vector<sStoreTreeDoc> docs(jpaths.size());
    const sGathered index(gathered);
    for (size_t i = 0; i < jpaths.size(); ++i) {
        if (c == nullptr || c->err != 0) {
            docs[i].error = ContextError(c);
            continue;
        }
        TreeAssembler reader(c, options, &index);
        docs[i].ok = reader.Read(jpaths[i], docs[i].json, docs[i].error);
        docs[i].gathered = gathered != nullptr && !reader.ReadOnItsOwn();
        if (!docs[i].ok) docs[i].json.clear();
    }
    return docs;
}

std::vector<sStoreTreeDoc> ReadStoreTrees(redisContext* c, const std::vector<std::string>& jpaths,
                                          const sStoreTreeOptions& options) {
    static const std::string script = StoreTreeGatherLua() + "return gather({unpack(ARGV, 3)})\n";
    std::vector<std::string> args = StoreTreeGatherArgs();
    args.insert(args.end(), jpaths.begin(), jpaths.end());
    // A refused script (an error reply) leaves every read to rendering.
    ReplyPtr gathered = StoreEval(c, script, args);
    return RenderStoreTrees(c, gathered.get(), jpaths, options);
}

bool ListStoreKeys(redisContext* c, const std::string& pattern, std::vector<std::string>& keys,
                   std::string* error) {
    keys.clear();
    const auto fail = [&](const std::string& why) {
        keys.clear();
        if (error != nullptr) *error = why;
        return false;
    };
    if (c == nullptr || c->err != 0) return fail(ContextError(c));
    // SCAN may return a key more than once while the store changes.
    std::set<std::string> found;
    std::string cursor = "0";
    do {
        ReplyPtr r = Command(c, {"SCAN", cursor, "MATCH", pattern, "COUNT", "1000"});
        if (!r) return fail(ContextError(c));
        if (r->type == REDIS_REPLY_ERROR) return fail("store error: " + ReplyText(r.get()));
        if (r->type != REDIS_REPLY_ARRAY || r->elements != 2 ||
            r->element[0]->type != REDIS_REPLY_STRING || r->element[1]->type != REDIS_REPLY_ARRAY) {
            return fail("unexpected store reply");
        }
        cursor = ReplyText(r->element[0]);
        for (size_t i = 0; i < r->element[1]->elements; ++i) {
            found.insert(ReplyText(r->element[1]->element[i]));
        }
    } while (cursor != "0");
    keys.assign(found.begin(), found.end());
    return true;
}

StoreReply StoreCommand(redisContext* c, const std::vector<std::string>& args) {
    std::vector<const char*> argv;
    std::vector<size_t> lens;
    argv.reserve(args.size());
    lens.reserve(args.size());
    for (const auto& a : args) {
        argv.push_back(a.data());
        lens.push_back(a.size());
    }
    return StoreReply(static_cast<redisReply*>(
        redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data())));
}

}  // namespace Orbel
