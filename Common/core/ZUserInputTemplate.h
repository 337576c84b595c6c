// User-input templates: which properties a client may send to one schema,
// with which JSON types, in which methods, which are required, and within
// which limits.
//
// A template is read from "<template dir><name>.dat" when it is constructed
// (docs/templates.md gives the file format and the choices made for it) and
// kept as a cache: an ordered map from the property's template JPath ("/",
// "/Boot", "/Boot/Order/{}") to its attribute record. The request path
// checks every request body against that cache.
//
// Sharing and release. A cache is owned by the templates that serve it (one
// after loading; more after AttachCache from another template). Readers (a
// verification in flight) pin it through AttachCache(GetCache()) and give the
// pin back with DetachCache(). A template retired while requests may still
// hold it goes to the application's recycle queue (Recycle); after
// kRecycleDelayMs the process loop calls FreeCache, which waits while pins
// remain, and then deletes the template.
//
// Threads: construction and loading on one thread; afterwards every public
// member may be called from any thread (the cache itself is read-only once
// loaded; pins and ownership are counted under mutexes).
//
// Defined in: ZUserInputTemplate.cpp (loading, cache, sharing, dumps),
// ZUserInputTemplate_Parse.cpp (file format), ZUserInputTemplate_Verify.cpp,
// ZUserInputTemplate_Input.cpp (reading a body from the store).
#ifndef ORBEL_ZUSERINPUTTEMPLATE_H
#define ORBEL_ZUSERINPUTTEMPLATE_H

#include <regex.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Orbel_Mutex.h"
#include "OrbelDefs.h"

struct redisContext;

namespace Orbel {

class ResponseExtendedInfo;
class ZSchema;
enum eRespMsg : int32_t;

// Allowed JSON data types of a property (bit mask, 16 bits).
enum : uint16_t {
    UIT_TYPE_NULL = 0x001,
    UIT_TYPE_BOOL = 0x002,
    UIT_TYPE_FLOAT = 0x004,
    UIT_TYPE_SIGNED = 0x008,
    UIT_TYPE_UNSIGNED = 0x010,
    UIT_TYPE_STRING = 0x020,
    UIT_TYPE_IGNORE = 0x040,  // accepted and not checked
    UIT_TYPE_OBJECT = 0x080,
    UIT_TYPE_ARRAY = 0x100,
};

// Methods in which a property may be written (bit mask).
enum : uint8_t {
    UIT_METHOD_ReadOnly = 0x01,  // an empty method section
    UIT_METHOD_CreateOption = 0x02,
    UIT_METHOD_CreateRequired = 0x04,
    UIT_METHOD_PatchOption = 0x08,
    UIT_METHOD_PatchRequired = 0x10,
    UIT_METHOD_ActionOption = 0x20,
    UIT_METHOD_ActionRequired = 0x40,
};

// Property flags (bit mask).
enum : uint8_t {
    UIT_FLAG_LifeCycleEvent = 0x1,
    UIT_FLAG_SecureProperty = 0x2,  // the value never reaches a log line
};

// Which limits are given, and the array type.
enum : uint8_t {
    UIT_LIMIT_MIN = 0x01,
    UIT_LIMIT_MAX = 0x02,
    UIT_ARRAY_VariableLength = 0x00,
    UIT_ARRAY_FixedLength = 0x10,
    UIT_ARRAY_Rigid = 0x20,
};

// A compiled POSIX extended regular expression, freed with regfree.
struct sCompiledPattern {
    regex_t re;
    bool compiled = false;  // set once regcomp succeeded
    ~sCompiledPattern() {
        if (compiled) regfree(&re);
    }
};

// The attributes of one property, read from its attribute string.
struct sPropertyAttrTag {
    uint16_t dataTypes = 0;      // UIT_TYPE_*
    uint8_t supportMethods = 0;  // UIT_METHOD_*
    uint8_t flags = 0;           // UIT_FLAG_*
    struct {
        uint8_t presence = 0;  // UIT_LIMIT_MIN | UIT_LIMIT_MAX
        uint8_t arrayType = UIT_ARRAY_VariableLength;
        // Numbers: the value; strings: the length; arrays: the item count.
        double min = 0;
        double max = 0;
        std::vector<std::string> enumStrings;              // in file order
        std::set<double> enumValues;                       // when a numeric type is allowed
        std::string pattern;                               // POSIX extended, unanchored
        std::shared_ptr<const sCompiledPattern> compiled;  // null without pattern
    } limits;
};

using UsrInTemplateCache = std::map<std::string, sPropertyAttrTag*>;

// ---------------------------------------------------------------------------
// User input: the request body as a flat map, checked against a template.
// ---------------------------------------------------------------------------

// The type of a user-input value; the dump words are "null", "bool", "sNum",
// "uNum", "string", "object", "rawStr", "double", "array".
enum eUsrInValueType : uint8_t {
    USRIN_NULL = 0,
    USRIN_BOOL = 1,
    USRIN_SNUM = 2,  // a negative integer
    USRIN_UNUM = 3,  // a non-negative integer
    USRIN_STRING = 4,
    USRIN_OBJECT = 5,
    USRIN_RAWSTR = 6,  // a string kept as raw JSON text
    USRIN_DOUBLE = 7,
    USRIN_ARRAY = 8,
};
const char* UsrInValueTypeWord(eUsrInValueType type);  // "?" for no type

// One user-input value. Objects and arrays are entries too; their members
// and items follow as "<jpath>/<name>" and "<jpath>/<index>".
struct sUsrInCacheItem {
    eUsrInValueType type = USRIN_NULL;
    // "null", "true"/"false", decimal numbers, the decoded text; an array's
    // item count; empty for an object.
    std::string value;
    uint8_t flags = 0;  // UIT_FLAG_*, copied from the template
};
// Keyed by user-input JPath: "/" joined names from the body's root
// ("/Boot/BootOrder/0"); an action's parameters from the action's body root.
using UsrInCache = std::map<std::string, sUsrInCacheItem>;

// Why a body could not be read whole: the offending value text, or the
// bound it crossed ("more than 4096 values", "deeper than 32 levels"), and
// the body path where it happened ("/Names/4096"). Empty when it was read.
struct sUsrInReadFault {
    std::string value;
    std::string jpath;
};

// One fault of a verification: the message, its arguments in order (the
// value masked for a SecureProperty) and the related property (a body path
// without the leading "/").
struct sUsrInFault {
    eRespMsg msg;
    std::vector<std::string> args;
    std::string property;
};

// What a verification needs from its request.
struct sUsrInVerifyArgs {
    eReqMethod method = eReqUpdate;
    std::string actionName;  // an action's name as in "Actions", e.g. "#ComputerSystem.Reset"
    UsrInCache* input = nullptr;
    // Where the messages go (may be null: the faults are only returned).
    ResponseExtendedInfo* extInfo = nullptr;
    std::string schemaName;  // for the log lines
};

class ZUserInputTemplate {
public:
    // Result of AttachCache for a template that asks for no verification.
    static constexpr eRtCode RT_NO_VERIFY = static_cast<eRtCode>(7);
    // How long a retired template waits in the recycle queue before its cache
    // is freed: ten passes of the process loop, far beyond any request.
    static constexpr unsigned long kRecycleDelayMs = 30000;
    // Limits of the file format.
    static constexpr unsigned kMaxTokenLength = 4096;  // quoted token, refused from here
    static constexpr unsigned kMaxDepth = 32;          // nested object and array blocks
    // The template JPath of the root, and the attribute it always gets.
    static constexpr const char* kRootJPath = "/";
    static constexpr const char* kFixedObjectAttr = "o@p,c,a@@";
    // The index wildcard of array items in template JPaths.
    static constexpr const char* kIndexWildcard = "{}";

