// orbel-sim: reads and changes the simulated platform from the command line,
// for developers and for tests (e.g. telling a waiting plug-in that the
// front end is ready: `orbel-sim vex set nginx_redfish_ready true`).
//
// It works on the tree under ORBEL_SYSROOT, through the simulation's C
// functions where they exist, so what it does is exactly what a plug-in
// would see. Exit status: 0 done, 1 failed or not found, 2 usage error.
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "SimStore.h"
#include "koba.h"
#include "tarn_clock.h"
#include "vex.h"
#include "vpdd.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "Usage: orbel-sim COMMAND [ARGS]\n"
    "\n"
    "Reads and changes the simulated controller platform kept under $ORBEL_SYSROOT.\n"
    "\n"
    "Commands:\n"
    "  vex get NAME                    print a VEX variable\n"
    "  vex set NAME VALUE [--persist]  set a VEX variable (volatile unless --persist);\n"
    "                                  a bool one (nginx_redfish_ready) takes true|false|1|0\n"
    "  vex list                        list VEX variables: name, persist|volatile, value\n"
    "  vex app add NAME [CODE]         register a plug-in's application name with VEX\n"
    "                                  (CODE: 0x and 8 hex digits; default from the name)\n"
    "  vex app remove NAME             forget a registered application name\n"
    "  vex app list                    list registered application names and codes\n"
    "  event raise NAME [PAYLOAD]      raise a VEX event in every listening process\n"
    "  koba get NAME                   print a KOBA variable\n"
    "  koba set NAME b|s|u|S VALUE     set a KOBA bool, signed, unsigned or string variable\n"
    "  koba list                       list KOBA variables: name, type, value\n"
    "  vpd show                        print the machine record's uuid, serial and mtm\n"
    "  vpd set uuid|serial|mtm VALUE   change one field of the machine record\n"
    "  shutdown on|off                 create or remove the controller's shutting-down marker\n"
    "  clock show                      print the controller clock\n"
    "  clock fail CODE | clock ok      make the controller clock fail with CODE, or work again\n"
    "  help                            print this text\n"
    "\n"
    "Exit status: 0 done, 1 failed or not found, 2 usage error.\n";

int Usage() {
    std::fputs(kUsage, stderr);
    return kExitUsage;
}

// Prints "orbel-sim: <message>" on stderr and returns `status`.
__attribute__((format(printf, 2, 3))) int Complain(int status, const char* format, ...) {
    std::fputs("orbel-sim: ", stderr);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    return status;
}

// Listings show one variable per line, so control bytes, backslashes and
// non-ASCII bytes are written as escapes.
std::string Escaped(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c >= 0x20 && c <= 0x7E) {
            out += static_cast<char>(c);
        } else {
            char hex[5];
            std::snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += hex;
        }
    }
    return out;
}

// --------------------------------------------------------------------------
// vex, event
// --------------------------------------------------------------------------

int VexGet(const std::string& name) {
    // Large enough for any value the simulation stores.
    std::vector<char> buffer(1024 * 1024 + 1);
    if (vex_config_get_str_n(name.c_str(), buffer.data(), static_cast<int>(buffer.size())) == 0) {
        return Complain(kExitFailed, "no VEX variable %s", name.c_str());
    }
    std::printf("%s\n", buffer.data());
    return kExitOk;
}

// VEX variables are stored as text, but the controller's service knows their
// types: a variable that the system reads with a typed getter cannot hold
// a value of another type. The tool refuses such a value instead of storing
// text that every reader would then fail to parse (a plug-in waiting for
// "nginx_redfish_ready" would wait forever on "yes").
enum class VexType { kBool, kString };

struct TypedVex {
    const char* name;
    VexType type;
};

const TypedVex kTypedVex[] = {
    {"nginx_redfish_ready", VexType::kBool},
};

VexType TypeOfVex(const std::string& name) {
    for (const TypedVex& v : kTypedVex) {
        if (name == v.name) return v.type;
    }
    return VexType::kString;
}

// Stores `value` through the setter of the variable's type, so a bool is
// written the way a plug-in's own set writes it. Returns the exit status.
int VexSetTyped(const std::string& name, const std::string& value, int persist) {
    const char* n = name.c_str();
    int done = 0;
    switch (TypeOfVex(name)) {
        case VexType::kBool: {
            bool v = false;
            if (!OrbelSim::ParseBool(value, v)) {
                return Complain(kExitUsage,
                                "%s is a bool VEX variable: '%s' is not one of true, false, 1, 0",
                                n, value.c_str());
            }
            done = vex_config_set_bool(n, v ? 1 : 0, persist);
            break;
        }
        case VexType::kString:
            done = vex_config_set_str_n(n, value.c_str(), static_cast<int>(value.size()), persist);
            break;
    }
    return done != 0 ? kExitOk : Complain(kExitFailed, "cannot set VEX variable %s", n);
}

