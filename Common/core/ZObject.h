// The tree node core: the base class of every node of a plug-in's resource
// tree, and the change queue that mirrors node content into the store.
//
// A node has an id (its key among its siblings and the last segment of its
// JPath), a display name, a type, a parent, a JPath (its Redis key; for a
// resource its URI), children by id, two reference lists (which nodes link
// to it, which nodes it links to), a using count that keeps its memory
// alive while a thread works on it, a liveness mark, and a queue of pending
// store commands.
//
// Lifetime. Users never `delete` a node: its owner retires it with
// ObjDestroy, which unlinks it, throws its unapplied queue away and hands it
// to the application's recycle queue; the process loop frees it once its
// using count is zero. A node is registered with the application (zApp must
// exist before the first node is made) when it is constructed (OID) and when
// Initial() succeeds (JPath).
//
// Writes. HashWrite/ListWrite/HashRemove/ListRemove queue one store command
// each on the node; ApplyRedisChanges writes the queue (recursively) to the
// store, each field once, in one pipelined round trip (docs/wire-protocol.md
// section 1.5). The tree's bookkeeping (children,
// references) changes at once, the store only when applied.
//
// Threads. Any thread may work on any node. Each node has two locks (the
// change queue; the tree bookkeeping of children and references); no
// operation holds both at once or a node's lock across a call into another
// node. Every public operation holds
// the using count for its duration. A store connection passed to an apply
// call belongs to the calling thread.
//
// Memory. The child list, the change queue and the two reference lists are
// made on first use and the queue is given back after each apply: most nodes
// are leaves that never hold a child or a link, and a tree of a thousand
// resources is mostly such nodes. A null list reads as empty.
//
// Defined in: ZObject.cpp (nodes, children, references, retirement),
// ZObject_Writes.cpp (hash, list and compound writes), ZObject_Removal.cpp
// (removals), ZObject_RedisCache.cpp (the change queue, apply and discard),
// ZObject_StoreSide.cpp (the store commands of an applied item),
// ZObject_RawJson.cpp (RawJson content), ZObject_JsonStringTrans*.cpp
// (bodies as text).
#ifndef ORBEL_ZOBJECT_H
#define ORBEL_ZOBJECT_H

#include <hiredis/hiredis.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Orbel_Mutex.h"
#include "OrbelDefs.h"

namespace Orbel {

class ZObject;
class ZResource;
class ZSchema;

// What a queued change does. Logs call 0/1 "create/update", 2/3 "remove/clear".
enum eObjChgAction : uint32_t {
    eObjChgCreate = 0,  // append (lists)
    eObjChgUpdate = 1,  // set a field / overwrite a list position
    eObjChgRemove = 2,
    eObjChgClear = 3,
};

// Kind of the value carried by a change; the number is part of the log output.
enum eObjDataKind : uint32_t {
    eObjDataNull = 0,
    eObjDataBool = 1,
    eObjDataSigned = 2,    // 64-bit
    eObjDataUnsigned = 3,  // 64-bit
    eObjDataString = 4,
    eObjDataObject = 5,    // a node
    eObjDataRawString = 6, // already JSON text
    eObjDataDouble = 7,
};

// Table kind of a change.
enum : uint32_t {
    eObjTableHash = 1,  // a hash property
    eObjTableList = 2,  // a list item
};

// The description of one write; lives on the caller's stack.
struct sObjectChange {
    eObjChgAction action = eObjChgUpdate;
    uint32_t tableKind = eObjTableHash;
    bool isLink = false;  // store a node or text as "&&ObjectRef"
    int32_t index = -1;   // list position (-1: append)
    std::string key;      // property name, or for list removal the item text
    uint32_t dataKind = eObjDataNull;
    union {
        bool b;
        long long s;
        unsigned long long u;
        double d;
    } scalar = {};
    std::string strValue;       // kinds 4 and 6
    ZObject* objValue = nullptr;  // kind 5
};

// The content of a RawJson node (docs/wire-protocol.md, "RawJson nodes"):
// what its applied writes made of it, rendered as JSON text on demand. Only
// RawJson nodes have one (allocated by Initial); it is guarded by the node's
// queue lock.
struct sRawJsonData {
    struct sEntry {
        std::string key;  // member name; empty for an array element
        // The member's JSON value text, or, for a nested child node,
        // "&&Object <child id>" / "&&Array <child id>" (a JSON text never
        // begins with "&").
        std::string text;
    };
    std::vector<sEntry> entries;          // objects: by first write; arrays: element order
    std::map<std::string, size_t> index;  // objects: member name -> position in entries
};

// One queued store command.
struct sRedisCmdItem {
    eObjChgAction action = eObjChgUpdate;
    // Hash: the field name. List: "Create" (append), the decimal index
    // (update) or the item text (remove).
    std::string key;
    std::string value;      // the value text
    ZObject* obj = nullptr; // the node the command stores, if any

