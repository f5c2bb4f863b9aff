// orvldap_entry.cpp - the attribute identifier table and entry population.
//
// Callers read entry values by a numeric attribute identifier.  The table
// below is that vocabulary: getMappedAttrId turns a server's attribute name
// into its id and getAttrNameFromID gives the name used when writing an
// attribute by id.  Names unknown here are looked up among the
// external-relationship attributes (pex_er_utils.cpp).

#include <strings.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_member_entries.hpp"
#include "orv_role_index.hpp"
#include "orvldap_entry.h"
#include "orvldap_search.h"
#include "orvldap_session.h"
#include "orvldap_utils.h"

// ------------------------------------------------------------------ attribute identifier table

namespace {

struct AttrName {
    int id;
    const char* name;
    bool any_case;  // compared case-insensitively
};

// Names that map to an id, tested in this order; the first match wins.
// Several names share an id on purpose (phone, address, membership, the user
// and the group application id).
const AttrName kNameToId[] = {
    {1, "cn", true},
    {2, "sn", true},
    {101, "givenName", true},
    {3, "uid", true},
    {5, "telephonenumber", true},
    {5, "otherTelephone", false},
    {6, "mail", false},
    {7, "facsimiletelephonenumber", false},
    {48, "postalAddress", false},
    {48, "streetAddress", false},
    {0, "entrydn", false},
    {0, "distinguishedName", false},
    {0, "dn", false},
    {12, "orvZORLAUserAttribute", false},
    {15, "orvOSPosixUserName", false},
    {14, "orvOSNTUserName", false},
    {16, "orvVELTRANUserName", false},
    {17, "orvUserState", false},
    {44, "userAccountControl", false},
    {54, "nsAccountlock", false},
    {11, "orvZORLAUserId", false},
    {11, "orvZORLAGroupId", false},
    {4, "description", false},
    {8, "pexZORLAGroupAttribute", false},
    {10, "uniquemember", false},
    {10, "member", false},
    {13, "orvCorporateDN", false},
    {20, "orvKXSToolOID", false},
    {21, "orvExtendedKXSAttribute", false},
    {30, "orvBaseURL", false},
    {32, "orvApplicationServerFacilityStatus", false},
    {31, "orvApplicationServerFacilityType", false},
    {22, "orvFullyQualifiedObjectId", false},
    {18, "objectclass", true},
    {19, "nsRoleDN", false},
    {40, "accessibleDatabases", false},
    {41, "orvChangePassword", false},
    {42, "orvpasswordmaxrepeatedchars", false},
    {43, "pwdMinLength", false},
    {45, "pwdInHistory", false},
    {46, "pwdMaxFailure", false},
    {47, "orvpasswordMinAlphaChars", false},
    {49, "orvpasswordMinDiffChars", false},
    {50, "pwdLockoutDuration", false},
    {51, "pwdlockout", false},
    {52, "orvpasswordminnumbers", false},
    {53, "orvpasswordminsymbols", false},
    {38, "sAMAccountName", true},
    {70, "orvWindowsUserSID", true},
    {73, "objectsid", true},
    {64, "orvRadius2FactorAuthenticationRequired", true},
    {69, "orvSystemLogin2FactorAuthenticationRequired", true},
    {65, "orvDB2FactorAuthenticationPrompt", true},
    {66, "orvDBRestrictCmdLinePwd", true},
    {67, "orvRadiusUserName", true},
    {68, "orvUserMayUseCmdLinePwd", true},
    {75, "pexObjectClassMetaData", true},
    {74, "pexSearchFilterMetaData", true},
    {76, "pexSearchBaseMetaData", true},
    {77, "pexZorlaGroupForGroups", true},
    {78, "pexZorlaGroupForUsers", true},
    {72, "orvWindowsUserDomainName", true},
    {71, "orvWindowsUserSystemName", true},
};

// The name written for an id.  Ids 3, 10, 38, 40, 44, 54, 64-69, 73-78 and
// 101 have none; 9 has a name although no name maps to it.
const struct {
    int id;
    const char* name;
} kIdToName[] = {
    {1, "cn"},
    {2, "sn"},
    {5, "telephonenumber"},
    {6, "mail"},
    {7, "facsimiletelephonenumber"},
    {48, "postalAddress"},
    {0, "entrydn"},
    {12, "orvZORLAUserAttribute"},
    {15, "orvOSPosixUserName"},
    {14, "orvOSNTUserName"},
    {16, "orvVELTRANUserName"},
    {17, "orvUserState"},
    {11, "orvZORLAUserId"},
    {9, "orvZORLAGroupId"},
    {4, "description"},
    {8, "pexZORLAGroupAttribute"},
    {13, "orvCorporateDN"},
    {20, "orvKXSToolOID"},
    {21, "orvExtendedKXSAttribute"},
    {30, "orvBaseURL"},
    {32, "orvApplicationServerFacilityStatus"},
    {31, "orvApplicationServerFacilityType"},
    {22, "orvFullyQualifiedObjectId"},
    {18, "objectclass"},
    {19, "nsRoleDN"},
    {41, "orvChangePassword"},
    {42, "orvpasswordmaxrepeatedchars"},
    {43, "pwdMinLength"},
    {45, "pwdInHistory"},
    {46, "pwdMaxFailure"},
    {47, "orvpasswordMinAlphaChars"},
    {49, "orvpasswordMinDiffChars"},
    {50, "pwdLockoutDuration"},
    {51, "pwdlockout"},
    {52, "orvpasswordminnumbers"},
    {53, "orvpasswordminsymbols"},
    {70, "orvWindowsUserSID"},
    {72, "orvWindowsUserDomainName"},
    {71, "orvWindowsUserSystemName"},
};

}  // namespace

