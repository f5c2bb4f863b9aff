// orv_custom_people_search.cpp - the people search (search type 5001): the
// client's text becomes a people filter on the base chosen by the dispatch;
// with meta groups configured on the corporate partition the results are
// restricted to the meta group for users, or, for a star search, the meta
// group's member DNs become the result set.  A filter that names the Windows
// system-user attribute is answered from the Windows user information
// entries of the library's own directory.

#include <strings.h>

#include <cstring>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_search.h"
#include "orvldap_utils.h"

namespace {

const char kPersonFilterStrict[] =
    "(&(objectclass=person)(!(objectclass=computer))(!(objectclass=contact)))";

using orv::corporate_search_mode;
using orv::meta_groups_configured;

// The text inside one pair of parentheses that encloses all of it ("(uid=x)"
// gives "uid=x"); anything else as it is ("(a=b)(c=d)", "uid=x").
std::string without_enclosing_parentheses(const std::string& text) {
    if (text.size() < 2 || text.front() != '(' || text.back() != ')') return text;
    int depth = 0;
    for (std::string::size_type i = 0; i < text.size(); ++i) {
        if (text[i] == '\\') {
            ++i;
            continue;
        }
        if (text[i] == '(') ++depth;
        if (text[i] == ')' && --depth == 0 && i + 1 != text.size()) return text;
    }
    return depth == 0 ? text.substr(1, text.size() - 2) : text;
}

// Every entry of a paged result in order, the later pages included.
std::vector<std::string> all_dns(LDAP* ld, LDAPMessage* res) {
    std::vector<std::string> dns;
    for (LDAPMessage* e = orv::first_entry(ld, res); e;) {
        dns.push_back(orv::entry_dn(ld, e));
        LDAPMessage* next = orv::next_entry(ld, e);
        e = next ? next : orv::next_page();
    }
    return dns;
}

// First value of the entry's attribute id, or NULL.
const char* first_entry_value(ORVLibEntry* entry, int id) {
    if (!entry || !entry->orvlibEntryAttrData) return nullptr;
    for (ORVLibAttribute** a = entry->orvlibEntryAttrData; *a; ++a)
        if ((*a)->attrId == id && (*a)->attrVals && (*a)->attrVals[0]) return (*a)->attrVals[0];
    return nullptr;
}

}  // namespace

