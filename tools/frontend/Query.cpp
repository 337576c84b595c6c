// $select, $top/$skip and $expand of the development front end.
#include "Query.h"

#include <cstdlib>

namespace OrbelFrontEnd {

namespace {

using nlohmann::json;

bool Fail(sQueryFault* fault, int status, const char* id, json args) {
    fault->status = status;
    fault->messageId = id;
    fault->args = std::move(args);
    return false;
}

bool Count(const std::string& text, long* out) {
    if (text.empty() || text.size() > 9) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    *out = strtol(text.c_str(), nullptr, 10);
    return true;
}

bool IsLink(const json& v) {
    return v.is_object() && v.size() == 1 && v.contains("@odata.id") && v["@odata.id"].is_string();
}

class Expander {
public:
    Expander(char mode, const std::function<bool(const std::string&, json*)>& fetch)
        : mMode(mode), mFetch(fetch) {}

    // Replaces the links of `node` (a resource's document when `top`) by
    // their documents, `levels` deep.
    void Node(json& node, int levels, bool inLinks, bool top) {
        if (levels <= 0) return;
        if (node.is_array()) {
            for (auto& e : node) Element(e, levels, inLinks);
            return;
        }
        if (!node.is_object()) return;
        for (auto it = node.begin(); it != node.end(); ++it) {
            if (it.key().find('@') != std::string::npos) continue;  // annotations
            Element(it.value(), levels, inLinks || (top && it.key() == "Links"));
        }
    }

private:
    void Element(json& v, int levels, bool inLinks) {
        if (IsLink(v)) {
            const bool wanted = mMode == '*' || (mMode == '~') == inLinks;
            if (!wanted || mFetched >= kExpandMaxDocuments) return;
            json doc;
            ++mFetched;
            if (!mFetch(v["@odata.id"].get<std::string>(), &doc) || !doc.is_object()) return;
            Node(doc, levels - 1, false, true);
            v = std::move(doc);
        } else if (v.is_structured()) {
            Node(v, levels, inLinks, false);
        }
    }