extern "C" {

int getMappedAttrId(const char* name) {
    ORV_TRACE();
    if (name == nullptr) return ORV_LDAPLIB_INVALID_INPUT;
    // Entries of one search repeat the same few names: the answers for the
    // names last seen are kept by name as spelled (the tables are fixed).
    struct Remembered {
        std::string name;
        int id = 0;
        bool used = false;
    };
    static thread_local Remembered remembered[128];
    std::uint32_t hash = 2166136261u;
    for (const char* c = name; *c; ++c) hash = (hash ^ static_cast<unsigned char>(*c)) * 16777619u;
    Remembered& slot = remembered[hash & 127u];
    if (slot.used && slot.name == name) return slot.id;

    int id = -1;
    bool found = false;
    for (const AttrName& row : kNameToId) {
        const bool same = row.any_case ? strcasecmp(name, row.name) == 0
                                       : std::strcmp(name, row.name) == 0;
        if (same) {
            id = row.id;
            found = true;
            break;
        }
    }
    if (!found) id = get_mapped_er_attribute_id(name);
    slot.name = name;
    slot.id = id;
    slot.used = true;
    return id;
}

char* getAttrNameFromID(int id) {
    ORV_TRACE();
    for (const auto& row : kIdToName)
        if (row.id == id) return _orvlib_dupString(row.name);
    return get_external_relationship_attribute_name_from_id(id);
}

}  // extern "C"

// ------------------------------------------------------------------ entry records
//
// An entry made here starts with an attribute array of 50 slots: 49
// attributes and the terminating NULL.  Appends go after the last used slot.
// A full array is replaced by one twice as large (100, 200, ... slots), so the
// number of slots always follows from the number of attributes (slots_for)
// and an entry of any size is filled completely without writing past its
// array.  Attributes are never removed from an entry before it is freed.

