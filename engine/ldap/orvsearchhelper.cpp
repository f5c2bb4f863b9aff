// orvsearchhelper.cpp - the layer between the public search calls and the
// custom searches: dispatch by search type on the connection and bases of
// the current mode, detection of the result paging control, the pager that
// fetches further pages while the caller iterates, meta-schema information,
// member DN collection (whole or in ranges) and the DN-list iterations.

#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_search.h"
#include "orvldap_session.h"
#include "orvldap_utils.h"

namespace {
const char kPagedResultsOid[] = "1.2.840.113556.1.4.319";
const char kVlvOid[] = "2.16.840.1.113730.3.4.9";
const char kPersonFilterStrict[] =
    "(&(objectclass=person)(!(objectclass=computer))(!(objectclass=contact)))";
const char kMemberRange[] = "member;range=";

using orv::is_connection_drop;

std::string ber_text(const berval* v) {
    if (!v || !v->bv_val) return {};
    return std::string(v->bv_val, strnlen(v->bv_val, v->bv_len));
}

// Cookies and contexts are opaque bytes.
std::string ber_bytes(const berval* v) {
    if (!v || !v->bv_val) return {};
    return std::string(v->bv_val, v->bv_len);
}

// ------------------------------------------------------------------ pager

using orv::PageKind;
using orv::Pager;

void reset(Pager& p) {
    p = Pager();
    has_more_pages = 0;
}

// Sends one page request; parses the page or window response control and
// records whether more follow.
int request_page(Pager& p, LDAPMessage** out) {
    *out = nullptr;
    std::vector<char*> attrs;
    for (std::string& a : p.attrs) attrs.push_back(&a[0]);
    attrs.push_back(nullptr);
    char** attr_list = p.all_attrs ? nullptr : attrs.data();

    LDAPControl* controls[3] = {nullptr, nullptr, nullptr};
    if (p.kind == PageKind::Paging) {
        berval cookie{static_cast<ber_len_t>(p.cookie.size()), p.cookie.empty() ? nullptr : &p.cookie[0]};
        if (ldap_create_page_control(p.ld, ORV_SEARCH_PAGE_SIZE, &cookie, 0, &controls[0]) !=
            LDAP_SUCCESS)
            controls[0] = nullptr;
    } else if (p.kind == PageKind::Vlv) {
        LDAPSortKey** keys = nullptr;
        char key[] = "cn";
        if (ldap_create_sort_keylist(&keys, key) == LDAP_SUCCESS) {
            if (ldap_create_sort_control(p.ld, keys, 0, &controls[0]) != LDAP_SUCCESS)
                controls[0] = nullptr;
            ldap_free_sort_keylist(keys);
        }
        berval context{static_cast<ber_len_t>(p.context.size()),
                       p.context.empty() ? nullptr : &p.context[0]};
        LDAPVLVInfo info{};
        info.ldvlv_version = 1;
        info.ldvlv_before_count = 0;
        info.ldvlv_after_count = ORV_SEARCH_PAGE_SIZE - 1;
        info.ldvlv_offset = p.next_offset;
        // A content count of 0 makes the server take the offset as the
        // position itself.  Sent back with the server's own count, the
        // offset is scaled by the server (offset * its count / the count
        // sent), and 389 Directory Server rounds that down now and then
        // (offset 3001 of 5010 entries gives position 3000).
        info.ldvlv_count = 0;
        info.ldvlv_context = p.context.empty() ? nullptr : &context;
        if (controls[0] && ldap_create_vlv_control(p.ld, &info, &controls[1]) == LDAP_SUCCESS) {
            controls[1]->ldctl_iscritical = 0;
        } else {
            controls[1] = nullptr;
        }
        if (!controls[1] && controls[0]) {
            ldap_control_free(controls[0]);
            controls[0] = nullptr;
        }
    }

    LDAPMessage* res = nullptr;
    int rc = orv::status_from_ldap(ldap_search_ext_s(p.ld, p.base.c_str(), p.scope,
                                                    p.filter.c_str(), attr_list, 0,
                                                    controls[0] ? controls : nullptr, nullptr,
                                                    nullptr, LDAP_NO_LIMIT, &res));
    for (LDAPControl* c : controls)
        if (c) ldap_control_free(c);
    if (res && rc != LDAP_SUCCESS && rc != LDAP_SIZELIMIT_EXCEEDED) {
        // An error result is the library's to free, never the caller's.
        ldap_msgfree(res);
        res = nullptr;
    }

    p.more = false;
    p.skip = 0;
    if (res && (rc == LDAP_SUCCESS || rc == LDAP_SIZELIMIT_EXCEEDED)) {
        LDAPControl** returned = nullptr;
        int err = 0;
        if (ldap_parse_result(p.ld, res, &err, nullptr, nullptr, nullptr, &returned, 0) ==
            LDAP_SUCCESS) {
            orv::LdapControls owned(returned);
            if (p.kind == PageKind::Paging) {
                LDAPControl* c = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, returned, nullptr);
                berval cookie{0, nullptr};
                ber_int_t estimate = 0;
                if (c && ldap_parse_pageresponse_control(p.ld, c, &estimate, &cookie) ==
                             LDAP_SUCCESS) {
                    // A cookie may repeat: 389 Directory Server hands back the
                    // same one for every page of a search.
                    p.cookie = ber_bytes(&cookie);
                    if (cookie.bv_val) ber_memfree(cookie.bv_val);
                    p.more = !p.cookie.empty();
                }
            } else if (p.kind == PageKind::Vlv) {
                LDAPControl* c = ldap_control_find(LDAP_CONTROL_VLVRESPONSE, returned, nullptr);
                ber_int_t target = 0, count = 0;
                berval* context = nullptr;
                int vlv_err = 0;
                if (c && ldap_parse_vlvresponse_control(p.ld, c, &target, &count, &context,
                                                        &vlv_err) == LDAP_SUCCESS) {
                    p.context = ber_bytes(context);
                    if (context) ber_bvfree(context);
                    if (vlv_err == LDAP_SUCCESS && target > 0) {
                        // The window holds the positions target, target + 1,
                        // ...; those before the position asked for were
                        // delivered with the window before.
                        const int asked = p.next_offset;
                        const int n = ldap_count_entries(p.ld, res);
                        p.skip = target < asked ? asked - target : 0;
                        if (target > asked)
                            ORV_DEBUG("Window starts after the position asked for: ", target);
                        p.content_count = count;
                        p.next_offset = target + (n > 0 ? n : 0);
                        // A window that brings nothing new ends the results.
                        p.more = n > 0 && p.next_offset > asked && p.next_offset <= count;
                    }
                }
            }
        }
    }
    *out = res;
    has_more_pages = p.more ? 1 : 0;
    return rc;
}

}  // namespace