extern "C" {

int orv_custom_people_search(LDAP* ld, const char* base, int scope, const char* filter,
                             char** attrs, LDAPMessage** res) {
    ORV_TRACE();
    if (res) *res = nullptr;
    orv::OrvString value(remove_paranthesis_from_string(filter));
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (!value || !*value || !res) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    const char* V = value.get();

    // Star search of a partition restricted by meta groups: the members of
    // the meta group for users are the result.
    if (corporate_search_mode() && meta_groups_configured() && strcasecmp(filter, "*") == 0) {
        ORV_DEBUG("Got the Meta Data Information. Perform Star People Search", "");
        ORV_DEBUG("User input Filter", filter);
        ZORLA_STAR_SEARCH = 1;
        orv::free_list(GLOBAL_ZORLA_USERDN_LIST);
        const char* meta = PARTITION_INFO->meta_group_for_users;
        GLOBAL_ZORLA_USERDN_LIST = mechanism == ORV_VLV
                                       ? get_zorla_group_dns(ld, meta, "*", "uniqueMember")
                                       : get_zorla_group_dns_paging(ld, meta, "*", "member");
        ORV_DEBUG("Number of user DNs in the user group: ",
                  count_array_elements(GLOBAL_ZORLA_USERDN_LIST));
        if (GLOBAL_ZORLA_USERDN_LIST) return orv::report(LDAP_SUCCESS);
        ZORLA_STAR_SEARCH = 0;
        return orv::report(LDAP_NO_SUCH_OBJECT);
    }

    // Windows system users come from the library's own directory.
    if (strchr(V, '*') && systemLoginFilterCheck(V) == 1) {
        ORV_DEBUG("System Login Filter Check", "");
        int rc = searchForWindowsSystemUser(V, res);
        if (rc != LDAP_SUCCESS) ORV_WIN_USER_SEARCH = 0;
        return orv::report(rc);
    }

    ORV_DEBUG("Partial * Or exact people search", "");
    std::string search_base = base ? base : "";
    std::string F;
    if (string_is_dn(V) == 1) {
        search_base = V;
        F = mechanism == ORV_VLV ? "objectclass=person" : kPersonFilterStrict;
    } else if (ORV_OPERATION_MODE == 1 && ORV_OP_MODE_SEARCH == 0) {
        // Local part of a corporate search: mirrored corporate users were
        // found on the corporate server already.  The value goes inside
        // parentheses of its own, so a caller's "(uid=x)" loses its outer pair.
        const std::string inner = without_enclosing_parentheses(V);
        if (inner.find('=') == std::string::npos)
            F = "(&(|(cn=" + inner + ")(uid=" + inner + "))(!(orvCorporateDN=*))(objectclass=person))";
        else
            F = "(&(" + inner + ")" + "(!(orvCorporateDN=*))(objectclass=person))";
    } else {
        char* built = nullptr;
        if (mechanism == ORV_VLV)
            _setFilter(filter, ORV_SEARCH_PEOPLE, &built);
        else
            _setFilterPaging(filter, ORV_SEARCH_PEOPLE, &built);
        orv::OrvString owned(built);
        F = built ? built : "";
    }
    ORV_DEBUG("Complete Filter ", F);
    ORV_DEBUG("People search base DN: ", search_base);

    int rc = orv::paged_search(ld, search_base.c_str(), scope, F.c_str(), attrs, res);
    if (rc != LDAP_SUCCESS && rc != LDAP_SIZELIMIT_EXCEEDED) return orv::report(rc);

    LDAPMessage* first = orv::first_entry(ld, *res);
    if (!first) {
        orvlib_orvmessage_free(*res);
        *res = nullptr;
        orv::reset_pager();
        return orv::report(LDAP_NO_SUCH_OBJECT);
    }
    if (corporate_search_mode() && meta_groups_configured()) {
        if (strchr(V, '*')) {
            // A partial search becomes a DN list; the iteration checks the
            // meta group DN by DN.
            ZORLA_STAR_SEARCH = 1;
            orv::free_list(GLOBAL_ZORLA_USERDN_LIST);
            GLOBAL_ZORLA_USERDN_LIST = orv::to_orv_array(all_dns(ld, *res));
        } else {
            // Exact searches: every entry of every page must be a member of
            // the meta group.  Checking the later pages reads them, so the
            // search is made again for the caller once all of them passed.
            bool read_later_pages = false;
            for (LDAPMessage* e = first; e;) {
                const std::string dn = orv::entry_dn(ld, e);
                ORV_DEBUG("DN", dn);
                if (dn.empty() || isValidMetaGroupMember(dn.c_str(), 0) != 0) {
                    ORV_DEBUG("DN not a valid MetaGroup Member", dn);
                    orvlib_orvmessage_free(*res);
                    *res = nullptr;
                    orv::reset_pager();
                    return orv::report(LDAP_NO_SUCH_OBJECT);
                }
                LDAPMessage* next = orv::next_entry(ld, e);
                if (!next) {
                    next = orv::next_page();
                    if (next) read_later_pages = true;
                }
                e = next;
            }
            if (read_later_pages) {
                orvlib_orvmessage_free(*res);
                *res = nullptr;
                rc = orv::paged_search(ld, search_base.c_str(), scope, F.c_str(), attrs, res);
            }
        }
    }
    return orv::report(rc);
}

int searchForWindowsSystemUser(const char* filter, LDAPMessage** res) {
    ORV_TRACE();
    if (res) *res = nullptr;
    ORV_DEBUG("User Filter: ", filter ? filter : "");
    if (!orv_ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (!filter || !res) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    const std::string F = std::string("(&(objectclass=orvWindowsUserInformation)") + "(" +
                          without_enclosing_parentheses(filter) + "))";
    orv::LdapMsg found;
    int rc = orv::search(orv_ld, ORV_WIN_USER_SYSTEM_INFO_BASE, LDAP_SCOPE_SUBTREE, F.c_str(),
                         nullptr, 0, found);
    if (rc != LDAP_SUCCESS || !orv::first_entry(orv_ld, found.get())) {
        ORV_DEBUG("User not found: ", filter);
        rc = LDAP_NO_SUCH_OBJECT;
    } else {
        *res = found.release();
    }
    ORV_DEBUG("return value: ", rc);
    return rc;
}

LDAPMessage* orvGetWinUserEntry(LDAP* ld, ORVLibEntry** entry, LDAPMessage* res, int first) {
    ORV_TRACE();
    if (entry) *entry = nullptr;
    if (!ld || !res) return nullptr;
    LDAPMessage* e = first ? orv::first_entry(ld, res) : orv::next_entry(ld, res);
    if (!e) return nullptr;
    // While the first entry is filled its application user id goes to _UUID.
    _isFirstEntry = first ? 1 : 0;
    orv::fill_entry(ld, entry, e);
    _isFirstEntry = 0;
    orvGetPeopleSearchEntries(ld, entry);
    return e;
}

void orvGetPeopleSearchEntries(LDAP* ld, ORVLibEntry** entry) {
    ORV_TRACE();
    if (!_UUID || !_UUID[0]) {
        ORV_DEBUG("Unable to retrieve the Object UUID value", "");
        orv::free_list(_UUID);
        return;
    }
    const std::string filter = std::string("orvZORLAUserId") + ORV_CONSTANT_EQUALS + _UUID[0];
    ORV_DEBUG("Filter:", filter);
    orv::free_list(_UUID);
    if (!ld || !entry || !*entry) return;

    orv::LdapMsg res;
    int rc = orv::search(ld, ORV_PEOPLE_SRCH_BASE, LDAP_SCOPE_SUBTREE, filter.c_str(),
                         ORVLIB_USER_ATTR_LIST, 0, res);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Search failed for the user", rc);
        return;
    }
    LDAPMessage* e = orv::first_entry(ld, res.get());
    if (!e) {
        ORV_DEBUG("Failed to retrieve the User entry", "");
        return;
    }
    orv::append_server_attributes(ld, e, *entry);

    // A mirrored corporate user: add the attributes of its corporate entry,
    // found by the first RDN of its corporate DN, in a search of its own
    // (the Windows user iteration goes on afterwards).
    const char* corporate_dn = first_entry_value(*entry, 13);
    if (!corporate_dn) return;
    std::string rdn = corporate_dn;
    const size_t comma = rdn.find(',');
    if (comma != std::string::npos) rdn.resize(comma);
    orv::NestedSearch own_search;
    LDAPMessage* nested = nullptr;
    rc = orvlib_search_ext_s(ld, rdn.c_str(), ORV_SEARCH_PEOPLE, &nested);
    orv::LdapMsg owned(nested);
    if (rc != LDAP_SUCCESS) return;
    LDAP* reader = ORV_OP_MODE_SEARCH == 1 ? orv::corporate_connection() : ld;
    LDAPMessage* ce = orv::first_entry(reader, nested);
    if (ce) orv::append_server_attributes(reader, ce, *entry);
}

}  // extern "C"