    // Items come and go by the dozen with every apply: each thread keeps a
    // few freed blocks for its next ones instead of asking the heap.
    static void* operator new(size_t size);
    static void operator delete(void* p, size_t size) noexcept;
};

class ZObject {
public:
    enum eType : uint32_t {
        eJsonObject = 0,
        eJsonArray = 1,
        eResource = 2,
        eResourceCollection = 3,
    };

    // What happens to the nodes that link to a node being destroyed.
    enum eDestroyMode : uint32_t {
        eDestroyRelink = 0,  // rewrite each referrer's link text in place, at once
        eDestroyDelete = 1,  // remove each referrer's property or item holding the link
        eDestroyUnlink = 2,  // as 1, but only for "&&ObjectRef" links
    };

    // Attribute bits of the node (GetAttribute).
    static constexpr uint32_t ATTR_RawJson = 1u;       // content kept as one JSON text
    static constexpr uint32_t ATTR_MultiBackend = 2u;  // content served by several backends

    static constexpr uint32_t kAliveMark = 0x5A5A5A5Au;  // "ZZZZ"
    static constexpr uint32_t kDiedMark = 0xA5A5A5A5u;

    // Does not register the node in its parent: Initial() does. Bit 0 of the
    // parent's attributes is inherited; bit 1 too, except by resources.
    ZObject(ZObject* parent, eType type, const std::string& id, const std::string& name,
            unsigned long attribute);
    // Logs a warning when the node was never retired with ObjDestroy.
    virtual ~ZObject();

    ZObject(const ZObject&) = delete;
    ZObject& operator=(const ZObject&) = delete;

    // Opens the node's lists (made on first use), builds the JPath,
    // registers the node (in its parent and in the application) and removes
    // whatever a previous process left under the JPath. Refuses both
    // attribute bits together and an empty id (the node then takes no child,
    // write or link; its owner must still retire it). Returns 0 or 2.
    virtual eRtCode Initial();
    // Retires the node (see the class comment). A second call does nothing.
    virtual void ObjDestroy(eDestroyMode mode, bool clearStore);
    // Collections override these; the base versions only log.
    virtual eRtCode CollectionAddMember(ZResource* member);
    virtual eRtCode CollectionRemoveMember(ZResource* member);

    bool IsDied() const { return mLiveMark.load() != kAliveMark; }
    bool IsDataFmtRawJson() const { return mIsRawJson; }

    std::string GetId();
    std::string GetName();
    // The node's own name text, for a map that keys by a view of it (the
    // name is constant once the node is initialised).
    const std::string& NameText() const { return mName; }
    // The JPath without a copy: fixed once Initial() has run.
    const std::string& JPathText() const { return mJPath; }
    std::string GetJPath();
    eType GetType() const { return mType; }
    bool IsResourceType() const { return mType == eResource || mType == eResourceCollection; }
    uint32_t GetOID() const { return mOID; }
    ZObject* GetParent() const { return mParent.load(); }
    uint32_t GetAttribute() const { return mAttribute; }

    // Joins a base JPath and a child id or relative path with the JPath rules
    // ("&&" prefix for non-resource children, a single "/" between parts).
    static std::string CombineJPath(ZObject* base, ZObject* child);
    static std::string CombineJPath(ZObject* base, const std::string& relativePath);

