// orvldap_modify.cpp - attribute updates and the standalone (local
// counterpart) objects of corporate users and groups.
//
// orvlib_modify_ext_s is the one write operation on attributes.  Writes
// never go to the corporate directory: a corporate user or group is changed
// through its standalone counterpart in the library's own directory, which
// carries the corporate DN in "orvCorporateDN".  A corporate user gets its
// counterpart on the first add of a value; a corporate group must already
// have one (the searches create it).  All writes use orv_ld.

#include <strings.h>

#include <cctype>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_session.h"
#include "orvldap_utils.h"

namespace {

// LDAP operation code of a library modification type; -1 for an unknown type.
int ldap_operation(unsigned long modification_type) {
    switch (modification_type) {
        case ORV_MOD_ADD: return LDAP_MOD_ADD;
        case ORV_MOD_REPLACE: return LDAP_MOD_REPLACE;
        case ORV_MOD_DELETE: return LDAP_MOD_DELETE;
        default: return -1;
    }
}

// Runs f with ORV_OPERATION_MODE set to 0 and sets it back to 1 afterwards.
template <typename F>
auto in_standalone_mode(F f) -> decltype(f()) {
    ORV_OPERATION_MODE = 0;
    auto result = f();
    ORV_OPERATION_MODE = 1;
    return result;
}

// First value of the attribute `name` (any case) of an entry, or empty.
std::string first_value_any_case(LDAP* ld, LDAPMessage* entry, const char* name) {
    std::string value;
    if (ld == nullptr || entry == nullptr || name == nullptr) return value;
    BerElement* raw_ber = nullptr;
    for (char* attr = ldap_first_attribute(ld, entry, &raw_ber); attr != nullptr;
         attr = ldap_next_attribute(ld, entry, raw_ber)) {
        orv::LdapString owned(attr);
        if (strcasecmp(attr, name) != 0) continue;
        orv::LdapBerValues values(ldap_get_values_len(ld, entry, attr));
        if (values && values.get()[0] != nullptr)
            value.assign(values.get()[0]->bv_val, strnlen(values.get()[0]->bv_val,
                                                          values.get()[0]->bv_len));
        break;
    }
    orv::BerPtr ber(raw_ber);
    return value;
}

// A live handle through which a corporate result entry can be read.
LDAP* corporate_reader() {
    if (corporate_user_ld != nullptr) return corporate_user_ld;
    if (corporate_admin_ld != nullptr) return corporate_admin_ld;
    return orv_ld;
}

// Adds one entry whose attributes each carry the listed values.
struct AddList {
    LDAPMod mods[8];
    LDAPMod* list[9];
    int count = 0;
    void add(const char* name, char** values) {
        mods[count].mod_op = LDAP_MOD_ADD;
        mods[count].mod_type = const_cast<char*>(name);
        mods[count].mod_values = values;
        list[count] = &mods[count];
        list[++count] = nullptr;
    }
};

}  // namespace

