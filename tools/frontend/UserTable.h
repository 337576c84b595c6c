// Users of the development front end: a small text file of names,
// passwords and roles, the roles' privilege sets, and HTTP Basic
// authentication against them.
//
// File format, one user a line, "#" starts a comment line:
//     name:password:role
// The name ends at the first ":", the role begins after the last one, so a
// password may hold ":". Roles: Administrator, Operator, ReadOnly, NoAccess.
//
// Threads: Load() runs before the server starts; afterwards the table is
// only read, from any number of HTTP worker threads at once. Passwords are
// kept in memory only to compare them; nothing here logs one.
#ifndef ORBEL_FRONTEND_USERTABLE_H
#define ORBEL_FRONTEND_USERTABLE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace OrbelFrontEnd {

// Privilege bits as the plug-ins read them ("&&UserPrivNumber").
struct sPrivilegeName {
    const char* name;
    uint32_t bit;
};
extern const sPrivilegeName kPrivilegeNames[12];

// The names of the bits set in `mask`, joined by ",", in bit order.
std::string PrivilegeNames(uint32_t mask);
// The mask of a role, and whether the role is known.
bool RoleMask(const std::string& role, uint32_t* mask);

struct sUser {
    std::string name;
    std::string role;
    uint32_t privileges = 0;
};

// The name and password of an "Authorization: Basic" header value; false
// when it is not one.
bool ParseBasic(const std::string& header, std::string* name, std::string* password);

class UserTable {
public:
    // Reads the file. Returns false with the reason (a line number, never a
    // password) in `*error` when it cannot be read, a line is malformed, a
    // role is unknown or a name repeats; the table is then left empty.
    bool Load(const std::string& path, std::string* error);
    size_t Size() const { return mUsers.size(); }

    // Checks an "Authorization" header value ("Basic <base64 of name:pw>").
    // Returns true and fills `*user` when it names a user with that password.
    bool Authenticate(const std::string& header, sUser* user) const;
    // Checks a name and password (a login); true and `*user` when they match.
    bool Check(const std::string& name, const std::string& password, sUser* user) const;
    // Every user, in name order (no passwords).
    std::vector<sUser> Users() const;

private:
    struct sEntry {
        std::string password;
        sUser user;
    };
    std::map<std::string, sEntry> mUsers;
};

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_USERTABLE_H