namespace {

constexpr std::size_t kInitialSlots = 50;

std::size_t slots_for(std::size_t count) {
    std::size_t slots = kInitialSlots;
    while (slots < count + 1) slots *= 2;
    return slots;
}

std::size_t count_of(const ORVLibEntry* entry) {
    if (entry == nullptr || entry->orvlibEntryAttrData == nullptr) return 0;
    std::size_t count = 0;
    while (entry->orvlibEntryAttrData[count] != nullptr) ++count;
    return count;
}

ORVLibAttribute** new_array(std::size_t slots) {
    char** raw = orvlib_arr_malloc(static_cast<unsigned int>(slots));
    if (raw == nullptr) return nullptr;
    std::memset(raw, 0, slots * sizeof(char*));
    return reinterpret_cast<ORVLibAttribute**>(raw);
}

// Makes room for one more attribute; false when the entry has no array or a
// larger one cannot be allocated.
bool make_room(ORVLibEntry* entry, std::size_t count) {
    if (entry == nullptr || entry->orvlibEntryAttrData == nullptr) return false;
    if (count + 2 <= slots_for(count)) return true;
    const std::size_t slots = slots_for(count + 1);
    ORVLibAttribute** larger = new_array(slots);
    if (larger == nullptr) return false;
    std::memcpy(larger, entry->orvlibEntryAttrData, count * sizeof(ORVLibAttribute*));
    orvlib_memfree(entry->orvlibEntryAttrData);
    entry->orvlibEntryAttrData = larger;
    ORV_DEBUG("Attribute slots", static_cast<long>(slots));
    return true;
}

// Appends a record that takes ownership of name and vals (both may be NULL);
// on failure they are released.  `count` is the entry's attribute count,
// raised by one on success: a caller that appends many attributes keeps it
// instead of counting the entry again for each one.
bool append_owned(ORVLibEntry* entry, std::size_t& count, int id, char* name, char** vals) {
    ORVLibAttribute* record = nullptr;
    if (make_room(entry, count))
        record = reinterpret_cast<ORVLibAttribute*>(orvlib_str_malloc(sizeof(ORVLibAttribute)));
    if (record == nullptr) {
        orvlib_memfree(name);
        orvlib_free_values(vals);
        return false;
    }
    record->attrId = id;
    record->attrName = name;
    record->attrVals = vals;
    entry->orvlibEntryAttrData[count++] = record;
    return true;
}

bool append_owned(ORVLibEntry* entry, int id, char* name, char** vals) {
    std::size_t count = count_of(entry);
    return append_owned(entry, count, id, name, vals);
}

// Calls fn(name, values) for each attribute of a server entry, in order, in
// one pass over the entry (values as ldap_get_values_len hands them out,
// NULL-terminated, or NULL for none).  ldap_get_values_len per attribute
// would walk the entry from its start again for every name: quadratic in
// the number of attributes a server chooses to send.  Stops when fn
// returns false.
template <class Fn>
void each_server_attribute(LDAP* ld, LDAPMessage* server_entry, Fn fn) {
    BerElement* raw_ber = nullptr;
    berval dn{0, nullptr};
    const int rc = ldap_get_dn_ber(ld, server_entry, &raw_ber, &dn);
    orv::BerPtr ber(raw_ber);
    if (rc != LDAP_SUCCESS || raw_ber == nullptr) return;
    std::vector<berval*> pointers;
    for (;;) {
        berval name{0, nullptr};
        BerVarray values = nullptr;
        if (ldap_get_attribute_ber(ld, server_entry, raw_ber, &name, &values) != LDAP_SUCCESS ||
            name.bv_val == nullptr) {
            if (values) ber_memfree(values);
            break;
        }
        pointers.clear();
        for (BerVarray v = values; v != nullptr && v->bv_val != nullptr; ++v) pointers.push_back(v);
        pointers.push_back(nullptr);
        const std::string text(name.bv_val, name.bv_len);
        const bool more = fn(text.c_str(), pointers.size() > 1 ? pointers.data() : nullptr);
        if (values) ber_memfree(values);
        if (!more) break;
    }
}

// NULL-terminated library copy of server values; a value stops at its first
// zero byte, as text values do.  NULL for no values.
char** copy_values(berval** values) {
    if (values == nullptr || values[0] == nullptr) return nullptr;
    std::size_t count = 0;
    while (values[count] != nullptr) ++count;
    char** copy = orvlib_arr_malloc(static_cast<unsigned int>(count + 1));
    if (copy == nullptr) return nullptr;
    for (std::size_t i = 0; i <= count; ++i) copy[i] = nullptr;
    for (std::size_t i = 0; i < count; ++i) {
        const berval* v = values[i];
        const std::string text =
            v->bv_val != nullptr ? std::string(v->bv_val, strnlen(v->bv_val, v->bv_len))
                                 : std::string();
        copy[i] = _orvlib_dupString(text.c_str());
        if (copy[i] == nullptr) {
            orvlib_free_values(copy);
            return nullptr;
        }
    }
    return copy;
}

char** copy_values(const std::vector<std::string>& values) {
    if (values.empty()) return nullptr;
    char** copy = orvlib_arr_malloc(static_cast<unsigned int>(values.size() + 1));
    if (copy == nullptr) return nullptr;
    for (std::size_t i = 0; i <= values.size(); ++i) copy[i] = nullptr;
    for (std::size_t i = 0; i < values.size(); ++i) {
        copy[i] = _orvlib_dupString(values[i].c_str());
        if (copy[i] == nullptr) {
            orvlib_free_values(copy);
            return nullptr;
        }
    }
    return copy;
}

// First attribute with this id that has a value, or NULL.
const ORVLibAttribute* find_attribute(const ORVLibEntry* entry, int id) {
    if (entry == nullptr || entry->orvlibEntryAttrData == nullptr) return nullptr;
    for (ORVLibAttribute** item = entry->orvlibEntryAttrData; *item != nullptr; ++item)
        if ((*item)->attrId == id && (*item)->attrVals != nullptr && (*item)->attrVals[0] != nullptr)
            return *item;
    return nullptr;
}

const char* first_value_of(const ORVLibEntry* entry, int id) {
    const ORVLibAttribute* attribute = find_attribute(entry, id);
    return attribute != nullptr ? attribute->attrVals[0] : nullptr;
}

// Appends one single-valued attribute; a NULL value appends nothing.
bool append_single(ORVLibEntry* entry, const char* name, const char* value) {
    if (value == nullptr) return true;
    char* values[] = {const_cast<char*>(value), nullptr};
    return orv::append_attribute(entry, getMappedAttrId(name), name, values);
}

// Which debug lines an attribute copied from a server entry writes.
enum class CopyLog { Plain, Extended, Tier2, Group };

int append_from_server(LDAP* ld, LDAPMessage* server_entry, ORVLibEntry* entry, CopyLog style) {
    if (ld == nullptr || server_entry == nullptr || entry == nullptr) return 0;
    int appended = 0;
    std::size_t count = count_of(entry);
    each_server_attribute(ld, server_entry, [&](const char* name, berval** values) {
        char** copy = copy_values(values);
        if (copy == nullptr) return true;
        const int id = getMappedAttrId(name);
        const long position = static_cast<long>(count);
        if (!append_owned(entry, count, id, _orvlib_dupString(name), copy)) return false;
        ++appended;
        switch (style) {
            case CopyLog::Extended:
                ORV_DEBUG("Counter: ", position);
                ORV_DEBUG("Attribute ID ", id);
                ORV_DEBUG("Attribute Name ", name);
                for (char** v = copy; *v != nullptr; ++v) ORV_DEBUG("Attribute Values: ", *v);
                break;
            case CopyLog::Tier2:
                for (char** v = copy; *v != nullptr; ++v) ORV_DEBUG("Attribute Values:", *v);
                break;
            case CopyLog::Group:
                ORV_DEBUG("attribute Name", name);
                ORV_DEBUG("attribute ID", id);
                break;
            case CopyLog::Plain:
                ORV_DEBUG("Attribute ID ", id);
                ORV_DEBUG("Attribute Name ", name);
                ORV_DEBUG("Attribute Values: ", copy[0]);
                break;
        }
        return true;
    });
    return appended;
}

// Appends "nsRoleDN" with the roles listing member_dn, when there are any
// (from the search's role index when it has one).
void append_roles(LDAP* ld, ORVLibEntry* entry, const char* member_dn) {
    char** roles = orv::roles_of_member(ld, member_dn);
    if (roles != nullptr) append_owned(entry, 19, _orvlib_dupString("nsRoleDN"), roles);
}

// The database ids of the entry's roles (its first "nsRoleDN" attribute
// with values), in role order; index answers what it can, the directory the
// rest.  NULL when no id is found.
char** accessible_databases(ORVLibEntry* entry, LDAP* ld, const orv::RoleIndex* index) {
    const ORVLibAttribute* roles = find_attribute(entry, 19);
    if (roles == nullptr || ld == nullptr) return nullptr;
    std::vector<std::string> ids;
    for (char** role = roles->attrVals; *role != nullptr; ++role) {
        ORV_DEBUG("Role DN", *role);
        std::string id;
        const int known = index != nullptr ? index->database_of(*role, id) : -1;
        const bool found = known >= 0 ? known == 1 : orv::database_of_role(ld, *role, id);
        if (found) {
            ORV_DEBUG("Database ID", id);
            ids.push_back(std::move(id));
        }
    }
    return copy_values(ids);
}

// Appends "accessibleDatabases" with the database ids of the entry's roles.
void append_databases(LDAP* ld, ORVLibEntry* entry) {
    char** databases = accessible_databases(entry, ld, orv::role_index_for(ld));
    if (databases != nullptr)
        append_owned(entry, 40, _orvlib_dupString("accessibleDatabases"), databases);
}

// The handle through which corporate result entries are read: libldap needs
// a live handle for that, any one will do.
LDAP* corporate_reader(LDAP* fallback) {
    if (corporate_user_ld != nullptr) return corporate_user_ld;
    if (corporate_admin_ld != nullptr) return corporate_admin_ld;
    return fallback;
}

// Gives *entry an entry with an attribute array; false when it cannot.
bool ensure_entry(ORVLibEntry** entry) {
    if (entry == nullptr) return false;
    if (*entry == nullptr) *entry = orv::new_entry();
    if (*entry == nullptr) return false;
    if ((*entry)->orvlibEntryAttrData == nullptr)
        (*entry)->orvlibEntryAttrData = new_array(kInitialSlots);
    return (*entry)->orvlibEntryAttrData != nullptr;
}

bool has_space_or_comma(const char* text) {
    return std::strchr(text, ' ') != nullptr || std::strchr(text, ',') != nullptr;
}

}  // namespace