extern "C" {

// "uid=" + uid with , \ = > < + " # ; each preceded by a backslash + ","
// + the people base.
char* get_standalone_dn_from_uid(const char* uid) {
    ORV_TRACE();
    if (!uid) return nullptr;
    std::string dn = "uid=";
    for (const char* p = uid; *p; ++p) {
        if (strchr(",\\=><+\"#;", *p)) dn += '\\';
        dn += *p;
    }
    dn += ',';
    dn += ORV_PEOPLE_SRCH_BASE;
    ORV_DEBUG("Standalone DN", dn);
    return _orvlib_dupString(dn.c_str());
}

// "cn=" + cn + ",ou=Groups," + the group base.  The cn is used as given:
// callers escape it first (add_backslash_to_cn).
char* get_standalone_groupDN_from_cn(const char* cn) {
    ORV_TRACE();
    if (cn == nullptr) return nullptr;
    std::string dn = std::string("cn") + ORV_CONSTANT_EQUALS + cn + ",ou=Groups," + ORV_GROUP_SRCH_BASE;
    ORV_DEBUG("Standalone Group DN", dn);
    return _orvlib_dupString(dn.c_str());
}

int change_attribute_value_object(LDAP* ld, const char* user_dn, unsigned long attrID,
                                  char** attrVals, unsigned long operation_type) {
    ORV_TRACE();
    if (user_dn == nullptr) return orv::report(LDAP_NO_SUCH_OBJECT);
    orv::OrvString name(attrID <= static_cast<unsigned long>(INT_MAX)
                            ? getAttrNameFromID(static_cast<int>(attrID))
                            : nullptr);
    if (!name) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    if (ld == nullptr) return orv::report(ORV_LDAPLIB_SESSION_INVALID);

    ORV_DEBUG("Attribute Name ", name.get());
    for (char** v = attrVals; v != nullptr && *v != nullptr; ++v) ORV_DEBUG("Attribute Value: ", *v);
    ORV_DEBUG("Operation Type: ", static_cast<long>(operation_type));

    // The values are always strings; the binary-values flag is never passed on.
    LDAPMod mod;
    mod.mod_op = static_cast<int>(operation_type & ~static_cast<unsigned long>(LDAP_MOD_BVALUES) &
                                  0xffffUL);
    mod.mod_type = name.get();
    mod.mod_values = attrVals;
    LDAPMod* mods[] = {&mod, nullptr};
    const int rc = orv::modify(ld, user_dn, mods);
    return orv::report(rc);
}

int create_standalone_user(LDAP* ld, const char* uid_val, const char* sn) {
    ORV_TRACE();
    if (ld == nullptr) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (uid_val == nullptr) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::OrvString dn(get_standalone_dn_from_uid(uid_val));
    if (!dn) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    ORV_DEBUG("Standalone User DN: ", dn.get());

    char* uid_vals[] = {const_cast<char*>(uid_val), nullptr};
    char* sn_vals[] = {const_cast<char*>(sn != nullptr ? sn : ""), nullptr};
    char* class_vals[] = {const_cast<char*>("top"), const_cast<char*>("person"),
                          const_cast<char*>("organizationalperson"),
                          const_cast<char*>("inetorgperson"), const_cast<char*>("morvanePerson"),
                          nullptr};
    AddList add;
    add.add("cn", uid_vals);
    add.add("sn", sn_vals);
    add.add("objectClass", class_vals);
    add.add("uid", uid_vals);
    const int rc = orv::add(ld, dn.get(), add.list);
    return orv::report(rc);
}

int create_standalone_group(LDAP* ld, const char* cn, const char* corporate_dn, const char* uuid) {
    ORV_TRACE();
    if (ld == nullptr) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (cn == nullptr || corporate_dn == nullptr || uuid == nullptr)
        return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::OrvString escaped(add_backslash_to_cn(cn));
    orv::OrvString cleaned(remove_paranthesis_from_string(escaped.get()));
    orv::OrvString dn(get_standalone_groupDN_from_cn(cleaned.get()));
    if (!dn) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);

    const std::string dummy = std::string("uid=dummyMemberDN,ou=people,") + ORV_ROOT_SUFFIX;
    char* class_vals[] = {const_cast<char*>("top"), const_cast<char*>("groupOfUniqueNames"),
                          const_cast<char*>("morvaneGroup"), nullptr};
    char* cn_vals[] = {const_cast<char*>(cn), nullptr};
    char* member_vals[] = {const_cast<char*>(dummy.c_str()), nullptr};
    char* id_vals[] = {const_cast<char*>(uuid), nullptr};
    char* corp_vals[] = {const_cast<char*>(corporate_dn), nullptr};
    AddList add;
    add.add("objectClass", class_vals);
    add.add("cn", cn_vals);
    add.add("uniqueMember", member_vals);
    add.add("orvZORLAGroupId", id_vals);
    add.add("orvCorporateDN", corp_vals);
    ORV_DEBUG("Standalone Group DN: ", dn.get());
    const int rc = orv::add(ld, dn.get(), add.list);
    return orv::report(rc);
}

