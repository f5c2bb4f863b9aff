// orv_search_internal.hpp - C++ helpers shared by the search units
// (orvldap_search.cpp, orvsearchhelper.cpp and the orv_custom_*_search
// units): NULL-safe result walking, the pager that continues a search page
// by page while the caller iterates, messages that the library keeps for the
// caller's cursors, and the reset of each unit's part of the search state.
#ifndef ORV_SEARCH_INTERNAL_HPP
#define ORV_SEARCH_INTERNAL_HPP

#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orvldap_search.h"

namespace orv {

// ldap_first_entry / ldap_next_entry that answer NULL for a NULL handle,
// message or entry instead of asserting.
LDAPMessage* first_entry(LDAP* ld, LDAPMessage* res);
LDAPMessage* next_entry(LDAP* ld, LDAPMessage* entry);

// The library's own (tier-2) connection: orv_ld, or the caller's handle when
// no session context has been made.
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
// is none.  The page is kept by the library until the page after it, the
// next paged search or reset_pager.
LDAPMessage* next_page();
void reset_pager();

// Keeps a message whose entries the caller walks; replaces (frees) the
// message held in the same slot before.
enum class Held { Fallback, DnList, Members, LocalGroups, LocalUserGroups, Count };
LDAPMessage* hold(Held slot, LDAPMessage* msg);
void release(Held slot);
void release_all();

// Parts of the search state owned by the other units, reset at the start of
// every search.
void reset_group_members();
void reset_local_searches();

// Frees everything the last search keeps (DN lists, held messages, pages,
// the filter); the library's uninitialisation calls it.
void release_search_state();

}  // namespace orv

#endif  // ORV_SEARCH_INTERNAL_HPP
