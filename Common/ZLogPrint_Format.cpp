#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "ZLogPrint_Internal.h"

namespace Orbel {
namespace LogFormat {

namespace {

enum class Len : uint8_t { None, HH, H, L, LL, J, Z, T, BigL };

struct Conversion {
    char flags[8] = {};
    int nflags = 0;
    int width = -1;  // -1: none
    int prec = -1;   // -1: none
    bool starWidth = false;
    bool starPrec = false;
    Len len = Len::None;
    char conv = 0;
    bool HasFlag(char f) const { return std::memchr(flags, f, nflags) != nullptr; }
};

// Every conversion of every line asks these: a switch, not a search of a
// text.
bool IsFlagChar(char c) {
    switch (c) {
        case '-': case '+': case ' ': case '#': case '0': case '\'':
            return true;
        default:
            return false;
    }
}
bool IsFloatConv(char c) {
    switch (c) {
        case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A':
            return true;
        default:
            return false;
    }
}
bool IsConv(char c) {
    switch (c) {
        case 'd': case 'i': case 'o': case 'u': case 'x': case 'X': case 'c': case 's': case 'p':
            return true;
        default:
            return IsFloatConv(c);
    }
}

// Reads the conversion after '%' into `s`; the position after it, or null
// for a conversion this formatter leaves to vsnprintf.
const char* ParseConversion(const char* p, Conversion& s) {
    while (IsFlagChar(*p)) {
        if (s.nflags == 7) return nullptr;
        s.flags[s.nflags++] = *p++;
    }
    if (*p == '*') {
        s.starWidth = true;
        ++p;
    } else if (*p >= '1' && *p <= '9') {
        s.width = 0;
        while (*p >= '0' && *p <= '9') {
            if (s.width > 100000) return nullptr;
            s.width = s.width * 10 + (*p++ - '0');
        }
        if (*p == '$') return nullptr;  // positional arguments
    }
    if (*p == '.') {
        ++p;
        if (*p == '*') {
            s.starPrec = true;
            ++p;
        } else {
            s.prec = 0;
            while (*p >= '0' && *p <= '9') {
                if (s.prec > 100000) return nullptr;
                s.prec = s.prec * 10 + (*p++ - '0');
            }
        }
    }
    switch (*p) {
        case 'h':
            ++p;
            s.len = Len::H;
            if (*p == 'h') {
                ++p;
                s.len = Len::HH;
            }
            break;
        case 'l':
            ++p;
            s.len = Len::L;
            if (*p == 'l') {
                ++p;
                s.len = Len::LL;
            }
            break;
        case 'q': ++p; s.len = Len::LL; break;
        case 'j': ++p; s.len = Len::J; break;
        case 'z': ++p; s.len = Len::Z; break;
        case 't': ++p; s.len = Len::T; break;
        case 'L': ++p; s.len = Len::BigL; break;
        default: break;
    }
    s.conv = *p;
    if (!IsConv(s.conv)) return nullptr;
    const bool isFloat = IsFloatConv(s.conv);
    if (s.len == Len::BigL && !isFloat) return nullptr;
    if (s.len != Len::None && (s.conv == 'c' || s.conv == 's' || s.conv == 'p')) {
        return nullptr;  // wide
    }
    return p + 1;
}

// The arguments of a va_list, with the integer promotions undone the way
// printf undoes them.
class VaSource {
public:
    explicit VaSource(va_list args) { va_copy(mArgs, args); }
    ~VaSource() { va_end(mArgs); }
    VaSource(const VaSource&) = delete;
    VaSource& operator=(const VaSource&) = delete;

