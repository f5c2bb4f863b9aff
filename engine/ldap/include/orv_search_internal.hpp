// orv_search_internal.hpp - C++ helpers shared by the search units
// (orvldap_search.cpp, orvsearchhelper.cpp and the orv_custom_*_search
// units): NULL-safe result walking, the pager that continues a search page
// by page while the caller iterates, messages that the library keeps for the
// caller's cursors, and the reset of each unit's part of the search state.
#ifndef ORV_SEARCH_INTERNAL_HPP
#define ORV_SEARCH_INTERNAL_HPP

#include <memory>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orvldap_search.h"

namespace orv {

// ldap_first_entry / ldap_next_entry that answer NULL for a NULL handle,
// message or entry instead of asserting.
LDAPMessage* first_entry(LDAP* ld, LDAPMessage* res);
LDAPMessage* next_entry(LDAP* ld, LDAPMessage* entry);

// The library's own (tier-2) connection: orv_ld.  NULL once it is gone
// (unbind, uninitialise, a re-open that failed): the caller's handle is
// never used in its place, it may be the one that was freed.
LDAP* own_connection(LDAP* handle);

// A live handle for reading a message that came from the corporate server.
LDAP* corporate_connection();

// Fills a new entry from one server entry (populate_orvlibentry_entry with a
// NULL entry pointer).  Does nothing for a NULL entry out-argument.
void fill_entry(LDAP* ld, ORVLibEntry** entry, LDAPMessage* server_entry);

// Reconnects to the corporate server after result 81 or 91 and answers the
// handle to retry with: the new admin or user connection when ld was one of
// them, else ld itself.
LDAP* reconnect_corporate(LDAP* ld);

// CPU seconds since `started` as "%lf" text.
std::string cpu_seconds_since(long started);

// New NULL-terminated string array through the library allocator; NULL for
// an empty list.
char** to_orv_array(const std::vector<std::string>& values);
// Values of one attribute of an entry, exact attribute name (any case).
std::vector<std::string> attribute_values(LDAP* ld, LDAPMessage* entry, const char* name);

// Frees a NULL-terminated list made with to_orv_array and clears it.
void free_list(char**& list);

// ---- pager
// Runs a search whose results the server hands out page by page (mechanism
// ORV_PAGING: simple paged results) or window by window (ORV_VLV: virtual
// list view over a server-side sort on "cn").  Both controls are sent as
// non-critical: a server without them answers with one whole result.  *res
// receives the first page (the caller's); the later pages are fetched by
// next_page while the caller iterates.  Status of the first request.
int paged_search(LDAP* ld, const char* base, int scope, const char* filter, char** attrs,
                 LDAPMessage** res);
// First entry of the next page of the last paged search, or NULL when there
// is none.  The page is kept by the search until the page after it, the
// next search or its release.
LDAPMessage* next_page();
void reset_pager();

enum class PageKind { None, Paging, Vlv };

// Where a paged search stands between two pages.
struct Pager {
    LDAP* ld = nullptr;
    std::string base;
    std::string filter;
    int scope = LDAP_SCOPE_SUBTREE;
    std::vector<std::string> attrs;
    bool all_attrs = true;
    PageKind kind = PageKind::None;
    std::string cookie;      // paged results
    int next_offset = 0;     // virtual list view, 1-based
    int content_count = 0;
    int skip = 0;            // leading entries of the last window delivered before
    std::string context;
    bool more = false;
    int pages = 0;           // requests sent (ORV_SEARCH_MAX_PAGES at most)
    LDAP** owner = nullptr;  // the library global that held ld at search time
    LdapMsg held;            // the page after the caller's first page
};

// Messages whose entries the caller walks, one slot each.
enum class Held { Fallback, DnList, Members, LocalGroups, LocalUserGroups, Count };

// Result of a membership search, kept for its first entry.
struct Membership {
    LdapMsg result;
    LDAPMessage* first = nullptr;
    void clear() {
        first = nullptr;
        result.reset();
    }
};

struct RoleLookups;  // orv_role_index.hpp
struct MemberEntries;    // orv_member_entries.hpp
struct CorporateWindow;  // orv_member_entries.hpp

// Everything one search keeps while its caller iterates: pages, held
// messages, cursors of the local searches, the member count of the
// group-members list, membership results.  The exported globals of the
// search (filter, type, flags, DN lists and their indexes) describe the
// current search; release_search_state frees what they point to together
// with this object.  One object is current; NestedSearch puts it aside.
struct SearchState {
    Pager pager;
    LdapMsg held[static_cast<int>(Held::Count)];
    LDAPMessage* local_group_cursor = nullptr;
    LDAPMessage* local_user_groups_cursor = nullptr;
    int member_count = 0;  // slots of GLOBAL_ZORLA_GROUPMEMBERS_LIST
    Membership membership;           // ordinary membership search
    Membership library_membership;   // library group, corporate user
    bool ended = false;              // the iteration has returned its end
    // Roles and database ids read once for the entries of this search
    // (orv_role_index.hpp), one set per connection entries are read on.
    std::shared_ptr<RoleLookups> roles[2];
    // Person entries of the group members, read ahead of the member walk.
    std::shared_ptr<MemberEntries> members;
    // Corporate members and their counterparts, read a window ahead.
    std::shared_ptr<CorporateWindow> corporate;
};

// The current search.
SearchState& search_state();
// The current search and those put aside under it (NestedSearch).
std::vector<SearchState*> all_search_states();

// Keeps a message in a slot of the current search; replaces (frees) the
// message held in the same slot before.
LDAPMessage* hold(Held slot, LDAPMessage* msg);
void release(Held slot);
void release_all();

// Parts of the search state owned by the other units, reset at the start of
// every search.
void reset_group_members();
void reset_local_searches();

// Frees everything the current search keeps (DN lists, held messages,
// pages, the filter) and resets the exported globals that describe it.
// The next public search, unbind, a re-opened connection and the library's
// uninitialisation call it.
void release_search_state();

// A search made inside another public call (token requests, database
// users, registry look-ups, the Windows user look-up) runs under this
// guard: the caller's search, with its pages, cursors and globals, is put
// aside for the guard's lifetime and comes back unchanged; whatever the
// inner search kept is released when the guard ends.
class NestedSearch {
public:
    NestedSearch();
    ~NestedSearch();
    NestedSearch(const NestedSearch&) = delete;
    NestedSearch& operator=(const NestedSearch&) = delete;

private:
    struct Saved;
    std::unique_ptr<Saved> saved_;
};

}  // namespace orv

#endif  // ORV_SEARCH_INTERNAL_HPP