    // The nearest node of type resource or collection, this node included
    // (GetOwnedByResource) or excluded (GetParentResource).
    ZResource* GetOwnedByResource();
    ZResource* GetParentResource();
    ZSchema* GetOwnedBySchema();

    // ---------------------------------------------------------------------
    // Children
    // ---------------------------------------------------------------------
    // Refuses a second child with an existing id (the first stays).
    eRtCode AppendChildObj(ZObject* child);
    // Null when absent or died; `silent` suppresses those two logs.
    ZObject* GetChild(const std::string& id, bool silent = false);
    ZObject* GetChild(int id, bool silent = false);
    // Descends "a/b/c" (empty segments skipped); null on the first miss.
    ZObject* GetChildByJPath(const std::string& relativePath);
    std::vector<std::string> GetChildIDs();
    size_t GetChildNum();
    void DumpChildObj();
    eRtCode RemoveChildObj(ZObject* child);
    void DeleteAllChildObjs();

    // ---------------------------------------------------------------------
    // References: who links to whom (kept by the change queue)
    // ---------------------------------------------------------------------
    void AppendReferencedBy(ZObject* referrer, const std::string& metaKey);
    void RemoveReferencedBy(ZObject* referrer);
    std::string GetMetaKeyInReferencedBy(ZObject* referrer);
    void DumpReferencedBy();
    void AppendReferenceTo(ZObject* target);
    void RemoveReferenceTo(ZObject* target);
    void DumpReferenceTo();
    // True when `referrer` holds this node as the value of one of its
    // properties or list items.
    bool IsReferencedBy(ZObject* referrer) { return _MetaKeyOf(referrer, nullptr); }
    // Run by ObjDestroy: cleans up the referrers' links per `mode`.
    void UpdateReferencedBy(eDestroyMode mode);

    // ---------------------------------------------------------------------
    // Using count (atomic)
    // ---------------------------------------------------------------------
    void IncreaseUsingCount() { mUsingCount.fetch_add(1); }
    void DecreaseUsingCount() { mUsingCount.fetch_sub(1); }
    int32_t GetUsingCount() const { return mUsingCount.load(); }

    // ---------------------------------------------------------------------
    // Hash writes (JSON objects, resources, collections). Each queues one
    // Update; returns 0, or 2 when refused (logged).
    // ---------------------------------------------------------------------
    eRtCode HashWrite(const std::string& name);  // null
    eRtCode HashWrite(const std::string& name, bool value);
    eRtCode HashWrite(const std::string& name, long long value);
    eRtCode HashWrite(const std::string& name, int value);
    eRtCode HashWrite(const std::string& name, long value);
    eRtCode HashWrite(const std::string& name, unsigned long long value);
    eRtCode HashWrite(const std::string& name, unsigned int value);
    eRtCode HashWrite(const std::string& name, unsigned long value);
    eRtCode HashWrite(const std::string& name, double value);
    eRtCode HashWrite(const std::string& name, float value);
    eRtCode HashWrite(const std::string& name, const char* value, bool isLink = false);
    eRtCode HashWrite(const std::string& name, const std::string& value, bool isLink = false);
    // `value` must be a live node other than this one. Without the link
    // flag it is owned content ("&&Object"/"&&Array"); with it, a link.
    eRtCode HashWrite(const std::string& name, ZObject* value, bool isLink = false);
    eRtCode HashWriteRawString(const std::string& name, const std::string& text);

    // ---------------------------------------------------------------------
    // List writes (JSON arrays). Index -1 appends, any other overwrites.
    // ---------------------------------------------------------------------
    eRtCode ListWrite(int index);  // null
    eRtCode ListWrite(int index, bool value);
    eRtCode ListWrite(int index, long long value);
    eRtCode ListWrite(int index, int value);
    eRtCode ListWrite(int index, long value);
    eRtCode ListWrite(int index, unsigned long long value);
    eRtCode ListWrite(int index, unsigned int value);
    eRtCode ListWrite(int index, unsigned long value);
    eRtCode ListWrite(int index, double value);
    eRtCode ListWrite(int index, float value);
    eRtCode ListWrite(int index, const char* value, bool isLink = false);
    eRtCode ListWrite(int index, const std::string& value, bool isLink = false);
    eRtCode ListWrite(int index, ZObject* value, bool isLink = false);
    eRtCode ListWriteRawString(const std::string& text);  // always appends