// Logon value and surname of a corporate user entry: the logon value is the
// first value of the partition's logon attribute, else of "cn", else of "sn".
void get_user_attributes(LDAPMessage* entry, char** user_logon_attr_val, char** sn) {
    ORV_TRACE();
    if (entry == nullptr) return;
    LDAP* reader = corporate_reader();
    const char* logon_name =
        PARTITION_INFO != nullptr ? PARTITION_INFO->user_logon_attribute_name : nullptr;
    std::string logon = first_value_any_case(reader, entry, logon_name);
    if (logon.empty()) logon = first_value_any_case(reader, entry, "cn");
    const std::string surname = first_value_any_case(reader, entry, "sn");
    if (logon.empty()) logon = surname;
    ORV_DEBUG("user_logon_attr_val : ", logon);
    ORV_DEBUG("SN : ", surname);
    if (user_logon_attr_val != nullptr)
        *user_logon_attr_val = logon.empty() ? nullptr : _orvlib_dupString(logon.c_str());
    if (sn != nullptr) *sn = surname.empty() ? nullptr : _orvlib_dupString(surname.c_str());
}

char* get_cn_from_group_in_corporate(LDAPMessage* entry) {
    ORV_TRACE();
    const std::string cn = first_value_any_case(corporate_reader(), entry, "cn");
    ORV_DEBUG("Group CN: ", cn);
    return cn.empty() ? nullptr : _orvlib_dupString(cn.c_str());
}

int does_user_exist_in_corporate(const char* entryDN, char** user_logon_attr_val, char** sn) {
    ORV_TRACE();
    if (entryDN == nullptr) return 0;
    LDAP* ld = nullptr;
    if (PARTITION_INFO != nullptr)
        ld = create_ldap_connection(PARTITION_INFO->hostname, PARTITION_INFO->port_num,
                                    PARTITION_INFO->admin_dn, PARTITION_INFO->admin_pwd);
    if (ld == nullptr) {
        // Counted as found on purpose: the creation that follows fails.
        ldapErrCode = 1;
        return 1;
    }

    const std::string value = orv::filter_value(entryDN);
    const std::string filter = std::string("(&(objectclass=person)(|(entrydn=") + value +
                               ")(distinguishedName=" + value + ")))";
    ORV_DEBUG("DN: ", entryDN);
    ORV_DEBUG("Search Filter: ", filter);
    orv::LdapMsg result;
    const int rc = orv::search(ld, CORP_PEOPLE_SEARCH_BASE, LDAP_SCOPE_SUBTREE, filter.c_str(),
                               ORVLIB_USER_ATTR_LIST, 0, result);
    int answer = rc;
    if (rc == LDAP_SUCCESS) {
        LDAPMessage* first = ldap_first_entry(ld, result.get());
        answer = 0;
        if (first != nullptr) {
            ORV_DEBUG("Retrive the logon attribute name value", "");
            const std::string logon =
                first_value_any_case(ld, first, PARTITION_INFO->user_logon_attribute_name);
            const std::string surname = first_value_any_case(ld, first, "sn");
            if (user_logon_attr_val != nullptr && !logon.empty())
                *user_logon_attr_val = _orvlib_dupString(logon.c_str());
            if (sn != nullptr && !surname.empty()) *sn = _orvlib_dupString(surname.c_str());
            answer = 1;
        }
    }
    result.reset();
    orv::unbind(ld);
    return answer;
}

