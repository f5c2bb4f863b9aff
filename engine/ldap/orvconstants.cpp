// orvconstants.cpp - directory layout, filters, attribute lists and the
// library-wide state of orvlib, defined once and referred to by name from
// every other unit.
//
// Every base DN of the local directory ends in the root suffix, which is a
// build setting (CMake cache entry ORV_ROOT_SUFFIX, passed in as the string
// macro ORV_ROOT_SUFFIX_VALUE).  No other unit spells a suffix out.

#include "orvldap.h"

#ifndef ORV_ROOT_SUFFIX_VALUE
#error "ORV_ROOT_SUFFIX_VALUE must be defined by the build (root suffix of the ORV tree)"
#endif

extern "C" {

/* ------------------------------------------------------------------ */
/* Base DNs of the local directory                                     */
/* ------------------------------------------------------------------ */

const char* ORV_ROOT_SUFFIX = ORV_ROOT_SUFFIX_VALUE;
const char* ORV_PEOPLE_SRCH_BASE = "ou=People," ORV_ROOT_SUFFIX_VALUE;
const char* ORV_INACTIVE_USER_SRCH_BASE = "cn=inactive users,ou=Groups," ORV_ROOT_SUFFIX_VALUE;
const char* ORV_GROUP_SRCH_BASE = ORV_ROOT_SUFFIX_VALUE;
const char* ORV_MORVANE_ZORLA_APP_SRCH_BASE =
    "ou=Morvane Zorla,ou=Applications," ORV_ROOT_SUFFIX_VALUE;
const char* ORV_MORVANE_KM_APP_SRCH_BASE =
    "ou=Morvane Keldrin Modeler,ou=Applications," ORV_ROOT_SUFFIX_VALUE;
const char* ORV_PARTITION_SEARCH_BASE =
    "ou=Partitions,ou=Corporate,ou=Config," ORV_ROOT_SUFFIX_VALUE;
const char* ORV_APPLICATION_REGISTRY_BASE = "ou=Application Registry," ORV_ROOT_SUFFIX_VALUE;
const char* ORV_WIN_USER_SYSTEM_INFO_BASE =
    "ou=Windows User System Information," ORV_ROOT_SUFFIX_VALUE;
const char* ORV_RADIUS_CONFIG_SEARCH_BASE =
    "ou=RadiusConfiguration,ou=Config," ORV_ROOT_SUFFIX_VALUE;
const char* PEX_END_TYPE_BASE = "ou=PEXEndTypes," ORV_ROOT_SUFFIX_VALUE;
const char* PEX_RELATIONSHIP_TYPE_BASE = "ou=PEXRelationshipTypes," ORV_ROOT_SUFFIX_VALUE;
const char* PEX_EXTERNAL_OBJECT_BASE = "ou=ExternalRelationshipObjects," ORV_ROOT_SUFFIX_VALUE;
const char* PEX_RELATIONSHIP_BASE = "ou=PEXRelationships," ORV_ROOT_SUFFIX_VALUE;

/* The library's own administrator, used for its SASL bind. */
const char* bindingUser = "uid=orvadmin,ou=people," ORV_ROOT_SUFFIX_VALUE;

/* ------------------------------------------------------------------ */
/* RDN attributes, class filters and separators                        */
/* ------------------------------------------------------------------ */

const char* ORV_USER_RDN = "uid";
const char* ORV_GROUP_RDN = "cn";
const char* ORV_CONSTANT_PEOPLE_CLASSFILTER_STR = "(objectClass=person)";
/* A local group is any group class whose entry has no orvCorporateDN.  The
 * blank after "(&" belongs to the value. */
const char* ORV_CONSTANT_GROUP_CLASSFILTER_STR =
    "(& (!(orvCorporateDN=*))(|(objectClass=group)(objectClass=groupOfUniqueNames)"
    "(objectClass=groupOfNames)))";
const char* ORV_CONSTANT_CORP_GROUP_CLASSFILTER_STR =
    "(|(objectClass=group)(objectClass=groupOfUniqueNames)(objectClass=groupOfNames))";
const char* ORV_CONSTANT_APPLICATION_SERVER_CLASSFILTER_STR = "(objectClass=orvApplicationServer)";
const char* ORV_CONSTANT_APPLICATION_FACILITY_CLASSFILTER_STR =
    "(objectClass=orvApplicationServerFacility)";
const char* ORV_CONSTANT_COMMA = ",";
const char* ORV_CONSTANT_EQUALS = "=";
const char* ORV_CONSTANT_SEMICOLON = ";";
const char* ORV_CONSTANT_HYPHEN = "-";
const char* ORV_CONSTANT_LDAPURL_PREFIX = "ldap://";
const char* ORVLIB_CONST_OBJECT_DN = "entrydn";
const char* ORVLIB_WIN_SYSTEM_USER_NAME = "orvWindowsUserSystemName";
const char* INVALID_TOKEN = "invalid_token";
const char* USER_TIMED_OUT = "user_timed_out";
const char* PEXLIB_RULE_TYPE_ANY_VALUES[] = {"EMPTY_STRING", nullptr};

/* ------------------------------------------------------------------ */
/* Client identity and certificate store                               */
/* ------------------------------------------------------------------ */

const char* ORVLIB_CLIENT_LIBRARY_VERSION = "6.0.0.1";
const char* CERTDB_PATH = "certdb//orvclientkey.kdb";
const char* CLIENT_CERTIFICATE_PASSWORD = "wbnqel5hrtvoa";

/* ------------------------------------------------------------------ */
/* Attribute selections (NULL-terminated)                              */
/* ------------------------------------------------------------------ */

const char* ORVLIB_USER_ATTR_LIST[] = {
    "cn", "uid", "sn", "description", "dn", "distinguishedName", "telephonenumber",
    "telephoneNumber", "otherTelephone", "mail", "facsimiletelephonenumber", "postalAddress",
    "streetAddress", "entrydn", "orvZORLAUserAttribute", "orvZORLAUserId", "samaccountname",
    "objectsid", "objectclass", "userAccountControl", "nsAccountlock", "orvCorporateDN",
    "orvOSNTUserName", "orvOSPosixUserName", "orvVELTRANUserName", "orvUserState", "nsRoleDN",
    "orvChangePassword", "orvRadius2FactorAuthenticationRequired", "orvFullyQualifiedObjectId",
    "orvRadiusUserName", "orvUserMayUseCmdLinePwd", "givenName", nullptr};

/* The user selection without "uid". */
const char* ORVLIB_EXT_USER_ATTR_LIST[] = {
    "cn", "sn", "description", "dn", "distinguishedName", "telephonenumber", "telephoneNumber",
    "otherTelephone", "mail", "facsimiletelephonenumber", "postalAddress", "streetAddress",
    "entrydn", "orvZORLAUserAttribute", "orvZORLAUserId", "samaccountname", "objectsid",
    "objectclass", "userAccountControl", "nsAccountlock", "orvCorporateDN", "orvOSNTUserName",
    "orvOSPosixUserName", "orvVELTRANUserName", "orvUserState", "nsRoleDN", "orvChangePassword",
    "orvRadius2FactorAuthenticationRequired", "orvFullyQualifiedObjectId", "orvRadiusUserName",
    "orvUserMayUseCmdLinePwd", "givenName", nullptr};

const char* ORVLIB_GROUP_ATTR_LIST[] = {
    "cn", "description", "distinguishedName", "entrydn", "uniquemember", "member",
    "orvZORLAGroupId", "objectclass", "orvCorporateDN", "pexZORLAGroupAttribute", nullptr};

const char* ORVLIB_APPLICATION_SERVER_ATTR_LIST[] = {
    "orvFullyQualifiedObjectId", "orvKXSToolOID", "orvExtendedKXSAttribute", "entrydn",
    "objectclass", nullptr};

const char* ORVLIB_APPLICATION_FACILITY_ATTR_LIST[] = {
    "orvFullyQualifiedObjectId", "orvBaseURL", "orvApplicationServerFacilityType",
    "orvApplicationServerFacilityStatus", "entrydn", "objectclass", nullptr};

const char* ORVLIB_MORVANE_PASSWORD_POLICY_ATTR_LIST[] = {
    "orvpasswordmaxrepeatedchars", "orvpasswordMinAlphaChars", "orvpasswordMinOtherChars",
    "orvpasswordMinDiffChars", "orvpasswordminnumbers", "orvpasswordminsymbols", nullptr};

const char* ORVLIB_PASSWORD_POLICY_ATTR_LIST[] = {
    "pwdMinLength", "pwdInHistory", "pwdMaxFailure", "pwdLockoutDuration", "pwdlockout", nullptr};

const char* ORVLIB_ZORLA_DATABASE_ATTR_LIST[] = {
    "orvRadius2FactorAuthenticationRequired", "orvSystemLogin2FactorAuthenticationRequired",
    "orvDB2FactorAuthenticationPrompt", "orvDBRestrictCmdLinePwd", nullptr};

/* Partition entry attributes, in the order the configuration reader takes them. */
const char* ORVLIB_PARTITION_ATTR_LIST[] = {
    "orvHostName", "orvPortNumber", "description", "orvSSLEnabled", "orvsearchbasesuffix",
    "orvPartitionAdminDN", "orvPartitionAdminPassword", "orvPrimarySearchBaseSuffix",
    "orvPartitionAllowsBlankPassword", "orvPartitionLogonAttribute",
    "orvPartitionIsDomainController", "pexPeopleSearchBaseSuffix", "pexGroupSearchBaseSuffix",
    "pexPartitionSearchBaseType", "pexZorlaGroupForUsers", "pexZorlaGroupForGroups",
    "pexPartitionIsMetaSchemaConfigured", nullptr};

/* ------------------------------------------------------------------ */
/* Library-wide state                                                  */
/* ------------------------------------------------------------------ */

int ldapErrCode = ORV_LDAPLIB_UNKNOWN_ERROR; /* nothing has run yet */
int isServerInStandaloneMode = 1;
short enable_paging = 1;
int ORVLIB_PRIMARY_CACHE_SIZE = 6000000;
int ORVLIB_SECONDARY_CACHE_SIZE = 2000000;
int mechanism = -1;          /* not determined yet */
int operatingMechanism = -1; /* not determined yet */
int user_uuid_generation_flag = 1;
const int connection_retries = 3;
const int ORV_PAGING = 1;
const int ORV_VLV = 0;
int ORV_MAX_PARTITIONS = 50;
int current_search_type = ORV_SEARCH_PEOPLE;
int ORV_OPERATION_MODE = 0;
int ORV_OP_MODE_SEARCH = 0;
int ORV_OS_AUTH = 0;
int ORVLIB_IS_RADIUS_CONFIGURED = 0;
char* ORVLIB_SYSTEM_DEFAULT_DOMAIN = nullptr;
char* instanceID = nullptr;
partition_info* PARTITION_INFO = nullptr;
radius_info* RADIUS_INFO = nullptr;

/* Connections and the address of the last session context. */
LDAP* orv_ld = nullptr;
LDAP* corporate_admin_ld = nullptr;
LDAP* corporate_user_ld = nullptr;
int _orvSSLEnabled = 0;
char* orv_Srv = nullptr;
int orv_Port = 0;
char _sslPath[501] = "";

/* Search caches. */
void* memCache_corporate = nullptr;
void* memCache_standalone = nullptr;
void* memCache_user_group_srch = nullptr;
int cache_is_intialized = 0;

/* Search state shared by the search units. */
int TIER2_GROUP_SEARCH = 0;
char* CORP_PEOPLE_SEARCH_BASE = nullptr;
char* CORP_GROUP_SEARCH_BASE = nullptr;
int ORV_WIN_USER_SEARCH = 0;

/* Authentication state kept for the session. */
int user_authenticated = 0;
char* _user_id = nullptr;
char* _pwd = nullptr;
int password_expiry_time = 0;
ORVLibEntry* AUTH_USER_ORVLIBENTRY = nullptr;

}  // extern "C"
