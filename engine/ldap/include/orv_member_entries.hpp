// orv_member_entries.hpp - the person entries of a library group's members,
// read with a few requests instead of one base read per member.
//
// The member walk of a group-members search reads each member DN as a
// person entry (base scope, the strict person filter, the user attribute
// list).  For the library's own directory the entries are read ahead, once
// per member list:
//  - a container (parent DN) that holds at least kScanMinMembers members is
//    read with one one-level search of the same filter and attributes,
//    limited to 4 entries per member plus 100 and to the entries the list
//    may still hold (a container much larger than its members is not
//    read; its members go on below);
//  - the other members are read in searches of up to kBatchMembers DNs,
//    "(|(entryDN=...)...)" below the root suffix.
// Entries are matched to member DNs in canonical form (orv_role_index.hpp).
// A member whose DN has no certain canonical form, or for which no entry
// came back (a DN without entry, a member that is no person, a nested
// group), is read by itself exactly as before, so the walk delivers the same
// entries in the same order, duplicates included.  At most kHeldEntriesLimit
// entries are held per member list (the rest is read one by one); they are
// freed with the list.
#ifndef ORV_MEMBER_ENTRIES_HPP
#define ORV_MEMBER_ENTRIES_HPP

#include <ldap.h>

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "orv_internal.hpp"

namespace orv {

constexpr int kScanMinMembers = 16;
constexpr int kBatchMembers = 50;
constexpr std::size_t kHeldEntriesLimit = 20000;

struct MemberEntries {
    char** list = nullptr;  // the member list the entries were read for
    std::vector<LdapMsg> results;
    std::unordered_map<std::string, LDAPMessage*> by_dn;  // canonical DN -> entry
    std::size_t held = 0;  // entries held in results
    int requests = 0;      // searches sent for the list
};

// Reads ahead the person entries of list[0..n) on ld.  Returns 0, or the
// status of a search that lost the connection or timed out (81, 85, 91);
// any other refusal leaves the members concerned to be read one by one.
int read_member_entries(LDAP* ld, char** list, int n, MemberEntries& out);

// The entry read ahead for dn, or NULL when the member is to be read by
// itself.
LDAPMessage* member_entry(const MemberEntries& entries, const char* dn);

// The current search's entries for the member list, read on first use;
// *status as read_member_entries.  NULL with status 0: nothing read ahead.
const MemberEntries* member_entries_of(LDAP* ld, char** list, int n, int* status);
void forget_member_entries();

// On by default; off makes every member be read by itself (a reference for
// tests).  It covers both walks, the library's own and the corporate one.
void set_member_read_ahead_enabled(bool enabled);

// ---- the corporate member walk
// In corporate mode each member is read from the corporate server and, with
// generated application ids, given its local counterpart (the entry whose
// "orvCorporateDN" names it).  Asked per member that is two requests in a
// row; instead the walk reads a window of the next kCorporateWindow members
// at once:
//  - their corporate entries, one one-level search per container with two
//    or more of the window's members, "(&<strict person filter>(|(A=dn)...))"
//    where A is the DN attribute the server matches ("distinguishedName" on
//    a domain controller, "entryDN" on other servers; when a window brings
//    back none of its members and one of them is then read alone as a
//    person, the other attribute is tried, and after that nothing is read
//    ahead for the rest of the walk);
//  - their counterparts, one search
//    "(&(objectclass=morvaneperson)(|(orvCorporateDN=dn)...))" in the
//    library's own directory with the DNs as the member list writes them
//    (a domain controller writes them as the entries' own DNs), sent first
//    so that both servers work on the window at the same time.
// A counterpart is taken only when its "orvCorporateDN" equals the
// corporate DN in ASCII case-insensitive comparison and no other entry
// claims the same DN; a member without a certain counterpart is looked up
// by itself, so a counterpart is created only after the directory has said
// there is none.  A write through the library to an entry read ahead drops
// that entry, so the walk never delivers an entry older than its last
// write.  A lost connection drops the window.
constexpr int kCorporateWindow = 50;

struct CorporateWindow;

// The corporate entry of list[index] read ahead on corp (NULL: read the
// member by itself).  local is the library's own connection, where the
// counterparts are read.
LDAPMessage* corporate_member_entry(LDAP* corp, LDAP* local, char** list, int n, int index);
// A member of the walk was read by itself; person: the corporate server
// answered it as a person.
void corporate_member_read_alone(const char* dn, bool person);
// The counterpart read ahead for corporate_dn on local, or NULL when it is
// to be looked up.
LDAPMessage* corporate_counterpart(LDAP* local, const std::string& corporate_dn);
void forget_corporate_window();
// Requests the current corporate window has sent (tests, the benchmark).
int corporate_window_requests();

// A write to dn through the library: entries of dn read ahead are dropped.
void note_written(const char* dn);

}  // namespace orv

#endif  // ORV_MEMBER_ENTRIES_HPP
