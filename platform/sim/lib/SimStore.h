// Internals of the simulated platform, shared by its C functions and by the
// orbel-sim tool. Not part of the platform interface: plug-ins and the
// library call the C functions of platform/include/ only.
//
// Everything the simulation keeps lives in small files under the sysroot
// (ORBEL_SYSROOT, set and not empty: prefix, trailing "/" dropped; unset:
// the real root), so several processes see one state and a person can look
// at it with ls and cat:
//
//   var/lib/vex/<name>        persistent VEX variables (value text)
//   run/vex/<name>            volatile VEX variables (read before var/lib/)
//   run/vex/apps/<name>       one file per vex_init: "pid=<pid>\ncode=0x<hex>\n"
//   run/vex/events/<pid>.sock the event socket of each listening process
//   var/lib/koba/<name>       KOBA variables as "<t>:<value>", t in b s u S
//   var/lib/vpd/machine.vpd   the machine record (VPDD_MACHINE_RECORD_SIZE bytes)
//   run/tarnclock/fault       when present, getTarnClock fails with its number
//
// Writers replace files with write-to-temp + rename(), so a reader in
// another process sees the old or the new value, never a mixture. Temp
// files start with "." and are therefore never taken for variables.
//
// Thread-safe: every function works on the file system only, except the
// event listener, which guards its own state.
#ifndef ORBEL_SIM_SIMSTORE_H
#define ORBEL_SIM_SIMSTORE_H

#include <sys/types.h>

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "vex.h"

// Directory listings and file sizes need 64-bit offsets on the 32-bit
// controller (readdir fails with EOVERFLOW otherwise); the build sets them
// for every target.
static_assert(sizeof(time_t) == 8 && sizeof(off_t) == 8,
              "build with -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64");

namespace OrbelSim {

// ORBEL_SYSROOT without a trailing "/", or "" when unset or empty.
std::string Sysroot();
// `fixedPath` (absolute) under the sysroot.
std::string SysrootPath(const std::string& fixedPath);

// A name usable as a file name: not null, not empty, at most 255 bytes, no
// "/" and not starting with ".".
bool IsValidName(const char* name);

// Creates `dir` and its missing parents with mode 0755. True when it exists
// as a directory afterwards.
bool MakeDirs(const std::string& dir);
// Reads a regular file (at most 1 MiB). False when it is missing, not a
// regular file, too large or unreadable; `errnoOut` (optional) receives the
// cause (ENOENT for missing, EISDIR for a directory, EFBIG for too large).
bool ReadRegularFile(const std::string& path, std::string& out, int* errnoOut = nullptr);
// Replaces `path` atomically with `data`, creating the parent directories.
bool WriteFileAtomic(const std::string& path, const std::string& data);
// Names of the regular files in `dir` that are valid names, sorted.
std::vector<std::string> ListNames(const std::string& dir);

// Text parsers shared by VEX and KOBA. One trailing "\n" is ignored so
// files written with `echo` still parse. Bool: "true"/"false"/"1"/"0".
// Integers: decimal, optional leading "-" (signed only), no blanks, no "+".
bool ParseBool(std::string text, bool& out);
bool ParseInt64(std::string text, long long& out);
bool ParseInt32(const std::string& text, int& out);
bool ParseUInt32(std::string text, unsigned int& out);

// ---------------------------------------------------------------------------
// VEX variables and events
// ---------------------------------------------------------------------------
std::string VexPersistDir();   // <sysroot>/var/lib/vex
std::string VexVolatileDir();  // <sysroot>/run/vex
std::string VexAppsDir();      // <sysroot>/run/vex/apps
std::string VexEventsDir();    // <sysroot>/run/vex/events

// The value text of a variable: the volatile file when there is one, else
// the persistent one. `persistent` (optional) tells which was read.
bool VexRead(const char* name, std::string& value, bool* persistent = nullptr);
// Stores the value text and raises the event of the same name with kind
// VEX_EVENT_VAR_CHANGED and the text as payload. A persistent write also
// removes a volatile value of the same name, which would otherwise hide it.
bool VexWrite(const char* name, const std::string& value, bool persist);

struct VexEntry {
    std::string name;
    std::string value;
    bool persistent;
};
// Every variable as a get would see it, sorted by name.
std::vector<VexEntry> VexList();

// The development host's table of VEX applications beyond the library's
// own: one file per name under etc/vex/apps/, holding "code=0x<8 hex>".
// Persistent, since it stands for the controller's configuration.
std::string VexAppTableDir();
bool VexAppAdd(const std::string& name, unsigned int code);
bool VexAppLookup(const char* name, unsigned int& code);
bool VexAppRemove(const std::string& name);
std::vector<std::pair<std::string, unsigned int>> VexAppList();

// Sends one datagram (kind byte, name, NUL, payload) to every event socket.
// Returns false for an invalid name or a payload over kMaxEventPayload.
constexpr int kMaxEventPayload = 60 * 1024;
bool VexRaise(EVENT_TYPE kind, const char* name, const void* data, int dataLen);

// ---------------------------------------------------------------------------
// KOBA
// ---------------------------------------------------------------------------
std::string KobaDir();  // <sysroot>/var/lib/koba

// Reads a stored variable: its type letter and value text. Returns a KOBA
// code: KOBA_OK, KOBA_ERR_NOT_FOUND, KOBA_ERR_IO, or KOBA_ERR_FORMAT when
// the file does not start with a known "<t>:".
int KobaRead(const char* name, char& type, std::string& value);
// Writes "<type>:<value>". Refuses (KOBA_ERR_FORMAT) a variable that exists
// with another type. Returns a KOBA code.
int KobaWrite(const char* name, char type, const std::string& value);

// ---------------------------------------------------------------------------
// Vital product data
// ---------------------------------------------------------------------------
std::string VpdPath();  // <sysroot>/var/lib/vpd/machine.vpd
// The record; generated (and stored) on first use. Returns a VPDD code.
int VpdLoad(std::string& record);
// Replaces the record; `record` must be VPDD_MACHINE_RECORD_SIZE bytes.
int VpdStore(const std::string& record);

// ---------------------------------------------------------------------------
// Controller state and clock
// ---------------------------------------------------------------------------
std::string ShuttingDownMarkerPath();  // <sysroot>/tmp/.shutting-down-tarn
std::string ClockFaultPath();          // <sysroot>/run/tarnclock/fault

}  // namespace OrbelSim

#endif  // ORBEL_SIM_SIMSTORE_H