// ------------------------------------------------------------------ shared helpers

namespace orv {

LDAPMessage* first_entry(LDAP* ld, LDAPMessage* res) {
    return ld && res ? ldap_first_entry(ld, res) : nullptr;
}

LDAPMessage* next_entry(LDAP* ld, LDAPMessage* entry) {
    return ld && entry ? ldap_next_entry(ld, entry) : nullptr;
}

LDAP* own_connection(LDAP* /*handle*/) { return orv_ld; }

LDAP* corporate_connection() {
    if (corporate_user_ld) return corporate_user_ld;
    if (corporate_admin_ld) return corporate_admin_ld;
    return orv_ld;
}

void fill_entry(LDAP* ld, ORVLibEntry** entry, LDAPMessage* server_entry) {
    if (!entry || !ld || !server_entry) return;
    *entry = nullptr;
    populate_orvlibentry_entry(ld, entry, &server_entry);
}

LDAP* reconnect_corporate(LDAP* ld) {
    const bool was_user = ld && ld == corporate_user_ld;
    const bool was_admin = ld && ld == corporate_admin_ld;
    reconnect_to_corporate_server();
    if (was_user) return corporate_user_ld;
    if (was_admin) return corporate_admin_ld;
    return ld;
}

std::string cpu_seconds_since(long started) {
    char text[64];
    snprintf(text, sizeof text, "%lf",
             static_cast<double>(static_cast<long>(clock()) - started) / 1000000.0);
    return text;
}

char** to_orv_array(const std::vector<std::string>& values) {
    if (values.empty()) return nullptr;
    char** out = orvlib_arr_malloc(static_cast<unsigned>(values.size() + 1));
    if (!out) return nullptr;
    size_t n = 0;
    for (const std::string& v : values) {
        char* copy = _orvlib_dupString(v.c_str());
        if (!copy) continue;
        out[n++] = copy;
    }
    out[n] = nullptr;
    return out;
}

std::vector<std::string> attribute_values(LDAP* ld, LDAPMessage* entry, const char* name) {
    std::vector<std::string> out;
    if (!ld || !entry || !name) return out;
    LdapBerValues vals(ldap_get_values_len(ld, entry, name));
    if (!vals) return out;
    for (berval** v = vals.get(); *v; ++v) out.push_back(ber_text(*v));
    return out;
}

void free_list(char**& list) {
    orvlib_free_values(list);
    list = nullptr;
}

int paged_search(LDAP* ld, const char* base, int scope, const char* filter, char** attrs,
                 LDAPMessage** res) {
    Pager& p = search_state().pager;
    reset(p);
    if (res) *res = nullptr;
    if (!ld) return orv::kParamError;
    p.ld = ld;
    p.owner = ld == orv_ld               ? &orv_ld
              : ld == corporate_user_ld  ? &corporate_user_ld
              : ld == corporate_admin_ld ? &corporate_admin_ld
                                         : nullptr;
    p.base = base ? base : "";
    p.filter = filter ? filter : "(objectclass=*)";
    p.scope = scope;
    p.all_attrs = attrs == nullptr;
    for (char** a = attrs; a && *a; ++a) p.attrs.emplace_back(*a);
    p.kind = mechanism == ORV_PAGING ? PageKind::Paging
             : mechanism == ORV_VLV  ? PageKind::Vlv
                                     : PageKind::None;
    p.next_offset = 1;

    LDAPMessage* first = nullptr;
    p.pages = 1;
    int rc = request_page(p, &first);
    if (p.kind != PageKind::None &&
        (rc == LDAP_UNAVAILABLE_CRITICAL_EXTENSION || rc == LDAP_VLV_ERROR ||
         rc == 0x3C /* sortControlMissing */ || rc == LDAP_UNWILLING_TO_PERFORM ||
         rc == LDAP_INAPPROPRIATE_MATCHING || rc == LDAP_PROTOCOL_ERROR)) {
        // A server that refuses the control gets the plain search.
        ORV_DEBUG("Paging control refused, searching without it: ", rc);
        if (first) ldap_msgfree(first);
        p.kind = PageKind::None;
        rc = request_page(p, &first);
    }
    if (!p.more) p.ld = nullptr;  // nothing to continue
    if (res) {
        *res = first;
    } else if (first) {
        ldap_msgfree(first);
    }
    return rc;
}

LDAPMessage* next_page() {
    Pager& p = search_state().pager;
    // A library connection replaced since the search (reconnect) ends the
    // results: its handle is gone.
    if (p.ld && p.owner && *p.owner != p.ld) {
        ORV_DEBUG("Connection of the paged search is gone", "");
        p.ld = nullptr;
        p.more = false;
        has_more_pages = 0;
        orv::report(orv::kServerDown);
    }
    while (p.ld && p.more) {
        if (p.pages >= ORV_SEARCH_MAX_PAGES) {
            // A server whose pages never end: the search ends here.
            ORV_DEBUG("Page limit reached: ", static_cast<long>(p.pages));
            p.more = false;
            has_more_pages = 0;
            orv::report(LDAP_SIZELIMIT_EXCEEDED);
            break;
        }
        ++p.pages;
        LDAPMessage* page = nullptr;
        int rc = request_page(p, &page);
        p.held.reset(page);
        if (rc != LDAP_SUCCESS && rc != LDAP_SIZELIMIT_EXCEEDED) {
            ORV_DEBUG("Fetching the next page failed: ", rc);
            // The caller learns that the results end early, and why.
            orv::report(rc);
            p.more = false;
            has_more_pages = 0;
            break;
        }
        LDAPMessage* e = first_entry(p.ld, page);
        for (int k = 0; e && k < p.skip; ++k) e = next_entry(p.ld, e);
        if (e) return e;
    }
    return nullptr;
}

void reset_pager() { reset(search_state().pager); }

LDAPMessage* hold(Held slot, LDAPMessage* msg) {
    search_state().held[static_cast<int>(slot)].reset(msg);
    return msg;
}

void release(Held slot) { search_state().held[static_cast<int>(slot)].reset(); }

void release_all() {
    for (LdapMsg& m : search_state().held) m.reset();
}

}  // namespace orv