namespace orv {

ORVLibEntry* new_entry() {
    auto* entry = reinterpret_cast<ORVLibEntry*>(orvlib_str_malloc(sizeof(ORVLibEntry)));
    if (entry == nullptr) return nullptr;
    entry->orvlibEntryAttrData = new_array(kInitialSlots);
    if (entry->orvlibEntryAttrData == nullptr) {
        orvlib_memfree(entry);
        return nullptr;
    }
    return entry;
}

bool append_attribute(ORVLibEntry* entry, int id, const char* name, char** vals) {
    if (entry == nullptr || entry->orvlibEntryAttrData == nullptr) return false;
    if (vals == nullptr) return append_owned(entry, -1, nullptr, nullptr);
    char** copy = orvlib_duparray(vals);
    if (copy == nullptr) return false;
    return append_owned(entry, id, _orvlib_dupString(name), copy);
}

int append_server_attributes(LDAP* ld, LDAPMessage* server_entry, ORVLibEntry* entry) {
    return append_from_server(ld, server_entry, entry, CopyLog::Plain);
}

int attribute_count(const ORVLibEntry* entry) {
    return static_cast<int>(count_of(entry));
}

}  // namespace orv

// ------------------------------------------------------------------ population

extern "C" {

// Fills an entry from one server entry.  The fill continues after the last
// used slot of an existing entry (entries are filled one at a time, so this
// is where the previous fill stopped).
void populate_orvlibentry_entry(LDAP* ld, ORVLibEntry** entry, LDAPMessage** server_entry) {
    ORV_TRACE();
    if (ld == nullptr || entry == nullptr || server_entry == nullptr || *server_entry == nullptr) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return;
    }
    LDAPMessage* source = *server_entry;
    orv::LdapString dn(ldap_get_dn(ld, source));
    ORV_DEBUG("Entry DN", dn ? dn.get() : "");
    if (!ensure_entry(entry)) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return;
    }
    ORVLibEntry* target = *entry;

    std::size_t count = count_of(target);
    each_server_attribute(ld, source, [&](const char* name, berval** values) {
        if (ORV_WIN_USER_SEARCH == 1 && _isFirstEntry == 1 && strcasecmp(name, "orvZORLAUserId") == 0) {
            // The Windows user lookup keeps the application ids for its own
            // search instead of showing them in the entry.
            char** ids = copy_values(values);
            for (char** v = ids; v != nullptr && *v != nullptr; ++v) ORV_DEBUG("UUid", *v);
            orvlib_free_values(_UUID);
            _UUID = ids;
            return true;
        }

        char** copy = copy_values(values);
        if (copy == nullptr) {
            // No values: the slot is taken by an empty record.
            append_owned(target, count, -1, nullptr, nullptr);
            return true;
        }
        const int id = getMappedAttrId(name);
        if (!append_owned(target, count, id, _orvlib_dupString(name), copy)) return false;
        ORV_DEBUG("Attribute ID ", id);
        ORV_DEBUG("Attribute Name ", name);
        ORV_DEBUG("Attribute Values: ", copy[0]);
        return true;
    });

    if (dn && find_attribute(target, 0) == nullptr) {
        char* values[] = {dn.get(), nullptr};
        orv::append_attribute(target, 0, "dn", values);
    }
    if (dn && (_current_search_type == ORV_SEARCH_PEOPLE ||
               _current_search_type == ORV_SEARCH_GROUP_MEMBERS))
        append_roles(ld, target, dn.get());
    append_databases(ld, target);
}

