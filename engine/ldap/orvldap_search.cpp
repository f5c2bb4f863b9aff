// orvldap_search.cpp - the public search interface: orvlib_search_ext_s
// starts a search of one of the seven kinds, orvlib_first_entry and
// orvlib_next_entry walk its results (filling a fresh ORVLibEntry for each)
// and orvlib_get_entry_vals reads values out of an entry by attribute id.
//
// In corporate mode a search goes to the corporate partition first and falls
// back to the library's own directory; the caller sees one sequence of
// entries either way.  All search state is process-wide: one search and its
// iteration at a time.

#include <strings.h>

#include <cstring>
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

extern "C" {

char* user_input_filter = nullptr;
int _current_search_type = ORV_SEARCH_PEOPLE;
int ZORLA_STAR_SEARCH = 0;
int zorla_attribute_search = 0;
int group_is_standalone = 0;
int perform_grp_srch_standalone_first_time = 1;
int _firstIteration = 1;
int tier2_search = 0;
int has_more_pages = 0;
char** GLOBAL_ZORLA_USERDN_LIST = nullptr;
char** GLOBAL_ZORLA_GROUPDN_LIST = nullptr;
char** GLOBAL_ZORLA_GROUPMEMBERS_LIST = nullptr;
int _isFirstEntry = 0;
char** _UUID = nullptr;
int current_zorla_user_dn_index = -1;
int current_zorla_group_dn_index = -1;

}  // extern "C"

namespace {

bool corporate_mode() { return ORV_OPERATION_MODE == 1; }

LDAPMessage* first_entry_of_search(LDAP* own, ORVLibEntry** entry, LDAPMessage* result);
LDAPMessage* next_entry_of_search(LDAP* own, ORVLibEntry** entry, LDAPMessage* cursor);

// Fills a new entry from a server entry and, for corporate results, extends
// it with the local counterpart.
LDAPMessage* deliver(LDAP* reader, ORVLibEntry** entry, LDAPMessage* e, int extendType,
                     LDAP* own) {
    if (!e) return nullptr;
    orv::fill_entry(reader, entry, e);
    if (extendType != 0 && entry) check_and_populate_extended_information(own, &e, entry, extendType);
    return e;
}

// The next server entry of an ordinary result, continuing with the next
// page when the server holds more.
LDAPMessage* next_server_entry(LDAP* ld, LDAPMessage* cursor) {
    LDAPMessage* e = orv::next_entry(ld, cursor);
    if (!e) e = orv::next_page();
    return e;
}

// People: the local search that follows (or replaces) the corporate one.
// Runs the people dispatch on the library's own directory with the filter of
// the search and returns its first entry, filled.
LDAPMessage* people_local_fallback(LDAP* own, ORVLibEntry** entry) {
    ORV_OP_MODE_SEARCH = 0;
    ZORLA_STAR_SEARCH = 0;
    LDAPMessage* res = nullptr;
    int rc = invoke_underlaying_search_mechanism(ORV_SEARCH_PEOPLE, own, user_input_filter, &res);
    orv::hold(orv::Held::Fallback, res);
    LDAPMessage* e = rc == LDAP_SUCCESS ? orv::first_entry(own, res) : nullptr;
    if (!e) {
        if (corporate_mode()) ORV_OP_MODE_SEARCH = 1;
        return nullptr;
    }
    return deliver(own, entry, e, 0, own);
}

LDAPMessage* local_groups(LDAP* own, ORVLibEntry** entry) {
    LDAPMessage* e = perform_standalone_group_search(own, user_input_filter);
    return deliver(own, entry, e, 0, own);
}

LDAPMessage* local_user_groups(LDAP* own, ORVLibEntry** entry) {
    LDAPMessage* e = perform_standalone_user_groups_search(own, user_input_filter);
    return deliver(own, entry, e, 0, own);
}

void free_dn_lists() {
    orv::free_list(GLOBAL_ZORLA_USERDN_LIST);
    orv::free_list(GLOBAL_ZORLA_GROUPDN_LIST);
    orv::reset_group_members();
    current_zorla_user_dn_index = -1;
    current_zorla_group_dn_index = -1;
}

// Items of the entry that carry id and at least one value, in order.
std::vector<ORVLibAttribute*> matches(ORVLibEntry* entry, int id) {
    std::vector<ORVLibAttribute*> out;
    for (ORVLibAttribute** a = entry->orvlibEntryAttrData; *a; ++a)
        if ((*a)->attrId == id && (*a)->attrVals && (*a)->attrVals[0]) out.push_back(*a);
    return out;
}

char** copy_values(ORVLibAttribute* item, int id) {
    if (!item) return nullptr;
    ORV_DEBUG("attribute ID", id);
    ORV_DEBUG("attribute Name", item->attrName ? item->attrName : "");
    for (char** v = item->attrVals; v && *v; ++v) ORV_DEBUG("Attribute Values", *v);
    return orvlib_duparray(item->attrVals);
}

}  // namespace

