// Store tree reader: assembles, from the Redis store alone, the JSON document
// that the front end serves for a JPath, following the link fields of the
// tree (docs/wire-protocol.md, "Assembling a body").
//
// It talks plain hiredis and shares nothing with the library's store client
// or object model, so that a test or a developer reading its output sees what
// the library wrote, not what the library believes it wrote. The command
// `orbel-tree` and the test suites use it.
//
// Threads: the functions keep no state but a per-thread list of the
// scripts loaded into the store, and may run on any thread; the
// redisContext belongs to the calling thread (a hiredis context is not
// thread-safe) and is only read from and written to, never freed.
#ifndef ORBEL_STORETREEREADER_H
#define ORBEL_STORETREEREADER_H

#include <hiredis/hiredis.h>

#include <memory>
#include <string>
#include <vector>

namespace Orbel {

// Plain hiredis plumbing for the development tools built beside the reader:
// a reply freed with its owner, and one command whose arguments go with
// their lengths (keys, fields and values may hold any byte). Null on a
// connection failure.
struct StoreReplyFree {
    void operator()(redisReply* r) const {
        if (r != nullptr) freeReplyObject(r);
    }
};
using StoreReply = std::unique_ptr<redisReply, StoreReplyFree>;
StoreReply StoreCommand(redisContext* c, const std::vector<std::string>& args);

// Links are followed at most this many levels below the requested node;
// a deeper link yields null.
constexpr unsigned kStoreTreeMaxDepth = 64;

// A node linked from several places is expanded at each place, so a small
// hostile store (each level linking the next one twice) could ask for an
// exponential document. Reading more nodes than this for one document fails.
constexpr unsigned kStoreTreeMaxNodes = 10000;

struct sStoreTreeOptions {
    // Indented output (4 blanks a level, one member or element a line);
    // false gives one line without any blank between tokens.
    bool pretty = true;
    // Debug view: keep the "&&" fields a body leaves out (the request queue
    // lists, "&&Async", malformed link texts, ...), each as a member named by
    // the whole field name.
    bool includeMeta = false;
};

// Reads the node stored under `jpath` (a hash gives an object, a list an
// array) and every node it links, and writes the document into `json`
// (without a trailing newline).
//
// Returns true on success. Returns false, with `json` emptied and the reason
// in `*error` (when `error` is not null), when `c` is null or in error, the
// key does not exist, the key is neither a hash nor a list, the document
// needs more than kStoreTreeMaxNodes nodes, or the store fails or goes away
// while the document is read. Problems below the
// requested node (a link to a missing key or to a key of the wrong type, a
// cycle, the depth limit) are not failures: they render as null, except a
// link to an array whose list is missing, which is the empty array `[]`
// (Redis keeps no empty list).
//
// The document is valid JSON whatever the store holds: members are sorted by
// name; a value text that is empty renders as null; one that is not a JSON
// value (a stored string with an unescaped quote, a bare word, bytes that are
// not UTF-8) renders as a JSON string holding the text.
bool ReadStoreTree(redisContext* c, const std::string& jpath, std::string& json,
                   std::string* error = nullptr, const sStoreTreeOptions& options = {});

// The documents of several JPaths, each as ReadStoreTree gives it, read in
// one round trip: one script run in the store gathers every key the
// documents need (so they are one snapshot), and rendering reads on its own
// only what the run did not give (a store that refuses scripts, a key of
// the other kind than its link says).
struct sStoreTreeDoc {
    bool ok = false;
    std::string json;
    std::string error;      // when !ok
    bool gathered = false;  // made of the gathering alone (no read of its own)
};
std::vector<sStoreTreeDoc> ReadStoreTrees(redisContext* c, const std::vector<std::string>& jpaths,
                                          const sStoreTreeOptions& options = {});

// For a caller that reads documents inside a script of its own, together
// with other store work of one round trip (the front end: an answer, its
// documents and the clean-up):
// - StoreTreeGatherLua() is Lua source that defines `gather(roots)`, which
//   reads the documents of the JPaths in the table `roots` and returns what
//   RenderStoreTrees takes; it reads its limits from ARGV[1] and ARGV[2], so
//   the script's arguments begin with StoreTreeGatherArgs();
// - StoreEval runs a script (by its digest, loading it once per thread and
//   again after a store restart) with no keys and `args`; null when the
//   connection failed;
// - RenderStoreTrees renders the documents of `jpaths` from the table that
//   `gather` returned (`gathered`; null or an error reply: every node is read
//   on its own).
const std::string& StoreTreeGatherLua();
std::vector<std::string> StoreTreeGatherArgs();
StoreReply StoreEval(redisContext* c, const std::string& script,
                     const std::vector<std::string>& args);
std::vector<sStoreTreeDoc> RenderStoreTrees(redisContext* c, const redisReply* gathered,
                                            const std::vector<std::string>& jpaths,
                                            const sStoreTreeOptions& options = {});

// Lists the keys that match the glob `pattern` (Redis MATCH syntax), sorted
// byte-wise, without duplicates. Uses SCAN, so a large store is not blocked.
// Returns false, with `keys` emptied and the reason in `*error`, when `c` is
// null or in error or the store fails.
bool ListStoreKeys(redisContext* c, const std::string& pattern, std::vector<std::string>& keys,
                   std::string* error = nullptr);

}  // namespace Orbel

#endif  // ORBEL_STORETREEREADER_H