int populate_local_attrs(LDAP* ld, ORVLibEntry** entry, const char* logonValue, const char* sn,
                         const char* uuid) {
    ORV_TRACE();
    if (ld == nullptr || entry == nullptr || *entry == nullptr ||
        (*entry)->orvlibEntryAttrData == nullptr)
        return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    ORVLibEntry* target = *entry;
    append_single(target, "orvZORLAUserId", uuid);
    append_single(target, "sn", sn);
    append_single(target, "uid", logonValue);
    if (logonValue != nullptr && !has_space_or_comma(logonValue))
        append_single(target, "orvVeltranUserName", logonValue);
    return 0;
}

int populate_group_attrs_local(LDAP* ld, ORVLibEntry** entry, const char* cn, const char* uuid) {
    ORV_TRACE();
    ORV_DEBUG("Group CN", cn);
    if (ld == nullptr || entry == nullptr || *entry == nullptr ||
        (*entry)->orvlibEntryAttrData == nullptr)
        return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    append_single(*entry, "orvZORLAGroupId", uuid);
    return 0;
}

int populate_libentry_extended_attributes(LDAP* ld, const char* corporateDN, ORVLibEntry** entry) {
    ORV_TRACE();
    if (ld == nullptr || corporateDN == nullptr || !ensure_entry(entry))
        return orv::report(ORV_LDAPLIB_INVALID_INPUT);

    // The corporate DN as a filter value (RFC 4515): "CN=Smith\, John,..."
    // is matched, not refused as a malformed filter.
    const std::string filter =
        std::string("orvCorporateDN") + ORV_CONSTANT_EQUALS + orv::filter_value(corporateDN);
    ORV_DEBUG("Filter: ", filter);
    orv::LdapMsg result;
    const int rc = orv::search(ld, ORV_PEOPLE_SRCH_BASE, LDAP_SCOPE_SUBTREE, filter.c_str(),
                               ORVLIB_USER_ATTR_LIST, 0, result);
    if (rc != LDAP_SUCCESS) return orv::report(rc);
    LDAPMessage* first = ldap_first_entry(ld, result.get());
    if (first == nullptr) return orv::last_error(ld);

    append_from_server(ld, first, *entry, CopyLog::Extended);
    append_databases(ld, *entry);
    return 0;
}

