// The KOBA settings store on a development host: one file per variable
// under <sysroot>/var/lib/koba/, holding "<t>:<value>" where t is the type
// letter (b bool, s signed, u unsigned, S string).
//
// The simulation has a single store instance, the controller's own,
// selected by (-1, 0, 0, 0). Any other selector names a store that does
// not exist here: KOBA_ERR_IO, for gets and sets alike.
#include <cerrno>
#include <cstring>
#include <string>

#include "SimStore.h"
#include "koba.h"

namespace OrbelSim {

std::string KobaDir() {
    return SysrootPath("/var/lib/koba");
}

namespace {

bool IsKnownType(char type) {
    return type == 'b' || type == 's' || type == 'u' || type == 'S';
}

}  // namespace

int KobaRead(const char* name, char& type, std::string& value) {
    if (!IsValidName(name)) return KOBA_ERR_NOT_FOUND;
    std::string text;
    int err = 0;
    if (!ReadRegularFile(KobaDir() + "/" + name, text, &err)) {
        return err == ENOENT ? KOBA_ERR_NOT_FOUND : KOBA_ERR_IO;
    }
    if (text.size() < 2 || text[1] != ':' || !IsKnownType(text[0])) return KOBA_ERR_FORMAT;
    type = text[0];
    value = text.substr(2);
    return KOBA_OK;
}

int KobaWrite(const char* name, char type, const std::string& value) {
    if (!IsValidName(name) || !IsKnownType(type)) return KOBA_ERR_IO;
    char storedType = 0;
    std::string stored;
    int rc = KobaRead(name, storedType, stored);
    // A variable keeps the type it was created with; a stored text that
    // does not parse stays untouched so the fault can be looked at.
    if (rc == KOBA_OK && storedType != type) return KOBA_ERR_FORMAT;
    if (rc != KOBA_OK && rc != KOBA_ERR_NOT_FOUND) return rc;
    std::string text(1, type);
    text += ':';
    text += value;
    return WriteFileAtomic(KobaDir() + "/" + name, text) ? KOBA_OK : KOBA_ERR_IO;
}

}  // namespace OrbelSim

namespace {

bool IsOwnInstance(int inst0, int inst1, int inst2, int inst3) {
    return inst0 == -1 && inst1 == 0 && inst2 == 0 && inst3 == 0;
}

int Report(int* errCode, int code) {
    if (errCode != nullptr) *errCode = code;
    return code;
}

// Reads a variable that must have type `type`; `value` gets its text.
int ReadTyped(int i0, int i1, int i2, int i3, const char* name, char type, std::string& value) {
    if (!IsOwnInstance(i0, i1, i2, i3)) return KOBA_ERR_IO;
    char stored = 0;
    int rc = OrbelSim::KobaRead(name, stored, value);
    if (rc != KOBA_OK) return rc;
    return stored == type ? KOBA_OK : KOBA_ERR_FORMAT;
}

int WriteTyped(int i0, int i1, int i2, int i3, const char* name, char type,
               const std::string& value) {
    if (!IsOwnInstance(i0, i1, i2, i3)) return KOBA_ERR_IO;
    return OrbelSim::KobaWrite(name, type, value);
}

}  // namespace

extern "C" {

int GetVarValueBOOL(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    int* value) {
    if (value == nullptr) return Report(errCode, KOBA_ERR_BUFFER);
    std::string text;
    int rc = ReadTyped(inst0, inst1, inst2, inst3, name, 'b', text);
    bool v = false;
    if (rc == KOBA_OK && !OrbelSim::ParseBool(text, v)) rc = KOBA_ERR_FORMAT;
    if (rc == KOBA_OK) *value = v ? 1 : 0;
    return Report(errCode, rc);
}

int GetVarValueSINT(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    int* value) {
    if (value == nullptr) return Report(errCode, KOBA_ERR_BUFFER);
    std::string text;
    int rc = ReadTyped(inst0, inst1, inst2, inst3, name, 's', text);
    int v = 0;
    if (rc == KOBA_OK && !OrbelSim::ParseInt32(text, v)) rc = KOBA_ERR_FORMAT;
    if (rc == KOBA_OK) *value = v;
    return Report(errCode, rc);
}

int GetVarValueUINT(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    unsigned int* value) {
    if (value == nullptr) return Report(errCode, KOBA_ERR_BUFFER);
    std::string text;
    int rc = ReadTyped(inst0, inst1, inst2, inst3, name, 'u', text);
    unsigned int v = 0;
    if (rc == KOBA_OK && !OrbelSim::ParseUInt32(text, v)) rc = KOBA_ERR_FORMAT;
    if (rc == KOBA_OK) *value = v;
    return Report(errCode, rc);
}

int GetVarValueSTRING(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                      char* buffer, int size) {
    if (buffer == nullptr || size <= 0) return Report(errCode, KOBA_ERR_BUFFER);
    std::string text;
    int rc = ReadTyped(inst0, inst1, inst2, inst3, name, 'S', text);
    // Strings come back whole or not at all: a cut setting is a wrong one.
    if (rc == KOBA_OK && text.size() >= static_cast<size_t>(size)) rc = KOBA_ERR_BUFFER;
    if (rc == KOBA_OK) {
        std::memcpy(buffer, text.data(), text.size());
        buffer[text.size()] = '\0';
    }
    return Report(errCode, rc);
}

int SetVarValueBOOL(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    int value) {
    return Report(errCode, WriteTyped(inst0, inst1, inst2, inst3, name, 'b', value ? "1" : "0"));
}

int SetVarValueSINT(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    int value) {
    return Report(errCode,
                  WriteTyped(inst0, inst1, inst2, inst3, name, 's', std::to_string(value)));
}

int SetVarValueUINT(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    unsigned int value) {
    return Report(errCode,
                  WriteTyped(inst0, inst1, inst2, inst3, name, 'u', std::to_string(value)));
}

int SetVarValueSTRING(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                      const char* value) {
    if (value == nullptr) return Report(errCode, KOBA_ERR_BUFFER);
    return Report(errCode, WriteTyped(inst0, inst1, inst2, inst3, name, 'S', value));
}

}  // extern "C"
