// orvctl_rel.cpp - `orvctl rel ...`: end types, relationship types and the
// relationships between external objects of different repositories.
#include <string>
#include <vector>

#include "orvctl.hpp"
#include "orvldap_relationship.h"

namespace orvctl {
namespace {

// The text of an option, or nullptr when it was not given.
const char* optional(const Args& args, const std::string& name, std::string& keep) {
    if (!args.has(name)) return nullptr;
    keep = args.get(name);
    return keep.c_str();
}

// A relationship record with the descriptions of its two objects, which
// the library derives (ids 127, 128) rather than stores.
std::vector<Attribute> er_attributes(LDAP* ld, ORVLibEntry* entry) {
    std::vector<Attribute> attributes = attributes_of(entry);
    bool relationship = false;
    for (const Attribute& a : attributes)
        if (a.id == 111) relationship = true;
    if (!relationship) return attributes;
    for (int id : {127, 128}) {
        LibValues values(orvlib_get_entry_er_vals(ld, entry, id));
        Attribute derived;
        derived.id = id;
        derived.name = id == 127 ? "objectADescription" : "objectBDescription";
        for (char** v = values.get(); v && *v; ++v) derived.values.emplace_back(*v);
        if (!derived.values.empty()) attributes.push_back(derived);
    }
    return attributes;
}

void show(const Args& args, LDAP* ld, ORVLibEntry* entry) {
    std::vector<Attribute> attributes = er_attributes(ld, entry);
    if (args.has("json"))
        std::printf("%s\n", entry_json(attributes).c_str());
    else
        print_entry(stdout, attributes);
}

// Prints every entry of a result of this area; the count after a table.
void show_all(const Args& args, LDAP* ld, LDAPMessage* result) {
    std::size_t count = 0;
    ORVLibEntry* raw = nullptr;
    for (LDAPMessage* cursor = orvlib_first_er_entry(ld, &raw, result); cursor;
         cursor = orvlib_next_er_entry(ld, &raw, cursor)) {
        LibEntry entry(raw);
        raw = nullptr;
        if (!entry) continue;
        show(args, ld, entry.get());
        ++count;
    }
    if (!args.has("json")) std::printf("%zu entr%s\n", count, count == 1 ? "y" : "ies");
}

// positional[2..] as a NULL-terminated list of writable strings.
struct TextList {
    std::vector<std::string> texts;
    std::vector<char*> pointers;
    TextList(const std::vector<std::string>& all, std::size_t from) {
        for (std::size_t i = from; i < all.size(); ++i) texts.push_back(all[i]);
        for (std::string& t : texts) pointers.push_back(&t[0]);
        pointers.push_back(nullptr);
    }
    char** get() { return pointers.data(); }
    bool empty() const { return texts.empty(); }
};

// The command line of each rel command, checked before any connection.
void check_usage(const Args& args) {
    const std::vector<std::string>& p = args.positional;
    const std::size_t n = p.size();
    const std::string& what = p[0];
    const std::string verb = n > 1 ? p[1] : "";
    auto need = [&](bool ok, const char* usage) {
        if (!ok) throw UsageError(std::string("usage: orvctl rel ") + usage);
    };
    if (what == "endtype") {
        if (verb == "add")
            need(n >= 3 && n <= 3 + PEXLIB_MAX_RULE_VALUES && args.has("description"),
                 "endtype add RULE_TYPE [VALUE...] --description TEXT (at most 19 values)");
        else if (verb == "show" || verb == "remove")
            need(n == 3, "endtype show|remove END_ID");
        else
            throw UsageError("unknown rel endtype command '" + verb + "' (add, show, remove)");
    } else if (what == "type") {
        if (verb == "add")
            need(n == 5, "type add NAME END_A END_B [--id TYPE_ID]");
        else if (verb == "list")
            need(n == 2 || n == 4, "type list [URN_A URN_B]");
        else if (verb == "remove")
            need(n == 3, "type remove TYPE_ID");
        else
            throw UsageError("unknown rel type command '" + verb + "' (add, list, remove)");
    } else if (what == "create") {
        need(n == 4 && args.has("description-a") && args.has("description-b") && args.has("context-a") &&
                 args.has("context-b"),
             "create TYPE_ID URN_A URN_B --description-a TEXT --context-a C --description-b TEXT --context-b C "
             "[--description TEXT]");
    } else if (what == "search") {
        need(!args.has("repository") || n == 1, "search [--repository ID] [--context C] | search URN...");
    } else if (what == "remove") {
        need(n == 2, "remove RELATIONSHIP_URN [--mark]");
    } else if (what == "notify") {
        need((args.has("repository") || args.has("context")) ? n == 1 : n >= 2,
             "notify --repository ID [--context C] | notify URN...");
    } else {
        throw UsageError("unknown rel command '" + what + "' (endtype, type, create, search, remove, notify)");
    }
}

int endtype(LDAP* ld, const Args& args) {
    const std::string& verb = args.positional[1];
    std::string id = args.positional[2];
    if (verb == "add") {
        std::string rule_type = args.positional[2];
        TextList values(args.positional, 3);
        std::string id_text, description;
        const char* end_id = optional(args, "id", id_text);
        const char* text = optional(args, "description", description);
        ldapErrCode = 0;
        LibEntry end(orvlib_create_end_type_object(ld, const_cast<char*>(end_id), &rule_type[0],
                                                   values.get(), const_cast<char*>(text)));
        if (!end) return report_failure("create end type", ldapErrCode);
        if (ldapErrCode == ORV_LDAPLIB_INVALID_INPUT)
            std::fprintf(stderr, "orvctl: end type '%s' exists already; it is shown unchanged\n", id_text.c_str());
        show(args, ld, end.get());
        return kExitOk;
    }
    if (verb == "show") {
        LibEntry end(get_end_type_object_from_end_id(ld, id.c_str()));
        if (!end) {
            print_error("no end type '" + id + "'");
            return kExitFailed;
        }
        show(args, ld, end.get());
        return kExitOk;
    }
    if (verb == "remove") {
        int status = orvlib_modify_end_rule(ld, &id[0], 0, nullptr, 0);
        if (status != 0) return report_failure("remove end type '" + id + "'", status);
        std::printf("removed end type %s\n", id.c_str());
        return kExitOk;
    }
    return kExitUsage;  // refused by check_usage before
}

int type(LDAP* ld, const Args& args) {
    const std::string& verb = args.positional[1];
    if (verb == "add") {
        LibEntry ends[2];
        for (int i = 0; i < 2; ++i) {
            const std::string& end_id = args.positional[3 + i];
            ends[i].reset(get_end_type_object_from_end_id(ld, end_id.c_str()));
            if (!ends[i]) {
                print_error("no end type '" + end_id + "'");
                return kExitFailed;
            }
        }
        std::string name = args.positional[2], id_text;
        const char* type_id = optional(args, "id", id_text);
        ldapErrCode = 0;
        LibEntry created(orvlib_create_relationship_type(ld, const_cast<char*>(type_id), &name[0], ends[0].get(),
                                                         ends[1].get()));
        if (!created) return report_failure("create relationship type '" + name + "'", ldapErrCode);
        if (ldapErrCode == ORV_LDAPLIB_INVALID_INPUT)
            std::fprintf(stderr, "orvctl: relationship type '%s' exists already; it is shown unchanged\n",
                         id_text.c_str());
        show(args, ld, created.get());
        return kExitOk;
    }
    if (verb == "list") {
        std::string a = args.positional.size() == 4 ? args.positional[2] : "";
        std::string b = args.positional.size() == 4 ? args.positional[3] : "";
        LDAPMessage* result = nullptr;
        int status = orvlib_search_relationship_types(ld, a.empty() ? nullptr : &a[0], b.empty() ? nullptr : &b[0],
                                                      &result);
        if (status != 0) {
            orvlib_orvmessage_free(result);
            return report_failure("relationship types", status);
        }
        show_all(args, ld, result);
        orvlib_orvmessage_free(result);
        return kExitOk;
    }
    if (verb == "remove") {
        std::string id = args.positional[2];
        int status = orvlib_remove_relationship_type(ld, &id[0]);
        if (status != 0) return report_failure("remove relationship type '" + id + "'", status);
        std::printf("removed relationship type %s\n", id.c_str());
        return kExitOk;
    }
    return kExitUsage;  // refused by check_usage before
}

int create(LDAP* ld, const Args& args) {
    LibEntry relationship_type(get_relationship_type_from_rel_type_id(ld, args.positional[1].c_str()));
    if (!relationship_type) {
        print_error("no relationship type '" + args.positional[1] + "'");
        return kExitFailed;
    }
    std::string urn_a = args.positional[2], urn_b = args.positional[3];
    std::string keep[5];
    auto text = [&](const char* name, int slot) {
        return const_cast<char*>(optional(args, name, keep[slot]));
    };
    ldapErrCode = 0;
    LibEntry created(orvlib_create_external_relationship(
        ld, &urn_a[0], text("description-a", 0), text("context-a", 1), &urn_b[0], text("description-b", 2),
        text("context-b", 3), relationship_type.get(), text("description", 4)));
    if (!created) return report_failure("relate '" + urn_a + "' to '" + urn_b + "'", ldapErrCode);
    show(args, ld, created.get());
    return kExitOk;
}

int search(LDAP* ld, const Args& args) {
    LDAPMessage* result = nullptr;
    int status = 0;
    std::string context_text;
    char* context = const_cast<char*>(optional(args, "context", context_text));
    if (args.has("repository")) {
        std::string repository = args.get("repository");
        char* input[] = {&repository[0], nullptr};
        status = orvlib_search_external_relationship(ld, input, context, &result, PEXLIB_SEARCH_BY_REPOSITORY_ID);
    } else if (args.positional.size() > 1) {
        TextList urns(args.positional, 1);
        status = orvlib_search_external_relationship(ld, urns.get(), context, &result, PEXLIB_SEARCH_BY_OBJECT_URNS);
    } else {
        status = orvlib_search_external_relationship(ld, nullptr, context, &result, PEXLIB_SEARCH_BY_REPOSITORY_ID);
    }
    if (status != 0) {
        orvlib_orvmessage_free(result);
        return report_failure("relationship search", status);
    }
    show_all(args, ld, result);
    orvlib_orvmessage_free(result);
    return kExitOk;
}

int remove(LDAP* ld, const Args& args) {
    std::string urn = args.positional[1];
    const bool mark = args.has("mark");
    int status = orvlib_remove_external_relationship(ld, &urn[0], mark ? 1 : 0);
    if (status != 0) return report_failure("remove relationship '" + urn + "'", status);
    std::printf("%s relationship %s\n", mark ? "marked for deletion:" : "removed", urn.c_str());
    return kExitOk;
}

int notify(LDAP* ld, const Args& args) {
    int status = 0;
    if (args.has("repository") || args.has("context")) {
        std::string repository_text, context_text;
        status = orvlib_notify_external_relationship_changes_on_repository_id(
            ld, const_cast<char*>(optional(args, "repository", repository_text)),
            const_cast<char*>(optional(args, "context", context_text)));
    } else {
        TextList urns(args.positional, 1);
        status = orvlib_notify_external_relationship_changes_on_external_objects(ld, urns.get());
    }
    if (status != 0) return report_failure("mark relationships", status);
    std::printf("relationships marked for deletion\n");
    return kExitOk;
}

}  // namespace

int cmd_rel(const Args& args) {
    const std::string& what = args.positional[0];
    using Step = int (*)(LDAP*, const Args&);
    Step step = what == "endtype"  ? endtype
                : what == "type"   ? type
                : what == "create" ? create
                : what == "search" ? search
                : what == "remove" ? remove
                : what == "notify" ? notify
                                   : nullptr;
    check_usage(args);
    Session session;
    if (!session.open(args.conn)) return kExitNoSession;
    return step(session.ld(), args);
}

}  // namespace orvctl