    // ---------------------------------------------------------------------
    // Removal
    // ---------------------------------------------------------------------
    // Removes a property. When it holds an owned node, the composite field
    // is removed and the node retired; when it holds a link, only the link
    // field goes (as HashRemoveLink).
    eRtCode HashRemove(const std::string& name);
    eRtCode HashRemoveLink(const std::string& name);
    eRtCode HashRemoveLink(const std::string& name, ZResource* target);
    eRtCode HashRemoveLink(const std::string& name, const std::string& target);
    // Removes the element whose text is `text` (a node text names the node,
    // which is retired). all=false: one element (action Remove); all=true:
    // action Clear, which queues nothing and only retires a named node.
    eRtCode ListRemove(const std::string& text, bool all = false);
    eRtCode ListRemove(int index);  // reads the list from the store first
    eRtCode ListRemove(ZObject* item);
    // Empties a JSON array at once, not through the queue: deletes its
    // stored elements (on a MultiBackend array only those this process
    // wrote) and refreshes the parent's count, drops the array's queued
    // changes, forgets the links it held and retires the nodes it owned
    // (their keys go too). On a RawJson array the in-memory content is
    // emptied instead; the root's next apply writes the text. Returns 0, or
    // 2 (logged) on a non-array or when the store cannot be reached (then
    // nothing has changed).
    eRtCode ListRemoveAll();
    // The element count in the store; -1 (logged) when it cannot be read.
    int ListSize(redisContext* c);

    // ---------------------------------------------------------------------
    // Compound writers
    // ---------------------------------------------------------------------
    // Written at once, not queued: the bytes as a list of decimal texts
    // under CombineJPath(this, name), linked as "&&Array <name> <key>".
    eRtCode HashWriteNumArray(const std::string& name, const unsigned char* data,
                              unsigned int count);
    // Keeps the child array <name>@Redfish.AllowableValues (made on first
    // use) holding each value once, and links it into the hash.
    eRtCode HashAppendAllowableValues(const std::string& name, const std::string& value);
    // On an "Actions" object: the entry <actionName> with "target" (must
    // contain "Actions/") and "title", plus the task properties when the
    // schema runs actions as tasks (docs/wire-protocol.md).
    eRtCode HashAppendAction(ZSchema* schema, const std::string& actionName,
                             const std::string& target, const std::string& title);

    // ---------------------------------------------------------------------
    // Queue control
    // ---------------------------------------------------------------------
    // The common path of every write: converts the change into a queued
    // command and keeps the reference bookkeeping.
    eRtCode ApplyObjectChanges(sObjectChange* change);
    // Takes ownership of `item`.
    void AppendRedisChange(sRedisCmdItem* item);
    // Writes the queue (and with `recursive` the children's, in id order) to
    // the store on `c`, or on a connection of its own when `c` is null. On a
    // RawJson root it is ApplyRawJsonData (the whole subtree, whatever
    // `recursive` says); on any other RawJson node it does nothing (logged):
    // its root writes it. Returns 2 when any command failed: each failed one
    // is logged and dropped, not retried; the others are written.
    eRtCode ApplyRedisChanges(bool recursive = true, redisContext* c = nullptr);
    eRtCode ObjData2RedisCache(bool recursive, redisContext* c);
    // Drops the queued commands without writing them.
    void DiscardRedisChanges(bool recursive = true, redisContext* c = nullptr);
    // The number of store commands queued on this node and not yet applied.
    size_t GetPendingChangeNum();
    void DiscardObjData(bool recursive, redisContext* c);
    size_t GetRedisChangeNum();
    void DumpRedisChanges(bool recursive = false);
    void DumpObjectChange(sObjectChange* change);

