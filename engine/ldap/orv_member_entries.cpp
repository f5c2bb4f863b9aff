// orv_member_entries.cpp - reads the person entries of a library group's
// members ahead of the member walk, with one search per dense container and
// OR-filter searches for the rest (orv_member_entries.hpp).

#include "orv_member_entries.hpp"

#include <algorithm>
#include <map>
#include <memory>

#include "orv_ldap.hpp"
#include "orv_role_index.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_utils.h"

namespace orv {

namespace {

bool g_read_ahead = true;

const char kPersonFilterStrict[] =
    "(&(objectclass=person)(!(objectclass=computer))(!(objectclass=contact)))";

// The DN after its first RDN, as written (the separator is the first comma
// that no backslash escapes).
std::string parent_text(const std::string& dn) {
    for (std::size_t i = 0; i < dn.size(); ++i) {
        if (dn[i] == '\\') {
            ++i;
        } else if (dn[i] == ',') {
            std::size_t from = i + 1;
            while (from < dn.size() && dn[from] == ' ') ++from;
            return dn.substr(from);
        }
    }
    return {};
}

bool lost(int rc) { return is_connection_drop(rc) || rc == kTimeout; }

// Sends one search; the entries whose canonical DN is wanted are taken.
// Returns the search's status.
int read_into(LDAP* ld, const std::string& base, int scope, const std::string& filter,
              int size_limit, const std::unordered_map<std::string, int>& wanted,
              MemberEntries& out) {
    LDAPMessage* res = nullptr;
    ++out.requests;
    const int rc = status_from_ldap(ldap_search_ext_s(
        ld, base.c_str(), scope, filter.c_str(), const_cast<char**>(ORVLIB_USER_ATTR_LIST), 0,
        nullptr, nullptr, nullptr, size_limit, &res));
    LdapMsg owned(res);
    if (rc != LDAP_SUCCESS) return rc;
    std::vector<std::string> rdns;
    std::size_t n = 0;
    for (LDAPMessage* e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
        ++n;
        LdapString dn(ldap_get_dn(ld, e));
        if (!dn || !canonical_dn(dn.get(), rdns)) continue;
        std::string key = join_rdns(rdns);
        if (wanted.count(key)) out.by_dn.emplace(std::move(key), e);
    }
    out.held += n;
    out.results.push_back(std::move(owned));
    return rc;
}

}  // namespace

int read_member_entries(LDAP* ld, char** list, int n, MemberEntries& out) {
    out.list = list;
    if (!ld || !list) return 0;
    // Canonical DN of each member -> its index; members by container.
    std::unordered_map<std::string, int> wanted;
    std::map<std::string, std::vector<int>> by_parent;  // canonical parent -> members
    std::map<std::string, std::string> parent_base;     // canonical parent -> DN as written
    std::vector<std::string> rdns;
    for (int i = 0; i < n; ++i) {
        if (!list[i] || !canonical_dn(list[i], rdns) || rdns.size() < 2) continue;
        if (!wanted.emplace(join_rdns(rdns), i).second) continue;  // a repeated member
        const std::string parent = join_rdns(rdns, 1);
        by_parent[parent].push_back(i);
        if (!parent_base.count(parent)) parent_base[parent] = parent_text(list[i]);
    }

    // Dense containers: one one-level search each.
    std::vector<int> rest;
    for (const auto& [parent, members] : by_parent) {
        const std::size_t room = kHeldEntriesLimit - std::min(out.held, kHeldEntriesLimit);
        const std::size_t limit = std::min(4 * members.size() + 100, room);
        bool read = false;
        if (static_cast<int>(members.size()) >= kScanMinMembers && limit >= members.size()) {
            const int rc = read_into(ld, parent_base[parent], LDAP_SCOPE_ONELEVEL,
                                     kPersonFilterStrict, static_cast<int>(limit), wanted, out);
            if (lost(rc)) return rc;
            read = rc == LDAP_SUCCESS;  // 4: a container larger than its members
            if (!read) ORV_DEBUG("Member container not read whole: ", rc);
        }
        if (!read) rest.insert(rest.end(), members.begin(), members.end());
    }

    // The others: OR filters of a few DNs each, in member order.
    std::sort(rest.begin(), rest.end());
    for (std::size_t from = 0; from < rest.size(); from += kBatchMembers) {
        const std::size_t to = std::min(rest.size(), from + kBatchMembers);
        if (out.held + (to - from) > kHeldEntriesLimit) break;
        std::string filter = std::string("(&") + kPersonFilterStrict + "(|";
        for (std::size_t k = from; k < to; ++k)
            filter += "(entryDN=" + filter_value(list[rest[k]]) + ")";
        filter += "))";
        const int rc = read_into(ld, ORV_GROUP_SRCH_BASE, LDAP_SCOPE_SUBTREE, filter,
                                 static_cast<int>(to - from), wanted, out);
        if (lost(rc)) return rc;
    }
    ORV_DEBUG("Member entries read ahead: ", static_cast<long>(out.by_dn.size()));
    return 0;
}

LDAPMessage* member_entry(const MemberEntries& entries, const char* dn) {
    if (!dn || entries.by_dn.empty()) return nullptr;
    std::vector<std::string> rdns;
    if (!canonical_dn(dn, rdns)) return nullptr;
    auto it = entries.by_dn.find(join_rdns(rdns));
    return it == entries.by_dn.end() ? nullptr : it->second;
}

const MemberEntries* member_entries_of(LDAP* ld, char** list, int n, int* status) {
    if (status) *status = 0;
    std::shared_ptr<MemberEntries>& current = search_state().members;
    if (!list || !g_read_ahead) return nullptr;
    if (!current || current->list != list) {
        current = std::make_shared<MemberEntries>();
        const int rc = read_member_entries(ld, list, n, *current);
        if (rc != 0) {
            current.reset();
            if (status) *status = rc;
            return nullptr;
        }
    }
    return current.get();
}

void forget_member_entries() { search_state().members.reset(); }

void set_member_read_ahead_enabled(bool enabled) { g_read_ahead = enabled; }

}  // namespace orv
