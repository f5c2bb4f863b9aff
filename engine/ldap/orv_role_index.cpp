// orv_role_index.cpp - roles and database ids of a search's entries, read
// once per search (see orv_role_index.hpp).

#include "orv_role_index.hpp"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <cstring>
#include <memory>
#include <utility>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_search_internal.hpp"
#include "orvldap_entry.h"
#include "orvldap_search.h"
#include "orvldap_session.h"

namespace orv {

// ------------------------------------------------------------------ canonical DNs

namespace {

bool is_hex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }
int hex_value(char c) {
    return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}
char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; }

// Canonical text of one attribute value: lower case, special characters
// escaped with a backslash.
void append_value(std::string& out, const std::string& value) {
    for (std::size_t i = 0; i < value.size(); ++i) {
        const char c = value[i];
        if (std::strchr(",+\"\\<>;=", c) != nullptr || (i == 0 && c == '#')) out += '\\';
        out += c;
    }
}

// Parses one "type=value" pair starting at pos; stops at an unescaped ","
// or "+" (left at pos).  False when the pair has no certain canonical form.
bool parse_ava(const std::string& dn, std::size_t& pos, std::string& ava) {
    const std::size_t n = dn.size();
    while (pos < n && dn[pos] == ' ') ++pos;
    std::string type;
    while (pos < n && dn[pos] != '=' && dn[pos] != ' ') {
        const char c = lower(dn[pos]);
        const bool ok = (c >= 'a' && c <= 'z') || (!type.empty() && ((c >= '0' && c <= '9') || c == '-'));
        if (!ok) return false;  // OIDs and anything else unusual
        type += c;
        ++pos;
    }
    while (pos < n && dn[pos] == ' ') ++pos;
    if (type.empty() || pos >= n || dn[pos] != '=') return false;
    ++pos;
    while (pos < n && dn[pos] == ' ') ++pos;
    if (pos < n && (dn[pos] == '#' || dn[pos] == '"')) return false;  // BER or quoted value

    std::string value;
    std::size_t kept = 0;  // length of value up to its last character that is not a plain blank
    while (pos < n && dn[pos] != ',' && dn[pos] != '+') {
        char c = dn[pos];
        bool escaped = false;
        if (c == '\\') {
            if (pos + 1 >= n) return false;
            const char next = dn[pos + 1];
            if (is_hex(next)) {
                if (pos + 2 >= n || !is_hex(dn[pos + 2])) return false;
                c = static_cast<char>(hex_value(next) * 16 + hex_value(dn[pos + 2]));
                pos += 3;
            } else if (std::strchr(" ,+\"\\<>;=#", next) != nullptr) {
                c = next;
                pos += 2;
            } else {
                return false;
            }
            escaped = true;
        } else {
            if (c == ';' || c == '"' || c == '<' || c == '>' || c == '=') return false;
            ++pos;
        }
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7f) return false;  // case rules beyond ASCII
        if (c == ' ' && !value.empty() && value.back() == ' ') return false;  // runs of blanks
        value += lower(c);
        if (c != ' ' || escaped) kept = value.size();
    }
    value.resize(kept);  // trailing blanks are not part of the value
    if (value.empty()) return false;
    if (value.back() == ' ' || value.front() == ' ') return false;  // escaped edge blanks
    ava = type;
    ava += '=';
    append_value(ava, value);
    return true;
}

}  // namespace

bool canonical_dn(const std::string& dn, std::vector<std::string>& rdns) {
    rdns.clear();
    std::size_t pos = 0;
    const std::size_t n = dn.size();
    if (n == 0) return false;
    while (pos <= n) {
        std::vector<std::string> avas;
        for (;;) {
            std::string ava;
            if (!parse_ava(dn, pos, ava)) return false;
            avas.push_back(std::move(ava));
            if (pos < n && dn[pos] == '+') {
                ++pos;
                continue;
            }
            break;
        }
        std::sort(avas.begin(), avas.end());
        std::string rdn;
        for (std::size_t i = 0; i < avas.size(); ++i) {
            if (i) rdn += '+';
            rdn += avas[i];
        }
        rdns.push_back(std::move(rdn));
        if (pos >= n) break;
        ++pos;  // the ","
        if (pos >= n) return false;  // trailing separator
    }
    return true;
}

std::string join_rdns(const std::vector<std::string>& rdns, std::size_t from) {
    std::string out;
    for (std::size_t i = from; i < rdns.size(); ++i) {
        if (i > from) out += ',';
        out += rdns[i];
    }
    return out;
}