    // Records the owner and the name and loads "<dir><name>.dat". A null or
    // empty name makes a template that asks for no verification
    // (AttachCache answers RT_NO_VERIFY). `multiExtInfoMode`: verification
    // reports every fault instead of stopping at the first.
    ZUserInputTemplate(ZSchema* owner, std::string* name, bool multiExtInfoMode);
    // Frees the cache when this was its last owner. A template that readers
    // may still pin goes through Recycle instead.
    ~ZUserInputTemplate();

    ZUserInputTemplate(const ZUserInputTemplate&) = delete;
    ZUserInputTemplate& operator=(const ZUserInputTemplate&) = delete;

    ZSchema* GetOwnedBySchema() const { return mOwner; }
    const std::string& GetName() const { return mName; }
    // "<template dir><name>.dat"; empty for a template without a name.
    const std::string& GetTemplateFilePath() const { return mFilePath; }
    bool IsMultiExtInfoMode() const { return mMultiExtInfoMode; }
    // 0 when the file was loaded; otherwise the code of the failed load (the
    // template then has no cache and verification against it fails).
    eRtCode GetLoadResult() const { return mLoadResult; }

    // The cache this template serves; null when none. Valid while the
    // caller holds a pin (AttachCache) or owns the template.
    UsrInTemplateCache* GetCache();
    // With the template's own cache: one pin for a reader (0). With another
    // live cache: the template gives up its own cache and serves that one
    // (0; 9 while readers pin the present one). 7 for a template that asks
    // for no verification, 13 for a cache that is not live, 2 without cache.
    eRtCode AttachCache(UsrInTemplateCache* cache);
    // Gives back one reader pin. 13 when none is held.
    eRtCode DetachCache();
    // Gives up the template's ownership of its cache and frees the cache
    // when no other template serves it. 9 (nothing done) while readers pin
    // it; 0 otherwise, also when there was no cache.
    eRtCode FreeCache();
    // Hands `tmpl` to the application's recycle queue, which frees its
    // cache and deletes it after kRecycleDelayMs. Deletes it at once when no
    // application exists.
    static void Recycle(ZUserInputTemplate* tmpl);