int create_extended_user_object(LDAP* ld, const char* uid, const char* sn, const char* corporateDN,
                                const char* uuid, const char* mail, const char* state) {
    ORV_TRACE();
    if (ld == nullptr || uid == nullptr || corporateDN == nullptr || uuid == nullptr)
        return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::OrvString dn(get_standalone_dn_from_uid(uid));
    if (!dn) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    ORV_DEBUG("User DN", dn.get());

    char* cn_vals[] = {const_cast<char*>(uid), nullptr};
    char* sn_vals[] = {const_cast<char*>(sn != nullptr ? sn : ""), nullptr};
    char* class_vals[] = {const_cast<char*>("top"), const_cast<char*>("person"),
                          const_cast<char*>("organizationalperson"),
                          const_cast<char*>("inetorgperson"), const_cast<char*>("morvanePerson"),
                          nullptr};
    char* corp_vals[] = {const_cast<char*>(corporateDN), nullptr};
    char* uuid_vals[] = {const_cast<char*>(uuid), nullptr};
    char* mail_vals[] = {const_cast<char*>(mail), nullptr};
    char* state_vals[] = {const_cast<char*>(state), nullptr};

    LDAPMod mods[9];
    LDAPMod* list[10];
    int n = 0;
    auto add = [&](const char* name, char** vals) {
        mods[n].mod_op = LDAP_MOD_ADD;
        mods[n].mod_type = const_cast<char*>(name);
        mods[n].mod_values = vals;
        list[n] = &mods[n];
        ++n;
    };
    add("cn", cn_vals);
    add("sn", sn_vals);
    add("objectClass", class_vals);
    add("uid", cn_vals);
    add("orvCorporateDN", corp_vals);
    add("orvZORLAUserId", uuid_vals);
    if (!has_space_or_comma(uid)) add("orvVELTRANUserName", cn_vals);
    if (mail != nullptr) add("mail", mail_vals);
    if (state != nullptr) add("orvUserState", state_vals);
    list[n] = nullptr;

    const int rc = orv::add(ld, dn.get(), list);
    return orv::report(rc);
}

