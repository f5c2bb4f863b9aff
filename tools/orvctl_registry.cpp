// orvctl_registry.cpp - `orvctl registry ...` (application servers, their
// facilities and the URLs built from them) and `orvctl db ...` (databases
// of the client application and their access roles).
#include <cstdlib>
#include <string>
#include <vector>

#include "orvctl.hpp"
#include "orvldap_registry.h"

namespace orvctl {
namespace {

struct Named {
    const char* name;
    unsigned long id;
};

const std::vector<Named> kFacilityTypes = {
    {"rich-client", ORV_FACILITY_RICH_CLIENT},
    {"web-client", ORV_FACILITY_WEB_CLIENT},
    {"web-service", ORV_FACILITY_WEB_SERVICE},
    {"internal", ORV_FACILITY_APPLICATION_INTERNAL_1},
};
const std::vector<Named> kFacilityStates = {
    {"on", ORV_FACILITY_STATUS_ON},
    {"off", ORV_FACILITY_STATUS_OFF},
};

unsigned long named_id(const std::vector<Named>& table, const std::string& text, const char* what) {
    std::string known;
    for (const Named& n : table) {
        if (text == n.name || text == std::to_string(n.id)) return n.id;
        known += std::string(known.empty() ? "" : ", ") + n.name;
    }
    throw UsageError(std::string("unknown ") + what + " '" + text + "' (" + known + ")");
}

// TOOL is 2..8 (ORV_TOOL_2..ORV_TOOL_8) or the library's id 23..29.  Other
// numbers go to the library unchanged, which refuses them.
unsigned long tool_id(const std::string& text) {
    char* end = nullptr;
    unsigned long v = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0') throw UsageError("TOOL must be a number, not '" + text + "'");
    return (v >= 2 && v <= 8) ? ORV_TOOL_2 + (v - 2) : v;
}

std::vector<std::string> split_list(const std::string& list) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start <= list.size()) {
        std::size_t comma = list.find(',', start);
        std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (!item.empty()) out.push_back(item);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return out;
}

void show(const Args& args, const ORVLibEntry* entry) {
    std::vector<Attribute> attributes = attributes_of(entry);
    if (args.has("json"))
        std::printf("%s\n", entry_json(attributes).c_str());
    else
        print_entry(stdout, attributes);
}

// Every entry of one registry search (5006 servers, 5007 facilities).
int registry_search(LDAP* ld, const std::string& filter, int type, std::vector<LibEntry>& out) {
    LDAPMessage* result = nullptr;
    int status = orvlib_search_ext_s(ld, filter.c_str(), type, &result);
    if (status == 0) {
        ORVLibEntry* raw = nullptr;
        for (LDAPMessage* cursor = orvlib_first_entry(ld, &raw, result); cursor;
             cursor = orvlib_next_entry(ld, &raw, cursor)) {
            if (raw) out.emplace_back(raw);
            raw = nullptr;
        }
    }
    orvlib_orvmessage_free(result);
    return status;
}

std::string first_value(const ORVLibEntry* entry, int id) {
    for (const Attribute& a : attributes_of(entry))
        if (a.id == id && !a.values.empty()) return a.values.front();
    return "";
}

// The server registered under id, or an empty owner with the exit status
// already reported.
LibEntry find_server(LDAP* ld, const std::string& id, int& exit_code) {
    std::vector<LibEntry> found;
    int status = registry_search(ld, "orvFullyQualifiedObjectId=" + id, ORV_SEARCH_APPLICATION_SERVERS, found);
    if (status != 0) {
        exit_code = report_failure("server '" + id + "'", status);
        return nullptr;
    }
    if (found.empty()) {
        print_error("no server registered as '" + id + "'");
        exit_code = kExitFailed;
        return nullptr;
    }
    return std::move(found.front());
}

std::string server_rdn(const std::string& id) { return "orvFullyQualifiedObjectId=" + id; }

int registry_register(LDAP* ld, const Args& args) {
    if (args.positional.size() < 2 || args.positional.size() > 3)
        throw UsageError("registry register TOOL [SERVER_ID]");
    const unsigned long tool = tool_id(args.positional[1]);
    std::vector<std::string> extended = split_list(args.get("extended"));
    std::vector<const char*> ids;
    for (const std::string& e : extended) ids.push_back(e.c_str());
    ids.push_back(nullptr);
    // A refused tool id releases the server id given: hand over the
    // library's own copy.
    char* server_id = args.positional.size() == 3 ? _orvlib_dupString(args.positional[2].c_str()) : nullptr;
    LibString known_tool(getToolOIDFromID(tool));
    LibEntry entry(orvlib_register_application_server(ld, tool, server_id, extended.empty() ? nullptr : ids.data()));
    if (known_tool) orvlib_memfree(server_id);
    if (!entry) return report_failure("register server", ldapErrCode);
    show(args, entry.get());
    return kExitOk;
}

int registry_facility(LDAP* ld, const Args& args) {
    if (args.positional.size() != 2) throw UsageError("registry facility SERVER_ID");
    const unsigned long type = named_id(kFacilityTypes, args.get("type", "web-client"), "facility type");
    const unsigned long state = named_id(kFacilityStates, args.get("status", "on"), "facility status");
    int code = kExitOk;
    LibEntry server = find_server(ld, args.positional[1], code);
    if (!server) return code;
    const std::string url = args.get("url");
    LibEntry facility(orvlib_add_application_facility(ld, server.get(), args.has("url") ? url.c_str() : nullptr,
                                                      state, type));
    if (!facility) return report_failure("add facility", ldapErrCode);
    show(args, facility.get());
    return kExitOk;
}

int registry_remove(LDAP* ld, const Args& args) {
    if (args.positional.size() < 2 || args.positional.size() > 3)
        throw UsageError("registry remove SERVER_ID [FACILITY_ID]");
    int code = kExitOk;
    LibEntry server = find_server(ld, args.positional[1], code);
    if (!server) return code;
    if (args.positional.size() == 2) {
        int status = orvlib_remove_object_entry(ld, server.get());
        if (status != 0) return report_failure("remove server '" + args.positional[1] + "'", status);
        std::printf("removed server %s and its facilities\n", args.positional[1].c_str());
        return kExitOk;
    }
    std::vector<LibEntry> facilities;
    int status = registry_search(ld, server_rdn(args.positional[1]), ORV_SEARCH_APPLICATION_FACILITY, facilities);
    if (status != 0) return report_failure("facilities of '" + args.positional[1] + "'", status);
    for (const LibEntry& f : facilities) {
        if (first_value(f.get(), 22) != args.positional[2]) continue;
        status = orvlib_remove_object_entry(ld, f.get());
        if (status != 0) return report_failure("remove facility '" + args.positional[2] + "'", status);
        std::printf("removed facility %s\n", args.positional[2].c_str());
        return kExitOk;
    }
    print_error("server '" + args.positional[1] + "' has no facility '" + args.positional[2] + "'");
    return kExitFailed;
}

int registry_urls(LDAP* ld, const Args& args) {
    if (args.positional.size() < 2 || args.positional.size() > 3)
        throw UsageError("registry urls SERVER_ID [URN]");
    int code = kExitOk;
    LibEntry server = find_server(ld, args.positional[1], code);
    if (!server) return code;
    const std::string urn = args.positional.size() == 3 ? args.positional[2] : "";
    ldapErrCode = 0;
    LibValues urls(orvlib_generate_application_facility_urls(ld, server.get(), urn.c_str()));
    if (!urls) {
        if (ldapErrCode != 0) return report_failure("URLs of '" + args.positional[1] + "'", ldapErrCode);
        return kExitOk;
    }
    // The list ends at the first facility without a base URL.
    for (char** u = urls.get(); *u; ++u) std::printf("%s\n", *u);
    return kExitOk;
}

int registry_list(LDAP* ld, const Args& args) {
    if (args.positional.size() > 2) throw UsageError("registry list [SERVER_ID]");
    std::vector<LibEntry> entries;
    int status = args.positional.size() == 2
                     ? registry_search(ld, server_rdn(args.positional[1]), ORV_SEARCH_APPLICATION_FACILITY, entries)
                     : registry_search(ld, "", ORV_SEARCH_APPLICATION_SERVERS, entries);
    if (status != 0) return report_failure("registry search", status);
    for (const LibEntry& e : entries) show(args, e.get());
    if (!args.has("json")) std::printf("%zu entr%s\n", entries.size(), entries.size() == 1 ? "y" : "ies");
    return kExitOk;
}

}  // namespace