// ------------------------------------------------------------------ DN-list iteration

namespace {

// One step of the DN-list iteration of people (5001) or groups (5002).
LDAPMessage* dn_list_step(LDAP* ld, int searchType, ORVLibEntry** entry) {
    const bool groups = searchType == ORV_SEARCH_GROUPS;
    char**& list = groups ? GLOBAL_ZORLA_GROUPDN_LIST : GLOBAL_ZORLA_USERDN_LIST;
    int& index = groups ? current_zorla_group_dn_index : current_zorla_user_dn_index;
    if (!list) return nullptr;

    const char* input = user_input_filter;
    const bool star = input && strcasecmp(input, "*") == 0;
    std::string filter;
    if (star) {
        if (groups)
            filter = ORV_CONSTANT_CORP_GROUP_CLASSFILTER_STR;
        else
            filter = mechanism == ORV_PAGING ? kPersonFilterStrict : "objectclass=person";
    } else {
        char* built = nullptr;
        if (mechanism == ORV_VLV)
            _setFilter(input, searchType, &built);
        else
            _setFilterPaging(input, searchType, &built);
        orv::OrvString owned(built);
        filter = built ? built : "";
    }
    char** attrs = const_cast<char**>(groups ? ORVLIB_GROUP_ATTR_LIST : ORVLIB_USER_ATTR_LIST);

    for (;;) {
        ++index;
        const char* dn = list[index];
        ORV_DEBUG(groups ? "Zorla Group to search" : "Zorla User to search", dn ? dn : "");
        ORV_DEBUG("Complete Filter", filter);
        ORV_DEBUG(groups ? "Zorla Group DN index" : "Zorla User DN index", index);
        ORV_DEBUG(groups ? "Global Group DN" : "Global User DN", dn ? dn : "");
        if (!dn) {
            orv::free_list(list);
            orv::release(orv::Held::DnList);
            return nullptr;
        }
        const long started = static_cast<long>(clock());
        orv::LdapMsg res;
        int rc = orv::kServerDown;
        for (int attempt = 0; attempt <= connection_retries; ++attempt) {
            rc = orv::search(ld, dn, LDAP_SCOPE_BASE, filter.c_str(), attrs, 0, res);
            if (!is_connection_drop(rc) || attempt == connection_retries) break;
            ORV_DEBUG("Connection Timed out", rc);
            ld = orv::reconnect_corporate(ld);
        }
        if (rc != LDAP_SUCCESS) ORV_DEBUG("Error Object:", dn);
        LDAPMessage* e = rc == LDAP_SUCCESS ? orv::first_entry(ld, res.get()) : nullptr;
        if (!e) {
            ORV_DEBUG(groups ? "Group not found: " : "User not found: ", dn);
            continue;
        }
        if (!star && isValidMetaGroupMember(dn, groups ? 1 : 0) != 0) continue;

        orv::fill_entry(ld, entry, e);
        ORV_DEBUG("Time to fetch user from corp server", orv::cpu_seconds_since(started));
        check_and_populate_extended_information(orv::own_connection(ld), &e, entry, searchType);
        ORV_DEBUG("Time to fetch user from Local server", orv::cpu_seconds_since(started));
        return orv::hold(orv::Held::DnList, res.release());
    }
}

// The range an attribute name "member;range=<low>-<high>" (or "-*", the
// last range) names.  `ranged` is false for a name without a range option;
// a range that cannot be read counts as one that starts at -1.
struct MemberRange {
    bool ranged = false;
    bool last = false;
    long low = -1;
    long high = -1;
};

MemberRange member_range_of(const std::string& name) {
    MemberRange r;
    const std::string::size_type at = orv::lowered(name).find(kMemberRange);
    if (at == std::string::npos) return r;
    r.ranged = true;
    const std::string range = name.substr(at + sizeof kMemberRange - 1);
    const std::string::size_type dash = range.find('-');
    if (dash == std::string::npos || dash == 0 || dash > 18 ||
        range.find_first_not_of("0123456789") != dash)
        return r;
    const std::string high = range.substr(dash + 1);
    r.last = high == "*";
    if (!r.last && (high.empty() || high.size() > 18 ||
                    high.find_first_not_of("0123456789") != std::string::npos))
        return r;
    r.low = std::stol(range.substr(0, dash));
    if (!r.last) r.high = std::stol(high);
    return r;
}

// Reads the values of the attribute `attr` of dn (base scope, "objectclass="
// + class), retrying after connection drops.  `exact` takes the attribute of
// that name; otherwise the first attribute of the entry.
int read_values(LDAP*& ld, const char* dn, const char* objectClass, const char* attr, bool exact,
                std::vector<std::string>& out, std::string* name_read = nullptr) {
    out.clear();
    if (!ld) return ORV_LDAPLIB_SESSION_INVALID;
    if (!dn || !attr) return ORV_LDAPLIB_INVALID_INPUT;
    const std::string filter = std::string("objectclass=") + (objectClass ? objectClass : "*");
    const char* attrs[] = {attr, nullptr};
    orv::LdapMsg res;
    int rc = orv::kServerDown;
    for (int attempt = 0; attempt <= connection_retries; ++attempt) {
        rc = orv::search(ld, dn, LDAP_SCOPE_BASE, filter.c_str(), attrs, 0, res);
        if (!is_connection_drop(rc) || attempt == connection_retries) break;
        ORV_DEBUG("Connection timed out", rc);
        ld = orv::reconnect_corporate(ld);
    }
    if (rc != LDAP_SUCCESS) return rc;
    ORV_DEBUG("Search Successfull", "");
    LDAPMessage* e = orv::first_entry(ld, res.get());
    if (!e) return LDAP_NO_SUCH_OBJECT;
    if (exact) {
        out = orv::attribute_values(ld, e, attr);
        return LDAP_SUCCESS;
    }
    BerElement* raw = nullptr;
    char* name = ldap_first_attribute(ld, e, &raw);
    orv::BerPtr ber(raw);
    orv::LdapString owned(name);
    if (!name) return LDAP_SUCCESS;
    ORV_DEBUG("First Entry found. AttrName:", name);
    out = orv::attribute_values(ld, e, name);
    if (name_read) *name_read = name;
    return LDAP_SUCCESS;
}

}  // namespace

