// Word-at-a-time checks of texts that are nearly always plain: every
// property name, value and JPath written to the store passes one or two of
// them, and a byte-by-byte loop over them was a visible share of the work of
// building a resource. A word whose bytes all pass says so in a few
// operations; any doubt (a byte that fails, or a borrow the tricks below
// cannot tell from one) is left to the caller's exact byte-by-byte check.
// Private to the library.
#ifndef ORBEL_TEXTSCAN_H
#define ORBEL_TEXTSCAN_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Orbel {
namespace textscan {

// The machine's word: 8 bytes on the 64-bit hosts, 4 on the controller.
using Word = uintptr_t;
constexpr Word kOnes = ~Word(0) / 255;  // 0x0101...01
constexpr Word kHighs = kOnes * 0x80;   // 0x8080...80

// Non-zero when some byte of `w` lies outside 0x20..0x7E. Below 0x20: the
// subtraction leaves a high bit that the byte itself does not have. 0x7F:
// adding one sets its high bit. 0x80 and up: the high bit is there. A borrow
// or carry only spreads from a byte that is flagged already.
inline Word OutsidePrintable(Word w) {
    const Word below = (w - kOnes * 0x20) & ~w;
    const Word above = w | (w + kOnes);
    return (below | above) & kHighs;
}

// Non-zero when some byte of `w` is `b`.
inline Word HasByte(Word w, unsigned char b) {
    const Word x = w ^ (kOnes * b);
    return (x - kOnes) & ~x & kHighs;
}

inline Word Load(const char* p) {
    Word w;
    std::memcpy(&w, p, sizeof(w));
    return w;
}

// True when no word of the text makes `bad` non-zero. The last part of a
// text longer than a word is read as the word that ends it (overlapping
// bytes already passed); a shorter text is padded with blanks, which pass
// every check here.
template <class Bad>
inline bool NoBadWord(const char* p, size_t n, Bad bad) {
    size_t i = 0;
    for (; i + sizeof(Word) <= n; i += sizeof(Word)) {
        if (bad(Load(p + i)) != 0) return false;
    }
    if (i == n) return true;
    if (n >= sizeof(Word)) return bad(Load(p + n - sizeof(Word))) == 0;
    Word w = kOnes * 0x20;
    std::memcpy(&w, p, n);
    return bad(w) == 0;
}

// True when every byte is printable ASCII (0x20..0x7E).
inline bool AllPrintable(const char* p, size_t n) {
    return NoBadWord(p, n, OutsidePrintable);
}

// True when every byte is printable ASCII and none is a quote or a
// backslash: the text stands between JSON quotes as it is.
inline bool AllPlainJson(const char* p, size_t n) {
    return NoBadWord(
        p, n, [](Word w) { return OutsidePrintable(w) | HasByte(w, '"') | HasByte(w, '\\'); });
}

}  // namespace textscan
}  // namespace Orbel

#endif  // ORBEL_TEXTSCAN_H
