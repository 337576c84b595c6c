// JSON text into trees: turns a JSON-like body text into nodes and property
// writes below a given node, so that a handler can store a whole body with
// one call instead of one HashWrite per property.
//
// The text is the apostrophe dialect the request path hands over: objects in
// braces, arrays in brackets, keys and string values between apostrophes
// ('), never double quotes; members separated by ",", key and value by ":";
// blanks (space, tab, CR, LF) around tokens are skipped. A string runs to the
// next apostrophe (there is no escape), and loses its trailing blanks. A bare
// value runs to the next "," or closing bracket and is typed: boolean,
// unsigned, signed, double, null, else string. A string holding "/redfish/v"
// is written as a link ("&&ObjectRef"), except under the key "target".
// docs/object-model.md ("Bodies as text") gives the whole rule set.
//
// Every value becomes a normal queued write (HashWrite/ListWrite) on the
// tree; nothing reaches the store before the next ApplyRedisChanges (or the
// J2O_APPLY flag). The parser is bounded: it never reads past the text,
// nests at most kJ2OMaxDepth containers and consumes at least one byte per
// step. On failure it logs why (ERROR), stops, and leaves the tree
// consistent: the writes made so far stay queued (DiscardRedisChanges drops
// them) and the nodes it created stay linked where they were written.
//
// Threads: any thread, on a tree no other thread writes meanwhile (the
// usual rule for a request handler holding the resource lock). The store
// connection, when one is needed, is opened and closed by the call.
//
// Defined in: ZObject_JsonStringTrans.cpp (the parser),
// ZObject_JsonStringTrans_Text.cpp (JSON value checks, quoting, text checks).
#ifndef ORBEL_ZOBJECT_JSONSTRINGTRANS_H
#define ORBEL_ZOBJECT_JSONSTRINGTRANS_H

#include <cstdint>
#include <string>

#include "OrbelDefs.h"

namespace Orbel {

class ZObject;

// Containers nested deeper than this (the root's braces are level 1) are
// refused: the parser recurses once per level.
constexpr uint32_t kJ2OMaxDepth = 32;

// Bits of the flag argument of JsonString2ZObjTree. Other bits are refused.
enum : uint32_t {
    J2O_NONE = 0,
    // After a successful parse, apply the root's queue recursively
    // (ApplyRedisChanges(true, nullptr)); the result is that of the apply.
    J2O_APPLY = 1u,
    // After a failed parse, drop every change queued below the root
    // (DiscardRedisChanges(true)), those queued before the call included.
    J2O_DISCARD_ON_FAILURE = 2u,
};

// State of one parse, passed down the recursion.
struct sJStr2ZObj_Params {
    uint32_t step = 0;       // steps taken so far; numbers the step log
    uint32_t pos = 0;        // position of the step being taken (where a failure stopped)
    uint32_t depth = 0;      // containers open around the current one
    uint32_t flags = 0;      // the entry point's flag argument
    uint32_t nodesMade = 0;  // nodes created by this parse
    uint32_t writes = 0;     // values written by this parse (nodes linked included)
    int maskText = -1;       // step log: 1 masks the text (it names a secret), -1 undecided
};

// Parses `jsonStr` into `rootObj`. The first non-blank character must be
// "{" for a JSON object, resource or collection (its members are written as
// properties, next to the ones it has), and "{" or "[" for a JSON array (the
// array's previous elements are removed, then the items appended; "{...}"
// stands for the one-element array "[{...}]"). Text after the closing
// bracket other than blanks is refused.
// Returns 0; 2 when the parse fails (logged); 13 for unknown flag bits.
// With J2O_APPLY the result of the apply decides.
eRtCode JsonString2ZObjTree(const std::string& jsonStr, ZObject* rootObj,
                            uint32_t flags = J2O_NONE);

// The steps, for the entry point and for tests. Each logs its own failures.
//
// Parses the container whose opening bracket is at *pos into `obj` and
// leaves *pos just past its closing bracket. "{" on an object node gives
// members, "[" on an array node items; "{" on an array node is one object
// item. Returns 0 or 2.
eRtCode _JsonString2ZObjTree(const std::string& jsonStr, uint32_t* pos, ZObject* obj,
                             sJStr2ZObj_Params* params);
// *out = the first index >= pos that is not a blank. False (and *out =
// the text's length) when the text ends first.
bool _J2OLeftStrip(uint32_t pos, const std::string& jsonStr, uint32_t* out);
// *out = the first index >= pos holding one of `stops`. False (and *out =
// the text's length) when none follows.
bool _J2OFind(uint32_t pos, const std::string& jsonStr, const char* stops, uint32_t* out);
// Writes a string value: into property `key` of `obj`, or appended to the
// array `obj` when `key` is null. The "/redfish/v" link rule applies.
eRtCode _J2OWriteString(ZObject* obj, const std::string* key, const std::string& value);
// Writes `child` (not as a link) when given, else the bare value `value`
// typed in this order: boolean, unsigned 64-bit, signed 64-bit, double,
// null, string. `key` names the property; when it is null the value is
// appended to the array `obj` (`index` null or -1) or written at *index.
eRtCode _J2OWrite(ZObject* obj, const std::string* key, const int* index, ZObject* child,
                  const std::string& value = std::string());

// True when `text` is exactly one JSON value (RFC 8259), blanks around it
// allowed. Iterative: any input is checked in bounded stack space.
bool IsJsonValueText(const std::string& text);

// `text` as a JSON string, quotes included: '"' and '\\' escaped, control
// characters as \b \f \n \r \t or \u00XX, well-formed UTF-8 kept as is,
// and every other byte written as the code point of the same value
// (\u00XX), so that any byte string gives a valid JSON string.
std::string JsonQuoteString(const std::string& text);

// Client and plug-in text checked or shown before it reaches the store or a
// log. Pure functions, any thread.
//
// True when `text` may stand between the quotes of a stored string value as
// it is: every '"' escaped, every '\\' starting a JSON escape, no control
// byte, well-formed UTF-8. JsonStringContent returns such text unchanged and
// otherwise escapes just the bytes that would break the document (an
// unescaped quote, a lone backslash, a control byte, a stray high byte).
bool IsJsonStringContent(const std::string& text);
std::string JsonStringContent(const std::string& text);

// True when a node id (or, for a root, its whole path) can be a Redis key and
// a word of a link text: printable ASCII without blank, '"', '\\', '*', '?',
// '[' or ']', and, below a parent, without '/'.
bool IsKeySafeId(const std::string& id, bool isRoot);

// At most `maxLen` bytes of `text` for a log line, each non-printable byte
// shown as '.', "..." when cut.
std::string SanitizedText(const std::string& text, size_t maxLen);

// True when any word of `text` (a run of letters, digits, '_', '@', '.', '#'
// or '-') is a secret-like name (IsSecretLikeName): a body that names a
// password anywhere is never quoted in a log.
bool TextNamesSecret(const std::string& text);

}  // namespace Orbel

#endif  // ORBEL_ZOBJECT_JSONSTRINGTRANS_H