extern "C" {

void determine_control(LDAP* ld) {
    ORV_TRACE();
    const char* attrs[] = {"supportedControl", nullptr};
    orv::LdapMsg res;
    int rc = orv::search(ld, "", LDAP_SCOPE_BASE, "(objectclass=*)", attrs, 0, res);
    LDAPMessage* entry = rc == LDAP_SUCCESS ? ldap_first_entry(ld, res.get()) : nullptr;
    if (!entry) {
        ORV_DEBUG("Entry Failed", "");
        ldapErrCode = rc != LDAP_SUCCESS ? rc : orv::last_error(ld);
        return;
    }
    orv::LdapBerValues vals(ldap_get_values_len(ld, entry, "supportedControl"));
    if (!vals) {
        ORV_DEBUG("Fetching attribute failed", "");
        ldapErrCode = orv::last_error(ld);
        return;
    }
    // Whichever of the two controls the server lists first wins.
    for (berval** v = vals.get(); *v; ++v) {
        std::string oid((*v)->bv_val, (*v)->bv_len);
        if (oid == kVlvOid) {
            mechanism = ORV_VLV;
            return;
        }
        if (oid == kPagedResultsOid) {
            mechanism = ORV_PAGING;
            return;
        }
    }
}

int invoke_underlaying_search_mechanism(int searchType, LDAP* ld, const char* filter,
                                        LDAPMessage** res) {
    ORV_TRACE();
    if (res) *res = nullptr;
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);

    LDAP* conn = ld;
    std::string people_base = ORV_PEOPLE_SRCH_BASE;
    std::string group_base = ORV_GROUP_SRCH_BASE;
    if (!orv::corporate_search_mode()) {
        ORV_DEBUG("Local PEX Operation", "");
    } else {
        ORV_DEBUG("Corporate operation", "");
        if (!corporate_user_ld || !PARTITION_INFO) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
        conn = corporate_user_ld;
        const partition_info* p = PARTITION_INFO;
        if (p->partition_search_base_type != 0) {
            ORV_DEBUG("Secondary Search base", "");
            people_base = p->people_search_base_suffix ? p->people_search_base_suffix : "";
            group_base = p->group_search_base_suffix ? p->group_search_base_suffix : "";
        } else {
            ORV_DEBUG("Primary Search base", "");
            people_base = p->search_base ? p->search_base : "";
            group_base = people_base;
        }
        orvlib_memfree(CORP_PEOPLE_SEARCH_BASE);
        orvlib_memfree(CORP_GROUP_SEARCH_BASE);
        CORP_PEOPLE_SEARCH_BASE = _orvlib_dupString(people_base.c_str());
        CORP_GROUP_SEARCH_BASE = _orvlib_dupString(group_base.c_str());
    }
    {
        orv::OrvString text(orvlib_utils_itoa(mechanism));
        ORV_DEBUG("Search Mechanism:", text ? text.get() : "");
    }

    LDAPMessage* dummy = nullptr;
    LDAPMessage** out = res ? res : &dummy;
    int rc = 0;
    switch (searchType) {
        case ORV_SEARCH_PEOPLE:
            rc = orv_custom_people_search(conn, people_base.c_str(), LDAP_SCOPE_SUBTREE, filter,
                                          const_cast<char**>(ORVLIB_USER_ATTR_LIST), out);
            break;
        case ORV_SEARCH_GROUPS:
            rc = orv_custom_group_search(conn, group_base.c_str(), LDAP_SCOPE_SUBTREE, filter,
                                         const_cast<char**>(ORVLIB_GROUP_ATTR_LIST), out);
            break;
        case ORV_SEARCH_USER_GROUPS:
            rc = filter ? orv_custom_user_groups_search(ld, filter, out)
                        : ORV_LDAPLIB_INVALID_INPUT;
            break;
        case ORV_SEARCH_USER_GROUP_MEMBERSHIP:
            if (!filter) {
                rc = ORV_LDAPLIB_INVALID_INPUT;
            } else if (ORV_OPERATION_MODE == 1) {
                LDAP* priv = PARTITION_INFO ? create_ldap_connection(PARTITION_INFO->hostname,
                                                                     PARTITION_INFO->port_num,
                                                                     PARTITION_INFO->admin_dn,
                                                                     PARTITION_INFO->admin_pwd)
                                            : nullptr;
                if (!priv) {
                    ORV_DEBUG("LDAP handle used for search is not valid", "");
                    rc = ORV_LDAPLIB_UNKNOWN_ERROR;
                } else {
                    rc = orv_custom_user_group_membership_srch(priv, filter);
                    orv::unbind(priv);
                }
            } else {
                rc = orv_custom_user_group_membership_srch(ld, filter);
            }
            *out = nullptr;
            break;
        case ORV_SEARCH_GROUP_MEMBERS:
            if (!filter) {
                rc = ORV_LDAPLIB_INVALID_INPUT;
            } else {
                char* group_dn = nullptr;
                int library_group = is_standalone_group(ld, filter, &group_dn);
                orv::OrvString owned(group_dn);
                group_is_standalone = library_group == 1 ? 1 : 0;
                rc = orv_custom_group_members_search(ld, group_dn, out, group_is_standalone);
            }
            break;
        case ORV_SEARCH_APPLICATION_SERVERS:
            rc = orv_custom_application_server_srch(
                ld, ORV_APPLICATION_REGISTRY_BASE, LDAP_SCOPE_SUBTREE, filter,
                const_cast<char**>(ORVLIB_APPLICATION_SERVER_ATTR_LIST), out);
            break;
        case ORV_SEARCH_APPLICATION_FACILITY:
            rc = orv_custom_application_facility_srch(
                ld, ORV_APPLICATION_REGISTRY_BASE, LDAP_SCOPE_SUBTREE, filter,
                const_cast<char**>(ORVLIB_APPLICATION_FACILITY_ATTR_LIST), out);
            break;
        default:
            rc = ORV_LDAPLIB_INVALID_INPUT;
            break;
    }
    if (!res && dummy) ldap_msgfree(dummy);
    return orv::report(rc);
}

