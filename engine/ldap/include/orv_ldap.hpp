// orv_ldap.hpp - the library's boundary to libldap: thin wrappers over the
// libldap calls that the library uses everywhere, and the one place where
// libldap's result codes become the statuses that client applications know.
//
// Client applications were written against the standard C LDAP API, where
// the client-side codes are positive (81 server down ... 97 referral limit
// exceeded).  OpenLDAP returns them as -1 ... -17.  Every result that comes
// out of libldap passes through status_from_ldap() once, here or at the few
// call sites that use libldap directly; the rest of the library only ever
// sees standard codes.  OpenLDAP asserts on a NULL handle; the wrappers
// answer kParamError instead so that no caller input can abort the process.
#ifndef ORV_LDAP_HPP
#define ORV_LDAP_HPP

#include "orv_internal.hpp"

#include <string>
#include <vector>

namespace orv {

// Client-side status codes of the standard C LDAP API.
constexpr int kServerDown = 81;
constexpr int kLocalError = 82;
constexpr int kEncodingError = 83;
constexpr int kDecodingError = 84;
constexpr int kTimeout = 85;
constexpr int kAuthUnknown = 86;
constexpr int kFilterError = 87;
constexpr int kUserCancelled = 88;
constexpr int kParamError = 89;
constexpr int kNoMemory = 90;
constexpr int kConnectError = 91;
constexpr int kNotSupported = 92;
constexpr int kControlNotFound = 93;
constexpr int kNoResultsReturned = 94;
constexpr int kMoreResultsToReturn = 95;
constexpr int kClientLoop = 96;
constexpr int kReferralLimitExceeded = 97;

// A libldap result code as the status the library stores and returns:
// OpenLDAP's -1 ... -17 become 81 ... 97, any other negative code 80
// (other); codes of the protocol (0 and up) pass unchanged.
int status_from_ldap(int rc);

// libldap's own text for a status (the inverse of status_from_ldap for
// 81 ... 97, so that those codes keep their usual texts).
const char* ldap_text(int status);

// True for the statuses that mean the connection is gone (81, 91).
inline bool is_connection_drop(int status) {
    return status == kServerDown || status == kConnectError;
}

// Seconds that the library waits for a TCP connection and for any one
// result before it gives up (85 or 91); 0 or less means wait for ever.
extern int g_timeout_seconds;

// Applies the library's protocol version, connect and result time-outs and
// referral setting to a new handle.  Status of the first option refused.
int prepare_handle(LDAP* ld);

// All wrappers return statuses (status_from_ldap applied).

// Synchronous search with no controls and no size limit; the result
// time-out of the handle applies.
int search(LDAP* ld, const char* base, int scope, const char* filter, const char* const* attrs,
           int attrsonly, LdapMsg& result);

// The same search in two steps, so that requests to two servers can be
// under way together: search_start sends it (*msgid receives its id),
// search_finish waits for all of its result, at most the library's time-out
// (then the request is abandoned: 85).  Status of the result.
int search_start(LDAP* ld, const char* base, int scope, const char* filter,
                 const char* const* attrs, int* msgid);
int search_finish(LDAP* ld, int msgid, LdapMsg& result);

// First value of attribute `name` of an entry, or empty when absent.
std::string first_value(LDAP* ld, LDAPMessage* entry, const char* name);

// The entry's DN as a std::string (empty when it cannot be read).
std::string entry_dn(LDAP* ld, LDAPMessage* entry);

// Simple bind; NULL handle gives kParamError.
int simple_bind(LDAP* ld, const char* dn, const char* password);

// What a server answers to an extended operation besides its result code.
struct ExtendedResponse {
    bool hasOid = false;
    std::string oid;
    bool hasValue = false;
    std::string value;
};

// Synchronous extended operation with `value` as request value (sent as it
// is, not copied); NULL handle gives kParamError.
int extended_operation(LDAP* ld, const char* oid, const std::string& value,
                       ExtendedResponse* response = nullptr);

// Synchronous modify and add.
int modify(LDAP* ld, const char* dn, LDAPMod** mods);
int add(LDAP* ld, const char* dn, LDAPMod** attrs);

// Unbinds and clears a handle; NULL is ignored.  Status of the unbind.
int unbind(LDAP*& ld);

// Last result code stored in the handle (ldap_get_lderrno).
int last_error(LDAP* ld);

// The server's diagnostic text of the last result on the handle.
std::string diagnostic_message(LDAP* ld);

// Opens a plain handle to host:port (no network traffic until first use),
// prepared with prepare_handle.  The host may list several hosts separated
// by blanks; they are tried in order.
LDAP* open_plain(const char* host, int port);

}  // namespace orv

#endif  // ORV_LDAP_HPP