    // RawJson data format: a RawJson root (a RawJson node whose parent is
    // null or not RawJson) keeps its content and that of all its
    // descendants as one JSON text in the field "&&RawJSON" of the hash at
    // its JPath (docs/wire-protocol.md).
    //
    // The JSON text of this node's applied content (queued writes are not
    // in it yet); "" (logged) on a node that is not RawJson.
    std::string ObjData2RawJsonString();
    // On a RawJson root: merges the queued writes of the whole RawJson
    // subtree into the nodes' content, then writes the text (and the
    // root's "&&" meta fields) into the store on `c`, or on a connection of
    // its own when `c` is null. The content is merged even when no
    // connection can be had, and the next apply writes it. On a RawJson
    // node that is not a root: does nothing (logged), returns 0. Returns 2
    // on a node that is not RawJson or when the store write fails.
    eRtCode ApplyRawJsonData(redisContext* c);
    // True for a RawJson node whose parent is null or not RawJson.
    bool IsRawJsonRoot();

protected:
    // Builds the JPath from `id`, registers the node in its parent and in the
    // application.
    eRtCode _SetId(const std::string& id);
    ZObject* _GetChild(const std::string& id, bool silent);
    // Deletes what the node keeps in the store (never the service root).
    void _ClearRedisCache();

    eRtCode _HashWrite(sObjectChange* change, eObjChgAction action, const std::string& name);
    // A string write, the value taken over (one copy per write at most).
    eRtCode _HashWriteText(const std::string& name, std::string&& value, bool isLink);
    // A property is one field in one form: before `change` (about to be
    // written as property `name`) is queued, queues the removal of the field
    // of any other form that holds the property (retiring an owned node, as
    // HashRemove does), and notes the form written.
    void _ReplaceOtherForms(const std::string& name, const sObjectChange* change);
    // ApplyObjectChanges for a caller that holds this node's using count.
    eRtCode _QueueChange(sObjectChange* change);
    // The property's bit in mPlainBits / mLinkBits.
    static uint32_t _PropertyBit(const std::string& name);
    // Drops a removed text link field from mTextLinks.
    void _ForgetTextLink(const std::string& field);
    eRtCode _ListWrite(sObjectChange* change, eObjChgAction action, int index);
    eRtCode _ListWrite(sObjectChange* change, eObjChgAction action, const std::string& text);
    eRtCode _ObjChg2RedisCmd(sObjectChange* change, sRedisCmdItem* item);
    eRtCode _ObjChg2RawJsonData(sObjectChange* change, sRedisCmdItem* item);
    // The JSON value text of a change on a RawJson node (`name`: the
    // property, "" for an array element); false (logged) when refused.
    bool _RawJsonValueText(const sObjectChange* change, const std::string& name, std::string* out);
    // Moves the queued items of this node (and, for the tree walk, of its
    // descendants) into the content.
    void _RawJsonMerge();
    void _RawJsonMergeTree(unsigned depth);
    // Sets one member of this object's content (applied, not queued).
    void _RawJsonSetMember(const std::string& key, const std::string& text);
    std::string _RawJsonRender(unsigned depth);
    // Logs the refusal of a removal on a RawJson node.
    static eRtCode _RawJsonRemovalRefused();

    // True while the node may gain children, queued changes and links:
    // after Initial() opened it and until it is retired. Lists are made on
    // first use only then. Read under the lock of the list concerned.
    bool _ListsOpen() const { return mListsOpen.load() && !IsDied(); }

