// orv_custom_group_search.cpp - the group search (search type 5002) in the
// corporate partition or the library's own directory, restricted to the meta
// group for groups when the partition is configured so; the local group
// search that follows the corporate one; and the group DN list used by the
// membership searches.

#include <strings.h>

#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_utils.h"

namespace {

const char kAnyGroupClass[] =
    "(|(objectClass=group)(objectClass=groupOfUniqueNames)(objectClass=groupOfNames))";

using orv::corporate_search_mode;
using orv::meta_groups_configured;

// Head of the group DN list.
groups_node* start = nullptr;

}  // namespace

namespace orv {
void reset_local_searches() {
    search_state().local_group_cursor = nullptr;
    search_state().local_user_groups_cursor = nullptr;
    release(Held::LocalGroups);
    release(Held::LocalUserGroups);
}
}  // namespace orv

extern "C" {

int orv_custom_group_search(LDAP* ld, const char* base, int scope, const char* filter,
                            char** attrs, LDAPMessage** res) {
    ORV_TRACE();
    if (res) *res = nullptr;
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (!filter || !res) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::OrvString value(remove_paranthesis_from_string(filter));
    const char* V = value ? value.get() : "";
    const bool corporate = corporate_search_mode();

    // Star search of a partition restricted by meta groups: the members of
    // the meta group for groups are the result.
    if (corporate && meta_groups_configured() && string_is_dn(V) != 1 &&
        strcasecmp(filter, "*") == 0) {
        ORV_DEBUG("Got the Meta Data Information. Perform Star Group Search", "");
        ORV_DEBUG("User input Filter", filter);
        ZORLA_STAR_SEARCH = 1;
        orv::free_list(GLOBAL_ZORLA_GROUPDN_LIST);
        const char* meta = PARTITION_INFO->meta_group_for_groups;
        GLOBAL_ZORLA_GROUPDN_LIST = mechanism == ORV_VLV
                                        ? get_zorla_group_dns(ld, meta, "*", "uniqueMember")
                                        : get_zorla_group_dns_paging(ld, meta, "*", "member");
        if (GLOBAL_ZORLA_GROUPDN_LIST) return orv::report(LDAP_SUCCESS);
        ZORLA_STAR_SEARCH = 0;
        return orv::report(LDAP_NO_SUCH_OBJECT);
    }

    ORV_DEBUG("Partial * Or exact Group search", "");
    std::string search_base = base ? base : "";
    std::string F;
    if (string_is_dn(V) == 1 || is_filter_tier2_group_dn(V) == 1) {
        search_base = V;
        F = kAnyGroupClass;
    } else {
        char* built = nullptr;
        if (strcasecmp(search_base.c_str(), ORV_GROUP_SRCH_BASE) != 0) {
            ORV_DEBUG("Corporate Mode: Corporate group search", "");
            _setFilter(filter, ORV_SEARCH_GROUPS, &built);
        } else {
            ORV_DEBUG("Corporat Mode: Local group Search", "");
            set_standalone_group_search_filter(filter, &built);
        }
        orv::OrvString owned(built);
        F = built ? built : "";
    }
    ORV_DEBUG("Complete Filter", F);
    ORV_DEBUG("Search Base", search_base);

    LDAP* conn = corporate ? corporate_user_ld : ld;
    if (!conn) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    int rc = orv::paged_search(conn, search_base.c_str(), scope, F.c_str(), attrs, res);
    if (rc != LDAP_SUCCESS && rc != LDAP_SIZELIMIT_EXCEEDED) return orv::report(rc);

    if (corporate && meta_groups_configured()) {
        LDAPMessage* first = orv::first_entry(conn, *res);
        auto fail = [&]() {
            orvlib_orvmessage_free(*res);
            *res = nullptr;
            orv::reset_pager();
            return orv::report(LDAP_NO_SUCH_OBJECT);
        };
        if (!first) return fail();
        if (strchr(V, '*')) {
            ZORLA_STAR_SEARCH = 1;
            std::vector<std::string> dns;
            for (LDAPMessage* e = first; e;) {
                dns.push_back(orv::entry_dn(conn, e));
                ORV_DEBUG("lDN", dns.back());
                LDAPMessage* next = orv::next_entry(conn, e);
                e = next ? next : orv::next_page();
            }
            orv::free_list(GLOBAL_ZORLA_GROUPDN_LIST);
            GLOBAL_ZORLA_GROUPDN_LIST = orv::to_orv_array(dns);
        } else {
            for (LDAPMessage* e = first; e; e = orv::next_entry(conn, e)) {
                const std::string dn = orv::entry_dn(conn, e);
                if (dn.empty() || isValidMetaGroupMember(dn.c_str(), 1) != 0) {
                    ORV_DEBUG("DN not a valid MetaGroup Member", dn);
                    return fail();
                }
            }
        }
    }
    return orv::report(rc);
}

void set_standalone_group_search_filter(const char* filter, char** out) {
    ORV_TRACE();
    if (!out) return;
    const std::string cls = "(objectClass=groupOfUniqueNames)";
    const std::string not_mirrored = "(!(orvCorporateDN=*))";
    std::string F;
    char* compliant = nullptr;
    if (filter && is_filter_ldap_complaint(filter, &compliant) == 1) {
        orv::OrvString owned(compliant);
        F = "(&" + cls + (compliant ? compliant : "") + not_mirrored + ")";
    } else {
        orv::OrvString value(remove_paranthesis_from_string(filter ? filter : ""));
        F = "(&" + cls + "(cn=" + (value ? value.get() : "") + ")" + not_mirrored + ")";
    }
    ORV_DEBUG("Standalone group filter", F);
    *out = _orvlib_dupString(F.c_str());
}

LDAPMessage* perform_standalone_group_search(LDAP* ld, const char* filter) {
    ORV_TRACE();
    if (!ld) return nullptr;
    if (perform_grp_srch_standalone_first_time) {
        perform_grp_srch_standalone_first_time = 0;
        char* built = nullptr;
        set_standalone_group_search_filter(filter, &built);
        orv::OrvString F(built);
        orv::LdapMsg res;
        int rc = orv::search(ld, ORV_GROUP_SRCH_BASE, LDAP_SCOPE_SUBTREE, F ? F.get() : "",
                             ORVLIB_GROUP_ATTR_LIST, 0, res);
        ORV_DEBUG("No of entries in searchresult: ",
                  rc == LDAP_SUCCESS ? ldap_count_entries(ld, res.get()) : 0);
        ORV_DEBUG("ldapErrcode in standalone group searches", rc);
        orv::search_state().local_group_cursor = orv::first_entry(ld, orv::hold(orv::Held::LocalGroups, res.release()));
        return orv::search_state().local_group_cursor;
    }
    orv::search_state().local_group_cursor = orv::next_entry(ld, orv::search_state().local_group_cursor);
    return orv::search_state().local_group_cursor;
}

void append_to_groupDN_list(groups_node** tail, const char* dn) {
    ORV_TRACE();
    if (!tail || !dn) return;
    groups_node* node = new (std::nothrow) groups_node;
    if (!node) return;
    node->str = _orvlib_dupString(dn);
    node->link = nullptr;
    if (!start) {
        start = node;
    } else if (*tail) {
        (*tail)->link = node;
    } else {
        // No tail given: append after the last node.
        groups_node* last = start;
        while (last->link) last = last->link;
        last->link = node;
    }
    *tail = node;
}

groups_node* get_head_of_list(void) {
    ORV_TRACE();
    return start;
}

void delete_from_linked_list(const char* dn) {
    ORV_TRACE();
    if (!dn) return;
    groups_node* prev = nullptr;
    for (groups_node* n = start; n; prev = n, n = n->link) {
        if (!n->str || strcmp(n->str, dn) != 0) continue;
        // The list is taken apart at its head; a node elsewhere is unlinked
        // too so that no freed node stays reachable.
        if (prev)
            prev->link = n->link;
        else
            start = n->link;
        orvlib_memfree(n->str);
        delete n;
        return;
    }
}

void clear_group_dn_list(void) {
    ORV_TRACE();
    while (start) {
        groups_node* head = start;
        start = head->link;
        orvlib_memfree(head->str);
        delete head;
    }
}

}  // extern "C"