int entry_dn_exists_in_orv(LDAP* ld, const char* entryDN, char** standalone_dn) {
    ORV_TRACE();
    if (ld == nullptr || entryDN == nullptr) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    ORV_DEBUG("Check if DN Exists in PEX:", entryDN);

    orv::LdapMsg result;
    int rc;
    if (ORV_OPERATION_MODE == 1) {
        const std::string escaped = orv::filter_value(entryDN);
        ORV_DEBUG("Modified DN ", escaped);
        const std::string filter = std::string("(orvCorporateDN=") + escaped + ")";
        ORV_DEBUG("Filter for Corporate search: ", filter);
        rc = orv::search(ld, ORV_PEOPLE_SRCH_BASE, LDAP_SCOPE_SUBTREE, filter.c_str(), nullptr, 0,
                         result);
    } else {
        rc = orv::search(ld, entryDN, LDAP_SCOPE_BASE, "objectclass=*", nullptr, 0, result);
        // A base lookup of a DN that is not there (a corporate DN, say)
        // answers "no such object": the entry does not exist here.
        if (rc == LDAP_NO_SUCH_OBJECT) return 0;
    }
    if (rc != LDAP_SUCCESS) return rc;

    LDAPMessage* first = ldap_first_entry(ld, result.get());
    if (first == nullptr) {
        ORV_DEBUG("Entry DN doesn;t Exists in PEX", entryDN);
        return 0;
    }
    if (standalone_dn != nullptr) {
        orv::LdapString dn(ldap_get_dn(ld, first));
        if (dn) *standalone_dn = _orvlib_dupString(dn.get());
    }
    ORV_DEBUG("Entry DN Exists in PEX", entryDN);
    return 1;
}

int modify_appregistry_element(LDAP* ld, const char* object_dn, unsigned long attrID,
                               char** attrVals, unsigned long operation_type) {
    ORV_TRACE();
    const int operation = ldap_operation(operation_type);
    if (operation < 0) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    return change_attribute_value_object(ld, object_dn, attrID, attrVals,
                                         static_cast<unsigned long>(operation));
}

int group_dn_exists_in_tier2(LDAP* ld, const char* entryDN, ORVLibEntry** entry) {
    ORV_TRACE();
    if (ld == nullptr || entryDN == nullptr || entry == nullptr || *entry == nullptr ||
        (*entry)->orvlibEntryAttrData == nullptr)
        return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    // The corporate DN as it stands, as a filter value (a name such as
    // "CN=Sales (EU)" or "CN=Smith\, John" keeps its characters).
    const std::string escaped = orv::filter_value(entryDN);
    ORV_DEBUG("Modified DN ", escaped);
    const std::string filter =
        std::string("(&(objectclass=morvanegroup)(orvCorporateDN=") + escaped + "))";
    ORV_DEBUG("Search Filter: ", filter);

    orv::LdapMsg result;
    const int rc = orv::search(ld, ORV_GROUP_SRCH_BASE, LDAP_SCOPE_SUBTREE, filter.c_str(),
                               ORVLIB_GROUP_ATTR_LIST, 0, result);
    if (rc != LDAP_SUCCESS) return rc;
    LDAPMessage* first = ldap_first_entry(ld, result.get());
    if (first == nullptr) return 0;
    BerElement* raw_ber = nullptr;
    for (char* name = ldap_first_attribute(ld, first, &raw_ber); name != nullptr;
         name = ldap_next_attribute(ld, first, raw_ber)) {
        orv::LdapString owned(name);
        orv::LdapBerValues values(ldap_get_values_len(ld, first, name));
        if (!values || values.get()[0] == nullptr) continue;
        std::vector<std::string> texts;
        for (berval** v = values.get(); *v != nullptr; ++v)
            texts.emplace_back((*v)->bv_val, strnlen((*v)->bv_val, (*v)->bv_len));
        std::vector<char*> pointers;
        for (std::string& t : texts) pointers.push_back(&t[0]);
        pointers.push_back(nullptr);
        const int id = getMappedAttrId(name);
        ORV_DEBUG("attribute Name", name);
        ORV_DEBUG("attribute ID", id);
        if (!orv::append_attribute(*entry, id, name, pointers.data())) break;
    }
    orv::BerPtr ber(raw_ber);
    return 1;
}

