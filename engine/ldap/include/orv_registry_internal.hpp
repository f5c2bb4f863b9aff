// orv_registry_internal.hpp - C++ helpers shared by the registry and
// database units (orv_application_registry*.cpp, orv_zorla_database.cpp):
// add requests built from strings, deletes, and registry entries turned
// into records without touching the caller's search.
#ifndef ORV_REGISTRY_INTERNAL_HPP
#define ORV_REGISTRY_INTERNAL_HPP

#include <string>
#include <utility>
#include <vector>

#include "orv_internal.hpp"

namespace orv {

// One add request: attributes in the order they are added, each with its
// values.  The LDAPMod array points into this object, so it lives as long
// as the request does.
class AddRequest {
public:
    // An attribute with these values; an empty list adds nothing.
    void add(const char* name, std::vector<std::string> values);
    // An attribute with one value; a NULL value adds nothing.
    void add(const char* name, const char* value);
    // NULL-terminated modification list for ldap_add_ext_s.
    LDAPMod** mods();
    // Attribute names in request order (for tests and logs).
    std::vector<std::string> names() const;

private:
    struct Attr {
        std::string name;
        std::vector<std::string> values;
        std::vector<char*> pointers;
        LDAPMod mod{};
    };
    std::vector<Attr> attrs_;
    std::vector<LDAPMod*> list_;
};

// Synchronous delete of dn with no controls; the status (status_from_ldap).
int delete_entry(LDAP* ld, const std::string& dn);

// A record (populate_orvlibentry_entry) of one registry or database entry.
// The fill runs as a search of searchType would: the caller's search and
// its state are left as they were.  NULL when ld or entry is NULL.
ORVLibEntry* registry_record(LDAP* ld, LDAPMessage* entry, int searchType);

// First value of attribute id of a record, or empty with *found false.
std::string record_value(ORVLibEntry* record, int id, bool* found = nullptr);

// A fresh version-1 UUID in string form, or empty.
std::string fresh_uuid();

}  // namespace orv

#endif  // ORV_REGISTRY_INTERNAL_HPP
