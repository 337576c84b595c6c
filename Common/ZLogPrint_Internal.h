// Message formatting of the log service (ZLogPrint.cpp only).
//
// A line's values are the arguments of its format. Each text argument (%s,
// %c) has its control bytes escaped, so that a value that a client chose
// (a user name, a body value, a URI) can never end the line and start one
// that looks like the service's own; the format's own text, newlines
// included, is kept as it is. A line whose whole format is "%s" is a text
// that its caller built line by line (the dumps), and is kept as given.
//
// A debug line that the filter drops is not formatted: its arguments are
// copied as they are (Capture) into the message cache and formatted only if
// the cache is dumped (RenderCaptured). Texts are copied, so the caller's
// buffers may go away.
//
// Conversions understood: d i o u x X c s p f F e E g G a A and %%, with
// flags, width, precision (also "*") and the length modifiers hh h l ll q j z
// t L. Anything else (%n, %m, positional arguments, wide characters) makes
// Render and Capture return false; the caller then formats with vsnprintf.
#ifndef ORBEL_ZLOGPRINT_INTERNAL_H
#define ORBEL_ZLOGPRINT_INTERNAL_H

#include <cstdarg>
#include <cstddef>
#include <ctime>
#include <string>

namespace Orbel {
namespace LogFormat {

// True when `format` is exactly "%s".
inline bool IsPreformatted(const char* format) {
    return format[0] == '%' && format[1] == 's' && format[2] == '\0';
}

// Appends `n` bytes of `text`, each control byte (below 0x20, and 0x7F) as
// "\n", "\r", "\t" or "\xHH".
void AppendEscaped(std::string& out, const char* text, size_t n);

// Appends the formatted message. False, with `out` in an unspecified state,
// for a format outside the set above. `args` is consumed.
bool Render(std::string& out, const char* format, va_list args, bool escape);

// Appends the arguments of `format` to `packed`. False as Render.
bool Capture(std::string& packed, const char* format, va_list args);

// Renders `format` with arguments captured into [packed, packed + size).
bool RenderCaptured(std::string& out, const char* format, const char* packed, size_t size,
                    bool escape);

// Appends the line time stamp "YYYY-MM-DDThh:mm:ss.uuuuuu+hh:mm" of the given
// seconds (UTC), microseconds and minutes west of Greenwich.
void AppendTimeStamp(std::string& out, time_t seconds, long micros, int minutesWest);

}  // namespace LogFormat
}  // namespace Orbel

#endif  // ORBEL_ZLOGPRINT_INTERNAL_H