    // The store side of the change queue for hash nodes (JSON objects,
    // resources, collections): set or delete one field of the node's hash,
    // and delete the hash. A MultiBackend node shares its hash with other
    // backends: it notes the fields it writes and deletes only those.
    eRtCode _HashFieldSet(redisContext* c, const std::string& key, const std::string& value);
    eRtCode _HashFieldDel(redisContext* c, const std::string& key);
    eRtCode _HashClean(redisContext* c);
    // What this process wrote into a MultiBackend node's key (hash fields,
    // or list items of an array). The set is made on the first note.
    void _NoteWritten(const std::string& text);
    // False when `text` was not noted (nothing changes then).
    bool _ForgetWritten(const std::string& text);
    // Hands over the noted texts and forgets them.
    std::set<std::string> _TakeWritten();
    // The value text of a change (the layout's value column).
    std::string _ValueText(const sObjectChange* change);
    // The link text of a node value ("&&Object ...", "&&Array ...",
    // "&&ObjectRef ..."), with or without a property name.
    static std::string _NodeLinkText(ZObject* node, bool isLink, const std::string& name);
    // Refuses writes on unknown or died nodes (and, unless `rawJsonOk`, on
    // RawJson nodes). On true the caller holds one using count and must
    // release it (DecreaseUsingCount).
    bool _CheckWritable(bool rawJsonOk = false);
    bool _IsHashTable(const char* what, const std::string& name);
    bool _IsListTable(int index);
    // The node (owned child or link target) stored under property `name`
    // (a plain property name, or a whole meta key); its field name goes to
    // `field` and whether it is a link to `isLink`. Null when none; otherwise
    // the node comes with a using count that the caller releases.
    ZObject* _FindNodeOfProperty(const std::string& name, bool* isLink, std::string* field);
    // The meta key under which `referrer` holds this node, without logging.
    bool _MetaKeyOf(ZObject* referrer, std::string* metaKey);
    eRtCode _ApplyOneItem(redisContext* c, sRedisCmdItem* item);
    // Turns a whole queue into store commands (ZObject_RedisCache.cpp): into
    // the thread's apply pipeline on `c` when one is open, else sent at once
    // in one round trip. Takes the items' texts (the caller frees the items).
    eRtCode _ApplyQueue(redisContext* c, std::vector<sRedisCmdItem*>& queue);
    // Rewrites the link that `referrer` holds under `metaKey` in the store at
    // once (destroy mode relink).
    void _RelinkInStore(ZObject* referrer, const std::string& metaKey);
    // The node's JPath, or its name while it has none (for log lines).
    std::string _LogName();
    // The live children in id order, each with a using count the caller
    // releases: a copy, so that no lock of this node is held while the
    // children are called and none of them is freed meanwhile.
    std::vector<ZObject*> _UsedChildren();
    // Removes the element `text` (action Remove or Clear) after the checks.
    eRtCode _ListRemoveText(const std::string& text, bool all);

    // Constant after Initial() (read without locks).
    std::atomic<uint32_t> mLiveMark;
    uint32_t mAttribute;
    uint32_t mOID;
    const eType mType;  // beside the other 32-bit fields: no padding
    std::atomic<ZObject*> mParent;
    std::string mId;
    std::string mName;
    std::string mJPath;

    Mutex mQueueMutex;
    std::vector<sRedisCmdItem*>* mRedisCmdQueue GUARDED_BY(mQueueMutex) = nullptr;
    uint32_t mLastAppendTick GUARDED_BY(mQueueMutex) = 0;
    const bool mIsRawJson;  // constant; in the padding after the tick
    // RawJson nodes only (null otherwise): the applied content. Freed with
    // the node, not by ObjDestroy, so a reader racing a retirement still
    // finds it.
    sRawJsonData* mRawJson GUARDED_BY(mQueueMutex) = nullptr;

    // One lock for the tree's bookkeeping: the children and both reference
    // lists (never held with the queue lock, nor across a call into
    // another node).
    Mutex mTreeMutex;
    // The children, sorted by id as a map of ids would be. The ids are the
    // children's own (constant once a node is initialised), so an entry is
    // one pointer instead of a tree node with a copy of the id.
    using ChildList = std::vector<ZObject*>;
    ChildList* mChildList GUARDED_BY(mTreeMutex) = nullptr;
    // The first entry whose id is not less than `id` (the list's lock held).
    static ChildList::iterator _ChildSlot(ChildList& list, const std::string& id);
    // The child with that id, or null.
    ZObject* _FindChildLocked(const std::string& id) REQUIRES(mTreeMutex);
    // Who links to this node, with the meta key under which each does. Kept
    // in the node as a plain vector: nearly every node has exactly one
    // referrer (the node that holds it as a property), for which a map cost
    // a header and a tree node on the heap. Lookups scan it.
    std::vector<std::pair<ZObject*, std::string>> mReferencedBy GUARDED_BY(mTreeMutex);
    std::set<ZObject*>* mReferenceTo GUARDED_BY(mTreeMutex) = nullptr;
    // Which forms this node's hash may hold a property in (bit
    // _PropertyBit(name)): plain fields, link fields ("&&Object", "&&Array",
    // "&&ObjectRef"). A bit that is set only asks for a closer look; one that
    // is clear proves the form was never written, so most writes cost no
    // search. The fields of links given as text, the one form no node
    // remembers, are kept by name (made on first use).
    uint32_t mPlainBits GUARDED_BY(mTreeMutex) = 0;
    uint32_t mLinkBits GUARDED_BY(mTreeMutex) = 0;
    std::vector<std::string>* mTextLinks GUARDED_BY(mTreeMutex) = nullptr;