int is_tier2_filter(const char* filter) {
    ORV_TRACE();
    if (!filter) {
        ORV_DEBUG("Filter empty", "");
        return 0;
    }
    if (ORV_OPERATION_MODE == 0) return 1;
    if (ORV_OPERATION_MODE != 1) return 0;
    orv::OrvString lower(string_to_lower(filter));
    if (!lower) return 0;
    // The Windows system-user attribute is looked for with its capitals in
    // the lowered text, so it never counts as a tier-2 filter.
    const char* names[] = {"orvzorlauserid", "orvzorlauserattribute", "orvzorlagroupid",
                           "orvosntusername", "orvWindowsUserSystemName"};
    for (const char* name : names) {
        if (strstr(lower.get(), name)) {
            ORV_DEBUG("Filter: ", filter);
            return 1;
        }
    }
    return 0;
}

ORVLibEntry* get_meta_data_information(LDAP* ld, const char* kind) {
    ORV_TRACE();
    const std::string filter = std::string("pexSearchTypeMetaData=") + (kind ? kind : "");
    const std::string base = std::string("ou=PEXMetaSchemaInformation,") + ORV_ROOT_SUFFIX;
    orv::LdapMsg res;
    int rc = orv::search(ld, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), nullptr, 0, res);
    if (rc != LDAP_SUCCESS) {
        ldapErrCode = rc;
        return nullptr;
    }
    ORV_DEBUG("Search Successfull", "");
    LDAPMessage* e = orv::first_entry(ld, res.get());
    if (!e) return nullptr;
    ORV_DEBUG("First Entry found", "");
    ORVLibEntry* entry = nullptr;
    orv::fill_entry(ld, &entry, e);
    return entry;
}