// ------------------------------------------------------------------ the index

namespace {

std::size_t string_bytes(const std::string& s) {
    // The object plus its heap block beyond the short-string buffer.
    return sizeof(std::string) + (s.capacity() > 15 ? s.capacity() + 1 : 0);
}

// One node of an unordered_map: next pointer, cached hash, the pair; plus
// one bucket pointer.
template <typename Pair>
constexpr std::size_t node_bytes() {
    return sizeof(Pair) + 3 * sizeof(void*);
}

bool within(const std::vector<std::string>& rdns, const std::vector<std::string>& base) {
    if (rdns.size() < base.size()) return false;
    return std::equal(base.rbegin(), base.rend(), rdns.rbegin());
}

}  // namespace

RoleIndex::RoleIndex(const std::string& base) {
    if (!canonical_dn(base, base_)) usable_ = false;
}

bool RoleIndex::decline() {
    usable_ = false;
    members_.clear();
    roles_.clear();
    role_keys_.clear();
    first_access_.clear();
    return false;
}

bool RoleIndex::add_role(const std::string& dn, const std::vector<std::string>& classes,
                         const std::vector<std::string>& members, const std::string* db_id) {
    if (!usable_) return false;
    std::vector<std::string> rdns;
    if (!canonical_dn(dn, rdns)) return decline();
    if (roles_.size() >= UINT32_MAX) return decline();
    const auto index = static_cast<std::uint32_t>(roles_.size());

    Role role;
    role.dn = dn;
    bool access = false, morvane = false;
    for (const std::string& c : classes) {
        if (strcasecmp(c.c_str(), "accessrole") == 0) access = true;
        if (strcasecmp(c.c_str(), "morvanerole") == 0) morvane = true;
    }
    role.access = access && morvane;
    if (db_id != nullptr) {
        role.has_db = true;
        role.db_id = *db_id;
    }
    bytes_ += sizeof(Role) + string_bytes(role.dn) - sizeof(std::string) +
              string_bytes(role.db_id) - sizeof(std::string);
    roles_.push_back(std::move(role));
    role_keys_.push_back(join_rdns(rdns));
    bytes_ += string_bytes(role_keys_.back());

    std::vector<std::string> member_rdns;
    for (const std::string& member : members) {
        if (!canonical_dn(member, member_rdns)) return decline();
        std::string key = join_rdns(member_rdns);
        auto found = members_.find(key);
        if (found == members_.end()) {
            bytes_ += node_bytes<std::pair<const std::string, std::vector<std::uint32_t>>>() +
                      string_bytes(key) - sizeof(std::string);
            found = members_.emplace(std::move(key), std::vector<std::uint32_t>()).first;
        }
        std::vector<std::uint32_t>& list = found->second;
        // A role that lists one member twice is one role of that member.
        if (!list.empty() && list.back() == index) continue;
        const std::size_t before = list.capacity();
        list.push_back(index);
        bytes_ += (list.capacity() - before) * sizeof(std::uint32_t);
    }
    if (bytes_ > kRoleIndexLimit) return decline();
    return true;
}

void RoleIndex::finish() {
    if (!usable_) return;
    for (std::uint32_t i = 0; i < roles_.size(); ++i) {
        if (!roles_[i].access) continue;
        std::vector<std::string> rdns;
        if (!canonical_dn(roles_[i].dn, rdns) || !within(rdns, base_)) continue;
        // The role itself and each ancestor down to the base: the first
        // access role in directory order wins.
        for (std::size_t from = 0; from + base_.size() <= rdns.size(); ++from) {
            std::string key = join_rdns(rdns, from);
            if (first_access_.count(key)) continue;
            bytes_ += node_bytes<std::pair<const std::string, std::uint32_t>>() +
                      string_bytes(key) - sizeof(std::string);
            first_access_.emplace(std::move(key), i);
        }
    }
    if (bytes_ > kRoleIndexLimit) decline();
}

bool RoleIndex::roles_of(const std::string& member_dn, std::vector<std::string>& roles) const {
    roles.clear();
    if (!usable_) return false;
    std::vector<std::string> rdns;
    if (!canonical_dn(member_dn, rdns)) return false;
    const auto found = members_.find(join_rdns(rdns));
    if (found == members_.end()) return true;
    for (std::uint32_t i : found->second) roles.push_back(roles_[i].dn);
    return true;
}