int VexSet(std::vector<std::string> args) {
    bool persist = false;
    for (auto it = args.begin(); it != args.end();) {
        if (*it == "--persist") {
            persist = true;
            it = args.erase(it);
        } else {
            ++it;
        }
    }
    if (args.size() != 2) return Usage();
    return VexSetTyped(args[0], args[1], persist ? 1 : 0);
}

int VexList() {
    for (const OrbelSim::VexEntry& entry : OrbelSim::VexList()) {
        std::printf("%s\t%s\t%s\n", entry.name.c_str(), entry.persistent ? "persist" : "volatile",
                    Escaped(entry.value).c_str());
    }
    return kExitOk;
}

// A code for a name without one: its FNV-1a hash, never 0.
unsigned int CodeOfName(const std::string& name) {
    uint32_t h = 2166136261u;
    for (unsigned char c : name) h = (h ^ c) * 16777619u;
    return h != 0 ? h : 1;
}

int VexApp(const std::vector<std::string>& a) {
    if (a.size() == 1 && a[0] == "list") {
        for (const auto& app : OrbelSim::VexAppList()) {
            std::printf("%s\t0x%08x\n", app.first.c_str(), app.second);
        }
        return kExitOk;
    }
    if (a.size() == 2 && a[0] == "remove") {
        return OrbelSim::VexAppRemove(a[1])
                   ? kExitOk
                   : Complain(kExitFailed, "no registered application %s", a[1].c_str());
    }
    if ((a.size() == 2 || a.size() == 3) && a[0] == "add") {
        unsigned int code = CodeOfName(a[1]);
        if (a.size() == 3) {
            char* end = nullptr;
            const unsigned long v = std::strtoul(a[2].c_str(), &end, 16);
            if (a[2].compare(0, 2, "0x") != 0 || *end != '\0' || v == 0 || v > 0xFFFFFFFFul) {
                return Complain(kExitUsage, "'%s' is not a code (0x and up to 8 hex digits, not 0)",
                                a[2].c_str());
            }
            code = static_cast<unsigned int>(v);
        }
        if (!OrbelSim::VexAppAdd(a[1], code)) {
            return Complain(kExitFailed, "cannot register application %s", a[1].c_str());
        }
        std::printf("%s\t0x%08x\n", a[1].c_str(), code);
        return kExitOk;
    }
    return Usage();
}

int EventRaise(const std::string& name, const std::string& payload) {
    if (vex_event_raise(name.c_str(), payload.data(), static_cast<int>(payload.size())) == 0) {
        return Complain(kExitFailed, "cannot raise event %s", name.c_str());
    }
    return kExitOk;
}

// --------------------------------------------------------------------------
// koba
// --------------------------------------------------------------------------

// Reads a variable through the typed getter of its stored type and returns
// its value as text; the KOBA error code otherwise.
int KobaValueText(const std::string& name, char& type, std::string& text) {
    std::string raw;
    int rc = OrbelSim::KobaRead(name.c_str(), type, raw);
    if (rc != KOBA_OK) return rc;
    int err = 0;
    switch (type) {
        case 'b': {
            int v = 0;
            if (GetVarValueBOOL(-1, 0, 0, 0, name.c_str(), &err, &v) == KOBA_OK) {
                text = v != 0 ? "true" : "false";
            }
            break;
        }
        case 's': {
            int v = 0;
            if (GetVarValueSINT(-1, 0, 0, 0, name.c_str(), &err, &v) == KOBA_OK) {
                text = std::to_string(v);
            }
            break;
        }
        case 'u': {
            unsigned int v = 0;
            if (GetVarValueUINT(-1, 0, 0, 0, name.c_str(), &err, &v) == KOBA_OK) {
                text = std::to_string(v);
            }
            break;
        }
        default: {
            std::vector<char> buffer(raw.size() + 1);
            if (GetVarValueSTRING(-1, 0, 0, 0, name.c_str(), &err, buffer.data(),
                                  static_cast<int>(buffer.size())) == KOBA_OK) {
                text = buffer.data();
            }
            break;
        }
    }
    return err;
}

