// orv_custom_user_group_membership_srch.cpp - the membership search (search
// type 5004: is this user a member of this group?).  The client's filter
// names both, for example '(uid=jsmith)(groupCN=Admins)'.  The group entry
// is read with a filter that matches only when the user is a member; the
// result and its first entry are kept for the first-entry call.  A variant
// handles a group of the library's own directory with a corporate user.

#include <strings.h>

#include <cstring>
#include <string>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_session.h"
#include "orvldap_utils.h"

namespace {

// Status of a membership filter without "=" or without a group part.
constexpr int kNotAMembershipFilter = 57;

using orv::Membership;

// The user id of a membership filter: after the first "=" up to the next
// ")", cleaned of unbalanced parentheses and reduced to the bare id.
std::string membership_uid(const char* filter) {
    const char* eq = strchr(filter, '=');
    if (!eq) return {};
    std::string part(eq + 1);
    const size_t close = part.find(')');
    if (close != std::string::npos) part.resize(close);
    ORV_DEBUG("Uid Part: ", part);
    orv::OrvString cleaned(remove_paranthesis_from_string(part.c_str()));
    char* rdn_raw = nullptr;
    orv::OrvString uid(getUIDFromFilter(cleaned ? cleaned.get() : part.c_str(), &rdn_raw));
    orv::OrvString rdn(rdn_raw);
    return uid ? uid.get() : "";
}

LDAP* open_partition_connection() {
    if (!PARTITION_INFO) return nullptr;
    return create_ldap_connection(PARTITION_INFO->hostname, PARTITION_INFO->port_num,
                                  PARTITION_INFO->admin_dn, PARTITION_INFO->admin_pwd);
}

// Reads the group entry with the membership filter (base scope) and keeps
// the result.
int read_group(LDAP* ld, const std::string& group_dn, const std::string& filter, Membership& m) {
    m.clear();
    int rc = orv::search(ld, group_dn.c_str(), LDAP_SCOPE_BASE, filter.c_str(),
                         ORVLIB_GROUP_ATTR_LIST, 0, m.result);
    if (rc == LDAP_SUCCESS) m.first = orv::first_entry(ld, m.result.get());
    if (!m.first) m.result.reset();
    return rc;
}

}  // namespace

extern "C" {

int orv_custom_user_group_membership_srch(LDAP* ld, const char* filter) {
    ORV_TRACE();
    orv::search_state().membership.clear();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (!filter || !strchr(filter, '=')) return orv::report(kNotAMembershipFilter);
    const std::string uid = membership_uid(filter);
    orv::OrvString group(getGroupCN(filter));
    if (!group) return orv::report(kNotAMembershipFilter);

    const char* base = ORV_OPERATION_MODE == 1 && PARTITION_INFO ? PARTITION_INFO->search_base
                                                                 : ORV_PEOPLE_SRCH_BASE;
    orv::OrvString user_dn(getDNFromUid(ld, uid.c_str(), base, nullptr));
    ORV_DEBUG("DN from uid: ", user_dn ? user_dn.get() : "");
    if (!user_dn) return orv::report(ORV_LDAPLIB_INVALID_INPUT);

    // The DN as a filter value (RFC 4515): "CN=Smith\, John,..." matches.
    const char* attr = ORV_OPERATION_MODE == 1 && mechanism == ORV_PAGING ? "member" : "uniquemember";
    const std::string F = std::string(attr) + ORV_CONSTANT_EQUALS + orv::filter_value(user_dn.get());
    ORV_DEBUG("search_filter: ", F);

    orv::OrvString group_dn(getDNFromGroupCN(ld, group.get(), nullptr));
    if (!group_dn) return orv::report(LDAP_SUCCESS);
    ORV_DEBUG("group_dn: ", group_dn.get());
    return orv::report(read_group(ld, group_dn.get(), F, orv::search_state().membership));
}

LDAPMessage* custom_user_group_membership_first_entry(LDAP* ld, ORVLibEntry** entry) {
    ORV_TRACE();
    if (entry) *entry = nullptr;
    LDAPMessage* e = orv::search_state().membership.first;
    if (!e) return nullptr;
    if (ORV_OPERATION_MODE == 1) {
        // The group came from the partition: read it through a connection
        // of its own.
        LDAP* priv = open_partition_connection();
        orv::fill_entry(priv ? priv : orv::corporate_connection(), entry, e);
        orv::unbind(priv);
    } else {
        orv::fill_entry(ld, entry, e);
    }
    return e;
}

int free_custom_user_group_membership_res(void) {
    ORV_TRACE();
    orv::search_state().membership.clear();
    orv::search_state().library_membership.clear();
    return 0;
}

int orv_custom_user_group_membership_standalone_grp_crp_usr_srch(LDAP* ld, const char* filter) {
    ORV_TRACE();
    orv::search_state().library_membership.clear();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (!filter || !strchr(filter, '=')) return orv::report(kNotAMembershipFilter);
    const std::string uid = membership_uid(filter);
    ORV_DEBUG("UID: ", uid);
    ORV_DEBUG("User ID: ", uid);
    orv::OrvString group(getGroupCN(filter));
    ORV_DEBUG("group_cn: ", group ? group.get() : "");
    if (!group) return orv::report(kNotAMembershipFilter);

    LDAP* priv = open_partition_connection();
    orv::OrvString user_dn(priv ? getDNFromUid(priv, uid.c_str(), PARTITION_INFO->search_base,
                                               nullptr)
                                : nullptr);
    orv::unbind(priv);
    ORV_DEBUG("Complete DN for user: ", user_dn ? user_dn.get() : "");
    if (!user_dn) return orv::report(ORV_LDAPLIB_INVALID_INPUT);

    const std::string F =
        std::string("uniquemember") + ORV_CONSTANT_EQUALS + orv::filter_value(user_dn.get());
    orv::OrvString group_dn(is_filter_tier2_group_dn(group.get()) == 1
                                ? remove_paranthesis_from_string(group.get())
                                : getDNFromGroupCN(ld, group.get(), ORV_GROUP_SRCH_BASE));
    if (!group_dn) return orv::report(LDAP_SUCCESS);
    ORV_DEBUG("group_dn: ", group_dn.get());
    return orv::report(read_group(ld, group_dn.get(), F, orv::search_state().library_membership));
}

LDAPMessage* custom_user_group_membership_standalone_grp_crp_usr_first_entry(
    LDAP* ld, ORVLibEntry** entry) {
    ORV_TRACE();
    if (entry) *entry = nullptr;
    LDAPMessage* e = orv::search_state().library_membership.first;
    if (e) orv::fill_entry(ld, entry, e);
    return e;
}

}  // extern "C"