int entry_dn_exists_in_tier2(LDAP* ld, const char* corporateDN, ORVLibEntry** entry) {
    ORV_TRACE();
    if (ld == nullptr || corporateDN == nullptr || entry == nullptr)
        return orv::report(ORV_LDAPLIB_INVALID_INPUT);

    // The member walk reads counterparts ahead (orv_member_entries.hpp).
    LDAPMessage* first = orv::corporate_counterpart(ld, corporateDN);
    orv::LdapMsg result;
    if (first == nullptr) {
        // The corporate DN as it stands, as a filter value (RFC 4515).
        const std::string escaped = orv::filter_value(corporateDN);
        ORV_DEBUG("Modified DN ", escaped);
        const std::string filter = std::string("(&(objectclass") + ORV_CONSTANT_EQUALS +
                                   "morvaneperson)(orvCorporateDN" + ORV_CONSTANT_EQUALS +
                                   escaped + "))";
        ORV_DEBUG("Search Filter: ", filter);
        const int rc = orv::search(ld, ORV_PEOPLE_SRCH_BASE, LDAP_SCOPE_SUBTREE, filter.c_str(),
                                   ORVLIB_EXT_USER_ATTR_LIST, 0, result);
        if (rc != LDAP_SUCCESS) {
            orv::report(rc);
            return 0;
        }
        if (ldap_count_entries(ld, result.get()) <= 0) return 0;
        first = ldap_first_entry(ld, result.get());
        if (first == nullptr) {
            orv::report(orv::last_error(ld));
            return 0;
        }
    }
    if (!ensure_entry(entry)) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return 0;
    }
    append_from_server(ld, first, *entry, CopyLog::Tier2);
    if (_current_search_type == ORV_SEARCH_PEOPLE ||
        _current_search_type == ORV_SEARCH_GROUP_MEMBERS)
        append_roles(ld, *entry, corporateDN);
    append_databases(ld, *entry);
    return 1;
}

int is_group_local_group(ORVLibEntry* entry) {
    ORV_TRACE();
    if (entry == nullptr || entry->orvlibEntryAttrData == nullptr) return 0;
    for (ORVLibAttribute** item = entry->orvlibEntryAttrData; *item != nullptr; ++item) {
        if ((*item)->attrId != 18 || (*item)->attrVals == nullptr) continue;
        for (char** v = (*item)->attrVals; *v != nullptr; ++v)
            if (strcasecmp(*v, "morvanegroup") == 0) return 1;
    }
    return 0;
}

char** getDatabaseAccessibleToUser(ORVLibEntry* entry, LDAP* ld) {
    ORV_TRACE();
    return accessible_databases(entry, ld, nullptr);
}

char* get_databaseId_from_role(LDAPMessage* role_entry, LDAP* ld) {
    ORV_TRACE();
    if (role_entry == nullptr || ld == nullptr) return nullptr;
    char* id = nullptr;
    BerElement* raw_ber = nullptr;
    for (char* name = ldap_first_attribute(ld, role_entry, &raw_ber); name != nullptr;
         name = ldap_next_attribute(ld, role_entry, raw_ber)) {
        orv::LdapString owned_name(name);
        if (strcasecmp(name, "orvZorlaDatabaseId") != 0) continue;
        orv::LdapBerValues values(ldap_get_values_len(ld, role_entry, name));
        char** copy = copy_values(values.get());
        if (copy != nullptr) {
            id = _orvlib_dupString(copy[0]);
            orvlib_free_values(copy);
        }
        break;
    }
    orv::BerPtr ber(raw_ber);
    return id;
}

// The roles are found by their "member" values; only their DNs are needed,
// so no attributes are requested.
char** getRolesOfUser(LDAP* ld, const char* userDN) {
    ORV_TRACE();
    if (ld == nullptr || userDN == nullptr) return nullptr;
    // The DN is compared as a value, whatever characters it holds.
    const std::string escaped = orv::filter_value(userDN);
    ORV_DEBUG("Modified DN ", escaped);
    const std::string filter = std::string("(&(objectclass=morvaneRole)(") + "member" +
                               ORV_CONSTANT_EQUALS + escaped + "))";
    ORV_DEBUG("Complete Filter", filter);

    static const char* const kNoAttrs[] = {LDAP_NO_ATTRS, nullptr};
    orv::LdapMsg result;
    const int rc = orv::search(ld, ORV_GROUP_SRCH_BASE, LDAP_SCOPE_SUBTREE, filter.c_str(),
                               kNoAttrs, 0, result);
    ldapErrCode = rc;
    if (rc != LDAP_SUCCESS) return nullptr;
    const int count = ldap_count_entries(ld, result.get());
    ORV_DEBUG("Number of Role Entries: ", count);
    if (count <= 0) return nullptr;

    std::vector<std::string> roles;
    for (LDAPMessage* e = ldap_first_entry(ld, result.get()); e != nullptr;
         e = ldap_next_entry(ld, e)) {
        orv::LdapString dn(ldap_get_dn(ld, e));
        if (!dn) continue;
        ORV_DEBUG("Role group DN: ", dn.get());
        roles.emplace_back(dn.get());
    }
    return copy_values(roles);
}

