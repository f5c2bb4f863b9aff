// orv_custom_group_members_search.cpp - the group-members search (search
// type 5005): collects one group's member DNs and delivers each member that
// is a user as a user entry.  Members that are not users are taken to be
// nested groups; after the group's own users, the users of those nested
// groups follow (one level down only).

#include <strings.h>

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_member_entries.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_search.h"
#include "orvldap_session.h"
#include "orvldap_utils.h"

extern "C" {
int current_zorla_group_members_dn_index = -1;
char* NESTED_GROUP_LIST[ORV_NESTED_GROUP_LIST_SIZE] = {nullptr};
int nested_group_index = -1;
int nested_groups_retrieved = 0;
}

namespace {

const char kPersonFilterStrict[] =
    "(&(objectclass=person)(!(objectclass=computer))(!(objectclass=contact)))";

// Slots of GLOBAL_ZORLA_GROUPMEMBERS_LIST.  Delivered members have their
// slot freed and set to NULL, so the list's length is kept with the search.
int& member_count() { return orv::search_state().member_count; }

bool is_drop(int rc) { return orv::is_connection_drop(rc); }

void free_member_list() {
    orv::forget_member_entries();
    if (GLOBAL_ZORLA_GROUPMEMBERS_LIST) {
        for (int i = 0; i < member_count(); ++i) orvlib_memfree(GLOBAL_ZORLA_GROUPMEMBERS_LIST[i]);
        orvlib_memfree(GLOBAL_ZORLA_GROUPMEMBERS_LIST);
    }
    GLOBAL_ZORLA_GROUPMEMBERS_LIST = nullptr;
    member_count() = 0;
    current_zorla_group_members_dn_index = -1;
}

void set_member_list(char** list) {
    free_member_list();
    GLOBAL_ZORLA_GROUPMEMBERS_LIST = list;
    member_count() = count_array_elements(list);
    ORV_DEBUG("Number of group members: ", member_count());
}

void free_nested_list() {
    for (char*& slot : NESTED_GROUP_LIST) {
        orvlib_memfree(slot);
        slot = nullptr;
    }
    nested_group_index = -1;
    nested_groups_retrieved = 0;
}

// Reads one member DN as a user; retries on connection drops.
int read_member(LDAP*& ld, const char* dn, orv::LdapMsg& res) {
    int rc = orv::kServerDown;
    for (int attempt = 0; attempt <= connection_retries; ++attempt) {
        rc = orv::search(ld, dn, LDAP_SCOPE_BASE, kPersonFilterStrict, ORVLIB_USER_ATTR_LIST, 0,
                         res);
        if (!is_drop(rc) || attempt == connection_retries || ORV_OPERATION_MODE != 1) break;
        ORV_DEBUG("Connection Timed out", rc);
        orv::forget_corporate_window();
        ld = orv::reconnect_corporate(ld);
    }
    return rc;
}

// Member DNs of a group: "uniqueMember" of a groupOfUniqueNames, or
// "member" collected in ranges.
char** group_member_dns(LDAP* ld, const char* dn) {
    if (mechanism == ORV_VLV) return get_zorla_group_dns(ld, dn, "groupOfUniqueNames", "uniqueMember");
    return get_zorla_group_dns_paging(ld, dn, "group", "Member");
}

// The member iteration with the nested-group step, as one loop.
LDAPMessage* members_step(LDAP* ld, ORVLibEntry** entry) {
    LDAP* own = orv::own_connection(ld);
    const bool corporate = ORV_OPERATION_MODE == 1;
    for (;;) {
        ++current_zorla_group_members_dn_index;
        const int index = current_zorla_group_members_dn_index;
        ORV_DEBUG("current_zorla_group_members_dn_index: ", index);
        if (!GLOBAL_ZORLA_GROUPMEMBERS_LIST || index >= member_count()) {
            // Members used up: continue with the next nested group.
            if (!nested_groups_retrieved) {
                int n = 0;
                for (int i = 0; i < member_count(); ++i) {
                    char* dn = GLOBAL_ZORLA_GROUPMEMBERS_LIST[i];
                    if (!dn) continue;
                    if (n >= ORV_NESTED_GROUP_LIST_SIZE - 1) {
                        ORV_DEBUG("Nested group list full, not followed: ", dn);
                        continue;
                    }
                    NESTED_GROUP_LIST[n++] = _orvlib_dupString(dn);
                }
                nested_groups_retrieved = 1;
            }
            // The list is filled from its start: the first empty slot ends it.
            const char* nested = nullptr;
            if (nested_group_index < ORV_NESTED_GROUP_LIST_SIZE - 1) {
                ++nested_group_index;
                if (nested_group_index < ORV_NESTED_GROUP_LIST_SIZE - 1)
                    nested = NESTED_GROUP_LIST[nested_group_index];
            }
            if (!nested) {
                // The end of the members: nothing of this search is kept.
                free_member_list();
                free_nested_list();
                orv::forget_corporate_window();
                nested_groups_retrieved = 1;
                nested_group_index = ORV_NESTED_GROUP_LIST_SIZE - 1;
                orv::release(orv::Held::Members);
                return nullptr;
            }
            ORV_DEBUG("NESTED_GROUP_LIST: ", nested);
            LDAP* conn = corporate ? corporate_admin_ld : own;
            set_member_list(group_member_dns(conn, nested));
            current_zorla_group_members_dn_index = -1;
            continue;
        }

        char* dn = GLOBAL_ZORLA_GROUPMEMBERS_LIST[index];
        if (!dn) continue;
        ORV_DEBUG("Zorla Group Members List: ", dn);
        LDAP* conn = corporate ? corporate_admin_ld : own;
        // Members' entries are read ahead: the library's own once per member
        // list, corporate ones (with their counterparts) a window at a time.
        LDAPMessage* ahead = nullptr;
        if (corporate) {
            ahead = orv::corporate_member_entry(conn, own, GLOBAL_ZORLA_GROUPMEMBERS_LIST,
                                                member_count(), index);
        } else {
            int ahead_rc = 0;
            const orv::MemberEntries* entries = orv::member_entries_of(
                own, GLOBAL_ZORLA_GROUPMEMBERS_LIST, member_count(), &ahead_rc);
            if (ahead_rc != 0) {
                ORV_DEBUG("Member walk ends, connection lost: ", ahead_rc);
                orv::reset_group_members();
                orv::report(ahead_rc);
                return nullptr;
            }
            ahead = entries ? orv::member_entry(*entries, dn) : nullptr;
        }
        if (ahead) {
            orv::release(orv::Held::Members);
            orv::fill_entry(conn, entry, ahead);
            check_and_populate_extended_information(own, &ahead, entry, ORV_SEARCH_GROUP_MEMBERS);
            orvlib_memfree(dn);
            GLOBAL_ZORLA_GROUPMEMBERS_LIST[index] = nullptr;
            return ahead;
        }
        orv::LdapMsg res;
        int rc = read_member(conn, dn, res);
        const bool from_corporate = corporate && rc == LDAP_SUCCESS;
        if (corporate && rc != LDAP_SUCCESS && !is_drop(rc)) {
            ORV_DEBUG("User not found in Corporate LDAP Server, looking in PEX", dn);
            conn = own;
            rc = orv::search(conn, dn, LDAP_SCOPE_BASE, kPersonFilterStrict,
                             ORVLIB_USER_ATTR_LIST, 0, res);
            if (rc != LDAP_SUCCESS) ORV_DEBUG("User not found in PEX", dn);
        }
        if (is_drop(rc) || rc == orv::kTimeout) {
            // The connection is gone or the server no longer answers: the
            // walk ends here with that status rather than trying every
            // remaining member (and each as a nested group) in vain.
            ORV_DEBUG("Member walk ends, connection lost: ", rc);
            orv::reset_group_members();
            orv::report(rc);
            return nullptr;
        }
        LDAPMessage* e = rc == LDAP_SUCCESS ? orv::first_entry(conn, res.get()) : nullptr;
        if (corporate) orv::corporate_member_read_alone(dn, from_corporate && e != nullptr);
        if (!e) continue;  // not a user: possibly a nested group

        orv::fill_entry(conn, entry, e);
        // A member read from the library's own directory is a local user,
        // never mirrored as a corporate one.
        if (conn != own)
            check_and_populate_extended_information(own, &e, entry, ORV_SEARCH_GROUP_MEMBERS);
        orvlib_memfree(dn);
        GLOBAL_ZORLA_GROUPMEMBERS_LIST[index] = nullptr;
        return orv::hold(orv::Held::Members, res.release());
    }
}

}  // namespace