    std::atomic<int32_t> mUsingCount{0};
    std::atomic<bool> mListsOpen{false};  // see _ListsOpen()

    // MultiBackend nodes only (null until the first write): see
    // _NoteWritten. Made once, freed with the node.
    struct sWrittenTexts {
        Mutex mutex;
        std::set<std::string> texts GUARDED_BY(mutex);
    };
    std::atomic<sWrittenTexts*> mWritten{nullptr};

    friend class ZApplication;
};

// Takes a using count on `obj` when the application's registry knows it and
// it may still be used; false (nothing taken) for null, an unknown pointer or
// no application. Nodes live only while the application does: a node used
// without one is refused rather than crashing on the registry.
bool Use(ZObject* obj);

// The one way to hold a node's using count for a scope: take the count with
// Use() (or IncreaseUsingCount() on a node the caller already holds), then
// let a UseRelease give it back on every path. Null releases nothing.
//
//     if (!Use(node)) return RT_FAILURE;
//     UseRelease release(node);
class UseRelease {
public:
    explicit UseRelease(ZObject* obj) : mObj(obj) {}
    ~UseRelease() {
        if (mObj != nullptr) mObj->DecreaseUsingCount();
    }
    UseRelease(const UseRelease&) = delete;
    UseRelease& operator=(const UseRelease&) = delete;

private:
    ZObject* mObj;
};

// Notes, on the thread that makes it, every node that gets a change queued
// while its queue was empty, so that what a request handler left unapplied
// is found without walking the tree (the request path makes one around each
// handler). Watches nest; the innermost one notes. The noted nodes are held
// (using count) until the watch ends. One thread only.
class ZUnappliedWatch {
public:
    ZUnappliedWatch();
    ~ZUnappliedWatch();
    ZUnappliedWatch(const ZUnappliedWatch&) = delete;
    ZUnappliedWatch& operator=(const ZUnappliedWatch&) = delete;

    // The noted nodes that still hold unapplied changes and are part of a
    // resource (a resource, or a node below one), each once, in the order
    // noted. Valid while the watch lives.
    std::vector<ZObject*> Unapplied() const;

    // Called by the change queue (ZObject::AppendRedisChange).
    static void NoteFirstChange(ZObject* node);

private:
    ZUnappliedWatch* mOuter;
    std::vector<ZObject*> mNodes;
};

// Held by the node constructors for their span: a new node's own store
// writes (clearing its key, its defaults, its first apply, a collection's
// member link) are sent without waiting for each reply. A span that applied
// or whose replies feed more writes (a count, a channel after its list was
// read) sends all of it when the outermost constructor of the thread ends,
// in one round trip plus one for what the replies call for; the rest (a
// nested node's key clearing) rides with the thread's next round trip on
// the connection, at the latest when its scope ends. From the first apply
// of the span to its end the span holds the apply order, so no other
// thread's apply overtakes its writes. Needs the thread's scoped connection
// (RedisConnectionScope); without one it changes nothing. One thread;
// spans nest.
class ZObjectBuildWrites {
public:
    ZObjectBuildWrites();
    ~ZObjectBuildWrites();
    ZObjectBuildWrites(const ZObjectBuildWrites&) = delete;
    ZObjectBuildWrites& operator=(const ZObjectBuildWrites&) = delete;

private:
    redisContext* mCtx = nullptr;  // set on the outermost span only
    redisContext* mPrevDefer = nullptr;
};

}  // namespace Orbel

#endif  // ORBEL_ZOBJECT_H