int RoleIndex::database_of(const std::string& role_dn, std::string& id) const {
    id.clear();
    if (!usable_) return -1;
    // The entries ask for the same role DNs, spelled as the index gave
    // them, over and over: answers are kept by spelling.
    const auto known = answers_.find(role_dn);
    if (known != answers_.end()) {
        id = known->second.second;
        return known->second.first;
    }
    int answer = 0;
    std::vector<std::string> rdns;
    if (!canonical_dn(role_dn, rdns) || !within(rdns, base_)) {
        answer = -1;
    } else {
        const auto found = first_access_.find(join_rdns(rdns));
        if (found != first_access_.end() && roles_[found->second].has_db) {
            id = roles_[found->second].db_id;
            answer = 1;
        }
    }
    // At most one kept answer per role (and a few others).
    if (answers_.size() < roles_.size() + 64) answers_.emplace(role_dn, std::make_pair(answer, id));
    return answer;
}

// ------------------------------------------------------------------ per-search use

namespace {

bool g_enabled = true;

// Entries answered by the directory before the index is built; their
// answers check the index.
constexpr int kProbeEntries = 2;

struct Probe {
    std::string member;
    std::vector<std::string> roles;
};

std::vector<std::string> to_vector(char** values) {
    std::vector<std::string> out;
    for (char** v = values; v != nullptr && *v != nullptr; ++v) out.emplace_back(*v);
    return out;
}

// First value of an attribute as entry population copies it (up to its
// first zero byte).
bool first_text(LDAP* ld, LDAPMessage* entry, const char* name, std::string& out) {
    LdapBerValues values(ldap_get_values_len(ld, entry, name));
    if (!values || values.get()[0] == nullptr) return false;
    const berval* v = values.get()[0];
    out = v->bv_val != nullptr ? std::string(v->bv_val, strnlen(v->bv_val, v->bv_len))
                               : std::string();
    return true;
}

}  // namespace

struct RoleLookups {
    // Missing: the group base does not exist on this server (a corporate
    // server answers every role search with 32), so no entry has roles.
    enum class State { Probing, Ready, Missing, Off };
    LDAP* ld = nullptr;
    State state = State::Probing;
    int entries = 0;
    int missing_probes = 0;  // probes answered 32
    std::vector<Probe> probes;
    std::unique_ptr<RoleIndex> index;
};

namespace {

bool searched_type() {
    return _current_search_type == ORV_SEARCH_PEOPLE ||
           _current_search_type == ORV_SEARCH_GROUP_MEMBERS;
}

// One set of look-ups per connection: in corporate mode a member's entry
// is read on the corporate connection and its counterpart on the library's
// own, and each answers for its own server.
RoleLookups* lookups_for(LDAP* ld) {
    if (!g_enabled || ld == nullptr || !searched_type()) return nullptr;
    for (std::shared_ptr<RoleLookups>& slot : search_state().roles) {
        if (!slot) {
            slot = std::make_shared<RoleLookups>();
            slot->ld = ld;
        }
        if (slot->ld == ld) return slot.get();
    }
    return nullptr;  // a third connection asks the directory
}

// Reads every role entry below the group base, one entry at a time, into a
// new index; NULL when the directory refuses, the answer is incomplete, or
// the index declines.  *result: the search's final status (0 when it
// ended without one).
std::unique_ptr<RoleIndex> read_roles(LDAP* ld, int* result_out) {
    *result_out = 0;
    const long started = static_cast<long>(clock());
    std::unique_ptr<RoleIndex> index(new RoleIndex(ORV_GROUP_SRCH_BASE));
    if (!index->usable()) return nullptr;
    static const char* const kAttrs[] = {"objectclass", "member", "orvZorlaDatabaseId", nullptr};
    int msgid = -1;
    int rc = ldap_search_ext(ld, ORV_GROUP_SRCH_BASE, LDAP_SCOPE_SUBTREE, "(objectclass=morvaneRole)",
                             const_cast<char**>(kAttrs), 0, nullptr, nullptr, nullptr,
                             LDAP_NO_LIMIT, &msgid);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Role index: search refused", status_from_ldap(rc));
        return nullptr;
    }
    bool complete = false;
    for (;;) {
        LDAPMessage* raw = nullptr;
        const int type = ldap_result(ld, msgid, LDAP_MSG_ONE, nullptr, &raw);
        LdapMsg msg(raw);
        if (type == LDAP_RES_SEARCH_ENTRY) {
            LDAPMessage* e = msg.get();
            const std::string dn = entry_dn(ld, e);
            std::vector<std::string> classes = attribute_values(ld, e, "objectclass");
            std::vector<std::string> members = attribute_values(ld, e, "member");
            std::string db;
            const bool has_db = first_text(ld, e, "orvZorlaDatabaseId", db);
            if (dn.empty() || !index->add_role(dn, classes, members, has_db ? &db : nullptr)) {
                ldap_abandon_ext(ld, msgid, nullptr, nullptr);
                break;
            }
        } else if (type == LDAP_RES_SEARCH_REFERENCE) {
            continue;  // the per-entry searches do not follow references either
        } else if (type == LDAP_RES_SEARCH_RESULT) {
            int result = LDAP_OTHER;
            if (ldap_parse_result(ld, msg.get(), &result, nullptr, nullptr, nullptr, nullptr, 0) ==
                LDAP_SUCCESS)
                complete = result == LDAP_SUCCESS;
            *result_out = status_from_ldap(result);
            if (!complete) ORV_DEBUG("Role index: search ended with", status_from_ldap(result));
            break;
        } else {
            ORV_DEBUG("Role index: no answer", status_from_ldap(type < 0 ? LDAP_SERVER_DOWN : type));
            break;
        }
    }
    if (!complete || !index->usable()) {
        ORV_DEBUG("Role index: not used; the directory answers each entry", "");
        return nullptr;
    }
    index->finish();
    if (!index->usable()) return nullptr;
    ORV_DEBUG("Role index: roles", static_cast<long>(index->role_count()));
    ORV_DEBUG("Role index: bytes", static_cast<long>(index->bytes()));
    ORV_DEBUG("Role index: CPU seconds", cpu_seconds_since(started));
    return index;
}