char** get_zorla_dns(LDAP* ld, const char* dn, const char* objectClass, const char* attr) {
    ORV_TRACE();
    const long started = static_cast<long>(clock());
    std::vector<std::string> values;
    int rc = read_values(ld, dn, objectClass, attr, false, values);
    if (rc != LDAP_SUCCESS) ldapErrCode = rc;
    if (!values.empty()) ORV_DEBUG("MemberValues", values.front());
    ORV_DEBUG("Time to get Zorla DNs:", orv::cpu_seconds_since(started));
    return orv::to_orv_array(values);
}

char** get_zorla_dns_paging(LDAP* ld, const char* dn, const char* objectClass,
                            const char* /*unused*/) {
    ORV_TRACE();
    std::vector<std::string> all;
    int rc = read_values(ld, dn, objectClass, "member", true, all);
    if (rc != LDAP_SUCCESS) {
        ldapErrCode = rc;
        return nullptr;
    }
    if (!all.empty()) return orv::to_orv_array(all);

    // The server hands the members out in ranges: 0-1499, 1500-2999, ...
    // until a request fails or returns nothing.  Each answer must start
    // where the request did; the next request starts after the answer's end
    // (a server may hand out fewer values than asked for), or one window
    // further after the range the server names as the last ("<low>-*").
    long low = 0;
    for (int ranges = 1;; ++ranges) {
        if (ranges > ORV_MEMBER_MAX_RANGES) {
            ORV_DEBUG("Member range limit reached: ", low);
            ldapErrCode = LDAP_SIZELIMIT_EXCEEDED;
            return nullptr;
        }
        const std::string attr = std::string(kMemberRange) + std::to_string(low) +
                                 ORV_CONSTANT_HYPHEN +
                                 std::to_string(low + ORV_MEMBER_RANGE_WINDOW - 1);
        ORV_DEBUG("Member range: ", attr);
        std::vector<std::string> chunk;
        std::string name;
        if (read_values(ld, dn, objectClass, attr.c_str(), false, chunk, &name) != LDAP_SUCCESS ||
            chunk.empty())
            break;
        all.insert(all.end(), chunk.begin(), chunk.end());
        const MemberRange got = member_range_of(name);
        if (!got.ranged) break;  // the whole attribute came at once
        if (got.low != low || (!got.last && got.high < got.low)) {
            ORV_DEBUG("Member range answered out of order: ", name);
            ldapErrCode = orv::kClientLoop;
            return nullptr;
        }
        low = got.last ? low + ORV_MEMBER_RANGE_WINDOW : got.high + 1;
    }
    ORV_DEBUG("Number of member DNs: ", static_cast<long>(all.size()));
    return orv::to_orv_array(all);
}

