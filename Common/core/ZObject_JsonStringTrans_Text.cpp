// JSON text checks of the object model: the JSON value checker that the
// RawJson format relies on, string quoting, the string-content rule of
// stored values, and the checks and log forms of client text.
#include <algorithm>
#include <cstdint>
#include <string>

#include "Orbel.h"
#include "Orbel_TextScan.h"
#include "ZObject_JsonStringTrans.h"

namespace Orbel {

// ---------------------------------------------------------------------------
// JSON value checker
// ---------------------------------------------------------------------------

namespace {

bool IsBlank(char ch) {
    return ch == ' ' || ch == '\t' || ch == '\n' || ch == '\r';
}

size_t Utf8SeqLen(const std::string& s, size_t i) { return Utf8CharLength(s, i); }

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
    // Nearly every text is printable ASCII without a quote or a backslash;
    // the rest takes the full walk.
    return textscan::AllPlainJson(text.data(), text.size()) || WalkStringContent(text, nullptr);
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
    const size_t len = std::min(maxLen, text.size());
    std::string out;
    out.reserve(len + 3);
    for (size_t i = 0; i < len; ++i) {
        const unsigned char b = static_cast<unsigned char>(text[i]);
        out += b >= 0x20 && b <= 0x7E ? text[i] : '.';
    }
    if (len < text.size()) out += "...";
    return out;
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
