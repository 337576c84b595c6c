// Helpers for the backend code of a schema: the code that talks to the
// platform on behalf of a ZSchema. A plug-in derives its backend classes
// from ZBackendImpl.
//
// A backend answers questions about the platform the process runs on, from
// environment variables read once at construction ("PLATFLAGS",
// "TARN_CODENAME", "FEN_FAMILY"), and keeps a private scratch directory per
// schema under the work directory ("/tmp/Redfish/<schema>/BackendImpl",
// relocated under ORBEL_SYSROOT). It also checks e-mail addresses.
//
// The family and codename words the flags are matched against are build
// configuration (docs/events.md, "Platform words"); ConfiguredWords() shows
// what this build carries.
//
// Threads: the flags are constant after construction and may be read from
// any thread. The work directory path is made once under a mutex; the
// directory calls may come from any thread (two calls with the same name in
// the same second share one directory: see CreateATempWorkDir).
#ifndef ORBEL_ZBACKENDIMPL_H
#define ORBEL_ZBACKENDIMPL_H

#include <string>
#include <vector>

#include "Orbel_Mutex.h"
#include "OrbelDefs.h"

namespace Orbel {

class ZSchema;

class ZBackendImpl {
public:
    // The platform words this build matches (see the build options in
    // docs/events.md).
    struct sPlatformWords {
        std::vector<std::string> codenames;      // whole-word match of TARN_CODENAME
        std::string bladedFamily;                // 8-character prefix of FEN_FAMILY
        std::vector<std::string> denseFamilies;  // 9-character prefixes of FEN_FAMILY
    };
    static const sPlatformWords& ConfiguredWords();

    // Reads the platform flags from the environment. `owner` may be null
    // (then there is no work directory); it is not owned.
    explicit ZBackendImpl(ZSchema* owner);
    virtual ~ZBackendImpl();

    ZBackendImpl(const ZBackendImpl&) = delete;
    ZBackendImpl& operator=(const ZBackendImpl&) = delete;

    ZSchema* GetOwnedBySchema() const { return mOwner; }

    // "FEN_PLATFORM", else "TARN_PLATFORM"; "" (logged) when both are unset.
    // Read on every call.
    std::string GetPlatformName();

    bool IsAMDPlatform() const { return mIsAMD; }        // PLATFLAGS has bit 0x8000
    bool IsMorwen() const { return mIsMorwen; }          // TARN_CODENAME is a listed codename
    bool IsBladedPlatform() const { return mIsBladed; }  // FEN_FAMILY starts with the bladed word
    bool IsDensePlatform() const { return mIsDense; }    // FEN_FAMILY starts with a dense word

    // "/tmp/Redfish/<schema name>/BackendImpl" (under the sysroot). The first
    // call removes whatever a previous process left there and creates it
    // empty; later calls return the same path. "" (logged) without an owner
    // schema.
    std::string GetTempWorkDirPath();

    // A fresh directory "<work dir>/<name>_<n>", n from rand() after seeding
    // the generator with the current second on every call: two calls with
    // the same name within one second give the same path, and the second
    // removes and recreates the first one's directory (deliberate). Returns
    // the path, or "" (logged) when `name` holds a '/' or a non-printable
    // byte, or when there is no work directory. A failed mkdir is logged and
    // the path is still returned.
    std::string CreateATempWorkDir(const std::string& name);

    // Removes the tree at `path`. Only paths inside this backend's work
    // directory are removed; any other path (or one with a ".." component)
    // is refused (2, logged).
    eRtCode RemoveTempWorkDir(const std::string& path);

    // True for "local@domain.tld" made of letters, digits and ._- (local
    // part) or _- (domain labels), with at least one dot after the '@',
    // each part at most 64 characters. No '+' anywhere.
    static bool IsValidEmailFormat(const char* address);

private:
    // Constant after construction (no lock).
    ZSchema* const mOwner;
    bool mIsAMD = false;
    bool mIsMorwen = false;
    bool mIsBladed = false;
    bool mIsDense = false;

    Mutex mWorkDirMutex;
    std::string mTempWorkDir GUARDED_BY(mWorkDirMutex);
};

}  // namespace Orbel

#endif  // ORBEL_ZBACKENDIMPL_H