// Corporate mode: gives a corporate user the attributes of its local
// counterpart (creating the counterpart when application ids are generated
// automatically), or makes sure a corporate group has its standalone group.
void check_and_populate_extended_information(LDAP* ld, LDAPMessage** msg, ORVLibEntry** entry,
                                             int type) {
    ORV_TRACE();
    if (ld == nullptr || msg == nullptr || *msg == nullptr || entry == nullptr ||
        *entry == nullptr) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return;
    }
    if (ORV_OPERATION_MODE != 1) return;
    LDAP* reader = corporate_reader(ld);
    const std::string dn = orv::entry_dn(reader, *msg);
    if (dn.empty()) return;

    if (type == ORV_SEARCH_PEOPLE || type == ORV_SEARCH_GROUP_MEMBERS) {
        ORV_DEBUG("Entry DN: ", dn);
        if (orvlib_get_user_uuid_generation_flag() != 1) {
            populate_libentry_extended_attributes(ld, dn.c_str(), entry);
            return;
        }
        const int found = entry_dn_exists_in_tier2(ld, dn.c_str(), entry);
        char* state_raw = nullptr;
        get_User_State(*entry, &state_raw);
        orv::OrvString state(state_raw);
        char* uid_raw = nullptr;
        char* sn_raw = nullptr;
        get_user_attributes(*msg, &uid_raw, &sn_raw);
        orv::OrvString uid(uid_raw);
        orv::OrvString sn(sn_raw);

        if (found == 1) {
            ORV_DEBUG("Corporate DN Exists in PEX", dn);
            const char* mirrored = first_value_of(*entry, 17);
            if (state && uid && (mirrored == nullptr || std::strcmp(mirrored, state.get()) != 0)) {
                orv::OrvString local_dn(get_standalone_dn_from_uid(uid.get()));
                char* values[] = {state.get(), nullptr};
                change_attribute_value_object(ld, local_dn.get(), 17, values, LDAP_MOD_REPLACE);
                ORV_DEBUG("Corporate Users State updated in PEX", state.get());
            }
        } else if (found == 0) {
            ORV_DEBUG("Corporate DN doesn't Exists in PEX", dn);
            orv::OrvString new_id(orvlib_create_guid());
            const char* mail = first_value_of(*entry, 6);
            ORV_DEBUG("Extending the group in PEX", dn);
            const int rc = create_extended_user_object(ld, uid.get(), sn.get(), dn.c_str(),
                                                       new_id.get(), mail, state.get());
            if (rc != LDAP_SUCCESS) return;  // recorded by the add
            orv::OrvString local_dn(get_standalone_dn_from_uid(uid.get()));
            char* values[] = {new_id.get(), nullptr};
            change_attribute_value_object(ld, local_dn.get(), 22, values, LDAP_MOD_ADD);
            populate_local_attrs(ld, entry, uid.get(), sn.get(), new_id.get());
        }
        return;
    }

    if ((type == ORV_SEARCH_GROUPS || type == ORV_SEARCH_USER_GROUPS ||
         type == ORV_SEARCH_USER_GROUP_MEMBERSHIP) &&
        is_group_local_group(*entry) == 0) {
        ORV_DEBUG("Entry DN: ", dn);
        const int found = group_dn_exists_in_tier2(ld, dn.c_str(), entry);
        if (found == 1) {
            ORV_DEBUG("Corporate DN Exists in PEX", dn);
            return;
        }
        if (found != 0) return;
        ORV_DEBUG("Corporate DN doesn't Exists in PEX: ", dn);
        orv::OrvString cn(get_cn_from_group_in_corporate(*msg));
        if (!cn) return;
        orv::OrvString new_id(orvlib_create_guid());
        create_standalone_group(ld, cn.get(), dn.c_str(), new_id.get());
        populate_group_attrs_local(ld, entry, cn.get(), new_id.get());
    }
}

}  // extern "C"

namespace orv {

// The first access role at or below role_dn, as the directory finds it.
bool database_of_role(LDAP* ld, const char* role_dn, std::string& id) {
    static const char* const kAttrs[] = {"orvZorlaDatabaseId", nullptr};
    LdapMsg result;
    const int rc = search(ld, role_dn, LDAP_SCOPE_SUBTREE,
                          "(&(objectclass=accessrole)(objectclass=morvanerole))", kAttrs, 0,
                          result);
    if (rc != LDAP_SUCCESS) return false;
    LDAPMessage* first = ldap_first_entry(ld, result.get());
    if (first == nullptr) return false;
    OrvString value(get_databaseId_from_role(first, ld));
    if (!value) return false;
    id = value.get();
    return true;
}

}  // namespace orv