namespace {

// Creates the standalone group of a corporate group (its cn read on the
// corporate server) and fills entry from it: 1 when it stands, else a status.
int create_group_counterpart(LDAP* ld, const char* corporate_dn, ORVLibEntry** entry) {
    LDAP* reader = corporate_admin_ld;
    if (reader == nullptr) return ORV_LDAPLIB_SESSION_INVALID;
    const char* attrs[] = {"cn", nullptr};
    orv::LdapMsg result;
    int rc = orv::search(reader, corporate_dn, LDAP_SCOPE_BASE, "(objectClass=*)", attrs, 0, result);
    if (rc != LDAP_SUCCESS) return rc;
    LDAPMessage* first = ldap_first_entry(reader, result.get());
    const std::string cn = first ? first_value_any_case(reader, first, "cn") : std::string();
    if (cn.empty()) return LDAP_NO_SUCH_OBJECT;
    orv::OrvString id(orvlib_create_guid());
    if (!id) return ORV_LDAPLIB_UNKNOWN_ERROR;
    rc = create_standalone_group(ld, cn.c_str(), corporate_dn, id.get());
    if (rc != LDAP_SUCCESS) return rc;
    return group_dn_exists_in_tier2(ld, corporate_dn, entry);
}

}  // namespace

int modify_group_element(LDAP* ld, const char* object_dn, unsigned long attrID, char** attrVals,
                         unsigned long operation_type, int group_type) {
    ORV_TRACE();
    const int operation = ldap_operation(operation_type);
    if (operation < 0) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    const auto code = static_cast<unsigned long>(operation);
    ORV_DEBUG("Group Modify Operation: ", operation == LDAP_MOD_ADD       ? "add"
                                          : operation == LDAP_MOD_REPLACE ? "replace"
                                                                          : "delete");

    if (ORV_OPERATION_MODE != 1 || group_type == 1)
        return change_attribute_value_object(ld, object_dn, attrID, attrVals, code);

    ORVLibEntry* entry = orv::new_entry();
    if (entry == nullptr) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    int status;
    int found = group_dn_exists_in_tier2(ld, object_dn, &entry);
    if (found == 0 && operation != LDAP_MOD_DELETE) {
        // A corporate group written to for the first time gets its local
        // counterpart, which then takes the change.
        found = create_group_counterpart(ld, object_dn, &entry);
    }
    if (found == 0) {
        status = LDAP_NO_SUCH_OBJECT;  // no counterpart: not recorded
    } else if (found != 1) {
        status = found;
    } else {
        const char* cn = nullptr;
        for (ORVLibAttribute** item = entry->orvlibEntryAttrData; *item != nullptr; ++item)
            if ((*item)->attrId == 1 && (*item)->attrVals != nullptr) {
                cn = (*item)->attrVals[0];
                break;
            }
        if (cn == nullptr || *cn == '\0') {
            status = ORV_LDAPLIB_INVALID_INPUT;  // counterpart without cn: not recorded
        } else {
            orv::OrvString escaped(add_backslash_to_cn(cn));
            orv::OrvString cleaned(remove_paranthesis_from_string(escaped.get()));
            orv::OrvString dn(get_standalone_groupDN_from_cn(cleaned.get()));
            status = change_attribute_value_object(ld, dn.get(), attrID, attrVals, code);
        }
    }
    orvlib_orvlibentry_free(entry);
    return status;
}

