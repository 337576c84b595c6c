// VEX configuration variables and application registration on a
// development host: one small file per variable under the sysroot.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "SimStore.h"
#include "vex.h"

namespace OrbelSim {

std::string VexPersistDir() {
    return SysrootPath("/var/lib/vex");
}
std::string VexVolatileDir() {
    return SysrootPath("/run/vex");
}
std::string VexAppsDir() {
    return SysrootPath("/run/vex/apps");
}
std::string VexEventsDir() {
    return SysrootPath("/run/vex/events");
}

bool VexRead(const char* name, std::string& value, bool* persistent) {
    if (!IsValidName(name)) return false;
    // A volatile value shadows the persistent one, as a value set since the
    // last controller start would. "apps" and "events" are directories of
    // run/vex/, so only their persistent form can be read.
    if (ReadRegularFile(VexVolatileDir() + "/" + name, value)) {
        if (persistent != nullptr) *persistent = false;
        return true;
    }
    if (ReadRegularFile(VexPersistDir() + "/" + name, value)) {
        if (persistent != nullptr) *persistent = true;
        return true;
    }
    return false;
}

bool VexWrite(const char* name, const std::string& value, bool persist) {
    if (!IsValidName(name)) return false;
    if (persist) {
        if (!WriteFileAtomic(VexPersistDir() + "/" + name, value)) return false;
        std::string shadow = VexVolatileDir() + "/" + name;
        if (unlink(shadow.c_str()) != 0 && errno != ENOENT && errno != EISDIR) return false;
    } else if (!WriteFileAtomic(VexVolatileDir() + "/" + name, value)) {
        return false;
    }
    // Subscribers learn of the change; a set succeeds even when nobody listens.
    VexRaise(VEX_EVENT_VAR_CHANGED, name, value.data(), static_cast<int>(value.size()));
    return true;
}

std::vector<VexEntry> VexList() {
    std::vector<VexEntry> out;
    std::vector<std::string> volatileNames = ListNames(VexVolatileDir());
    std::vector<std::string> persistNames = ListNames(VexPersistDir());
    std::vector<std::string> all = volatileNames;
    all.insert(all.end(), persistNames.begin(), persistNames.end());
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    for (const std::string& name : all) {
        VexEntry entry{name, std::string(), false};
        if (VexRead(name.c_str(), entry.value, &entry.persistent)) out.push_back(entry);
    }
    return out;
}

std::string VexAppTableDir() {
    return SysrootPath("/etc/vex/apps");
}

bool VexAppAdd(const std::string& name, unsigned int code) {
    if (code == 0 || !IsValidName(name.c_str())) return false;
    char text[32];
    std::snprintf(text, sizeof(text), "code=0x%08x\n", code);
    return WriteFileAtomic(VexAppTableDir() + "/" + name, text);
}

bool VexAppRemove(const std::string& name) {
    if (!IsValidName(name.c_str())) return false;
    return unlink((VexAppTableDir() + "/" + name).c_str()) == 0;
}

namespace {

bool VexAppRead(const std::string& name, unsigned int& code) {
    std::string text;
    if (!IsValidName(name.c_str()) || !ReadRegularFile(VexAppTableDir() + "/" + name, text)) {
        return false;
    }
    unsigned int value = 0;
    if (std::sscanf(text.c_str(), "code=0x%x", &value) != 1 || value == 0) return false;
    code = value;
    return true;
}

}  // namespace

std::vector<std::pair<std::string, unsigned int>> VexAppList() {
    std::vector<std::pair<std::string, unsigned int>> out;
    for (const std::string& name : ListNames(VexAppTableDir())) {
        unsigned int code = 0;
        if (VexAppRead(name, code)) out.emplace_back(name, code);
    }
    return out;
}

bool VexAppLookup(const char* name, unsigned int& code) {
    return name != nullptr && VexAppRead(name, code);
}

}  // namespace OrbelSim

using OrbelSim::VexRead;
using OrbelSim::VexWrite;

extern "C" {

int vex_init(const char* appName, unsigned int appCode) {
    if (appCode == 0 || !OrbelSim::IsValidName(appName)) return 0;
    char text[64];
    std::snprintf(text, sizeof(text), "pid=%ld\ncode=0x%08x\n", static_cast<long>(getpid()),
                  appCode);
    return OrbelSim::WriteFileAtomic(OrbelSim::VexAppsDir() + "/" + appName, text) ? 1 : 0;
}

int vex_app_code(const char* appName, unsigned int* appCode) {
    unsigned int code = 0;
    if (appCode == nullptr || !OrbelSim::VexAppLookup(appName, code)) return 0;
    *appCode = code;
    return 1;
}

int vex_config_get_bool(const char* name, int* value) {
    std::string text;
    bool v = false;
    if (value == nullptr || !VexRead(name, text) || !OrbelSim::ParseBool(text, v)) return 0;
    *value = v ? 1 : 0;
    return 1;
}

int vex_config_get_int(const char* name, int* value) {
    std::string text;
    int v = 0;
    if (value == nullptr || !VexRead(name, text) || !OrbelSim::ParseInt32(text, v)) return 0;
    *value = v;
    return 1;
}

int vex_config_get_int64(const char* name, long long* value) {
    std::string text;
    long long v = 0;
    if (value == nullptr || !VexRead(name, text) || !OrbelSim::ParseInt64(text, v)) return 0;
    *value = v;
    return 1;
}

int vex_config_get_str_n(const char* name, char* buffer, int size) {
    std::string text;
    if (buffer == nullptr || size <= 0 || !VexRead(name, text)) return 0;
    size_t n = std::min(text.size(), static_cast<size_t>(size) - 1);
    std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
    return 1;
}

int vex_config_set_bool(const char* name, int value, int persist) {
    return VexWrite(name, value != 0 ? "true" : "false", persist != 0) ? 1 : 0;
}

int vex_config_set_int(const char* name, int value, int persist) {
    return VexWrite(name, std::to_string(value), persist != 0) ? 1 : 0;
}

int vex_config_set_int64(const char* name, long long value, int persist) {
    return VexWrite(name, std::to_string(value), persist != 0) ? 1 : 0;
}

int vex_config_set_str_n(const char* name, const char* value, int size, int persist) {
    if (value == nullptr || size < 0) return 0;
    size_t n = strnlen(value, static_cast<size_t>(size));
    return VexWrite(name, std::string(value, n), persist != 0) ? 1 : 0;
}

}  // extern "C"
