// Query parameters of a GET in the development front end: $select,
// $top/$skip on collections and $expand (".", "*", "~" with $levels), with
// the rules of what is answered when a client asks for more
// (docs/frontend.md, "Queries").
//
// Threads: plain functions on the caller's data.
#ifndef ORBEL_FRONTEND_QUERY_H
#define ORBEL_FRONTEND_QUERY_H

#include <nlohmann/json.hpp>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace OrbelFrontEnd {

constexpr int kExpandMaxLevels = 3;
constexpr int kExpandMaxDocuments = 256;

struct sQuery {
    bool any = false;  // a supported parameter was given
    std::vector<std::string> select;  // property paths ("Status/Health")
    long top = -1;
    long skip = 0;
    char expand = 0;  // 0, '.', '*' or '~'
    int levels = 1;
};

// Why a query is refused: the HTTP status (400 or 501) and the Base message
// with its arguments.
struct sQueryFault {
    int status = 0;
    std::string messageId;
    nlohmann::json args = nlohmann::json::array();
};

// The parameters of a request target's query ("a=b&c"), split at the first
// "=" of each and percent-decoded ("$expand=.($levels=2)" stays whole).
std::multimap<std::string, std::string> QueryParams(const std::string& target);

// Reads the parameters of a request (name -> value, as decoded by the HTTP
// layer). Parameters without "$" are ignored; a "$" parameter the front end
// does not implement is 501, a malformed value 400.
bool ParseQuery(const std::multimap<std::string, std::string>& params, sQuery* q,
                sQueryFault* fault);

// Applies $expand, then $top/$skip, then $select to `doc` (whose URI is
// `uri`). `fetch` reads the document of a linked URI (false: left a link).
void ApplyQuery(const sQuery& q, const std::string& uri, nlohmann::json* doc,
                const std::function<bool(const std::string&, nlohmann::json*)>& fetch);

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_QUERY_H