    // The attribute of a template JPath; null when absent. Valid while the
    // caller holds a pin.
    const sPropertyAttrTag* FindAttr(const std::string& jpath);
    // Template JPaths of the properties that carry CreateRequired,
    // PatchRequired or ActionRequired, in file order.
    std::vector<std::string> GetRequiredList(eReqMethod method);

    // The cache and the required lists as log text (raw lines under the
    // module "ZComLib"); the text is returned as well.
    std::string DumpTemplateCache();
    std::string DumpMethodRequiredList();

    // Parses one attribute string into `attr`. Returns 0, or 2 with the
    // message of the fault logged (not the PropertyAttr line, which names the
    // file and line and is the caller's).
    static eRtCode ParsePropertyAttr(const std::string& text, sPropertyAttrTag& attr);

    // Parses a whole template text into a fresh cache and required lists.
    // `name` and `path` only appear in messages. On failure nothing is kept.
    struct sCacheDeleter {
        void operator()(UsrInTemplateCache* cache) const;  // the records, then the map
    };
    struct sParsed {
        std::unique_ptr<UsrInTemplateCache, sCacheDeleter> cache;
        std::vector<std::string> required[3];  // create, patch, action
    };
    static eRtCode ParseTemplateText(const std::string& text, const std::string& name,
                                     const std::string& path, sParsed& out);

    // Checks `args.input` against the template's cache (ZUserInputTemplate_Verify.cpp;
    // docs/templates.md gives the order of the checks and the messages).
    // Every fault becomes a message in `args.extInfo` and an entry of
    // `faults` (either may be null). Returns 0 when the input passes (also
    // for a template that asks for no verification), 2 when a fault was
    // found, 13 for a null template or input, or the code of a failed
    // AttachCache. The caller sets the response status on a non-zero result.
    static eRtCode VerifyUserInputData(ZUserInputTemplate* tmpl, const sUsrInVerifyArgs& args,
                                       std::vector<sUsrInFault>* faults);
    // Copies each property's flags (SecureProperty, LifeCycleEvent) from the
    // template into the input's items.
    void AssignUsrInPptFlagFromUsrInTemplate(UsrInCache& input, eReqMethod method,
                                             const std::string& actionName);
    // The template JPath of a user-input JPath: array indexes become "{}",
    // an action's parameters go under "/Actions/<action>". Empty when the
    // path is malformed.
    static std::string UsrInJPath2TemplateJPath(const UsrInCache& input, const std::string& jpath,
                                                eReqMethod method, const std::string& actionName);
    // True for a null text, or when every byte is printable ASCII or white space.
    static bool _IsAllowedString(const char* text, unsigned int length);
    // Reads the request-data tree under `rootKey` (the front end's hash of a
    // body, or its list for an array body) into `out`, following the link
    // fields and elements ("&&Object", "&&Array", "&&ArraySimple",
    // "&&ObjectRef") and classifying each value text
    // (ZUserInputTemplate_Input.cpp; docs/templates.md, "Reading the body").
    // `c` is a store connection of the calling thread (null: one per call).
    // Returns 0 (an absent or empty root leaves `out` empty), 2 for a read
    // failure, a duplicate property, a malformed link or a tree deeper than
    // kMaxDepth; `out` then holds what was read before the fault.
    // A body that crosses a bound, or holds a number that no double holds,
    // fills `fault` (when given) and fails.
    static eRtCode ParserUserInputData(redisContext* c, const std::string& rootKey, UsrInCache& out,
                                       const std::string& schemaName,
                                       sUsrInReadFault* fault = nullptr);
    // The type and value of one value text of the store ("null", "true",
    // "\"text\"", "-5", "2.500000", anything else: raw text). A JSON number
    // in any form is a number: an integer that fits 64 bits (also written
    // with an exponent, "1e5", when a double holds it exactly) is "sNum" or
    // "uNum" with its decimal text; any other is "double" with its own text.
    // `representable` (when given) is false for a number that no double
    // holds ("1e999", "1e-999").
    static sUsrInCacheItem ClassifyValueText(const std::string& text,
                                             bool* representable = nullptr);
    // Most values read from one body (containers included); more is a fault.
    static constexpr size_t kMaxUsrInItems = 4096;
    // Longest user-input JPath accepted (longer: "ExtendedError.1.2.BadRequest").
    static constexpr size_t kMaxUsrInJPathLength = 1024;

private:
    eRtCode _LoadUsrInTemplateFile();
    // Gives up ownership of mCache.
    void _ReleaseOwnCache() REQUIRES(mMutex);

    // Constant after construction.
    ZSchema* const mOwner;
    const std::string mName;
    const std::string mFilePath;
    const bool mMultiExtInfoMode;
    eRtCode mLoadResult = RT_SUCCESS;

    Mutex mMutex;
    UsrInTemplateCache* mCache GUARDED_BY(mMutex) = nullptr;
    uint32_t mPins GUARDED_BY(mMutex) = 0;
};

}  // namespace Orbel

#endif  // ORBEL_ZUSERINPUTTEMPLATE_H
