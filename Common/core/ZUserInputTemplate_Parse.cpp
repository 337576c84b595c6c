// User-input template files: the attribute strings and the file grammar,
// read by a bounded recursive descent. docs/templates.md gives the format
// and the decisions taken for it.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>

#include "ZLogPrint.h"
#include "ZUserInputTemplate.h"

namespace Orbel {

namespace {

// Shown of a refused over-long token.
constexpr size_t kTooLongShown = 64;

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Only digits, '.' and a leading '-' make a number; nothing may follow.
bool ParseLimitNumber(const std::string& text, double& out) {
    if (text.empty()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (!((c >= '0' && c <= '9') || c == '.' || (c == '-' && i == 0))) return false;
    }
    const char* end = text.data() + text.size();
    auto res = std::from_chars(text.data(), end, out);
    return res.ec == std::errc() && res.ptr == end;
}

bool IsLimitTitleAt(const std::string& sec, size_t i) {
    return i + 1 < sec.size() && sec[i + 1] == ':' &&
           (sec[i] == 'm' || sec[i] == 'M' || sec[i] == 'e' || sec[i] == 'p');
}

// Letters of the data-type, method or flag section, separated by ','.
// `kind` is "DataTypes", "Methods" or "Flags" for the messages.
bool ParseLetters(const std::string& sec, const char* kind, const char* unknownWord,
                  uint32_t& bits) {
    size_t i = 0;
    while (i < sec.size()) {
        const char c = sec[i++];
        uint32_t bit = 0;
        if (std::strcmp(kind, "DataTypes") == 0) {
            switch (c) {
                case 'n':
                    bit = UIT_TYPE_NULL;
                    break;
                case 'b':
                    bit = UIT_TYPE_BOOL;
                    break;
                case 'f':
                    bit = UIT_TYPE_FLOAT;
                    break;
                case 's':
                    bit = UIT_TYPE_SIGNED;
                    break;
                case 'u':
                    bit = UIT_TYPE_UNSIGNED;
                    break;
                case 'S':
                    bit = UIT_TYPE_STRING;
                    break;
                case 'i':
                    bit = UIT_TYPE_IGNORE;
                    break;
                case 'o':
                    bit = UIT_TYPE_OBJECT;
                    break;
                case 'a':
                    bit = UIT_TYPE_ARRAY;
                    break;
                default:
                    break;
            }
        } else if (std::strcmp(kind, "Methods") == 0) {
            const bool req = i < sec.size() && sec[i] == 'r';
            switch (c) {
                case 'c':
                    bit = req ? UIT_METHOD_CreateRequired : UIT_METHOD_CreateOption;
                    break;
                case 'p':
                    bit = req ? UIT_METHOD_PatchRequired : UIT_METHOD_PatchOption;
                    break;
                case 'a':
                    bit = req ? UIT_METHOD_ActionRequired : UIT_METHOD_ActionOption;
                    break;
                default:
                    break;
            }
            if (bit != 0 && req) ++i;
        } else {
            switch (c) {
                case 'l':
                    bit = UIT_FLAG_LifeCycleEvent;
                    break;
                case 's':
                    bit = UIT_FLAG_SecureProperty;
                    break;
                default:
                    break;
            }
        }
        if (bit == 0) {
            ZLOG(eZLogError, "Unknown %s[%c].\n", unknownWord, c);
            return false;
        }
        bits |= bit;
        if (i < sec.size()) {
            if (sec[i] != ',') {
                ZLOG(eZLogError, "%s is split with [%c] not ','.\n", kind, sec[i]);
                return false;
            }
            ++i;
            // A separator must be followed by a letter.
            if (i == sec.size()) {
                ZLOG(eZLogError, "Unknown %s[%c].\n", unknownWord, ',');
                return false;
            }
        }
    }
    return true;
}

// Whether compiling `pattern` stays small. The regular-expression compiler
// copies a repeated part once per repetition (and once for "+"), so stacked
// or nested repetitions grow it exponentially; back-references make matching
// exponential. The weight counts the copies: each atom 1, a group the sum of
// its parts, "x+" twice x, "x{m,n}" max(m,n) times x.
bool PatternIsBounded(const std::string& pattern) {
    constexpr uint64_t kMaxWeight = 4096;
    constexpr uint64_t kMaxRepeat = 255;
    std::vector<uint64_t> groups(1, 0);  // the weight of each open group
    uint64_t last = 0;                   // the weight of the last atom or group
    bool lastWasQuantifier = true;       // nothing to repeat at the start
    for (size_t i = 0; i < pattern.size(); ++i) {
        const char c = pattern[i];
        uint64_t copies = 0;  // extra copies a quantifier adds
        bool quantifier = true;
        if (c == '*' || c == '?') {
            copies = 0;
        } else if (c == '+') {
            copies = 1;
        } else if (c == '{' && i + 1 < pattern.size() &&
                   ((pattern[i + 1] >= '0' && pattern[i + 1] <= '9') || pattern[i + 1] == ',')) {
            const size_t close = pattern.find('}', i);
            if (close == std::string::npos) return false;
            uint64_t bound = 0, number = 0;
            for (size_t k = i + 1; k < close; ++k) {
                if (pattern[k] == ',') {
                    number = 0;
                    continue;
                }
                if (pattern[k] < '0' || pattern[k] > '9') return false;
                number = number * 10 + static_cast<uint64_t>(pattern[k] - '0');
                if (number > kMaxRepeat) return false;
                bound = std::max(bound, number);
            }
            copies = bound == 0 ? 0 : bound - 1;
            i = close;
        } else {
            quantifier = false;
        }
        if (quantifier) {
            if (lastWasQuantifier) return false;
            groups.back() += last * copies;
            lastWasQuantifier = true;
        } else {
            lastWasQuantifier = false;
            if (c == '\\') {
                if (i + 1 < pattern.size() && pattern[i + 1] >= '1' && pattern[i + 1] <= '9') {
                    return false;  // a back-reference
                }
                ++i;
                last = 1;
            } else if (c == '[') {
                // A bracket expression is one atom; "]" right after "[" or "[^" is a member.
                size_t k = i + 1;
                if (k < pattern.size() && pattern[k] == '^') ++k;
                if (k < pattern.size() && pattern[k] == ']') ++k;
                k = pattern.find(']', k);
                if (k == std::string::npos) return false;
                i = k;
                last = 1;
            } else if (c == '(') {
                groups.push_back(0);
                lastWasQuantifier = true;  // "(*" repeats nothing
                continue;
            } else if (c == ')') {
                if (groups.size() < 2) return false;
                last = groups.back();
                groups.pop_back();
            } else if (c == '|') {
                lastWasQuantifier = true;
                continue;
            } else {
                last = 1;
            }
            groups.back() += last;
        }
        if (groups.back() > kMaxWeight || last > kMaxWeight) return false;
    }
    return true;
}

bool ParseLimits(const std::string& sec, sPropertyAttrTag& attr, bool& rigid) {
    auto& lim = attr.limits;
    bool haveEnum = false;
    std::vector<std::string> enumItems;
    size_t i = 0;
    while (i < sec.size()) {
        const char title = sec[i];
        if (!IsLimitTitleAt(sec, i)) {
            const char second = i + 1 < sec.size() ? sec[i + 1] : ' ';
            ZLOG(eZLogError, "Unknown limitTitle[%c%c].\n", title, second);
            return false;
        }
        i += 2;
        if (title == 'p') {
            // The pattern takes the rest of the section: it may hold ','.
            if (!lim.pattern.empty() || i == sec.size()) {
                if (i == sec.size()) ZLOG(eZLogError, "The limit pattern is empty.\n");
                return false;
            }
            lim.pattern = sec.substr(i);
            i = sec.size();
            if (!PatternIsBounded(lim.pattern)) return false;
            auto compiled = std::make_shared<sCompiledPattern>();
            if (regcomp(&compiled->re, lim.pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
                return false;
            }
            compiled->compiled = true;
            lim.compiled = compiled;
            break;
        }
        if (title == 'e') {
            if (haveEnum) return false;
            haveEnum = true;
            // Items run until the next titled item or the end of the section.
            for (;;) {
                size_t comma = sec.find(',', i);
                if (comma == std::string::npos) comma = sec.size();
                if (comma == i) return false;  // an empty item
                enumItems.push_back(sec.substr(i, comma - i));
                i = comma;
                if (i == sec.size() || IsLimitTitleAt(sec, i + 1)) break;
                ++i;
            }
        } else {  // 'm' or 'M'
            size_t comma = sec.find(',', i);
            if (comma == std::string::npos) comma = sec.size();
            const std::string value = sec.substr(i, comma - i);
            i = comma;
            const uint8_t bit = title == 'm' ? UIT_LIMIT_MIN : UIT_LIMIT_MAX;
            if ((lim.presence & bit) != 0 || (title == 'm' && rigid)) return false;
            if (title == 'm' && value == "R") {
                rigid = true;
            } else {
                double number = 0;
                if (!ParseLimitNumber(value, number)) return false;
                (title == 'm' ? lim.min : lim.max) = number;
                lim.presence |= bit;
            }
        }
        if (i < sec.size()) {
            ++i;  // the ',' between items
            if (i == sec.size()) return false;
        }
    }
    const bool numeric =
        (attr.dataTypes & (UIT_TYPE_FLOAT | UIT_TYPE_SIGNED | UIT_TYPE_UNSIGNED)) != 0;
    for (const std::string& item : enumItems) {
        if (numeric) {
            double number = 0;
            if (!ParseLimitNumber(item, number)) return false;
            lim.enumValues.insert(number);
        } else {
            lim.enumStrings.push_back(item);
        }
    }
    return true;
}

// ---------------------------------------------------------------------------
// The file parser: a recursive descent over object and array blocks, bounded
// by kMaxDepth, that stops at the first fault.
// ---------------------------------------------------------------------------
class TemplateParser {
public:
    TemplateParser(const std::string& text, const std::string& name, const std::string& path,
                   ZUserInputTemplate::sParsed& out)
        : mText(text), mName(name), mPath(path), mOut(out) {}

    eRtCode Run() {
        if (mText.empty()) {
            ZLOG(eZLogError, "UsrInTemplate[%s] is empty file ?\n", mPath.c_str());
            return RT_FAILURE;
        }
        if (mText[0] != '{') {
            ZLOG(eZLogError, "UsrInTemplate[%s] content is not start with char '{'.\n",
                 mPath.c_str());
            return RT_FAILURE;
        }
        mOut.cache.reset(new UsrInTemplateCache());
        for (auto& list : mOut.required) list.clear();
        if (!_Add(ZUserInputTemplate::kRootJPath, ZUserInputTemplate::kFixedObjectAttr, false)) {
            return RT_FAILURE;
        }
        mPos = 1;
        if (!_ObjectBlock(ZUserInputTemplate::kRootJPath, 1)) return _Fail();
        _SkipBlank();
        if (mPos < mText.size()) {
            _FormatError();
            return _Fail();
        }
        return RT_SUCCESS;
    }

private:
    eRtCode _Fail() {
        mOut.cache.reset();
        for (auto& list : mOut.required) list.clear();
        return RT_FAILURE;
    }

    void _SkipBlank() {
        while (mPos < mText.size() && IsBlank(mText[mPos])) {
            if (mText[mPos] == '\n') ++mLine;
            ++mPos;
        }
    }
    int _Peek() const { return mPos < mText.size() ? static_cast<unsigned char>(mText[mPos]) : -1; }

    void _FormatError() {
        ZLOG(eZLogError, "Template[%s]: Format error at line[%u].\n", mName.c_str(), mLine);
    }

    // _StrFetch: a quoted token at mPos, up to the closing quote.
    bool _StrFetch(std::string& out) {
        if (_Peek() != '\'') return false;
        const size_t start = mPos + 1;
        const size_t end = mText.find('\'', start);
        if (end == std::string::npos) return false;  // no closing quote
        if (end - start >= ZUserInputTemplate::kMaxTokenLength) {
            const std::string shown = mText.substr(start, kTooLongShown) + "...";
            ZLOG(eZLogError, "String[%s] too long ( >= %u ).\n", shown.c_str(),
                 ZUserInputTemplate::kMaxTokenLength);
            return false;
        }
        // A NUL byte would cut a name or a pattern short wherever it is
        // used as a C string (a pattern "^a<NUL>b$" would compile as "^a").
        if (std::memchr(mText.data() + start, '\0', end - start) != nullptr) return false;
        out.assign(mText, start, end - start);
        for (char c : out) mLine += c == '\n' ? 1 : 0;
        mPos = end + 1;
        return true;
    }

    static std::string _Join(const std::string& parent, const std::string& name) {
        return parent == ZUserInputTemplate::kRootJPath ? parent + name : parent + "/" + name;
    }

    // Enters one property (or item) into the cache and the required lists.
    bool _Add(const std::string& jpath, const std::string& attrText, bool isItem) {
        std::unique_ptr<sPropertyAttrTag> attr(new sPropertyAttrTag());
        if (ZUserInputTemplate::ParsePropertyAttr(attrText, *attr) != RT_SUCCESS) {
            ZLOG(eZLogError, "PropertyAttr[%s] format error in %s line:%u.\n", attrText.c_str(),
                 mPath.c_str(), mLine);
            return false;
        }
        if (mOut.cache->find(jpath) != mOut.cache->end()) {
            if (isItem) {
                ZLOG(eZLogError, "Template[%s]:line[%u]: itemJPath[%s] is duplicated.\n",
                     mName.c_str(), mLine, jpath.c_str());
            } else {
                ZLOG(eZLogError, "Template[%s]:line[%u]: pptJPath[%s] is duplicated.\n",
                     mName.c_str(), mLine, jpath.c_str());
            }
            return false;
        }
        const uint8_t methods = attr->supportMethods;
        if (methods & UIT_METHOD_CreateRequired) mOut.required[0].push_back(jpath);
        if (methods & UIT_METHOD_PatchRequired) mOut.required[1].push_back(jpath);
        if (methods & UIT_METHOD_ActionRequired) mOut.required[2].push_back(jpath);
        mLastTypes = attr->dataTypes;
        mOut.cache->emplace(jpath, attr.release());
        return true;
    }

    // A nested block after a property or item whose types are `types`: "{"
    // needs an object type, "[" an array type.
    bool _NestedBlock(const std::string& jpath, uint16_t types, unsigned depth) {
        const int c = _Peek();
        const bool object = c == '{';
        if (depth >= ZUserInputTemplate::kMaxDepth ||
            (types & (object ? UIT_TYPE_OBJECT : UIT_TYPE_ARRAY)) == 0) {
            _FormatError();
            return false;
        }
        ++mPos;
        return object ? _ObjectBlock(jpath, depth + 1) : _ArrayBlock(jpath, depth + 1);
    }

    // After "{": entries up to the matching "}".
    bool _ObjectBlock(const std::string& parent, unsigned depth) {
        _SkipBlank();
        if (_Peek() == '}') {
            ++mPos;
            return true;
        }
        for (;;) {
            _SkipBlank();
            std::string name;
            if (!_StrFetch(name) || name.empty() || name.find('/') != std::string::npos ||
                name == ZUserInputTemplate::kIndexWildcard) {
                ZLOG(eZLogError, "Template[%s]: Cannot fetch propertyName from line[%u].\n",
                     mName.c_str(), mLine);
                return false;
            }
            _SkipBlank();
            if (_Peek() != ':') {
                _FormatError();
                return false;
            }
            ++mPos;
            _SkipBlank();
            std::string attrText;
            if (!_StrFetch(attrText)) {
                _FormatError();
                return false;
            }
            const std::string jpath = _Join(parent, name);
            if (!_Add(jpath, attrText, false)) return false;
            _SkipBlank();
            int c = _Peek();
            if (c == '{' || c == '[') {
                if (!_NestedBlock(jpath, mLastTypes, depth)) return false;
                _SkipBlank();
                c = _Peek();
            }
            if (c == ',') {
                ++mPos;
                continue;
            }
            if (c == '}') {
                ++mPos;
                return true;
            }
            _FormatError();
            return false;
        }
    }

    // After "[": nothing, an item attribute (with its own block), or an
    // object block whose items get the fixed object attribute; then "]".
    bool _ArrayBlock(const std::string& array, unsigned depth) {
        const std::string item = array + "/" + ZUserInputTemplate::kIndexWildcard;
        _SkipBlank();
        int c = _Peek();
        if (c == '\'') {
            std::string attrText;
            if (!_StrFetch(attrText)) {
                ZLOG(eZLogError, "Template[%s]: Cannot fetch itemAttr from line[%u].\n",
                     mName.c_str(), mLine);
                return false;
            }
            if (!_Add(item, attrText, true)) return false;
            _SkipBlank();
            c = _Peek();
            if (c == '{' || c == '[') {
                if (!_NestedBlock(item, mLastTypes, depth)) return false;
            }
        } else if (c == '{') {
            if (!_Add(item, ZUserInputTemplate::kFixedObjectAttr, true)) return false;
            if (!_NestedBlock(item, UIT_TYPE_OBJECT, depth)) return false;
        }
        _SkipBlank();
        if (_Peek() != ']') {
            _FormatError();
            return false;
        }
        ++mPos;
        return true;
    }

    const std::string& mText;
    const std::string& mName;
    const std::string& mPath;
    ZUserInputTemplate::sParsed& mOut;
    size_t mPos = 0;
    unsigned mLine = 1;
    uint16_t mLastTypes = 0;  // data types of the entry _Add entered last
};

}  // namespace

// ---------------------------------------------------------------------------
// Attribute strings and whole texts
// ---------------------------------------------------------------------------

void ZUserInputTemplate::sCacheDeleter::operator()(UsrInTemplateCache* cache) const {
    if (cache == nullptr) return;
    for (auto& entry : *cache) delete entry.second;
    delete cache;
}

eRtCode ZUserInputTemplate::ParsePropertyAttr(const std::string& text, sPropertyAttrTag& attr) {
    attr = sPropertyAttrTag();
    const size_t s1 = text.find('@');
    const size_t s2 = s1 == std::string::npos ? s1 : text.find('@', s1 + 1);
    const size_t s3 = s2 == std::string::npos ? s2 : text.find('@', s2 + 1);
    if (s3 == std::string::npos) return RT_FAILURE;
    uint32_t types = 0, methods = 0, flags = 0;
    if (s1 == 0) return RT_FAILURE;  // a property accepts at least one type
    if (!ParseLetters(text.substr(0, s1), "DataTypes", "dataType", types) ||
        !ParseLetters(text.substr(s1 + 1, s2 - s1 - 1), "Methods", "method", methods) ||
        !ParseLetters(text.substr(s2 + 1, s3 - s2 - 1), "Flags", "flag", flags)) {
        return RT_FAILURE;
    }
    attr.dataTypes = static_cast<uint16_t>(types);
    // No letter says read-only: a property written in no method is.
    attr.supportMethods =
        static_cast<uint8_t>(methods == 0 ? uint32_t{UIT_METHOD_ReadOnly} : methods);
    attr.flags = static_cast<uint8_t>(flags);
    bool rigid = false;
    if (!ParseLimits(text.substr(s3 + 1), attr, rigid)) return RT_FAILURE;
    auto& lim = attr.limits;
    const bool isArray = (attr.dataTypes & UIT_TYPE_ARRAY) != 0;
    if (rigid) {
        if (!isArray) return RT_FAILURE;
        if ((lim.presence & UIT_LIMIT_MAX) == 0) {
            ZLOG(eZLogError, "'M' is a required attribute for Rigid array.\n");
            return RT_FAILURE;
        }
        lim.min = lim.max;
        lim.presence |= UIT_LIMIT_MIN;
        lim.arrayType = UIT_ARRAY_Rigid;
    } else if (isArray &&
               (lim.presence & (UIT_LIMIT_MIN | UIT_LIMIT_MAX)) ==
                   (UIT_LIMIT_MIN | UIT_LIMIT_MAX) &&
               lim.min == lim.max) {
        lim.arrayType = UIT_ARRAY_FixedLength;
    }
    if ((lim.presence & (UIT_LIMIT_MIN | UIT_LIMIT_MAX)) == (UIT_LIMIT_MIN | UIT_LIMIT_MAX) &&
        lim.min > lim.max) {
        return RT_FAILURE;  // no value could pass
    }
    return RT_SUCCESS;
}

eRtCode ZUserInputTemplate::ParseTemplateText(const std::string& text, const std::string& name,
                                              const std::string& path, sParsed& out) {
    TemplateParser parser(text, name, path, out);
    return parser.Run();
}

}  // namespace Orbel
