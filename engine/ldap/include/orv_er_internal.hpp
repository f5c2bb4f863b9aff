// orv_er_internal.hpp - C++ helpers shared by the external-relationship
// units (pex_end_type.cpp, pex_relationship_type.cpp,
// pex_external_object.cpp, pex_relationship.cpp,
// orv_external_relationship.cpp): equality filters with escaped values,
// look-ups that tell "not found" from "could not search", and value lists.
#ifndef ORV_ER_INTERNAL_HPP
#define ORV_ER_INTERNAL_HPP

#include <string>
#include <vector>

#include "orv_internal.hpp"

namespace orv::er {

// Attribute ids of this area (besides the general 0, 18, 20, 22).
constexpr int kDn = 0;
constexpr int kObjectClass = 18;
constexpr int kToolOid = 20;
constexpr int kObjectId = 22;
constexpr int kEndId = 100;
constexpr int kEndRuleType = 101;
constexpr int kEndRuleValue = 102;
constexpr int kRelationshipTypeId = 104;
constexpr int kObjectContext = 109;
constexpr int kObjectDescription = 110;
constexpr int kObjectAUuid = 111;
constexpr int kObjectBUuid = 112;
constexpr int kMarkedForDelete = 114;
constexpr int kEndARuleValues = 121;
constexpr int kEndBRuleValues = 122;
constexpr int kProtocol = 123;
constexpr int kInitialQuery = 124;
constexpr int kHostName = 125;
constexpr int kPortNumber = 126;
constexpr int kObjectADescription = 127;
constexpr int kObjectBDescription = 128;

// "(" attr "=" value ")" with the value escaped (RFC 4515).
std::string equals(const char* attr, const std::string& value);

// create_ldap_filter as a std::string.
std::string class_filter(const char* filter, const char* objectclass);

// The first entry of a subtree search of base as a record (*record, NULL
// when there is none).  Returns the search's status; nothing is reported,
// so the caller decides what a failed search means.
int find_first(LDAP* ld, const std::string& filter, const char* base, ORVLibEntry** record);

// Values of the first attribute with this id that has values.
std::vector<std::string> values(ORVLibEntry* record, int id);

// A NULL-terminated list made by the library allocator; NULL for an empty
// vector or when allocation fails.
char** to_list(const std::vector<std::string>& values);

// The strings of a NULL-terminated list (NULL gives none).
std::vector<std::string> from_list(const char* const* list);

// A new string copied with the library allocator.
char* dup(const std::string& text);

}  // namespace orv::er

#endif  // ORV_ER_INTERNAL_HPP
