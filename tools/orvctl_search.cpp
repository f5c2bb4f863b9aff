// orvctl_search.cpp - `orvctl search TYPE FILTER`: every search type of the
// library, as a table or as one JSON object per entry.
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>
#include <vector>

#include "orvctl.hpp"
#include "orvldap_utils.h"

namespace orvctl {
namespace {

struct Column {
    std::string header;
    int id;
};

struct SearchType {
    const char* name;
    int code;
    std::vector<Column> columns;  // the table's columns without --attrs
};

const std::vector<SearchType>& search_types() {
    static const std::vector<SearchType> types = {
        {"people", ORV_SEARCH_PEOPLE, {{"uid", 3}, {"cn", 1}, {"sn", 2}, {"mail", 6}}},
        {"groups", ORV_SEARCH_GROUPS, {{"cn", 1}, {"description", 4}, {"dn", 0}}},
        {"user-groups", ORV_SEARCH_USER_GROUPS, {{"cn", 1}, {"dn", 0}}},
        {"membership", ORV_SEARCH_USER_GROUP_MEMBERSHIP, {{"cn", 1}, {"dn", 0}}},
        {"members", ORV_SEARCH_GROUP_MEMBERS, {{"uid", 3}, {"cn", 1}, {"dn", 0}}},
        {"servers", ORV_SEARCH_APPLICATION_SERVERS,
         {{"orvFullyQualifiedObjectId", 22}, {"orvKXSToolOID", 20}, {"orvExtendedKXSAttribute", 21}}},
        {"facilities", ORV_SEARCH_APPLICATION_FACILITY,
         {{"orvFullyQualifiedObjectId", 22},
          {"orvBaseURL", 30},
          {"orvApplicationServerFacilityType", 31},
          {"orvApplicationServerFacilityStatus", 32}}},
    };
    return types;
}

const SearchType& find_type(const std::string& text) {
    for (const SearchType& t : search_types())
        if (text == t.name || text == std::to_string(t.code)) return t;
    throw UsageError("unknown search type '" + text +
                     "' (people, groups, user-groups, membership, members, servers, facilities)");
}

bool is_number(const std::string& s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](unsigned char c) { return std::isdigit(c); });
}

// One --attrs item: an attribute id, or a name (matched without regard to
// case, or through the library's attribute table).
struct Selector {
    std::string text;
    bool by_id = false;
    int id = -1;
    int mapped_id = -1;  // the table's id for a name, -1 when none
};

std::vector<Selector> parse_selectors(const std::string& list) {
    std::vector<Selector> out;
    std::size_t start = 0;
    while (start <= list.size()) {
        std::size_t comma = list.find(',', start);
        std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        item.erase(0, item.find_first_not_of(' '));
        item.erase(item.find_last_not_of(' ') + 1);
        if (!item.empty()) {
            Selector s;
            s.text = item;
            if (is_number(item)) {
                s.by_id = true;
                s.id = std::atoi(item.c_str());
            } else {
                int mapped = getMappedAttrId(item.c_str());
                s.mapped_id = mapped >= 0 && mapped != ORV_LDAPLIB_INVALID_INPUT ? mapped : -1;
            }
            out.push_back(s);
        }
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    if (out.empty()) throw UsageError("--attrs needs at least one attribute name or id");
    return out;
}

bool selects(const Selector& s, const Attribute& a) {
    if (s.by_id) return a.id == s.id;
    return strcasecmp(s.text.c_str(), a.name.c_str()) == 0 || (s.mapped_id >= 0 && a.id == s.mapped_id);
}

// Values of an attribute id as the library reads them for a client.
std::vector<std::string> values_by_id(ORVLibEntry* entry, int id) {
    std::vector<std::string> out;
    LibValues vals(orvlib_get_entry_vals(entry, id));
    if (vals)
        for (char** v = vals.get(); *v; ++v) out.emplace_back(*v);
    return out;
}

std::string join(const std::vector<std::string>& values) {
    std::string out;
    for (const std::string& v : values) out += (out.empty() ? "" : "; ") + v;
    return out;
}

std::string cell(ORVLibEntry* entry, const std::vector<Attribute>& attributes, const Selector& s) {
    if (s.by_id) return join(values_by_id(entry, s.id));
    std::vector<std::string> values;
    for (const Attribute& a : attributes)
        if (strcasecmp(s.text.c_str(), a.name.c_str()) == 0)
            values.insert(values.end(), a.values.begin(), a.values.end());
    if (values.empty() && s.mapped_id >= 0) values = values_by_id(entry, s.mapped_id);
    return join(values);
}

void print_table(const std::vector<std::string>& headers, const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> width(headers.size());
    for (std::size_t i = 0; i < headers.size(); ++i) width[i] = headers[i].size();
    for (const auto& r : rows)
        for (std::size_t i = 0; i < r.size(); ++i) width[i] = std::max(width[i], r[i].size());
    auto line = [&](const std::vector<std::string>& cells) {
        std::string out;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            out += cells[i];
            if (i + 1 < cells.size()) out += std::string(width[i] - cells[i].size() + 2, ' ');
        }
        std::printf("%s\n", out.c_str());
    };
    line(headers);
    std::vector<std::string> rule;
    for (std::size_t w : width) rule.emplace_back(w, '-');
    line(rule);
    for (const auto& r : rows) line(r);
}

}  // namespace