namespace orv {

namespace {
SearchState g_current;
// The searches NestedSearch has put aside, innermost last.
std::vector<SearchState*> g_put_aside;
}

SearchState& search_state() { return g_current; }

std::vector<SearchState*> all_search_states() {
    std::vector<SearchState*> out(g_put_aside);
    out.push_back(&g_current);
    return out;
}

void release_search_state() {
    free_dn_lists();
    free_custom_user_group_membership_res();
    reset_pager();
    release_all();
    reset_local_searches();
    orv::free_list(_UUID);
    orvlib_memfree(user_input_filter);
    user_input_filter = nullptr;
    g_current = SearchState();
}

// The exported globals that describe a search, taken out of the globals
// while another search is current.
struct SearchGlobals {
    char* filter = nullptr;
    int type = 0, type2 = 0, op_mode_search = 0, star = 0, attribute_search = 0;
    int standalone_group = 0, win_user = 0, first_time = 1, first_iteration = 1, tier2 = 0;
    int more_pages = 0, first_entry_flag = 0, tier2_groups = 0;
    char** user_dns = nullptr;
    char** group_dns = nullptr;
    char** member_dns = nullptr;
    char** uuid = nullptr;
    int user_index = -1, group_index = -1, member_index = -1;
    char* nested[ORV_NESTED_GROUP_LIST_SIZE] = {nullptr};
    int nested_index = -1, nested_retrieved = 0;

    // Moves the globals in here and leaves them as a fresh search finds
    // them (no filter, no lists).
    void take() {
        filter = std::exchange(user_input_filter, nullptr);
        type = current_search_type;
        type2 = _current_search_type;
        op_mode_search = ORV_OP_MODE_SEARCH;
        star = std::exchange(ZORLA_STAR_SEARCH, 0);
        attribute_search = std::exchange(zorla_attribute_search, 0);
        standalone_group = std::exchange(group_is_standalone, 0);
        win_user = std::exchange(ORV_WIN_USER_SEARCH, 0);
        first_time = perform_grp_srch_standalone_first_time;
        first_iteration = _firstIteration;
        tier2 = tier2_search;
        more_pages = std::exchange(has_more_pages, 0);
        first_entry_flag = std::exchange(_isFirstEntry, 0);
        tier2_groups = TIER2_GROUP_SEARCH;
        user_dns = std::exchange(GLOBAL_ZORLA_USERDN_LIST, nullptr);
        group_dns = std::exchange(GLOBAL_ZORLA_GROUPDN_LIST, nullptr);
        member_dns = std::exchange(GLOBAL_ZORLA_GROUPMEMBERS_LIST, nullptr);
        uuid = std::exchange(_UUID, nullptr);
        user_index = std::exchange(current_zorla_user_dn_index, -1);
        group_index = std::exchange(current_zorla_group_dn_index, -1);
        member_index = std::exchange(current_zorla_group_members_dn_index, -1);
        for (int i = 0; i < ORV_NESTED_GROUP_LIST_SIZE; ++i)
            nested[i] = std::exchange(NESTED_GROUP_LIST[i], nullptr);
        nested_index = std::exchange(nested_group_index, -1);
        nested_retrieved = std::exchange(nested_groups_retrieved, 0);
    }

