// orvldap_entry.cpp - entry population and the attribute identifier table.
//
// Callers read entry values by a numeric attribute identifier.  The table
// below is that vocabulary: getMappedAttrId turns a server's attribute name
// into its id and getAttrNameFromID gives the name used when writing an
// attribute by id.  Names unknown here are looked up among the
// external-relationship attributes (pex_er_utils.cpp).

#include <strings.h>

#include <cstring>

#include "orv_internal.hpp"
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
    for (const AttrName& row : kNameToId) {
        const bool same = row.any_case ? strcasecmp(name, row.name) == 0
                                       : std::strcmp(name, row.name) == 0;
        if (same) return row.id;
    }
    return get_mapped_er_attribute_id(name);
}

char* getAttrNameFromID(int id) {
    ORV_TRACE();
    for (const auto& row : kIdToName)
        if (row.id == id) return _orvlib_dupString(row.name);
    return get_external_relationship_attribute_name_from_id(id);
}

}  // extern "C"