LDAPMessage* get_first_entry_from_zorla_dn_list(LDAP* ld, int searchType, ORVLibEntry** entry) {
    ORV_TRACE();
    if (entry) *entry = nullptr;
    if (searchType == ORV_SEARCH_GROUPS)
        current_zorla_group_dn_index = -1;
    else
        current_zorla_user_dn_index = -1;
    return dn_list_step(ld, searchType, entry);
}

LDAPMessage* get_next_entry_from_zorla_dn_list(LDAP* ld, int searchType, ORVLibEntry** entry) {
    ORV_TRACE();
    if (entry) *entry = nullptr;
    return dn_list_step(ld, searchType, entry);
}

int is_member_range_present(LDAP* ld, const char* base, const char* filter, char** start,
                            char** end) {
    ORV_TRACE();
    orv::LdapMsg res;
    int rc = orv::search(ld, base, LDAP_SCOPE_SUBTREE, filter, nullptr, 0, res);
    if (rc != LDAP_SUCCESS) return 0;
    LDAPMessage* e = orv::first_entry(ld, res.get());
    if (!e) return 0;
    BerElement* raw = nullptr;
    int answer = 0;
    for (char* name = ldap_first_attribute(ld, e, &raw); name;
         name = ldap_next_attribute(ld, e, raw)) {
        orv::LdapString owned(name);
        if (strncasecmp(name, kMemberRange, sizeof kMemberRange - 1) != 0) continue;
        ORV_DEBUG("members in group are more than MaxValRange:", name);
        // The first range is taken to start at "0": "member;range=0-1499"
        // gives the end "1499".
        const size_t len = strlen(name);
        if (start) *start = _orvlib_dupString("0");
        if (end) *end = _orvlib_dupString(len > 15 ? name + 15 : "");
        answer = 1;
        break;
    }
    orv::BerPtr ber(raw);
    return answer;
}

}  // extern "C"
