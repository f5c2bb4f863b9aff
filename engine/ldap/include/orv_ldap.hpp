// orv_ldap.hpp - thin wrappers over libldap calls that the library uses
// everywhere.  OpenLDAP asserts on a NULL handle; these wrappers answer
// LDAP_PARAM_ERROR instead so that no caller input can abort the process.
#ifndef ORV_LDAP_HPP
#define ORV_LDAP_HPP

#include "orv_internal.hpp"

#include <string>
#include <vector>

namespace orv {

// Synchronous search with no controls and no limits.
int search(LDAP* ld, const char* base, int scope, const char* filter, const char* const* attrs,
           int attrsonly, LdapMsg& result);

// First value of attribute `name` of an entry, or empty when absent.
std::string first_value(LDAP* ld, LDAPMessage* entry, const char* name);

// The entry's DN as a std::string (empty when it cannot be read).
std::string entry_dn(LDAP* ld, LDAPMessage* entry);

// Simple bind; NULL handle gives LDAP_PARAM_ERROR.
int simple_bind(LDAP* ld, const char* dn, const char* password);

// What a server answers to an extended operation besides its result code.
struct ExtendedResponse {
    bool hasOid = false;
    std::string oid;
    bool hasValue = false;
    std::string value;
};

// Synchronous extended operation with `value` as request value (sent as it
// is, not copied); NULL handle gives LDAP_PARAM_ERROR.
int extended_operation(LDAP* ld, const char* oid, const std::string& value,
                       ExtendedResponse* response = nullptr);

// Unbinds and clears a handle; NULL is ignored.
void unbind(LDAP*& ld);

// Last result code stored in the handle (ldap_get_lderrno).
int last_error(LDAP* ld);

// Opens a plain handle to host:port (no network traffic until first use).
LDAP* open_plain(const char* host, int port);

}  // namespace orv

#endif  // ORV_LDAP_HPP
