// orv_custom_user_groups_search.cpp - the user-groups search (search type
// 5003: which groups is this user in?), its local counterpart used when the
// corporate search gives nothing, and the meta-data filter builder for
// partitions whose group membership is described by meta-schema entries.

#include <strings.h>

#include <cstring>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_utils.h"

namespace {

using orv::corporate_search_mode;

// The user DN named by a filter that is a DN or a user id filter, looked up
// below `base` on ld; empty when not found.
std::string user_dn_of(LDAP* ld, const char* filter, const char* base) {
    if (!filter) return {};
    if (string_is_dn(filter) == 1) {
        orv::OrvString dn(remove_paranthesis_from_string(filter));
        return dn ? dn.get() : "";
    }
    char* rdn_raw = nullptr;
    orv::OrvString uid(getUIDFromFilter(filter, &rdn_raw));
    orv::OrvString rdn(rdn_raw);
    if (!uid || !ld) return {};
    orv::OrvString dn(getDNFromUid(ld, uid.get(), base, nullptr));
    return dn ? dn.get() : "";
}

std::string member_filter(const std::string& escaped_dn) {
    return std::string("(|(") + "uniquemember" + ORV_CONSTANT_EQUALS + escaped_dn + ")(" +
           "member" + ORV_CONSTANT_EQUALS + escaped_dn + "))";
}

// First value of attribute id of an entry, or empty.
std::string entry_value(ORVLibEntry* entry, int id) {
    char** vals = orvlib_get_entry_vals(entry, id);
    std::string out = vals && vals[0] ? vals[0] : "";
    orvlib_free_values(vals);
    return out;
}

}  // namespace