int KobaGet(const std::string& name) {
    char type = 0;
    std::string text;
    int rc = KobaValueText(name, type, text);
    if (rc != KOBA_OK)
        return Complain(kExitFailed, "cannot read KOBA variable %s (error %d)", name.c_str(), rc);
    std::printf("%s\n", text.c_str());
    return kExitOk;
}

int KobaSet(const std::string& name, const std::string& type, const std::string& value) {
    int err = 0;
    int rc = KOBA_OK;
    if (type == "b") {
        bool v = false;
        if (!OrbelSim::ParseBool(value, v))
            return Complain(kExitUsage, "not a bool: %s", value.c_str());
        rc = SetVarValueBOOL(-1, 0, 0, 0, name.c_str(), &err, v ? 1 : 0);
    } else if (type == "s") {
        int v = 0;
        if (!OrbelSim::ParseInt32(value, v)) {
            return Complain(kExitUsage, "not a signed 32-bit number: %s", value.c_str());
        }
        rc = SetVarValueSINT(-1, 0, 0, 0, name.c_str(), &err, v);
    } else if (type == "u") {
        unsigned int v = 0;
        if (!OrbelSim::ParseUInt32(value, v)) {
            return Complain(kExitUsage, "not an unsigned 32-bit number: %s", value.c_str());
        }
        rc = SetVarValueUINT(-1, 0, 0, 0, name.c_str(), &err, v);
    } else if (type == "S") {
        rc = SetVarValueSTRING(-1, 0, 0, 0, name.c_str(), &err, value.c_str());
    } else {
        return Usage();
    }
    if (rc != KOBA_OK)
        return Complain(kExitFailed, "cannot set KOBA variable %s (error %d)", name.c_str(), rc);
    return kExitOk;
}

int KobaList() {
    for (const std::string& name : OrbelSim::ListNames(OrbelSim::KobaDir())) {
        char type = 0;
        std::string text;
        int rc = KobaValueText(name, type, text);
        if (rc == KOBA_OK) {
            std::printf("%s\t%c\t%s\n", name.c_str(), type, Escaped(text).c_str());
        } else {
            std::printf("%s\t?\t(unreadable, error %d)\n", name.c_str(), rc);
        }
    }
    return kExitOk;
}

// --------------------------------------------------------------------------
// vpd
// --------------------------------------------------------------------------

// A text field of the record without its zero or blank padding.
std::string Field(const unsigned char* record, int offset, int length) {
    std::string s(reinterpret_cast<const char*>(record) + offset, static_cast<size_t>(length));
    size_t end = s.find_last_not_of(std::string(" \0", 2));
    return end == std::string::npos ? std::string() : s.substr(0, end + 1);
}

int VpdShow() {
    std::vector<unsigned char> record(VPDD_MACHINE_RECORD_SIZE);
    int rc = vpdd_machine_vpd_read(record.data(), static_cast<int>(record.size()));
    if (rc != VPDD_OK)
        return Complain(kExitFailed, "cannot read the machine record (error %d)", rc);
    std::printf("uuid: %s\n", Field(record.data(), VPDD_UUID_OFFSET, VPDD_UUID_LENGTH).c_str());
    std::printf("serial: %s\n",
                Field(record.data(), VPDD_SERIAL_OFFSET, VPDD_SERIAL_LENGTH).c_str());
    std::printf("mtm: %s\n", Field(record.data(), VPDD_MTM_OFFSET, VPDD_MTM_LENGTH).c_str());
    return kExitOk;
}