int cmd_search(const Args& args) {
    const SearchType& type = find_type(args.positional[0]);
    const std::string& filter = args.positional[1];
    const bool json = args.has("json");
    std::vector<Selector> selectors;
    if (args.has("attrs")) {
        selectors = parse_selectors(args.get("attrs"));
    } else {
        for (const Column& c : type.columns) {
            Selector s;
            s.text = c.header;
            s.by_id = true;
            s.id = c.id;
            selectors.push_back(s);
        }
    }

    Session session;
    if (!session.open(args.conn)) return kExitNoSession;
    LDAP* ld = session.ld();
    orvlib_enable_paging(1);

    LDAPMessage* result = nullptr;
    int status = orvlib_search_ext_s(ld, filter.c_str(), type.code, &result);
    if (status != 0) {
        orvlib_orvmessage_free(result);
        return report_failure(std::string("search ") + type.name + " '" + filter + "'", status);
    }

    std::vector<std::string> headers;
    for (const Selector& s : selectors) headers.push_back(s.text);
    std::vector<std::vector<std::string>> rows;
    std::size_t count = 0;
    ORVLibEntry* raw = nullptr;
    for (LDAPMessage* cursor = orvlib_first_entry(ld, &raw, result); cursor;
         cursor = orvlib_next_entry(ld, &raw, cursor)) {
        LibEntry entry(raw);
        raw = nullptr;
        if (!entry) continue;
        ++count;
        std::vector<Attribute> attributes = attributes_of(entry.get());
        if (json) {
            if (args.has("attrs")) {
                std::vector<Attribute> kept;
                for (const Attribute& a : attributes)
                    if (std::any_of(selectors.begin(), selectors.end(),
                                    [&](const Selector& s) { return selects(s, a); }))
                        kept.push_back(a);
                // The DN stays available to a reader even when not asked for.
                std::string dn = dn_of(attributes);
                attributes = kept;
                std::string line = entry_json(attributes);
                if (dn_of(attributes).empty() && !dn.empty())
                    line = "{\"dn\":" + json_string(dn) + line.substr(line.find(",\"attributes\""));
                std::printf("%s\n", line.c_str());
            } else {
                std::printf("%s\n", entry_json(attributes).c_str());
            }
            continue;
        }
        std::vector<std::string> row;
        for (const Selector& s : selectors) row.push_back(cell(entry.get(), attributes, s));
        rows.push_back(std::move(row));
    }
    orvlib_orvmessage_free(result);
    if (!json) {
        print_table(headers, rows);
        std::printf("%zu entr%s\n", count, count == 1 ? "y" : "ies");
    }
    return kExitOk;
}

}  // namespace orvctl
