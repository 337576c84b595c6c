// The users file, roles and Basic authentication.
#include "UserTable.h"

#include <fstream>

namespace OrbelFrontEnd {

const sPrivilegeName kPrivilegeNames[12] = {
    {"DenyAlways", 0x2},
    {"Supervisor", 0x4},
    {"Login", 0x8},
    {"ConfigurationNetworkingAndSecurity", 0x10},
    {"UserAccountManagement", 0x20},
    {"RemoteConsoleAccess", 0x40},
    {"RemoteConsoleAndVirtualMediaAccess", 0x80},
    {"RemoteServerPowerRestartAccess", 0x100},
    {"AdapterConfigurationBasic", 0x200},
    {"AbilityToClearEventLogs", 0x400},
    {"AdapterConfigurationAdvanced", 0x800},
    {"UEFISecurity", 0x1000},
};

std::string PrivilegeNames(uint32_t mask) {
    std::string out;
    for (const auto& p : kPrivilegeNames) {
        if ((mask & p.bit) == 0) continue;
        if (!out.empty()) out += ",";
        out += p.name;
    }
    return out;
}

bool RoleMask(const std::string& role, uint32_t* mask) {
    // Every privilege but DenyAlways; the operator lacks user management,
    // event-log clearing and the advanced and UEFI settings.
    static const std::map<std::string, uint32_t> kRoles = {
        {"Administrator", 0x1FFC},
        {"Operator", 0x8 | 0x10 | 0x40 | 0x80 | 0x100 | 0x200},
        {"ReadOnly", 0x8},
        {"NoAccess", 0x0},
    };
    auto it = kRoles.find(role);
    if (it == kRoles.end()) return false;
    *mask = it->second;
    return true;
}

namespace {

// Standard base64; false on any byte outside the alphabet or a bad length.
bool Base64Decode(const std::string& in, std::string* out) {
    if (in.size() % 4 != 0) return false;
    out->clear();
    uint32_t acc = 0;
    int bits = 0;
    size_t pad = 0;
    for (size_t i = 0; i < in.size(); ++i) {
        const char c = in[i];
        int v;
        if (c >= 'A' && c <= 'Z') {
            v = c - 'A';
        } else if (c >= 'a' && c <= 'z') {
            v = c - 'a' + 26;
        } else if (c >= '0' && c <= '9') {
            v = c - '0' + 52;
        } else if (c == '+') {
            v = 62;
        } else if (c == '/') {
            v = 63;
        } else if (c == '=' && i + 2 >= in.size()) {
            ++pad;
            continue;
        } else {
            return false;
        }
        if (pad != 0) return false;  // data after padding
        acc = (acc << 6) | static_cast<uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out->push_back(static_cast<char>((acc >> bits) & 0xFF));
        }
    }
    return true;
}

// Compares without stopping at the first difference.
bool SameText(const std::string& a, const std::string& b) {
    unsigned char diff = a.size() == b.size() ? 0 : 1;
    for (size_t i = 0; i < a.size(); ++i) {
        diff |= static_cast<unsigned char>(a[i] ^ (i < b.size() ? b[i] : 0));
    }
    return diff == 0;
}

}  // namespace

bool UserTable::Load(const std::string& path, std::string* error) {
    mUsers.clear();
    std::ifstream in(path);
    if (!in) {
        *error = "cannot read the users file " + path;
        return false;
    }
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        const size_t first = line.find(':');
        const size_t last = line.rfind(':');
        sEntry e;
        if (first == std::string::npos || first == last || first == 0) {
            *error = "users file line " + std::to_string(n) + ": not name:password:role";
            mUsers.clear();
            return false;
        }
        e.user.name = line.substr(0, first);
        e.password = line.substr(first + 1, last - first - 1);
        e.user.role = line.substr(last + 1);
        if (!RoleMask(e.user.role, &e.user.privileges)) {
            *error = "users file line " + std::to_string(n) + ": unknown role";
            mUsers.clear();
            return false;
        }
        if (!mUsers.emplace(e.user.name, e).second) {
            *error = "users file line " + std::to_string(n) + ": the user is listed twice";
            mUsers.clear();
            return false;
        }
    }
    return true;
}

bool ParseBasic(const std::string& header, std::string* name, std::string* password) {
    static const std::string kBasic = "Basic ";
    if (header.compare(0, kBasic.size(), kBasic) != 0) return false;
    std::string pair;
    if (!Base64Decode(header.substr(kBasic.size()), &pair)) return false;
    const size_t colon = pair.find(':');
    if (colon == std::string::npos) return false;
    *name = pair.substr(0, colon);
    *password = pair.substr(colon + 1);
    return true;
}

bool UserTable::Authenticate(const std::string& header, sUser* user) const {
    std::string name;
    std::string password;
    return ParseBasic(header, &name, &password) && Check(name, password, user);
}

bool UserTable::Check(const std::string& name, const std::string& password, sUser* user) const {
    auto it = mUsers.find(name);
    if (it == mUsers.end() || !SameText(it->second.password, password)) return false;
    *user = it->second.user;
    return true;
}

std::vector<sUser> UserTable::Users() const {
    std::vector<sUser> out;
    for (const auto& kv : mUsers) out.push_back(kv.second.user);
    return out;
}

}  // namespace OrbelFrontEnd