extern "C" {

int orv_custom_user_groups_search(LDAP* ld, const char* filter, LDAPMessage** res) {
    ORV_TRACE();
    if (res) *res = nullptr;
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (!filter || !res) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    LDAP* work = corporate_search_mode() ? corporate_user_ld : ld;

    std::string user_dn;
    if (string_is_dn(filter) == 1) {
        orv::OrvString dn(remove_paranthesis_from_string(filter));
        user_dn = dn ? dn.get() : "";
    } else {
        char* rdn_raw = nullptr;
        orv::OrvString uid(getUIDFromFilter(filter, &rdn_raw));
        orv::OrvString rdn(rdn_raw);
        if (uid && work) {
            orv::OrvString dn(getDNFromUid(work, uid.get(), nullptr, nullptr));
            if (dn) user_dn = dn.get();
        }
        if (user_dn.empty() && uid) {
            // A user of the library's own directory.
            ORV_OP_MODE_SEARCH = 0;
            orv::OrvString dn(getDNFromUid(ld, uid.get(), nullptr, nullptr));
            if (dn) user_dn = dn.get();
        }
        if (user_dn.empty()) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    }
    // The DN as a filter value (RFC 4515): "CN=Smith\, John,..." matches.
    const std::string M = orv::filter_value(user_dn);
    ORV_DEBUG("Modified DN: ", M);

    LDAP* conn = ld;
    std::string base = ORV_GROUP_SRCH_BASE;
    ORVLibEntry* meta = nullptr;
    if (ORV_OPERATION_MODE == 1 && TIER2_GROUP_SEARCH != 1) {
        conn = corporate_user_ld;
        if (!conn) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        base = CORP_GROUP_SEARCH_BASE ? CORP_GROUP_SEARCH_BASE : "";
        if (PARTITION_INFO && PARTITION_INFO->partition_isMetaSchema_Configured > 0)
            meta = get_meta_data_information(ld, "PEX_USER_GROUPS_SEARCH");
    }

    int rc;
    orv::LdapMsg found;
    if (meta && TIER2_GROUP_SEARCH == 0) {
        const std::string object_class = entry_value(meta, 75);
        const std::string attribute = entry_value(meta, 74);
        orvlib_orvlibentry_free(meta);
        orv::OrvString F(perform_custom_search(conn, user_dn.c_str(), object_class.c_str(),
                                               attribute.c_str()));
        if (!F) return orv::report(LDAP_SUCCESS);
        ORV_DEBUG("Search Filter: ", F.get());
        ORV_DEBUG("searchBase: ", base);
        rc = orv::search(conn, base.c_str(), LDAP_SCOPE_SUBTREE, F.get(), ORVLIB_GROUP_ATTR_LIST, 0,
                         found);
    } else {
        orvlib_orvlibentry_free(meta);
        const std::string F = (mechanism == ORV_VLV || TIER2_GROUP_SEARCH == 1)
                                  ? member_filter(M)
                                  : std::string("member") + ORV_CONSTANT_EQUALS + M;
        ORV_DEBUG("Search Filter: ", F);
        ORV_DEBUG("searchBase: ", base);
        rc = orv::search(conn, base.c_str(), LDAP_SCOPE_SUBTREE, F.c_str(), ORVLIB_GROUP_ATTR_LIST,
                         0, found);
    }
    *res = found.release();
    return orv::report(rc);
}

LDAPMessage* perform_standalone_user_groups_search(LDAP* ld, const char* filter) {
    ORV_TRACE();
    if (!ld) return nullptr;
    if (!perform_grp_srch_standalone_first_time) {
        orv::search_state().local_user_groups_cursor = orv::next_entry(ld, orv::search_state().local_user_groups_cursor);
        return orv::search_state().local_user_groups_cursor;
    }
    perform_grp_srch_standalone_first_time = 0;
    orv::search_state().local_user_groups_cursor = nullptr;

    // The user as the library's own directory knows it, else as the
    // corporate directory does (local groups may list corporate DNs).
    std::string dn = user_dn_of(ld, filter, ORV_PEOPLE_SRCH_BASE);
    if (dn.empty() && ORV_OPERATION_MODE == 1 && corporate_admin_ld)
        dn = user_dn_of(corporate_admin_ld, filter, CORP_PEOPLE_SEARCH_BASE);
    if (dn.empty()) {
        ORV_DEBUG("No of entries in searchresult: ", 0);
        return nullptr;
    }
    const std::string F = member_filter(orv::filter_value(dn));
    ORV_DEBUG("Search Filter: ", F);
    orv::LdapMsg res;
    int rc = orv::search(ld, ORV_GROUP_SRCH_BASE, LDAP_SCOPE_SUBTREE, F.c_str(),
                         ORVLIB_GROUP_ATTR_LIST, 0, res);
    ORV_DEBUG("No of entries in searchresult: ",
              rc == LDAP_SUCCESS ? ldap_count_entries(ld, res.get()) : 0);
    ORV_DEBUG("ldapErrcode in standalone group searches", rc);
    orv::search_state().local_user_groups_cursor =
        orv::first_entry(ld, orv::hold(orv::Held::LocalUserGroups, res.release()));
    return orv::search_state().local_user_groups_cursor;
}

char* perform_custom_search(LDAP* local_ld, const char* dn, const char* objectclass,
                            const char* attribute_name) {
    ORV_TRACE();
    if (!local_ld || !dn || !objectclass || !attribute_name) return nullptr;
    const std::string filter = std::string("objectclass=") + objectclass;
    const char* attrs[] = {attribute_name, nullptr};
    orv::LdapMsg res;
    int rc = orv::search(local_ld, dn, LDAP_SCOPE_SUBTREE, filter.c_str(), attrs, 0, res);
    if (rc != LDAP_SUCCESS) {
        ldapErrCode = rc;
        return nullptr;
    }
    LDAPMessage* e = orv::first_entry(local_ld, res.get());
    if (!e) return nullptr;
    BerElement* raw = nullptr;
    char* name = ldap_first_attribute(local_ld, e, &raw);
    orv::BerPtr ber(raw);
    orv::LdapString owned(name);
    if (!name) return nullptr;
    std::vector<std::string> values = orv::attribute_values(local_ld, e, name);
    if (values.empty()) return nullptr;

    std::string out = "(|";
    for (const std::string& v : values) {
        const char* compare = string_is_dn(v.c_str()) != 1 ? "cn"
                              : mechanism == ORV_PAGING  ? "distinguishedName"
                                                         : "entryDN";
        out += std::string("(") + compare + "=" + v + ")";
    }
    out += ")";
    ORV_DEBUG("Meta data filter: ", out);
    return _orvlib_dupString(out.c_str());
}

}  // extern "C"