int cmd_registry(const Args& args) {
    const std::string& what = args.positional[0];
    using Step = int (*)(LDAP*, const Args&);
    Step step = what == "register"   ? registry_register
                : what == "facility" ? registry_facility
                : what == "remove"   ? registry_remove
                : what == "urls"     ? registry_urls
                : what == "list"     ? registry_list
                                     : nullptr;
    if (!step) throw UsageError("unknown registry command '" + what + "' (register, facility, remove, urls, list)");
    Session session;
    if (!session.open(args.conn)) return kExitNoSession;
    orvlib_enable_paging(1);
    return step(session.ld(), args);
}

int cmd_db(const Args& args) {
    const std::string& what = args.positional[0];
    if (what == "create") {
        if (args.positional.size() != 4) throw UsageError("db create NAME HOST PORT");
        char* end = nullptr;
        long port = std::strtol(args.positional[3].c_str(), &end, 10);
        if (args.positional[3].empty() || *end != '\0' || port < 1 || port > 65535)
            throw UsageError("PORT must be a port number (1-65535), not '" + args.positional[3] + "'");
        Session session;
        if (!session.open(args.conn)) return kExitNoSession;
        const std::string id = args.get("id");
        ldapErrCode = 0;
        int status = orvlib_create_zorla_database(session.ld(), args.has("id") ? id.c_str() : nullptr,
                                                  args.positional[1].c_str(), args.positional[2].c_str(),
                                                  static_cast<int>(port));
        if (status != 0) return report_failure("create database '" + args.positional[1] + "'", status);
        // The database exists; a role that could not be added shows only in
        // the last status.
        if (ldapErrCode != 0) std::fprintf(stderr, "orvctl: access role: %s\n", format_status(ldapErrCode).c_str());
        std::printf("created database %s\n", args.positional[1].c_str());
        return kExitOk;
    }
    if (what == "show") {
        if (args.positional.size() != 2) throw UsageError("db show REPOSITORY_ID");
        Session session;
        if (!session.open(args.conn)) return kExitNoSession;
        std::string repository = args.positional[1];
        ldapErrCode = 0;
        LibEntry details(orvlib_get_database_details(session.ld(), &repository[0]));
        if (!details) {
            if (ldapErrCode != 0) return report_failure("database of '" + repository + "'", ldapErrCode);
            print_error("no database registered for repository '" + repository + "'");
            return kExitFailed;
        }
        show(args, details.get());
        return kExitOk;
    }
    throw UsageError("unknown db command '" + what + "' (create, show)");
}

}  // namespace orvctl