    const char mMode;
    const std::function<bool(const std::string&, json*)>& mFetch;
    int mFetched = 0;
};

// Copies the value at `path` ("A/B") of `from` into `to`.
void CopyPath(const json& from, const std::string& path, json* to) {
    const size_t slash = path.find('/');
    const std::string head = path.substr(0, slash);
    if (!from.is_object() || !from.contains(head)) return;
    if (slash == std::string::npos) {
        (*to)[head] = from[head];
        return;
    }
    if (!to->contains(head) || !(*to)[head].is_object()) (*to)[head] = json::object();
    CopyPath(from[head], path.substr(slash + 1), &(*to)[head]);
}

}  // namespace

std::multimap<std::string, std::string> QueryParams(const std::string& target) {
    std::multimap<std::string, std::string> out;
    const size_t q = target.find('?');
    if (q == std::string::npos) return out;
    auto decode = [](const std::string& in) {
        std::string o;
        for (size_t i = 0; i < in.size(); ++i) {
            if (in[i] == '%' && i + 2 < in.size() && isxdigit(static_cast<unsigned char>(in[i + 1])) &&
                isxdigit(static_cast<unsigned char>(in[i + 2]))) {
                o += static_cast<char>(strtol(in.substr(i + 1, 2).c_str(), nullptr, 16));
                i += 2;
            } else {
                o += in[i] == '+' ? ' ' : in[i];
            }
        }
        return o;
    };
    const std::string query = target.substr(q + 1);
    for (size_t at = 0; at <= query.size();) {
        size_t amp = query.find('&', at);
        if (amp == std::string::npos) amp = query.size();
        const std::string pair = query.substr(at, amp - at);
        if (!pair.empty()) {
            const size_t eq = pair.find('=');
            out.emplace(decode(pair.substr(0, eq)),
                        eq == std::string::npos ? std::string() : decode(pair.substr(eq + 1)));
        }
        at = amp + 1;
    }
    return out;
}

bool ParseQuery(const std::multimap<std::string, std::string>& params, sQuery* q,
                sQueryFault* fault) {
    for (const auto& p : params) {
        const std::string& name = p.first;
        const std::string& value = p.second;
        // Unknown parameters without "$" are ignored.
        if (name.empty() || name[0] != '$') continue;
        q->any = true;
        if (name == "$top" || name == "$skip") {
            long n = 0;
            if (!Count(value, &n)) {
                return Fail(fault, 400, "Base.1.12.QueryParameterValueFormatError", {value, name});
            }
            (name == "$top" ? q->top : q->skip) = n;
        } else if (name == "$select") {
            size_t at = 0;
            while (at <= value.size()) {
                const size_t comma = value.find(',', at);
                const std::string path = value.substr(at, comma - at);
                bool ok = !path.empty() && path.front() != '/' && path.back() != '/';
                for (char c : path) {
                    ok = ok && (isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '/' ||
                                c == '@' || c == '.' || c == '#');
                }
                if (!ok) {
                    return Fail(fault, 400, "Base.1.12.QueryParameterValueFormatError",
                                {value, name});
                }
                q->select.push_back(path);
                if (comma == std::string::npos) break;
                at = comma + 1;
            }
        } else if (name == "$expand") {
            if (value.empty() || (value[0] != '.' && value[0] != '*' && value[0] != '~')) {
                return Fail(fault, 400, "Base.1.12.QueryParameterValueFormatError", {value, name});
            }
            q->expand = value[0];
            q->levels = 1;
            const std::string rest = value.substr(1);
            if (!rest.empty()) {
                long n = 0;
                const std::string kLevels = "($levels=";
                if (rest.compare(0, kLevels.size(), kLevels) != 0 || rest.back() != ')' ||
                    !Count(rest.substr(kLevels.size(), rest.size() - kLevels.size() - 1), &n)) {
                    return Fail(fault, 400, "Base.1.12.QueryParameterValueFormatError",
                                {value, name});
                }
                if (n < 1 || n > kExpandMaxLevels) {
                    return Fail(fault, 400, "Base.1.12.QueryParameterOutOfRange",
                                {value, name, "1 to " + std::to_string(kExpandMaxLevels)});
                }
                q->levels = static_cast<int>(n);
            }
        } else {
            // $filter, $count, $levels alone, ...: not implemented.
            return Fail(fault, 501, "Base.1.12.QueryNotSupported", json::array());
        }
    }
    return true;
}

void ApplyQuery(const sQuery& q, const std::string& uri, json* doc,
                const std::function<bool(const std::string&, json*)>& fetch) {
    if (!doc->is_object()) return;
    json& d = *doc;
    if ((q.top >= 0 || q.skip > 0) && d.contains("Members") && d["Members"].is_array()) {
        const json all = d["Members"];
        const size_t total = all.size();
        const size_t from = static_cast<size_t>(q.skip) < total ? static_cast<size_t>(q.skip) : total;
        size_t to = total;
        if (q.top >= 0 && from + static_cast<size_t>(q.top) < total) to = from + static_cast<size_t>(q.top);
        d["Members"] = json(all.begin() + static_cast<long>(from), all.begin() + static_cast<long>(to));
        if (to < total) {
            std::string next = uri + "?$skip=" + std::to_string(to);
            if (q.top >= 0) next += "&$top=" + std::to_string(q.top);
            d["Members@odata.nextLink"] = next;
        }
    }
    if (q.expand != 0) {
        Expander e(q.expand, fetch);
        e.Node(d, q.levels, false, true);
    }
    if (!q.select.empty()) {
        json out = json::object();
        for (const char* keep : {"@odata.context", "@odata.id", "@odata.type", "@odata.etag"}) {
            if (d.contains(keep)) out[keep] = d[keep];
        }
        for (const auto& path : q.select) CopyPath(d, path, &out);
        d = std::move(out);
    }
}

}  // namespace OrbelFrontEnd