int orvlib_modify_ext_s(LDAP* ld, const char* entryDN, unsigned long modification_type,
                        unsigned long attrId, char** attrVals) {
    ORV_TRACE();
    if (ld == nullptr) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    const bool corporate = ORV_OPERATION_MODE == 1;
    if (corporate && user_authenticated == 0) corporate_user_ld = corporate_admin_ld;
    if (attrId == 3) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    if (entryDN == nullptr) return orv::report(LDAP_NO_SUCH_OBJECT);
    ORV_DEBUG("Entry DN: ", entryDN);

    // Application registry entries are changed as they stand.
    if (orv::lowered(entryDN).find(orv::lowered(ORV_APPLICATION_REGISTRY_BASE)) !=
        std::string::npos)
        return modify_appregistry_element(orv_ld, entryDN, attrId, attrVals, modification_type);

    // Groups of the library's own directory, then of the corporate one.
    int group_type = 0;
    {
        LDAPMessage* res = nullptr;
        if (isGroupDN(orv_ld, entryDN, nullptr, &res) == 1) group_type = 1;
        orv::LdapMsg owned(res);
    }
    if (group_type == 0 && corporate) {
        LDAPMessage* res = nullptr;
        if (isGroupDN(corporate_admin_ld, entryDN, nullptr, &res) == 1) group_type = 2;
        orv::LdapMsg owned(res);
    }
    if (group_type != 0)
        return modify_group_element(orv_ld, entryDN, attrId, attrVals, modification_type,
                                    group_type);

    // Users: the DN to change.
    orv::OrvString target;
    if (string_is_dn(entryDN)) {
        target.reset(remove_paranthesis_from_string(entryDN));
    } else {
        char* rdn_raw = nullptr;
        orv::OrvString uid(getUIDFromFilter(entryDN, &rdn_raw));
        orv::OrvString rdn(rdn_raw);
        if (!corporate) {
            target.reset(getDNFromUid(orv_ld, uid.get(), ORV_PEOPLE_SRCH_BASE, rdn.get()));
        } else {
            target.reset(getDNFromUid(corporate_user_ld, uid.get(), CORP_PEOPLE_SEARCH_BASE,
                                      rdn.get()));
            if (in_standalone_mode([&] { return string_is_dn(entryDN); }) == 1)
                target.reset(remove_paranthesis_from_string(entryDN));
        }
    }
    ORV_DEBUG("Target DN: ", target.get());

    // Whether the entry exists locally (an error code counts as existing; the
    // modify below then fails on its own).
    int exists = 0;
    char* local_raw = nullptr;
    if (target) {
        exists = entry_dn_exists_in_orv(orv_ld, target.get(), &local_raw);
        if (exists == 0 && corporate)
            exists = in_standalone_mode(
                [&] { return entry_dn_exists_in_orv(orv_ld, target.get(), &local_raw); });
    }
    orv::OrvString local_dn(local_raw);

    int status = 0;
    if (modification_type == ORV_MOD_ADD || modification_type == ORV_MOD_REPLACE) {
        // A corporate user written to for the first time gets its local
        // counterpart, which then takes the change.
        if (exists == 0 && !corporate) return orv::report(LDAP_NO_SUCH_OBJECT);
        if (exists == 0) {
            char* logon_raw = nullptr;
            char* sn_raw = nullptr;
            const int found = does_user_exist_in_corporate(target.get(), &logon_raw, &sn_raw);
            orv::OrvString logon(logon_raw);
            orv::OrvString sn(sn_raw);
            if (found != 1) return orv::report(LDAP_NO_SUCH_OBJECT);
            ORV_DEBUG("User Logon Attribute Value:", logon.get());
            const int rc = create_standalone_user(orv_ld, logon.get(), sn.get());
            if (rc != LDAP_SUCCESS) return rc;
            local_dn.reset(get_standalone_dn_from_uid(logon.get()));
            char* corporate_dn[] = {target.get(), nullptr};
            change_attribute_value_object(orv_ld, local_dn.get(), 13, corporate_dn, LDAP_MOD_ADD);
        }
        status = change_attribute_value_object(
            orv_ld, local_dn.get(), attrId, attrVals,
            modification_type == ORV_MOD_ADD ? LDAP_MOD_ADD : LDAP_MOD_REPLACE);
    } else if (modification_type == ORV_MOD_DELETE) {
        if (exists == 0) return orv::report(LDAP_NO_SUCH_OBJECT);
        status = change_attribute_value_object(orv_ld, local_dn.get(), attrId, attrVals,
                                               LDAP_MOD_DELETE);
    }
    return orv::report(status);
}

}  // extern "C"
