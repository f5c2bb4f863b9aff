// orv_role_index.hpp - the roles and database ids that a people or
// group-members search adds to its entries, read once per search.
//
// Each user entry of those searches gets "nsRoleDN" (the role entries that
// list the user as "member") and "accessibleDatabases" (the database id of
// each of those roles).  Asked per entry, that costs one role search per
// entry and one database search per role of the entry.  Instead, a search
// reads every role entry below the group base once (DN, object classes,
// member DNs, database id), keeps them in a RoleIndex for the search's life
// (orv::SearchState, released with it) and answers the entries from there.
//
// The index answers exactly as the directory would, or not at all: member
// DNs are compared in a canonical form (attribute types and values in lower
// case, blanks around separators dropped, escapes resolved); a DN that this
// form cannot settle for certain (non-ASCII or quoted values, OIDs as types,
// hex-encoded values, runs of blanks) makes the index decline, and the
// entry is then answered by the directory as before.  Its memory is bounded
// (kRoleIndexLimit); a role set that needs more is not indexed.
//
// Look-ups are kept per connection (two per search: in corporate mode the
// corporate entries are read on the corporate connection and their
// counterparts on the library's own).  A server on which the group base
// does not exist (a corporate server: its first two entries' role searches
// and the read of the roles all answered 32) gives every later entry the
// same answer without asking: no roles, status 32.
#ifndef ORV_ROLE_INDEX_HPP
#define ORV_ROLE_INDEX_HPP

#include <ldap.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "orvldap.h"

namespace orv {

// Upper bound of the memory an index may take, in bytes (estimated from its
// containers as they fill).
constexpr std::size_t kRoleIndexLimit = std::size_t(32) << 20;

// Canonical form of a DN as a list of RDNs (first RDN first); false when
// the DN cannot be put in a form that compares as the directory compares.
bool canonical_dn(const std::string& dn, std::vector<std::string>& rdns);
std::string join_rdns(const std::vector<std::string>& rdns, std::size_t from = 0);

class RoleIndex {
public:
    // The roles are looked up below base (canonical form must exist).
    explicit RoleIndex(const std::string& base);

    bool usable() const { return usable_; }
    // Adds the next role entry in the order the directory returned it.
    // db_id: the first value of its database id, or NULL.  Returns false
    // (and the index becomes unusable) when a member DN cannot be put in
    // canonical form or the memory bound is passed.
    bool add_role(const std::string& dn, const std::vector<std::string>& classes,
                  const std::vector<std::string>& members, const std::string* db_id);
    // Ends the filling: builds the database look-up.
    void finish();

    // The DNs of the roles that list member_dn, in directory order; false
    // when the index cannot tell (the DN has no canonical form).
    bool roles_of(const std::string& member_dn, std::vector<std::string>& roles) const;

    // The database id that a search of role_dn's subtree for access roles
    // finds (the first such role in directory order): 1 with an id, 0 when
    // it finds none or its first role has no id, -1 when the index cannot
    // tell (role_dn outside the base or without canonical form).
    int database_of(const std::string& role_dn, std::string& id) const;

    std::size_t role_count() const { return roles_.size(); }
    std::size_t bytes() const { return bytes_; }

private:
    struct Role {
        std::string dn;
        bool access = false;  // object classes accessRole and morvaneRole
        bool has_db = false;
        std::string db_id;
    };
    bool decline();
    std::vector<std::string> base_;
    std::vector<Role> roles_;
    std::unordered_map<std::string, std::vector<std::uint32_t>> members_;
    std::vector<std::string> role_keys_;  // canonical DN of each role
    // Canonical DN (a role or one of its ancestors) -> first access role at
    // or below it.
    std::unordered_map<std::string, std::uint32_t> first_access_;
    // database_of's answers by role DN as asked (status, id).
    mutable std::unordered_map<std::string, std::pair<int, std::string>> answers_;
    std::size_t bytes_ = 0;
    bool usable_ = true;
};

// Per-search answers for entry population (orvldap_entry.cpp).
// roles_of_member gives what getRolesOfUser gives: from the search's index
// when there is one (building it on the search's third user entry, and
// checking it against the directory's answers for the first two), else
// from the directory.
char** roles_of_member(LDAP* ld, const char* member_dn);
// The current search's index for look-ups on ld, or NULL.
const RoleIndex* role_index_for(LDAP* ld);
// The directory's answer for one role (getDatabaseAccessibleToUser's step):
// true with the id when the first access role at or below role_dn has one.
bool database_of_role(LDAP* ld, const char* role_dn, std::string& id);

// On by default; off makes every entry ask the directory (a reference for
// tests).
void set_role_index_enabled(bool enabled);

// The index of the current search, NULL when none was built (tests, the
// benchmark's memory figure).
const RoleIndex* current_role_index();

// Per-search state, held by orv::SearchState and released with it.
struct RoleLookups;

}  // namespace orv

#endif  // ORV_ROLE_INDEX_HPP