int VpdSet(const std::string& field, const std::string& value) {
    std::string text = value;
    int offset = 0;
    int length = 0;
    if (field == "uuid") {
        // The grouped form 8-4-4-4-12 is accepted too; the record holds digits only.
        std::string digits;
        for (char c : value) {
            if (c != '-') digits += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        }
        bool hex = digits.size() == VPDD_UUID_LENGTH;
        for (char c : digits) hex = hex && std::isxdigit(static_cast<unsigned char>(c)) != 0;
        if (!hex)
            return Complain(kExitUsage, "a uuid has 32 hexadecimal digits: %s", value.c_str());
        text = digits;
        offset = VPDD_UUID_OFFSET;
        length = VPDD_UUID_LENGTH;
    } else if (field == "serial" || field == "mtm") {
        offset = field == "serial" ? VPDD_SERIAL_OFFSET : VPDD_MTM_OFFSET;
        length = field == "serial" ? VPDD_SERIAL_LENGTH : VPDD_MTM_LENGTH;
        bool printable = !value.empty() && value.size() <= static_cast<size_t>(length);
        for (char c : value) printable = printable && c >= 0x21 && c <= 0x7E;
        if (!printable) {
            return Complain(kExitUsage, "%s takes 1 to %d printable characters without blanks",
                            field.c_str(), length);
        }
    } else {
        return Usage();
    }
    std::vector<unsigned char> record(VPDD_MACHINE_RECORD_SIZE);
    int rc = vpdd_machine_vpd_read(record.data(), static_cast<int>(record.size()));
    if (rc != VPDD_OK)
        return Complain(kExitFailed, "cannot read the machine record (error %d)", rc);
    std::memset(record.data() + offset, 0, static_cast<size_t>(length));
    std::memcpy(record.data() + offset, text.data(), text.size());
    rc = OrbelSim::VpdStore(std::string(record.begin(), record.end()));
    if (rc != VPDD_OK)
        return Complain(kExitFailed, "cannot write the machine record (error %d)", rc);
    return kExitOk;
}

// --------------------------------------------------------------------------
// shutdown, clock
// --------------------------------------------------------------------------

int Shutdown(const std::string& state) {
    std::string marker = OrbelSim::ShuttingDownMarkerPath();
    if (state == "on") {
        if (!OrbelSim::WriteFileAtomic(marker, ""))
            return Complain(kExitFailed, "cannot create %s", marker.c_str());
        return kExitOk;
    }
    if (state == "off") {
        if (unlink(marker.c_str()) != 0 && errno != ENOENT) {
            return Complain(kExitFailed, "cannot remove %s", marker.c_str());
        }
        return kExitOk;
    }
    return Usage();
}

int ClockShow() {
    struct tm tm = {};
    char zone[16] = {};
    int rc = getTarnClock(&tm, zone, sizeof(zone));
    if (rc != 0) return Complain(kExitFailed, "getTarnClock returned %d", rc);
    std::printf("%04d-%02d-%02dT%02d:%02d:%02d%s\n", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                tm.tm_hour, tm.tm_min, tm.tm_sec, zone);
    return kExitOk;
}

int ClockFail(const std::string& code) {
    int v = 0;
    if (!OrbelSim::ParseInt32(code, v) || v == 0) return Usage();
    if (!OrbelSim::WriteFileAtomic(OrbelSim::ClockFaultPath(), code + "\n")) {
        return Complain(kExitFailed, "cannot write %s", OrbelSim::ClockFaultPath().c_str());
    }
    return kExitOk;
}

int ClockOk() {
    std::string path = OrbelSim::ClockFaultPath();
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        return Complain(kExitFailed, "cannot remove %s", path.c_str());
    return kExitOk;
}

int Run(const std::vector<std::string>& a) {
    size_t n = a.size();
    if (n == 0) return Usage();
    const std::string& cmd = a[0];
    const std::string sub = n > 1 ? a[1] : std::string();
    if (cmd == "help" || cmd == "-h" || cmd == "--help") {
        std::fputs(kUsage, stdout);
        return kExitOk;
    }
    if (cmd == "vex") {
        if (sub == "get" && n == 3) return VexGet(a[2]);
        if (sub == "set" && n >= 4) return VexSet(std::vector<std::string>(a.begin() + 2, a.end()));
        if (sub == "list" && n == 2) return VexList();
        if (sub == "app" && n >= 3) return VexApp(std::vector<std::string>(a.begin() + 2, a.end()));
    } else if (cmd == "event") {
        if (sub == "raise" && (n == 3 || n == 4)) return EventRaise(a[2], n == 4 ? a[3] : "");
    } else if (cmd == "koba") {
        if (sub == "get" && n == 3) return KobaGet(a[2]);
        if (sub == "set" && n == 5) return KobaSet(a[2], a[3], a[4]);
        if (sub == "list" && n == 2) return KobaList();
    } else if (cmd == "vpd") {
        if (sub == "show" && n == 2) return VpdShow();
        if (sub == "set" && n == 4) return VpdSet(a[2], a[3]);
    } else if (cmd == "shutdown") {
        if (n == 2) return Shutdown(sub);
    } else if (cmd == "clock") {
        if (sub == "show" && n == 2) return ClockShow();
        if (sub == "fail" && n == 3) return ClockFail(a[2]);
        if (sub == "ok" && n == 2) return ClockOk();
    }
    return Usage();
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    return Run(args);
}
