// String, value, platform-setting, clock, run-state and file helpers.
//
// Free functions that validate and transform text from clients, templates
// and the store, and that wrap the controller's settings stores (VEX, KOBA),
// its clock and a few file-system chores, so the rest of the library never
// calls those platform interfaces directly.
//
// All functions are stateless and callable from any thread. Nothing throws:
// checks return false, converters and wrappers return an eRtCode (0 success,
// 2 failure) and log their failures through zLogPrint. On failure no partial
// value is written to an out-argument (GetVEX of a bool resets it to false
// first).
//
// Defined in: Orbel.cpp (text, numbers, secrets, regular expressions, meta
// keys, files), Orbel_Settings.cpp (VEX, KOBA, clock, run state),
// Orbel_Process.cpp (threads, whole-file writes).
#ifndef ORBEL_ORBEL_H
#define ORBEL_ORBEL_H

#include <regex.h>

#include <cstdint>
#include <regex>
#include <string>
#include <vector>

#include "OrbelDefs.h"

namespace Orbel {

// ---------------------------------------------------------------------------
// Printable text. A string is pure when every byte is in 0x20..0x7E; the
// empty string is pure. With `verbose`, each offending byte and the verdict
// are logged as raw lines under the module "ZComLib".
// ---------------------------------------------------------------------------
bool _IsPureString(const char* buf, unsigned int len, bool verbose);
bool IsPureString(const char* s, bool verbose);
bool IsPureString(const unsigned char* s, bool verbose);  // null: empty, pure
bool IsPureString(const std::string& s, bool verbose);

// ---------------------------------------------------------------------------
// Numbers and booleans. No surrounding blanks, no '+' sign.
// ---------------------------------------------------------------------------
bool IsSignedNumString(const std::string& s);    // "-"? digits*; a lone "-" is true
bool IsUnsignedNumString(const std::string& s);  // digits+, no leading '-'
bool IsFloatString(const std::string& s);        // "-"? digits with at most one '.'
// "true"/"false" set `out` and return 0; anything else returns 2, `out` unchanged.
eRtCode BoolStr2Value(const std::string& s, bool& out);
bool IsProtocolPortValid(int port);                // 1..65535
bool IsProtocolPortValid(const std::string& port); // digits only, then the int rule

// ---------------------------------------------------------------------------
// Stripping, searching, splitting.
// ---------------------------------------------------------------------------
// Drop the leading (trailing) run of bytes that are non-printable or in `chars`.
// A well-formed UTF-8 character is printable text and stays whole; control
// bytes, DEL and stray bytes above 0x7F go.
std::string StringLeftStrip(const std::string& s, const std::string& chars);
std::string StringRightStrip(const std::string& s, const std::string& chars);
// Length (1 to 4) of the well-formed UTF-8 character at s[i]; 0 when the
// bytes there are not one (overlong forms, surrogates, code points past
// U+10FFFF, a cut sequence) or i is past the end.
size_t Utf8CharLength(const std::string& s, size_t i);
// First index >= start whose byte is in `chars`; -1 when none or start past end.
int StringFindChar(unsigned int start, const std::string& s, const std::string& chars);
// Pieces between `delim`s; a trailing delimiter adds no empty piece.
std::vector<std::string> StringSplit(const std::string& s, char delim);

// ---------------------------------------------------------------------------
// Quoting for JSON text.
// ---------------------------------------------------------------------------
// A backslash before every '\\' and '"' (and '?' when escapeQuestion).
std::string StringEscapeCorrect(const std::string& s, bool escapeQuestion);
// Drops a '\\' that precedes '\\' or '"'; see Orbel.cpp for the exact walk.
std::string StringEscapeRevert(const std::string& s);

// ---------------------------------------------------------------------------
// Secret-like values. A value whose name looks like a password, key, token or
// secret never reaches a log line: callers print MaskSecretValue(name, value)
// where the value would stand. The name is a property name or a JPath; only
// its last "/"-separated component counts, in small letters. The words, tried
// in order, the first one found deciding: "password" (unless "passwordname"),
// "passphrase", "key" (unless "keystype", "keytype", "keylength",
// "keycurveid", "keypairalgorithm", "keyusage"), "token", "secret",
// "ciphercode". So Password and AuthKey are secret; KeyType is not.
// ---------------------------------------------------------------------------
bool IsSecretLikeName(const std::string& name);
// The mask text "******" when IsSecretLikeName(name), else `value` itself.
// Never null: a null `value` gives "(null)".
const char* MaskSecretValue(const std::string& name, const char* value);
extern const char* const kSecretMask;  // "******"

// ---------------------------------------------------------------------------
// Regular expressions.
// ---------------------------------------------------------------------------
// POSIX extended, unanchored; a pattern that does not compile gives false.
bool RegExpCompare(const std::string& pattern, const std::string& text);
bool RegExpCompare(const regex_t* compiled, const std::string& text);
// ECMAScript; the caller owns and deletes the result. Null when the pattern
// does not compile (logged).
std::regex* NewRegExpPattern(const std::string& pattern);

// ---------------------------------------------------------------------------
// Front-end meta keys: the "&&Object", "&&Array", "&&ArraySimple" and
// "&&ObjectRef" forms that link a hash field or list element to another node
// (docs/meta-keys.md gives the splitting rule). Returns true when `key`
// is one. `name` receives the property name (empty for a list element),
// `target` the linked JPath, URI or text, and `isLink` is true for
// "&&ObjectRef" (a link to a node owned elsewhere). Out-arguments may be null
// and are left untouched when the result is false.
// ---------------------------------------------------------------------------
bool IsACorvelMetaKey(const std::string& key, std::string* name = nullptr,
                      std::string* target = nullptr, bool* isLink = nullptr);

// ---------------------------------------------------------------------------
// VEX configuration variables. The last flag `quiet` suppresses the failure
// log. Platform calls count as successful when they return non-zero.
// ---------------------------------------------------------------------------
eRtCode GetVEX(const std::string& name, bool& value, bool quiet = false);  // value=false first
eRtCode GetVEX(const std::string& name, int& value, bool quiet = false);
eRtCode GetVEX(const std::string& name, long long& value, bool quiet = false);
eRtCode GetVEX(const std::string& name, std::string& value, bool quiet = false);  // 1024-byte read
eRtCode GetVEX(const std::string& name, char* buffer, int size, bool quiet = false);
// `persist`: keep the value across a controller restart.
eRtCode SetVEX(const std::string& name, bool value, bool persist = false, bool quiet = false);
eRtCode SetVEX(const std::string& name, int value, bool persist = false, bool quiet = false);
eRtCode SetVEX(const std::string& name, long long value, bool persist = false, bool quiet = false);
eRtCode SetVEX(const std::string& name, const std::string& value, bool persist = false,
               bool quiet = false);
eRtCode SetVEX(const std::string& name, const char* value, bool persist = false,
               bool quiet = false);

// ---------------------------------------------------------------------------
// KOBA settings store. The store's own error code is logged on failure.
// With `quietIfMissing` a variable that does not exist yet is no fault: the
// getter returns RT_NO_SUCH_KEY without a log line (a first start).
// ---------------------------------------------------------------------------
eRtCode GetKOBA(const std::string& name, unsigned int& value, bool quietIfMissing = false);
eRtCode GetKOBA(const std::string& name, int& value);
eRtCode GetKOBA(const std::string& name, bool& value);
eRtCode GetKOBA(const std::string& name, char* buffer, int size);
eRtCode GetKOBA(const std::string& name, std::string& value, bool quietIfMissing = false);
eRtCode SetKOBA(const std::string& name, unsigned int value);
eRtCode SetKOBA(const std::string& name, int value);
eRtCode SetKOBA(const std::string& name, bool value);
eRtCode SetKOBA(const std::string& name, const std::string& value);  // copied into 512 bytes
// Without it a string literal would choose the bool overload.
eRtCode SetKOBA(const std::string& name, const char* value);

// ---------------------------------------------------------------------------
// Clock, timing, run state.
// ---------------------------------------------------------------------------
// dateTime = "YYYY-MM-DDThh:mm:ss<zone>", zone = the controller's zone text.
// Both unchanged on failure (logged as WARNING).
eRtCode GetTarnClock(std::string& dateTime, std::string& zone);
// Milliseconds of the monotonic clock, 32 bits: wraps after ~49.7 days, so
// compare differences only.
uint32_t MiniTimeTick();
void MyMSleep(unsigned int ms);
// Run level from the first utmp run-level record (0..7), 0 when none.
int GetSysRunLevel();
// True while the controller is shutting down (the marker file is readable).
bool IsTARNShuttingDown();

// ---------------------------------------------------------------------------
// Threads (Orbel_Process.cpp).
// ---------------------------------------------------------------------------
// The kernel's id of the calling thread (what `ps -L` and log lines show).
long CurrentThreadId();
// Names the calling thread for the kernel (at most 15 bytes are kept).
void NameCurrentThread(const char* name);

// ---------------------------------------------------------------------------
// Files and directories.
// ---------------------------------------------------------------------------
bool _PathIsDir(const std::string& path);
eRtCode CreateDirTree(const std::string& path);  // every missing component, mode 0755
eRtCode DelDirTree(const std::string& path);     // depth first; a missing path is no error
bool IsFileExisted(const std::string& path);     // openable for reading and writing
eRtCode CompressFile(const std::string& path);   // "/bin/gzip -f <path>"
// Creates the parent directories and the file (truncated when `truncate`).
// Returns 0, -1 when the path holds a non-printable byte, 2 on failure.
int TouchFile(const std::string& path, bool truncate);
// Writes `text` into `path` through a temporary file and a rename, so a
// reader never sees half a file. False on any failure (Orbel_Process.cpp).
bool WriteWholeFile(const std::string& path, const std::string& text);
// A byte buffer as decimal numbers separated by blanks, one line.
eRtCode NumStrArray2File(const unsigned char* data, unsigned int length, const std::string& path);
// Reads such a file back; only that exact layout is accepted (see
// docs/meta-keys.md). Allocates *data with new[] (caller deletes with
// delete[]), at least one byte even for an empty array. Returns the byte
// count, or -1 (and *data = null) on failure, logged.
int File2NumStrArray(const std::string& path, char** data);

}  // namespace Orbel

#endif  // ORBEL_ORBEL_H
