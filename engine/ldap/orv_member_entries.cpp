// orv_member_entries.cpp - reads the person entries of a library group's
// members ahead of the member walk, with one search per dense container and
// OR-filter searches for the rest (orv_member_entries.hpp).

#include "orv_member_entries.hpp"

#include <algorithm>
#include <cctype>
#include <map>
#include <memory>
#include <unordered_set>

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

// ---------------------------------------------------------------- corporate

struct CorporateWindow {
    LDAP* corp = nullptr;
    LDAP* local = nullptr;
    char** list = nullptr;
    int end = 0;         // members before this index have had their window
    int attr = 0;        // index into dn_attributes(); 2: nothing read ahead
    int hits = 0;        // members of the current window delivered from it
    int requests = 0;
    std::vector<LdapMsg> results;
    // The window before: the entry the caller holds may come from it.
    std::vector<LdapMsg> previous;
    std::unordered_map<std::string, LDAPMessage*> entries;       // canonical DN
    std::unordered_set<std::string> asked;                        // canonical DN
    std::unordered_map<std::string, LDAPMessage*> counterparts;  // lower-case corporate DN
    std::unordered_map<std::string, std::string> counterpart_of; // canonical local DN -> key

    void clear_window() {
        entries.clear();
        asked.clear();
        counterparts.clear();
        counterpart_of.clear();
        previous = std::move(results);
        results.clear();
        hits = 0;
    }
};

namespace {

const char* const* dn_attributes() {
    static const char* const kDomainController[] = {"distinguishedName", "entryDN"};
    static const char* const kOther[] = {"entryDN", "distinguishedName"};
    return mechanism == ORV_PAGING ? kDomainController : kOther;
}

std::string canonical_key(const char* dn) {
    std::vector<std::string> rdns;
    if (!dn || !canonical_dn(dn, rdns)) return {};
    return join_rdns(rdns);
}

// Reads the corporate entries of the window's members, container by
// container.  A lost connection drops them: the members are read alone,
// which reports or re-opens.
void read_corporate_entries(CorporateWindow& w,
                            const std::map<std::string, std::vector<int>>& by_parent,
                            const std::map<std::string, std::string>& parent_base) {
    const char* attr = dn_attributes()[w.attr];
    for (const auto& [parent, members] : by_parent) {
        if (members.size() < 2) continue;  // as cheap to read alone
        std::string filter = std::string("(&") + kPersonFilterStrict + "(|";
        for (int i : members) {
            filter += std::string("(") + attr + "=" + filter_value(w.list[i]) + ")";
            w.asked.insert(canonical_key(w.list[i]));
        }
        filter += "))";
        LdapMsg res;
        ++w.requests;
        const int rc = search(w.corp, parent_base.at(parent).c_str(), LDAP_SCOPE_ONELEVEL,
                              filter.c_str(), ORVLIB_USER_ATTR_LIST, 0, res);
        if (lost(rc)) {
            w.entries.clear();
            w.asked.clear();
            return;
        }
        if (rc != LDAP_SUCCESS) {
            ORV_DEBUG("Corporate members not read ahead: ", rc);
            continue;
        }
        for (LDAPMessage* e = ldap_first_entry(w.corp, res.get()); e;
             e = ldap_next_entry(w.corp, e)) {
            LdapString dn(ldap_get_dn(w.corp, e));
            const std::string key = canonical_key(dn.get());
            if (!key.empty() && w.asked.count(key)) w.entries.emplace(key, e);
        }
        w.results.push_back(std::move(res));
    }
}

// Sends the search for the local counterparts of the window's members (by
// their DNs as the member list writes them; a domain controller writes
// them as the entries' own DNs), while the corporate server is asked for
// the entries.  Returns its message id, or -1 when none was sent.
int start_counterparts(CorporateWindow& w, const std::vector<int>& members,
                       std::unordered_set<std::string>& keys) {
    if (!w.local || members.empty() || orvlib_get_user_uuid_generation_flag() != 1) return -1;
    std::string filter = "(&(objectclass=morvaneperson)(|";
    for (int i : members) {
        if (!keys.insert(lowered(w.list[i])).second) continue;
        filter += "(orvCorporateDN=" + filter_value(w.list[i]) + ")";
    }
    filter += "))";
    int msgid = -1;
    ++w.requests;
    if (search_start(w.local, ORV_PEOPLE_SRCH_BASE, LDAP_SCOPE_SUBTREE, filter.c_str(),
                     ORVLIB_EXT_USER_ATTR_LIST, &msgid) != LDAP_SUCCESS)
        return -1;
    return msgid;
}

// Takes the counterparts that are certain: an entry whose "orvCorporateDN"
// equals one of the DNs asked for (ASCII case-insensitively) and no other
// entry with that DN.
void finish_counterparts(CorporateWindow& w, int msgid, const std::unordered_set<std::string>& keys) {
    if (msgid < 0) return;
    LdapMsg res;
    if (search_finish(w.local, msgid, res) != LDAP_SUCCESS) return;  // each looks its own up
    std::unordered_set<std::string> claimed_twice;
    for (LDAPMessage* e = ldap_first_entry(w.local, res.get()); e;
         e = ldap_next_entry(w.local, e)) {
        bool matched = false;
        for (const std::string& value : attribute_values(w.local, e, "orvCorporateDN")) {
            const std::string key = lowered(value);
            if (!keys.count(key)) continue;
            matched = true;
            if (!w.counterparts.emplace(key, e).second) claimed_twice.insert(key);
            LdapString dn(ldap_get_dn(w.local, e));
            const std::string local_key = canonical_key(dn.get());
            if (local_key.empty()) {
                claimed_twice.insert(key);  // could not be dropped after a write
            } else {
                w.counterpart_of[local_key] = key;
            }
        }
        if (!matched) {
            // The server matched a value in a way this comparison does not
            // see: which member it belongs to is not certain.
            ORV_DEBUG("Counterparts not read ahead: uncertain match", "");
            w.counterparts.clear();
            w.counterpart_of.clear();
            return;
        }
    }
    for (const std::string& key : claimed_twice) w.counterparts.erase(key);
    w.results.push_back(std::move(res));
}

void read_window(CorporateWindow& w, int n, int from) {
    w.clear_window();
    std::map<std::string, std::vector<int>> by_parent;
    std::map<std::string, std::string> parent_base;
    std::vector<std::string> rdns;
    std::unordered_set<std::string> seen;
    int taken = 0;
    int i = from;
    for (; i < n && taken < kCorporateWindow; ++i) {
        const char* dn = w.list[i];
        if (!dn || !canonical_dn(dn, rdns) || rdns.size() < 2) continue;
        if (!seen.insert(join_rdns(rdns)).second) continue;  // a repeated member
        ++taken;
        const std::string parent = join_rdns(rdns, 1);
        by_parent[parent].push_back(i);
        if (!parent_base.count(parent)) parent_base[parent] = parent_text(dn);
    }
    w.end = i;
    std::vector<int> members;
    for (const auto& item : by_parent) members.insert(members.end(), item.second.begin(), item.second.end());
    std::unordered_set<std::string> keys;
    const int counterparts = start_counterparts(w, members, keys);
    read_corporate_entries(w, by_parent, parent_base);
    finish_counterparts(w, counterparts, keys);
    ORV_DEBUG("Corporate members read ahead: ", static_cast<long>(w.entries.size()));
}

}  // namespace