    int Star() { return va_arg(mArgs, int); }
    int Chr() { return va_arg(mArgs, int); }
    const char* Str() { return va_arg(mArgs, const char*); }
    const void* Ptr() { return va_arg(mArgs, const void*); }
    double Dbl() { return va_arg(mArgs, double); }
    long double LDbl() { return va_arg(mArgs, long double); }
    long long SInt(Len len) {
        switch (len) {
            case Len::HH: return static_cast<signed char>(va_arg(mArgs, int));
            case Len::H: return static_cast<short>(va_arg(mArgs, int));
            case Len::L: return va_arg(mArgs, long);
            case Len::LL: return va_arg(mArgs, long long);
            case Len::J: return va_arg(mArgs, intmax_t);
            case Len::Z: return va_arg(mArgs, std::make_signed_t<size_t>);
            case Len::T: return va_arg(mArgs, ptrdiff_t);
            default: return va_arg(mArgs, int);
        }
    }
    unsigned long long UInt(Len len) {
        switch (len) {
            case Len::HH: return static_cast<unsigned char>(va_arg(mArgs, unsigned));
            case Len::H: return static_cast<unsigned short>(va_arg(mArgs, unsigned));
            case Len::L: return va_arg(mArgs, unsigned long);
            case Len::LL: return va_arg(mArgs, unsigned long long);
            case Len::J: return va_arg(mArgs, uintmax_t);
            case Len::Z: return va_arg(mArgs, size_t);
            case Len::T: return static_cast<std::make_unsigned_t<ptrdiff_t>>(va_arg(mArgs, ptrdiff_t));
            default: return va_arg(mArgs, unsigned);
        }
    }

private:
    va_list mArgs;
};

constexpr uint32_t kNullText = 0xFFFFFFFFu;

// Records what it hands out into a byte string that PackedSource reads back
// in the same order.
class RecordingSource {
public:
    RecordingSource(va_list args, std::string& packed) : mSrc(args), mOut(packed) {}
    int Star() { return Put(mSrc.Star()); }
    int Chr() { return Put(mSrc.Chr()); }
    const void* Ptr() { return reinterpret_cast<const void*>(Put(reinterpret_cast<uintptr_t>(mSrc.Ptr()))); }
    double Dbl() { return Put(mSrc.Dbl()); }
    long double LDbl() { return Put(mSrc.LDbl()); }
    long long SInt(Len len) { return Put(mSrc.SInt(len)); }
    unsigned long long UInt(Len len) { return Put(mSrc.UInt(len)); }
    // Copies at most `limit` bytes (the precision) of the text.
    const char* Str(int limit) {
        const char* s = mSrc.Str();
        if (s == nullptr) {
            Put(kNullText);
            return s;
        }
        const size_t n = limit >= 0 ? strnlen(s, static_cast<size_t>(limit)) : std::strlen(s);
        Put(static_cast<uint32_t>(n));
        mOut.append(s, n);
        return s;
    }

private:
    template <class T>
    T Put(T v) {
        mOut.append(reinterpret_cast<const char*>(&v), sizeof v);
        return v;
    }
    VaSource mSrc;
    std::string& mOut;
};

class PackedSource {
public:
    PackedSource(const char* data, size_t size) : mAt(data), mEnd(data + size) {}
    int Star() { return Get<int>(); }
    int Chr() { return Get<int>(); }
    const void* Ptr() { return reinterpret_cast<const void*>(Get<uintptr_t>()); }
    double Dbl() { return Get<double>(); }
    long double LDbl() { return Get<long double>(); }
    long long SInt(Len) { return Get<long long>(); }
    unsigned long long UInt(Len) { return Get<unsigned long long>(); }
    // The text and its length (null for a null pointer).
    const char* Str(size_t* n) {
        const uint32_t len = Get<uint32_t>();
        *n = 0;
        if (len == kNullText || static_cast<size_t>(mEnd - mAt) < len) return nullptr;
        const char* s = mAt;
        mAt += len;
        *n = len;
        return s;
    }

private:
    template <class T>
    T Get() {
        T v{};
        if (static_cast<size_t>(mEnd - mAt) >= sizeof v) {
            std::memcpy(&v, mAt, sizeof v);
            mAt += sizeof v;
        }
        return v;
    }
    const char* mAt;
    const char* mEnd;
};

// "%<flags><width>.<prec><lenmod><conv>" for one snprintf.
void MiniFormat(char* fmt, const Conversion& s, const char* lenmod) {
    char* p = fmt;
    *p++ = '%';
    for (int i = 0; i < s.nflags; ++i) *p++ = s.flags[i];
    p += s.width >= 0 ? std::sprintf(p, "%d", s.width) : 0;
    p += s.prec >= 0 ? std::sprintf(p, ".%d", s.prec) : 0;
    while (*lenmod != '\0') *p++ = *lenmod++;
    *p++ = s.conv;
    *p = '\0';
}

// The one conversion is built from a parsed one above and its argument has
// the type that the conversion names.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <class T>
void EmitPrintf(std::string& out, const Conversion& s, const char* lenmod, T v) {
    char fmt[48];
    MiniFormat(fmt, s, lenmod);
    char buf[256];
    const int n = std::snprintf(buf, sizeof buf, fmt, v);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof buf) {
        out.append(buf, static_cast<size_t>(n));
        return;
    }
    const size_t at = out.size();
    out.resize(at + static_cast<size_t>(n) + 1);
    std::snprintf(&out[at], static_cast<size_t>(n) + 1, fmt, v);
    out.resize(at + static_cast<size_t>(n));
}
#pragma GCC diagnostic pop

// An integer without precision and with no flag but '0' or '-' (the usual
// "%d", "%08X", "%-5u"): digits, sign and padding without printf.
bool EmitIntFast(std::string& out, const Conversion& s, bool negative, unsigned long long magnitude) {
    if (s.prec >= 0) return false;
    bool zero = false, left = false;
    for (int i = 0; i < s.nflags; ++i) {
        if (s.flags[i] == '0') {
            zero = true;
        } else if (s.flags[i] == '-') {
            left = true;
        } else {
            return false;
        }
    }
    const int base = (s.conv == 'x' || s.conv == 'X') ? 16 : (s.conv == 'o' ? 8 : 10);
    char digits[24];
    auto r = std::to_chars(digits, digits + sizeof digits, magnitude, base);
    size_t n = static_cast<size_t>(r.ptr - digits);
    if (s.conv == 'X') {
        for (size_t i = 0; i < n; ++i) {
            if (digits[i] >= 'a' && digits[i] <= 'f') digits[i] = static_cast<char>(digits[i] - 32);
        }
    }
    const size_t len = n + (negative ? 1 : 0);
    const size_t pad = s.width > 0 && static_cast<size_t>(s.width) > len
                           ? static_cast<size_t>(s.width) - len
                           : 0;
    if (left) {
        if (negative) out.push_back('-');
        out.append(digits, n);
        out.append(pad, ' ');
    } else if (zero) {
        if (negative) out.push_back('-');
        out.append(pad, '0');
        out.append(digits, n);
    } else {
        out.append(pad, ' ');
        if (negative) out.push_back('-');
        out.append(digits, n);
    }
    return true;
}

// A text value, escaped, then padded to the width.
void EmitText(std::string& out, const Conversion& s, const char* text, size_t n, bool escape) {
    const size_t at = out.size();
    if (escape) {
        AppendEscaped(out, text, n);
    } else {
        out.append(text, n);
    }
    const size_t len = out.size() - at;
    if (s.width >= 0 && len < static_cast<size_t>(s.width)) {
        const size_t pad = static_cast<size_t>(s.width) - len;
        if (s.HasFlag('-')) {
            out.append(pad, ' ');
        } else {
            out.insert(at, pad, ' ');
        }
    }
}

template <class Src>
const char* NextText(Src& src, const Conversion& s, size_t* n);

template <>
const char* NextText<VaSource>(VaSource& src, const Conversion& s, size_t* n) {
    const char* t = src.Str();
    *n = t == nullptr ? 0
         : s.prec >= 0 ? strnlen(t, static_cast<size_t>(s.prec))
                       : std::strlen(t);
    return t;
}
template <>
const char* NextText<RecordingSource>(RecordingSource& src, const Conversion& s, size_t* n) {
    *n = 0;
    return src.Str(s.prec);
}
template <>
const char* NextText<PackedSource>(PackedSource& src, const Conversion&, size_t* n) {
    return src.Str(n);
}

// Walks the format, taking each argument from `src`; appends the message to
// `out` unless it is null (capture).
template <class Src>
bool Walk(std::string* out, const char* format, Src& src, bool escape) {
    const char* p = format;
    for (;;) {
        const char* pct = std::strchr(p, '%');
        if (pct == nullptr) {
            if (out != nullptr) out->append(p);
            return true;
        }
        if (out != nullptr) out->append(p, static_cast<size_t>(pct - p));
        p = pct + 1;
        if (*p == '%') {
            if (out != nullptr) out->push_back('%');
            ++p;
            continue;
        }
        Conversion s;
        const char* next = ParseConversion(p, s);
        if (next == nullptr) return false;
        p = next;
        if (s.starWidth) {
            s.width = src.Star();
            if (s.width < 0) {  // a negative width is a left-justified one
                if (s.width < -100000 || s.nflags == 7) return false;
                s.flags[s.nflags++] = '-';
                s.width = -s.width;
            }
            if (s.width > 100000) return false;
        }
        if (s.starPrec) {
            s.prec = src.Star();
            if (s.prec < 0) s.prec = -1;  // as if omitted
            if (s.prec > 100000) return false;
        }
        switch (s.conv) {
            case 'd':
            case 'i': {
                const long long v = src.SInt(s.len);
                if (out == nullptr) break;
                const unsigned long long magnitude =
                    v < 0 ? 0ULL - static_cast<unsigned long long>(v)
                          : static_cast<unsigned long long>(v);
                if (!EmitIntFast(*out, s, v < 0, magnitude)) EmitPrintf(*out, s, "ll", v);
                break;
            }
            case 'o':
            case 'u':
            case 'x':
            case 'X': {
                const unsigned long long v = src.UInt(s.len);
                if (out == nullptr) break;
                if (!EmitIntFast(*out, s, false, v)) EmitPrintf(*out, s, "ll", v);
                break;
            }
            case 'c': {
                const char c = static_cast<char>(src.Chr());
                if (out != nullptr) EmitText(*out, s, &c, 1, escape);
                break;
            }
            case 's': {
                size_t n = 0;
                const char* t = NextText(src, s, &n);
                if (out == nullptr) break;
                if (t == nullptr) {
                    Conversion nullConv = s;
                    const char* text = "(null)";
                    // As the C library does: "(null)" only when it fits the precision.
                    EmitText(*out, nullConv, text, s.prec < 0 || s.prec >= 6 ? 6 : 0, false);
                } else {
                    EmitText(*out, s, t, n, escape);
                }
                break;
            }
            case 'p': {
                const void* v = src.Ptr();
                if (out != nullptr) EmitPrintf(*out, s, "", v);
                break;
            }
            default: {  // floating point
                if (s.len == Len::BigL) {
                    const long double v = src.LDbl();
                    if (out != nullptr) EmitPrintf(*out, s, "L", v);
                } else {
                    const double v = src.Dbl();
                    if (out != nullptr) EmitPrintf(*out, s, "", v);
                }
                break;
            }
        }
    }
}

}  // namespace

void AppendEscaped(std::string& out, const char* text, size_t n) {
    static const char kHex[] = "0123456789ABCDEF";
    size_t start = 0;
    for (size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != 0x7F) continue;
        out.append(text + start, i - start);
        start = i + 1;
        switch (c) {
            case '\n': out.append("\\n", 2); break;
            case '\r': out.append("\\r", 2); break;
            case '\t': out.append("\\t", 2); break;
            default: {
                const char esc[4] = {'\\', 'x', kHex[c >> 4], kHex[c & 0xF]};
                out.append(esc, 4);
                break;
            }
        }
    }
    out.append(text + start, n - start);
}