namespace orv {
void reset_group_members() {
    free_member_list();
    free_nested_list();
    forget_corporate_window();
    release(Held::Members);
}
}  // namespace orv

extern "C" {

char** get_zorla_group_dns(LDAP* ld, const char* dn, const char* objectClass, const char* attr) {
    ORV_TRACE();
    char** values = get_zorla_dns(ld, dn, objectClass, attr);
    // A group of the other kind keeps its members in the other attribute.
    if (!values && attr && strcasecmp(attr, "uniqueMember") == 0)
        values = get_zorla_dns(ld, dn, "*", "member");
    else if (!values && attr && strcasecmp(attr, "member") == 0)
        values = get_zorla_dns(ld, dn, "*", "uniqueMember");
    return values;
}

char** get_zorla_group_dns_paging(LDAP* ld, const char* dn, const char* objectClass,
                                  const char* attr) {
    ORV_TRACE();
    char** values = get_zorla_dns_paging(ld, dn, objectClass, attr);
    if (!values) values = get_zorla_dns(ld, dn, "*", "uniqueMember");
    return values;
}

int orv_custom_group_members_search(LDAP* ld, const char* groupDN, LDAPMessage** res,
                                    int isLibraryGroup) {
    ORV_TRACE();
    if (res) *res = nullptr;
    orv::reset_group_members();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    ORV_DEBUG("Group DN: ", groupDN ? groupDN : "");
    if (!groupDN) return orv::report(LDAP_NO_SUCH_OBJECT);

    ldapErrCode = LDAP_SUCCESS;
    char** members;
    if (isLibraryGroup == 1) {
        members = get_zorla_dns(orv::own_connection(ld), groupDN, "groupOfUniqueNames",
                                "uniqueMember");
    } else {
        LDAP* corp = orv::corporate_connection();
        members = mechanism == ORV_VLV ? get_zorla_group_dns(corp, groupDN, "groupOfUniqueNames",
                                                             "uniqueMember")
                                       : get_zorla_group_dns_paging(corp, groupDN, "group",
                                                                    "member");
    }
    set_member_list(members);
    const int rc = members ? LDAP_SUCCESS : ldapErrCode;
    return orv::report(rc);
}

LDAPMessage* custom_group_members_get_first_entry(LDAP* ld, ORVLibEntry** entry) {
    ORV_TRACE();
    if (entry) *entry = nullptr;
    current_zorla_group_members_dn_index = -1;
    return perform_zorla_custom_group_members_search(ld, entry);
}

LDAPMessage* custom_group_members_get_next_entry(LDAP* ld, ORVLibEntry** entry) {
    ORV_TRACE();
    if (entry) *entry = nullptr;
    return perform_zorla_custom_group_members_search(ld, entry);
}

LDAPMessage* perform_zorla_custom_group_members_search(LDAP* ld, ORVLibEntry** entry) {
    ORV_TRACE();
    return members_step(ld, entry);
}

LDAPMessage* perform_recursive_search(LDAP* ld, ORVLibEntry** entry) {
    ORV_TRACE();
    // Ends the current member list so that the iteration moves on to the
    // next nested group.
    current_zorla_group_members_dn_index = member_count() - 1;
    return members_step(ld, entry);
}

}  // extern "C"