LDAPMessage* corporate_member_entry(LDAP* corp, LDAP* local, char** list, int n, int index) {
    if (!g_read_ahead || !corp || !list || index < 0 || index >= n || !list[index]) return nullptr;
    std::shared_ptr<CorporateWindow>& current = search_state().corporate;
    if (!current || current->corp != corp || current->local != local || current->list != list) {
        const int attr = current && current->corp == corp ? current->attr : 0;
        current = std::make_shared<CorporateWindow>();
        current->corp = corp;
        current->local = local;
        current->list = list;
        current->attr = attr;
    }
    CorporateWindow& w = *current;
    if (w.attr >= 2) return nullptr;
    if (index >= w.end) read_window(w, n, index);
    auto it = w.entries.find(canonical_key(list[index]));
    if (it == w.entries.end()) return nullptr;
    LDAPMessage* e = it->second;
    w.entries.erase(it);  // a repeated member is read alone, as before
    ++w.hits;
    return e;
}

void corporate_member_read_alone(const char* dn, bool person) {
    CorporateWindow* w = search_state().corporate.get();
    if (!w || !person || w->hits > 0 || !w->entries.empty() || w->attr >= 2) return;
    if (!w->asked.count(canonical_key(dn))) return;
    // A person the window asked for and did not get, and nothing else came
    // back: the server does not match members by this attribute.
    ORV_DEBUG("Corporate server does not match members by ", dn_attributes()[w->attr]);
    w->asked.clear();
    ++w->attr;
    w->end = 0;  // the next member starts a window with the other attribute
}

LDAPMessage* corporate_counterpart(LDAP* local, const std::string& corporate_dn) {
    CorporateWindow* w = search_state().corporate.get();
    if (!w || !local || w->local != local || _current_search_type != ORV_SEARCH_GROUP_MEMBERS)
        return nullptr;
    auto it = w->counterparts.find(lowered(corporate_dn));
    return it == w->counterparts.end() ? nullptr : it->second;
}

void forget_corporate_window() { search_state().corporate.reset(); }

int corporate_window_requests() {
    const CorporateWindow* w = search_state().corporate.get();
    return w ? w->requests : 0;
}

namespace {

void drop_written(SearchState& state, const std::string& key) {
    if (state.members) {
        if (key.empty()) {
            state.members->by_dn.clear();
        } else {
            state.members->by_dn.erase(key);
        }
    }
    if (CorporateWindow* w = state.corporate.get()) {
        if (key.empty()) {
            w->entries.clear();
            w->counterparts.clear();
            w->counterpart_of.clear();
            return;
        }
        w->entries.erase(key);
        auto it = w->counterpart_of.find(key);
        if (it != w->counterpart_of.end()) {
            w->counterparts.erase(it->second);
            w->counterpart_of.erase(it);
        }
    }
}

}  // namespace

void note_written(const char* dn) {
    std::string key;
    bool keyed = false;
    for (SearchState* state : all_search_states()) {
        if (!state->corporate && !state->members) continue;
        if (!keyed) {
            key = canonical_key(dn);
            keyed = true;
        }
        drop_written(*state, key);
    }
}

}  // namespace orv