bool Render(std::string& out, const char* format, va_list args, bool escape) {
    VaSource src(args);
    return Walk(&out, format, src, escape);
}

bool Capture(std::string& packed, const char* format, va_list args) {
    RecordingSource src(args, packed);
    return Walk(nullptr, format, src, false);
}

bool RenderCaptured(std::string& out, const char* format, const char* packed, size_t size,
                    bool escape) {
    PackedSource src(packed, size);
    return Walk(&out, format, src, escape);
}

void AppendTimeStamp(std::string& out, time_t seconds, long micros, int minutesWest) {
    // The date and time of day change once a second; each thread keeps the
    // last one it wrote.
    thread_local time_t cachedSeconds = -1;
    thread_local char cachedText[40];
    thread_local size_t cachedLen = 0;
    if (seconds != cachedSeconds) {
        struct tm tmv;
        gmtime_r(&seconds, &tmv);
        const int n = std::snprintf(cachedText, sizeof cachedText, "%04d-%02d-%02dT%02d:%02d:%02d.",
                                    tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour,
                                    tmv.tm_min, tmv.tm_sec);
        cachedLen = n > 0 ? static_cast<size_t>(n) : 0;
        cachedSeconds = seconds;
    }
    out.append(cachedText, cachedLen);
    // "%06ld%c%02d:%02d": microseconds, the sign of minutes-west, hours, minutes.
    if (micros < 0 || micros > 999999) micros = 0;
    const int west = minutesWest < 0 ? -minutesWest : minutesWest;
    const int hours = (west / 60) % 100;
    const int minutes = west % 60;
    char tail[13];
    for (int i = 5; i >= 0; --i) {
        tail[i] = static_cast<char>('0' + micros % 10);
        micros /= 10;
    }
    tail[6] = minutesWest < 0 ? '-' : '+';
    tail[7] = static_cast<char>('0' + hours / 10);
    tail[8] = static_cast<char>('0' + hours % 10);
    tail[9] = ':';
    tail[10] = static_cast<char>('0' + minutes / 10);
    tail[11] = static_cast<char>('0' + minutes % 10);
    out.append(tail, 12);
}

}  // namespace LogFormat
}  // namespace Orbel