    // Puts them back; the globals hold nothing of their own at this point.
    void put_back() {
        user_input_filter = filter;
        current_search_type = type;
        _current_search_type = type2;
        ORV_OP_MODE_SEARCH = op_mode_search;
        ZORLA_STAR_SEARCH = star;
        zorla_attribute_search = attribute_search;
        group_is_standalone = standalone_group;
        ORV_WIN_USER_SEARCH = win_user;
        perform_grp_srch_standalone_first_time = first_time;
        _firstIteration = first_iteration;
        tier2_search = tier2;
        has_more_pages = more_pages;
        _isFirstEntry = first_entry_flag;
        TIER2_GROUP_SEARCH = tier2_groups;
        GLOBAL_ZORLA_USERDN_LIST = user_dns;
        GLOBAL_ZORLA_GROUPDN_LIST = group_dns;
        GLOBAL_ZORLA_GROUPMEMBERS_LIST = member_dns;
        _UUID = uuid;
        current_zorla_user_dn_index = user_index;
        current_zorla_group_dn_index = group_index;
        current_zorla_group_members_dn_index = member_index;
        for (int i = 0; i < ORV_NESTED_GROUP_LIST_SIZE; ++i) NESTED_GROUP_LIST[i] = nested[i];
        nested_group_index = nested_index;
        nested_groups_retrieved = nested_retrieved;
    }
};

struct NestedSearch::Saved {
    SearchGlobals globals;
    SearchState state;
};

NestedSearch::NestedSearch() : saved_(new Saved) {
    saved_->globals.take();
    saved_->state = std::move(g_current);
    g_current = SearchState();
    g_put_aside.push_back(&saved_->state);
}

NestedSearch::~NestedSearch() {
    release_search_state();
    g_put_aside.pop_back();
    g_current = std::move(saved_->state);
    saved_->globals.put_back();
}

}  // namespace orv

