// orbel-template: writes a user-input template file from a Redfish JSON
// schema, so that a plug-in author starts from the published schema instead
// of writing a long template by hand.
//
//   orbel-template [-d DIR] [-t DEFINITION] [-k KEEP] [-D] [-o OUT] SCHEMA.json
//
// SCHEMA.json is a versioned (or unversioned) schema file; DIR (default: the
// file's directory) holds the files its "$ref"s name. DEFINITION is the
// definition to describe (default: the one the file's "$ref" names). KEEP
// narrows the template to what the plug-in accepts (a keep list of writable
// properties, with optional attribute strings of their own); -D keeps enum
// values the schema marks deprecated. The template goes to OUT, or to
// standard output. The written text is loaded with the library's own parser
// before the tool reports success.
//
// docs/templates.md ("Templates from schemas") gives the mapping. Exit
// status: 0 written, 1 the schema or the keep list could not be read or
// applied, 2 usage.
#include <getopt.h>
#include <regex.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Orbel.h"
#include "ZUserInputTemplate.h"

using json = nlohmann::ordered_json;

namespace {

constexpr unsigned kMaxDepth = 24;  // below the parser's block limit

// What a schema says about one property, as the template needs it.
struct Prop {
    std::set<char> types;  // template type letters
    bool readonly = false;
    bool readonlyGiven = false;  // the schema said so explicitly
    bool createRequired = false;
    bool actionRequired = false;
    bool isAction = false;  // an action's parameter object
    bool isLink = false;    // an object holding "@odata.id"
    bool hasMin = false, hasMax = false;
    double min = 0, max = 0;
    std::vector<std::string> enums;
    std::string pattern;
    std::vector<std::pair<std::string, Prop>> children;  // objects
    std::unique_ptr<Prop> item;                          // arrays
};

void Warn(const std::string& text) {
    std::cerr << "orbel-template: " << text << "\n";
}

std::string Stem(const std::string& file) {
    return file.substr(0, file.find('.'));
}

// ECMAScript pattern into POSIX extended: \d and \D have no POSIX form.
// Empty when the result does not compile.
std::string PosixPattern(const std::string& ecma) {
    std::string out;
    bool inBracket = false;
    for (size_t i = 0; i < ecma.size(); ++i) {
        const char c = ecma[i];
        if (c == '\\' && i + 1 < ecma.size()) {
            const char n = ecma[++i];
            if (n == 'd') {
                out += inBracket ? "0-9" : "[0-9]";
            } else if (n == 'D' && !inBracket) {
                out += "[^0-9]";
            } else {
                out += c;
                out += n;
            }
            continue;
        }
        if (c == '[') inBracket = true;
        if (c == ']') inBracket = false;
        out += c;
    }
    regex_t re;
    if (regcomp(&re, out.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return std::string();
    regfree(&re);
    return out;
}

bool NumberText(double value, std::string& out) {
    if (!std::isfinite(value) || std::fabs(value) >= 1e15) return false;
    char buf[64];
    if (value == std::floor(value)) {
        std::snprintf(buf, sizeof(buf), "%.0f", value);
    } else {
        std::snprintf(buf, sizeof(buf), "%.6f", value);
        std::string s = buf;
        while (!s.empty() && s.back() == '0') s.pop_back();
        out = s;
        return true;
    }
    out = buf;
    return true;
}

class Generator {
public:
    explicit Generator(std::string dir) : mDir(std::move(dir)) {}

    const json* File(const std::string& name) {
        auto it = mFiles.find(name);
        if (it != mFiles.end()) return it->second.get();
        std::unique_ptr<json> doc;
        std::ifstream in(mDir + "/" + name);
        if (in) {
            json parsed = json::parse(in, nullptr, false);
            if (!parsed.is_discarded()) doc = std::make_unique<json>(std::move(parsed));
        }
        const json* result = doc.get();
        mFiles[name] = std::move(doc);
        return result;
    }

    // The node a "$ref" names, with the file it lies in; null when absent.
    const json* Resolve(const std::string& ref, const std::string& from, std::string& file,
                        std::string& definition) {
        const size_t hash = ref.find('#');
        std::string uri = hash == std::string::npos ? ref : ref.substr(0, hash);
        const std::string pointer = hash == std::string::npos ? "" : ref.substr(hash + 1);
        file = uri.empty() ? from : uri.substr(uri.rfind('/') + 1);
        const size_t slash = pointer.rfind('/');
        definition = slash == std::string::npos ? "" : pointer.substr(slash + 1);
        const json* doc = File(file);
        if (doc == nullptr) return nullptr;
        try {
            const json& node = doc->at(json::json_pointer(pointer));
            return &node;
        } catch (const std::exception&) {
            return nullptr;
        }
    }

    void KeepDeprecated(bool keep) { mKeepDeprecated = keep; }

    // A reference to a resource definition (a type's main definition, in its
    // unversioned or a versioned file, of any type including the described
    // one) or the generic reference is a link: an object holding
    // "@odata.id". Only the chain that leads to the described definition
    // itself is followed, never a link inside it.
    static bool IsLinkRef(const std::string& file, const std::string& definition) {
        if (Stem(file) == "odata-v4" && definition == "idRef") return true;
        return Stem(file) == definition;
    }

    // Links are read-only unless the property says otherwise.
    static Prop Link() {
        Prop p;
        p.isLink = true;
        p.readonly = true;
        p.types.insert('o');
        Prop id;
        id.types.insert('S');
        p.children.emplace_back("@odata.id", std::move(id));
        return p;
    }

    // `root`: `node` is the described definition or on the chain of
    // references that leads to it, not a property inside it.
    bool Describe(const json& node, const std::string& file, unsigned depth, Prop& out,
                  bool root = false) {
        if (depth > kMaxDepth) {
            Warn("nesting deeper than " + std::to_string(kMaxDepth) + " in " + file);
            return false;
        }
        if (!node.is_object()) return false;
        if (node.contains("$ref") && node["$ref"].is_string()) {
            std::string refFile, definition;
            const std::string ref = node["$ref"].get<std::string>();
            const json* target = Resolve(ref, file, refFile, definition);
            if (!root && IsLinkRef(refFile, definition)) {
                out = Link();
            } else if (target == nullptr) {
                // Unknown shape: an object without members, which no client
                // can write; the author fills it in.
                Warn("cannot resolve " + ref + "; described as an object without properties");
                out.types.insert('o');
            } else if (mExpanding.count(ref) != 0) {
                Warn("recursive " + ref + "; described as an object without properties");
                out.types.insert('o');
            } else {
                mExpanding.insert(ref);
                const bool ok = Describe(*target, refFile, depth + 1, out, root);
                mExpanding.erase(ref);
                if (!ok) return false;
            }
        }
        if (node.contains("anyOf") && node["anyOf"].is_array()) {
            bool nullable = false;
            const json* chosen = nullptr;
            for (const json& option : node["anyOf"]) {
                if (option.is_object() && option.value("type", json()) == "null") {
                    nullable = true;
                    continue;
                }
                // Versioned alternatives: the newest one present wins.
                if (option.contains("$ref") && option["$ref"].is_string()) {
                    std::string f, d;
                    const std::string ref = option["$ref"].get<std::string>();
                    const bool found = Resolve(ref, file, f, d) != nullptr;
                    // The described definition itself is never the generic link.
                    if (root && Stem(f) == "odata-v4") continue;
                    if (found || (!root && IsLinkRef(f, d))) {
                        if (!(chosen != nullptr && Stem(f) == "odata-v4")) chosen = &option;
                    }
                } else {
                    chosen = &option;
                }
            }
            if (chosen != nullptr && !Describe(*chosen, file, depth + 1, out, root)) return false;
            if (nullable) out.types.insert('n');
        }
        if (node.contains("readonly") && node["readonly"].is_boolean()) {
            out.readonly = node["readonly"].get<bool>();
            out.readonlyGiven = true;
        }
        _Types(node, out);
        _Limits(node, out);
        if (node.contains("properties") && node["properties"].is_object()) {
            out.types.insert('o');
            std::set<std::string> required;
            if (node.contains("requiredOnCreate") && node["requiredOnCreate"].is_array()) {
                for (const json& n : node["requiredOnCreate"]) {
                    if (n.is_string()) required.insert(n.get<std::string>());
                }
            }
            // An action's own properties (target, title) are not input.
            const bool action = node.contains("parameters") && node["parameters"].is_object();
            const json& members = action ? node["parameters"] : node["properties"];
            out.children.clear();
            out.isAction = action;
            for (const auto& member : members.items()) {
                const std::string& name = member.key();
                if (name.empty() || name.find_first_of("'/") != std::string::npos || name == "{}") {
                    Warn("property [" + name + "] cannot be named in a template; left out");
                    continue;
                }
                Prop child;
                if (!Describe(member.value(), file, depth + 1, child)) return false;
                child.createRequired = required.count(name) != 0;
                if (action) {
                    child.actionRequired = member.value().value("requiredParameter", false);
                }
                out.children.emplace_back(name, std::move(child));
            }
        }
        if (node.contains("items") && node["items"].is_object()) {
            out.types.insert('a');
            auto item = std::make_unique<Prop>();
            if (!Describe(node["items"], file, depth + 1, *item)) return false;
            // Links in an array that the schema says is writable are writable.
            if (item->isLink && !item->readonlyGiven && out.readonlyGiven && !out.readonly) {
                item->readonly = false;
            }
            out.item = std::move(item);
        }
        return true;
    }

private:
    static void _Types(const json& node, Prop& out) {
        if (!node.contains("type")) {
            if (node.contains("enum")) out.types.insert('S');
            return;
        }
        std::vector<std::string> names;
        if (node["type"].is_string()) names.push_back(node["type"].get<std::string>());
        if (node["type"].is_array()) {
            for (const json& t : node["type"]) {
                if (t.is_string()) names.push_back(t.get<std::string>());
            }
        }
        const bool unsignedOnly = node.contains("minimum") && node["minimum"].is_number() &&
                                  node["minimum"].get<double>() >= 0;
        for (const std::string& t : names) {
            if (t == "string") out.types.insert('S');
            if (t == "boolean") out.types.insert('b');
            if (t == "integer") out.types.insert(unsignedOnly ? 'u' : 's');
            if (t == "number") out.types.insert('f');
            if (t == "object") out.types.insert('o');
            if (t == "array") out.types.insert('a');
            if (t == "null") out.types.insert('n');
        }
    }

    void _Limits(const json& node, Prop& out) const {
        auto number = [&](const char* key, bool& has, double& value) {
            if (node.contains(key) && node[key].is_number()) {
                has = true;
                value = node[key].get<double>();
            }
        };
        number("minimum", out.hasMin, out.min);
        number("maximum", out.hasMax, out.max);
        number("minLength", out.hasMin, out.min);
        number("maxLength", out.hasMax, out.max);
        number("minItems", out.hasMin, out.min);
        number("maxItems", out.hasMax, out.max);
        if (node.contains("enum") && node["enum"].is_array()) {
            out.enums.clear();
            // A deprecated value is one a client should no longer send.
            const json* deprecated = nullptr;
            if (!mKeepDeprecated && node.contains("enumDeprecated") &&
                node["enumDeprecated"].is_object()) {
                deprecated = &node["enumDeprecated"];
            }
            for (const json& e : node["enum"]) {
                if (!e.is_string()) continue;
                const std::string value = e.get<std::string>();
                if (deprecated == nullptr || !deprecated->contains(value)) out.enums.push_back(value);
            }
        }
        if (node.contains("pattern") && node["pattern"].is_string()) {
            const std::string ecma = node["pattern"].get<std::string>();
            out.pattern = PosixPattern(ecma);
            if (out.pattern.empty()) Warn("pattern [" + ecma + "] has no POSIX form; left out");
        }
    }

    std::string mDir;
    std::map<std::string, std::unique_ptr<json>> mFiles;
    std::set<std::string> mExpanding;
    bool mKeepDeprecated = false;
};

// ---------------------------------------------------------------------------
// Narrowing: the author's keep list
// ---------------------------------------------------------------------------

// What the plug-in accepts, by template JPath ("/Boot/BootOrder/{}"): the
// writable properties to keep, each with an attribute string that replaces
// the generated one ("" keeps the generated one).
struct KeepList {
    bool given = false;
    std::map<std::string, std::string> entries;
    bool actionsListed = false;  // an entry under /Actions restricts the actions
};

// One entry per line: a JPath, then optionally blanks and an attribute
// string. Blank lines and lines whose first character is "#" are comments.
bool ReadKeepList(const std::string& path, KeepList& keep) {
    std::ifstream in(path);
    if (!in) {
        Warn("cannot read keep list " + path + " (option -k)");
        return false;
    }
    keep.given = true;
    std::string line;
    for (unsigned n = 1; std::getline(in, line); ++n) {
        const size_t start = line.find_first_not_of(" \t\r");
        if (start == std::string::npos || line[start] == '#') continue;
        const size_t end = line.find_first_of(" \t\r", start);
        const std::string jpath = line.substr(start, end - start);
        std::string attr;
        if (end != std::string::npos) {
            const size_t a = line.find_first_not_of(" \t\r", end);
            if (a != std::string::npos) attr = line.substr(a, line.find_last_not_of(" \t\r") + 1 - a);
        }
        if (jpath.size() < 2 || jpath[0] != '/' || jpath.back() == '/') {
            Warn(path + ":" + std::to_string(n) + ": [" + jpath + "] is not a template JPath");
            return false;
        }
        keep.entries[jpath] = attr;
        if (jpath.compare(0, 9, "/Actions/") == 0) keep.actionsListed = true;
    }
    return true;
}

void CollectPaths(const Prop& p, const std::string& path, std::set<std::string>& paths) {
    paths.insert(path);
    for (const auto& child : p.children) CollectPaths(child.second, path + "/" + child.first, paths);
    if (p.item != nullptr) CollectPaths(*p.item, path + "/{}", paths);
}

bool HasKeptBelow(const KeepList& keep, const std::string& path) {
    auto it = keep.entries.lower_bound(path + "/");
    return it != keep.entries.end() && it->first.compare(0, path.size() + 1, path + "/") == 0;
}

// Makes what the keep list does not name read-only (and drops actions it
// does not name, once it names one). False: drop `p` from its parent.
bool Narrow(Prop& p, const std::string& path, const KeepList& keep, bool inActions) {
    if (keep.entries.count(path) != 0) return true;
    if (!path.empty() && !HasKeptBelow(keep, path)) {
        if (inActions) return !keep.actionsListed;
        p.readonly = true;
        return true;
    }
    for (auto it = p.children.begin(); it != p.children.end();) {
        const bool actions = inActions || path == "/Actions";
        if (Narrow(it->second, path + "/" + it->first, keep, actions)) {
            ++it;
        } else {
            it = p.children.erase(it);
        }
    }
    if (p.item != nullptr) Narrow(*p.item, path + "/{}", keep, inActions);
    return true;
}

// ---------------------------------------------------------------------------
// Writing
// ---------------------------------------------------------------------------

// Attribute strings the keep list gives instead of the generated ones.
const std::map<std::string, std::string>* gOverrides = nullptr;

enum class Mode { Normal, ReadOnly, Action };

// Whether a client may write `p`: a scalar unless it is read-only; an
// object when one of its members is (never one whose members are not
// described, such as Oem); an array as the schema says, or else as its item.
bool Writable(const Prop& p) {
    if (p.readonly) return false;
    if (p.types.count('a') != 0) {
        if (p.readonlyGiven || p.item == nullptr) return true;
        return Writable(*p.item);
    }
    if (p.types.count('o') != 0) {
        for (const auto& child : p.children) {
            if (Writable(child.second)) return true;
        }
        return false;
    }
    return true;
}

std::string Methods(const Prop& p, Mode mode) {
    if (mode == Mode::Action) return p.actionRequired ? "ar" : "a";
    std::string m;
    if (mode == Mode::Normal && Writable(p))
        m = p.createRequired ? "p,cr" : "p,c";
    else if (p.createRequired)
        m = "cr";
    return m;
}

std::string Attr(const std::string& name, const Prop& p, Mode mode, const std::string& path) {
    if (gOverrides != nullptr) {
        auto it = gOverrides->find(path);
        if (it != gOverrides->end() && !it->second.empty()) return it->second;
    }
    static const char kOrder[] = "SbusfoaiN";
    std::string types;
    for (const char* c = kOrder; *c != '\0'; ++c) {
        const char letter = *c == 'N' ? 'n' : *c;
        if (p.types.count(letter) == 0) continue;
        if (!types.empty()) types += ',';
        types += letter;
    }
    if (types.empty()) types = "i";  // a schema that says nothing: accepted unchecked
    std::string limits;
    auto add = [&limits](const std::string& item) {
        if (!limits.empty()) limits += ',';
        limits += item;
    };
    std::string number;
    if (p.hasMin && !(p.hasMax && p.min > p.max) && NumberText(p.min, number)) add("m:" + number);
    if (p.hasMax && NumberText(p.max, number)) add("M:" + number);
    bool enumOk = !p.enums.empty() && types.find_first_of("fsu") == std::string::npos;
    for (const std::string& e : p.enums) {
        // Items end at ',' and at the next limit title.
        if (e.empty() || e.find_first_of(",'") != std::string::npos ||
            (e.size() > 1 && e[1] == ':' && std::string("mMep").find(e[0]) != std::string::npos)) {
            enumOk = false;
        }
    }
    if (enumOk) {
        std::string items;
        for (const std::string& e : p.enums) items += (items.empty() ? "" : ",") + e;
        add("e:" + items);
    }
    if (!p.pattern.empty() && p.pattern.find('\'') == std::string::npos) add("p:" + p.pattern);
    const std::string flags = Orbel::IsSecretLikeName(name) ? "s" : "";
    return types + "@" + Methods(p, mode) + "@" + flags + "@" + limits;
}

void WriteEntries(std::ostream& out, const std::vector<std::pair<std::string, Prop>>& members,
                  Mode mode, unsigned indent, const std::string& parent);

// The block that follows an entry or an item: members of an object, or the
// item of an array.
void WriteBlock(std::ostream& out, const std::string& name, const Prop& p, Mode mode,
                unsigned indent, const std::string& path) {
    const std::string pad(indent * 2, ' ');
    if (p.types.count('a') != 0) {
        if (p.item == nullptr) {
            out << " [ ]";
            return;
        }
        out << " [ '" << Attr(name, *p.item, mode, path + "/{}") << "'";
        WriteBlock(out, name, *p.item, mode, indent, path + "/{}");
        out << " ]";
        return;
    }
    if (p.types.count('o') != 0 && !p.children.empty()) {
        out << " {\n";
        WriteEntries(out, p.children, mode, indent + 1, path);
        out << "\n" << pad << "}";
    }
}

void WriteEntries(std::ostream& out, const std::vector<std::pair<std::string, Prop>>& members,
                  Mode mode, unsigned indent, const std::string& parent) {
    const std::string pad(indent * 2, ' ');
    bool first = true;
    for (const auto& member : members) {
        const Prop& p = member.second;
        Mode childMode = mode;
        if (mode == Mode::Normal && !Writable(p)) childMode = Mode::ReadOnly;
        if (member.first == "Actions" && mode == Mode::Normal) childMode = Mode::Action;
        if (!first) out << ",\n";
        first = false;
        // The actions object takes the actions, whose parameters follow.
        const std::string path = parent + "/" + member.first;
        const std::string attr = member.first == "Actions" && mode == Mode::Normal
                                     ? "o@a@@"
                                     : Attr(member.first, p, childMode, path);
        out << pad << "'" << member.first << "':'" << attr << "'";
        WriteBlock(out, member.first, p, childMode, indent, path);
    }
}

const char kUsage[] =
    "usage: orbel-template [-d DIR] [-t DEFINITION] [-k KEEP] [-D] [-o OUT] SCHEMA.json\n";

void Usage() { std::cerr << kUsage; }

void Help() {
    std::cout << kUsage
              << "\n"
                 "Writes a user-input template from a Redfish JSON schema.\n"
                 "\n"
                 "Options:\n"
                 "  -d DIR         directory of the files the schema's $refs name\n"
                 "                 (default: the schema file's directory)\n"
                 "  -t DEFINITION  the definition to describe (default: the one the file's\n"
                 "                 $ref names; for an unversioned file its newest version)\n"
                 "  -k KEEP        narrow the template: KEEP lists the writable properties\n"
                 "                 the plug-in accepts, one template JPath a line, each\n"
                 "                 optionally followed by an attribute string replacing\n"
                 "                 the generated one; every other property is read-only.\n"
                 "                 Entries under /Actions/ keep only the actions named.\n"
                 "  -D             keep enum values that the schema marks deprecated\n"
                 "  -o OUT         write the template to OUT (default: standard output)\n"
                 "  -h             print this help\n"
                 "\n"
                 "Example:\n"
                 "  cat > chassis.keep <<'EOF'\n"
                 "  /AssetTag\n"
                 "  /IndicatorLED  S@p@@e:Lit,Off\n"
                 "  /Actions/#Chassis.Reset\n"
                 "  EOF\n"
                 "  orbel-template -d json-schema -k chassis.keep -o Chassis.dat \\\n"
                 "      json-schema/Chassis.v1_28_0.json\n"
                 "\n"
                 "Exit status: 0 written, 1 the schema or keep list could not be used, 2 usage.\n";
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir, definition, outPath, keepPath;
    bool keepDeprecated = false;
    int opt;
    while ((opt = getopt(argc, argv, "d:t:o:k:Dh")) != -1) {
        switch (opt) {
            case 'd':
                dir = optarg;
                break;
            case 't':
                definition = optarg;
                break;
            case 'o':
                outPath = optarg;
                break;
            case 'k':
                keepPath = optarg;
                break;
            case 'D':
                keepDeprecated = true;
                break;
            case 'h':
                Help();
                return 0;
            default:
                Usage();
                return 2;
        }
    }
    if (optind + 1 != argc) {
        Usage();
        return 2;
    }
    const std::string schemaPath = argv[optind];
    const size_t slash = schemaPath.rfind('/');
    const std::string file = slash == std::string::npos ? schemaPath : schemaPath.substr(slash + 1);
    if (dir.empty()) dir = slash == std::string::npos ? "." : schemaPath.substr(0, slash);

    KeepList keep;
    if (!keepPath.empty() && !ReadKeepList(keepPath, keep)) return 1;

    Generator gen(dir);
    gen.KeepDeprecated(keepDeprecated);
    const json* doc = gen.File(file);
    if (doc == nullptr) {
        std::cerr << "orbel-template: cannot read JSON schema " << dir << "/" << file << "\n";
        return 1;
    }
    std::string ref;
    if (!definition.empty()) {
        ref = "#/definitions/" + definition;
    } else if (doc->contains("$ref") && (*doc)["$ref"].is_string()) {
        ref = (*doc)["$ref"].get<std::string>();
    } else {
        std::cerr << "orbel-template: " << file << " names no definition; use -t\n";
        return 1;
    }
    std::string rootFile, rootName;
    const json* root = gen.Resolve(ref, file, rootFile, rootName);
    if (root == nullptr) {
        std::cerr << "orbel-template: no definition " << ref << " in " << file << "\n";
        return 1;
    }
    // An unversioned schema's definition lists its versions: the newest present.
    Prop top;
    if (!gen.Describe(*root, rootFile, 0, top, true) || top.children.empty()) {
        std::cerr << "orbel-template: " << ref << " describes no properties\n";
        return 1;
    }
    if (keep.given) {
        std::set<std::string> paths;
        CollectPaths(top, "", paths);
        for (const auto& entry : keep.entries) {
            if (paths.count(entry.first) == 0) {
                std::cerr << "orbel-template: " << keepPath << ": " << rootName
                          << " has no property " << entry.first << "\n";
                return 1;
            }
        }
        Narrow(top, "", keep, false);
        gOverrides = &keep.entries;
    }

    std::ostringstream text;
    text << "{\n";
    WriteEntries(text, top.children, Mode::Normal, 1, "");
    text << "\n}\n";

    Orbel::ZUserInputTemplate::sParsed parsed;
    if (Orbel::ZUserInputTemplate::ParseTemplateText(text.str(), rootName, "(generated)", parsed) !=
        Orbel::RT_SUCCESS) {
        std::cerr << "orbel-template: the written template does not load (see above)\n";
        return 1;
    }
    if (outPath.empty()) {
        std::cout << text.str();
        return 0;
    }
    const size_t outSlash = outPath.rfind('/');
    if (outSlash != std::string::npos && outSlash > 0) {
        Orbel::CreateDirTree(outPath.substr(0, outSlash));
    }
    if (!Orbel::WriteWholeFile(outPath, text.str())) {
        std::cerr << "orbel-template: cannot write " << outPath << "\n";
        return 1;
    }
    return 0;
}