// The index must give the directory's answers for the entries answered
// before it was built.
bool agrees(const RoleIndex& index, const std::vector<Probe>& probes) {
    std::vector<std::string> roles;
    for (const Probe& p : probes) {
        if (!index.roles_of(p.member, roles)) continue;  // those ask the directory anyway
        if (roles != p.roles) return false;
    }
    return true;
}

}  // namespace

char** roles_of_member(LDAP* ld, const char* member_dn) {
    RoleLookups* state = lookups_for(ld);
    if (state == nullptr || member_dn == nullptr || state->state == RoleLookups::State::Off)
        return getRolesOfUser(ld, member_dn);

    if (state->state == RoleLookups::State::Probing) {
        if (++state->entries <= kProbeEntries) {
            char** roles = getRolesOfUser(ld, member_dn);
            if (ldapErrCode == LDAP_SUCCESS)
                state->probes.push_back(Probe{member_dn, to_vector(roles)});
            else if (ldapErrCode == LDAP_NO_SUCH_OBJECT)
                ++state->missing_probes;
            return roles;
        }
        int result = 0;
        state->index = read_roles(ld, &result);
        if (state->index && !agrees(*state->index, state->probes)) {
            ORV_DEBUG("Role index: differs from the directory; not used", "");
            state->index.reset();
        }
        state->probes.clear();
        if (state->index) {
            state->state = RoleLookups::State::Ready;
        } else if (result == LDAP_NO_SUCH_OBJECT && state->missing_probes == kProbeEntries) {
            ORV_DEBUG("Role index: no group base on this server; entries have no roles", "");
            state->state = RoleLookups::State::Missing;
        } else {
            state->state = RoleLookups::State::Off;
            return getRolesOfUser(ld, member_dn);
        }
    }
    if (state->state == RoleLookups::State::Missing) {
        ldapErrCode = LDAP_NO_SUCH_OBJECT;  // the directory's answer
        return nullptr;
    }

    std::vector<std::string> roles;
    if (!state->index->roles_of(member_dn, roles)) return getRolesOfUser(ld, member_dn);
    ldapErrCode = LDAP_SUCCESS;  // as after the directory's answer
    for (const std::string& r : roles) ORV_DEBUG("Role group DN: ", r);
    return to_orv_array(roles);
}

const RoleIndex* role_index_for(LDAP* ld) {
    RoleLookups* state = lookups_for(ld);
    if (state == nullptr || state->state != RoleLookups::State::Ready) return nullptr;
    return state->index.get();
}

void set_role_index_enabled(bool enabled) { g_enabled = enabled; }

const RoleIndex* current_role_index() {
    const std::shared_ptr<RoleLookups>& slot = search_state().roles[0];
    return slot ? slot->index.get() : nullptr;
}

}  // namespace orv