extern "C" {

int orvlib_search_ext_s(LDAP* ld, const char* filter, int searchType, LDAPMessage** result) {
    ORV_TRACE();
    zorla_attribute_search = 0;
    group_is_standalone = 0;
    ZORLA_STAR_SEARCH = 0;
    ORV_WIN_USER_SEARCH = 0;
    // Only the "cn=" no-op below leaves the caller's result pointer alone.
    if (!ld || !orv_ld || !filter) {
        if (result) *result = nullptr;
        return orv::report(!ld || !orv_ld ? ORV_LDAPLIB_SESSION_INVALID : orv::kFilterError);
    }

    ORV_DEBUG("Search Filter: ", filter);
    orv::OrvString escaped(dn_contains_backslash(filter, 1));
    if (!escaped) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    ORV_DEBUG("Modified Filter: ", escaped.get());

    // "cn=" starts no search; the previous results stay in place.
    if (strcmp(escaped.get(), "cn=") == 0) {
        if (user_input_filter) {
            orvlib_memfree(user_input_filter);
            user_input_filter = _orvlib_dupString("cn=");
        }
        return orv::report(LDAP_SUCCESS);
    }

    // The previous search ends here, with everything it kept.
    if (result) *result = nullptr;
    orv::release_search_state();
    user_input_filter = _orvlib_dupString(escaped.get());

    if (corporate_mode()) {
        ORV_OP_MODE_SEARCH = 1;
        if (user_authenticated == 0) corporate_user_ld = corporate_admin_ld;
    } else {
        ORV_OP_MODE_SEARCH = 0;
    }
    perform_grp_srch_standalone_first_time = 1;
    _firstIteration = 1;
    tier2_search = 0;
    current_search_type = searchType;
    _current_search_type = searchType;

    LDAP* own = orv::own_connection(ld);
    LDAPMessage* dummy = nullptr;
    LDAPMessage** out = result ? result : &dummy;
    int rc;

    if (corporate_mode() && is_tier2_filter(escaped.get()) == 1) {
        // The filter names an object of the library's own directory: search
        // for it there and continue with the corporate DN it mirrors.
        const char* base =
            searchType == ORV_SEARCH_PEOPLE ? ORV_PEOPLE_SRCH_BASE : ORV_GROUP_SRCH_BASE;
        const char* attrs[] = {"orvCorporateDN", nullptr};
        orv::LdapMsg local;
        rc = orv::search(own, base, LDAP_SCOPE_SUBTREE, escaped.get(), attrs, 0, local);
        zorla_attribute_search = 1;
        std::string corporate_dn;
        if (rc == LDAP_SUCCESS)
            corporate_dn = orv::first_value(own, orv::first_entry(own, local.get()), "orvCorporateDN");
        if (!corporate_dn.empty())
            rc = invoke_underlaying_search_mechanism(searchType, own, corporate_dn.c_str(), out);
        if (*out == nullptr) {
            ORV_OPERATION_MODE = 0;
            ORV_OP_MODE_SEARCH = 0;
            rc = invoke_underlaying_search_mechanism(searchType, own, escaped.get(), out);
            ORV_OPERATION_MODE = 1;
            ORV_OP_MODE_SEARCH = 0;
        }
    } else {
        rc = invoke_underlaying_search_mechanism(searchType, own, escaped.get(), out);
        if (corporate_mode() && rc != LDAP_SUCCESS && rc != LDAP_SIZELIMIT_EXCEEDED) {
            if (*out) {
                ldap_msgfree(*out);
                *out = nullptr;
            }
            ORV_OP_MODE_SEARCH = 0;
            rc = invoke_underlaying_search_mechanism(searchType, own, escaped.get(), out);
            if (rc != LDAP_SUCCESS) ORV_OP_MODE_SEARCH = 1;
        }
    }
    if (dummy) ldap_msgfree(dummy);
    if (rc != LDAP_SUCCESS && result && *result) {
        // An error result is the library's to free, never the caller's.
        ldap_msgfree(*result);
        *result = nullptr;
    }
    return orv::report(rc);
}

LDAPMessage* orvlib_first_entry(LDAP* ld, ORVLibEntry** entry, LDAPMessage* result) {
    ORV_TRACE();
    if (entry) *entry = nullptr;
    if (!ld || !orv_ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    orv::search_state().ended = false;
    LDAPMessage* e = first_entry_of_search(orv_ld, entry, result);
    if (!e) orv::search_state().ended = true;
    return e;
}

LDAPMessage* orvlib_next_entry(LDAP* ld, ORVLibEntry** entry, LDAPMessage* cursor) {
    ORV_TRACE();
    if (entry) *entry = nullptr;
    if (!ld || !orv_ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    // After its end an iteration stays at its end: nothing is searched
    // again and no cursor of it is read.
    if (orv::search_state().ended) return nullptr;
    LDAPMessage* e = next_entry_of_search(orv_ld, entry, cursor);
    if (!e) orv::search_state().ended = true;
    return e;
}

}  // extern "C"

namespace {

LDAPMessage* first_entry_of_search(LDAP* own, ORVLibEntry** entry, LDAPMessage* result) {
    const bool corporate = corporate_mode();

    switch (current_search_type) {
        case ORV_SEARCH_GROUP_MEMBERS:
            ORV_DEBUG("Group Members Search", "");
            if (corporate) {
                ORV_DEBUG("Search in corporate mode", "");
                return custom_group_members_get_first_entry(orv::corporate_connection(), entry);
            }
            ORV_DEBUG("Search standalone mode", "");
            return custom_group_members_get_first_entry(own, entry);

        case ORV_SEARCH_PEOPLE: {
            ORV_DEBUG(" custom People search", "");
            if (ORV_WIN_USER_SEARCH == 1) {
                LDAPMessage* e = orvGetWinUserEntry(own, entry, result, 1);
                if (!e) ORV_DEBUG("Retrieving Windows User entry returned NULL 1", "");
                return e;
            }
            if (ZORLA_STAR_SEARCH == 1) {
                LDAPMessage* e = get_first_entry_from_zorla_dn_list(orv::corporate_connection(),
                                                                    ORV_SEARCH_PEOPLE, entry);
                return e ? e : people_local_fallback(own, entry);
            }
            if (corporate) {
                if (ORV_OP_MODE_SEARCH == 1) {
                    LDAP* corp = orv::corporate_connection();
                    LDAPMessage* e = orv::first_entry(corp, result);
                    if (e) return deliver(corp, entry, e, ORV_SEARCH_PEOPLE, own);
                    e = orv::first_entry(own, result);
                    if (e) {
                        ORV_OP_MODE_SEARCH = 0;
                        return deliver(own, entry, e, 0, own);
                    }
                    return nullptr;
                }
                LDAPMessage* e = orv::first_entry(own, result);
                if (!e) {
                    ORV_OP_MODE_SEARCH = 1;
                    return nullptr;
                }
                return deliver(own, entry, e, 0, own);
            }
            return deliver(own, entry, orv::first_entry(own, result), 0, own);
        }

        case ORV_SEARCH_GROUPS: {
            ORV_DEBUG("Custom Group search", "");
            if (ZORLA_STAR_SEARCH == 1) {
                ORV_DEBUG("Star Search", "");
                if (TIER2_GROUP_SEARCH) {
                    ORV_DEBUG("Local search", "");
                    return local_groups(own, entry);
                }
                ORV_DEBUG("Corporate search", "");
                LDAPMessage* e = get_first_entry_from_zorla_dn_list(orv::corporate_connection(),
                                                                    ORV_SEARCH_GROUPS, entry);
                return e ? e : local_groups(own, entry);
            }
            if (corporate) {
                if (TIER2_GROUP_SEARCH) {
                    ORV_DEBUG("Standalone Mode: Local search", "");
                    return local_groups(own, entry);
                }
                ORV_DEBUG("Non-Star Corporate Mode", "");
                LDAP* corp = orv::corporate_connection();
                LDAPMessage* e = ORV_OP_MODE_SEARCH == 1 ? orv::first_entry(corp, result) : nullptr;
                if (e) {
                    ORV_DEBUG("Corporate search", "");
                    return deliver(corp, entry, e, ORV_SEARCH_GROUPS, own);
                }
                ORV_DEBUG("Local Search", "");
                return local_groups(own, entry);
            }
            ORV_DEBUG("Non-Star Standalone Mode", "");
            return deliver(own, entry, orv::first_entry(own, result), 0, own);
        }

        case ORV_SEARCH_USER_GROUPS: {
            if (corporate) {
                ORV_DEBUG("User Groups Search: Corporate Mode", "");
                if (TIER2_GROUP_SEARCH) {
                    ORV_DEBUG("Local search", "");
                    return local_user_groups(own, entry);
                }
                LDAP* corp = ORV_OP_MODE_SEARCH == 1 ? orv::corporate_connection() : own;
                LDAPMessage* e = orv::first_entry(corp, result);
                if (e) {
                    ORV_DEBUG("Coporate Search", "");
                    return deliver(corp, entry, e, current_search_type, own);
                }
                ORV_DEBUG("corporate search failed, perform Local search", "");
                return local_user_groups(own, entry);
            }
            ORV_DEBUG("User Groups Search: Standalone Mode", "");
            return deliver(own, entry, orv::first_entry(own, result), 0, own);
        }

        case ORV_SEARCH_USER_GROUP_MEMBERSHIP: {
            ORV_DEBUG("Users Group Membership Search", "");
            LDAPMessage* e = custom_user_group_membership_first_entry(own, entry);
            if (!e && corporate) {
                orv_custom_user_group_membership_standalone_grp_crp_usr_srch(own, user_input_filter);
                e = custom_user_group_membership_standalone_grp_crp_usr_first_entry(own, entry);
                has_more_pages = 0;
                _firstIteration = 0;
            }
            orvlib_memfree(user_input_filter);
            user_input_filter = nullptr;
            if (e && entry && *entry)
                check_and_populate_extended_information(own, &e, entry,
                                                        ORV_SEARCH_USER_GROUP_MEMBERSHIP);
            return e;
        }

        case ORV_SEARCH_APPLICATION_SERVERS:
        case ORV_SEARCH_APPLICATION_FACILITY:
            ORV_DEBUG("Application Facility Or Server search", "");
            return deliver(own, entry, orv::first_entry(own, result), 0, own);

        default:
            return nullptr;
    }
}

LDAPMessage* next_entry_of_search(LDAP* own, ORVLibEntry** entry, LDAPMessage* cursor) {
    const bool corporate = corporate_mode();

    if (ORV_WIN_USER_SEARCH == 1) {
        LDAPMessage* e = orvGetWinUserEntry(own, entry, cursor, 0);
        if (!e) ORV_DEBUG("Retrieving Windows User entry returned NULL 2", "");
        return e;
    }

    switch (current_search_type) {
        case ORV_SEARCH_GROUP_MEMBERS:
            return custom_group_members_get_next_entry(
                corporate ? orv::corporate_connection() : own, entry);

        case ORV_SEARCH_PEOPLE: {
            if (ZORLA_STAR_SEARCH == 1) {
                LDAPMessage* e = get_next_entry_from_zorla_dn_list(orv::corporate_connection(),
                                                                   ORV_SEARCH_PEOPLE, entry);
                return e ? e : people_local_fallback(own, entry);
            }
            if (corporate && ORV_OP_MODE_SEARCH == 1) {
                LDAP* corp = orv::corporate_connection();
                LDAPMessage* e = next_server_entry(corp, cursor);
                if (e) return deliver(corp, entry, e, ORV_SEARCH_PEOPLE, own);
                // The local directory's people follow the corporate ones.
                return people_local_fallback(own, entry);
            }
            return deliver(own, entry, next_server_entry(own, cursor), 0, own);
        }

        case ORV_SEARCH_GROUPS: {
            if (ZORLA_STAR_SEARCH == 1) {
                if (TIER2_GROUP_SEARCH) return local_groups(own, entry);
                LDAPMessage* e = get_next_entry_from_zorla_dn_list(orv::corporate_connection(),
                                                                   ORV_SEARCH_GROUPS, entry);
                return e ? e : local_groups(own, entry);
            }
            if (corporate) {
                if (TIER2_GROUP_SEARCH || perform_grp_srch_standalone_first_time == 0)
                    return local_groups(own, entry);
                LDAP* corp = orv::corporate_connection();
                LDAPMessage* e = ORV_OP_MODE_SEARCH == 1 ? next_server_entry(corp, cursor) : nullptr;
                if (e) return deliver(corp, entry, e, ORV_SEARCH_GROUPS, own);
                return local_groups(own, entry);
            }
            return deliver(own, entry, next_server_entry(own, cursor), 0, own);
        }

        case ORV_SEARCH_USER_GROUPS: {
            if (corporate) {
                if (TIER2_GROUP_SEARCH || perform_grp_srch_standalone_first_time == 0)
                    return local_user_groups(own, entry);
                LDAP* corp = ORV_OP_MODE_SEARCH == 1 ? orv::corporate_connection() : own;
                LDAPMessage* e = next_server_entry(corp, cursor);
                if (e) return deliver(corp, entry, e, ORV_SEARCH_USER_GROUPS, own);
                return local_user_groups(own, entry);
            }
            return deliver(own, entry, next_server_entry(own, cursor), 0, own);
        }

        case ORV_SEARCH_APPLICATION_SERVERS:
        case ORV_SEARCH_APPLICATION_FACILITY:
            return deliver(own, entry, next_server_entry(own, cursor), 0, own);

        case ORV_SEARCH_USER_GROUP_MEMBERSHIP:
            // Membership results come through the first entry only.
            free_custom_user_group_membership_res();
            return nullptr;

        default:
            return nullptr;
    }
}

}  // namespace

extern "C" {

char** orvlib_get_entry_vals(ORVLibEntry* entry, int attrId) {
    ORV_TRACE();
    if (!entry || !entry->orvlibEntryAttrData) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    const bool has_corporate_dn = !matches(entry, 13).empty();

    if (attrId == 2) {
        // A corporate user carries its corporate surname and the mirrored one
        // after it: the first of the two is the answer, and a corporate user
        // without the mirrored surname has none.
        if ((ORV_OPERATION_MODE == 1 && has_corporate_dn) ||
            (ORV_OPERATION_MODE != 0 && ORV_OPERATION_MODE != 1)) {
            std::vector<ORVLibAttribute*> found = matches(entry, 2);
            return found.size() >= 2 ? copy_values(found[0], attrId) : nullptr;
        }
    } else if (attrId == 3 && ORV_OPERATION_MODE == 1 && has_corporate_dn) {
        // The user id of a corporate user is its logon attribute.
        const char* logon = PARTITION_INFO ? PARTITION_INFO->user_logon_attribute_name : nullptr;
        const int mapped = logon ? getMappedAttrId(logon) : 3;
        if (mapped != 3) return orvlib_get_entry_vals(entry, mapped);
    }
    std::vector<ORVLibAttribute*> found = matches(entry, attrId);
    return found.empty() ? nullptr : copy_values(found[0], attrId);
}

}  // extern "C"
