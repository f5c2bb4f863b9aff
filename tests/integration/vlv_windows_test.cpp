// People and group searches that come in several VLV windows deliver every
// entry exactly once: the same entries as one plain search, none twice at a
// window boundary, none lost.
//
// The data is sized so that the server's own window arithmetic goes wrong
// when the client sends back the content count it was told: 389 Directory
// Server scales the offset asked for by its count over the count sent and
// rounds down, so that for some list lengths the window asked for at
// position 1001 starts at position 1000.  The test first shows that the
// directory does so for its data, then that the library's iteration is not
// affected.

#include <gtest/gtest.h>

#include <ldap.h>

#include <map>
#include <string>
#include <vector>

#include "orvldap.h"
#include "orvldap_search.h"
#include "session_support.hpp"
#include "testbed.hpp"

namespace {

ORV_TESTBED_ENVIRONMENT(orv::testbed::Options()
                            .with_scenario("standalone-roles")
                            .with_param("large_users", "1040")
                            .with_param("large_roles", "4"));

orv::testbed::Directory& directory() { return orv::testbed::Environment::directory(); }

// The filters of a people and a group search for "*" (and of their VLV
// indexes).
const char kPeopleFilter[] = "(&(|(cn=*)(uid=*))(objectClass=person))";
const char kGroupFilter[] = "(&(objectClass=groupOfUniqueNames)(cn=*)(!(orvCorporateDN=*)))";

struct Raw {
    LDAP* ld = nullptr;
    Raw() {
        EXPECT_EQ(ldap_initialize(&ld, directory().uri().c_str()), LDAP_SUCCESS);
        int version = LDAP_VERSION3;
        ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
        const std::string pw = directory().root_pw();
        berval cred{static_cast<ber_len_t>(pw.size()), const_cast<char*>(pw.data())};
        EXPECT_EQ(ldap_sasl_bind_s(ld, directory().root_dn().c_str(), LDAP_SASL_SIMPLE, &cred,
                                   nullptr, nullptr, nullptr),
                  LDAP_SUCCESS);
    }
    ~Raw() { ldap_unbind_ext_s(ld, nullptr, nullptr); }

    // DNs of one plain search, lower case, with how often each came.
    std::map<std::string, int> dns(const std::string& base, const char* filter) {
        std::map<std::string, int> out;
        LDAPMessage* res = nullptr;
        char* attrs[] = {const_cast<char*>("1.1"), nullptr};
        EXPECT_EQ(ldap_search_ext_s(ld, base.c_str(), LDAP_SCOPE_SUBTREE, filter, attrs, 0,
                                    nullptr, nullptr, nullptr, LDAP_NO_LIMIT, &res),
                  LDAP_SUCCESS);
        for (LDAPMessage* e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
            char* dn = ldap_get_dn(ld, e);
            ++out[lower(dn)];
            ldap_memfree(dn);
        }
        ldap_msgfree(res);
        return out;
    }

    // The position at which the server starts a window asked for at offset
    // with content count count (sorted on cn, as the library asks).
    int window_start(const std::string& base, const char* filter, int offset, int count) {
        LDAPSortKey** keys = nullptr;
        char key[] = "cn";
        EXPECT_EQ(ldap_create_sort_keylist(&keys, key), LDAP_SUCCESS);
        LDAPControl* controls[3] = {nullptr, nullptr, nullptr};
        EXPECT_EQ(ldap_create_sort_control(ld, keys, 1, &controls[0]), LDAP_SUCCESS);
        ldap_free_sort_keylist(keys);
        LDAPVLVInfo info{};
        info.ldvlv_version = 1;
        info.ldvlv_offset = offset;
        info.ldvlv_count = count;
        EXPECT_EQ(ldap_create_vlv_control(ld, &info, &controls[1]), LDAP_SUCCESS);
        LDAPMessage* res = nullptr;
        char* attrs[] = {const_cast<char*>("1.1"), nullptr};
        EXPECT_EQ(ldap_search_ext_s(ld, base.c_str(), LDAP_SCOPE_SUBTREE, filter, attrs, 0,
                                    controls, nullptr, nullptr, LDAP_NO_LIMIT, &res),
                  LDAP_SUCCESS);
        ldap_control_free(controls[0]);
        ldap_control_free(controls[1]);
        LDAPControl** returned = nullptr;
        int err = 0;
        ber_int_t target = 0, content = 0;
        ldap_parse_result(ld, res, &err, nullptr, nullptr, nullptr, &returned, 0);
        if (LDAPControl* c = ldap_control_find(LDAP_CONTROL_VLVRESPONSE, returned, nullptr)) {
            int vlv_err = 0;
            berval* context = nullptr;
            ldap_parse_vlvresponse_control(ld, c, &target, &content, &context, &vlv_err);
            ber_bvfree(context);
        }
        ldap_controls_free(returned);
        ldap_msgfree(res);
        return target;
    }

    static std::string lower(const char* s) {
        std::string out(s ? s : "");
        for (char& c : out) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        return out;
    }
};

// The smallest list length from at least n on for which the server's
// scaling (offset - 1) * length / count, rounded down, misses position 1001.
int misplaced_length_from(int n) {
    for (int len = n;; ++len) {
        const double proportion = 1000.0 / static_cast<double>(len);
        if (static_cast<int>(static_cast<double>(len) * proportion) != 1000) return len;
    }
}

// DNs (id 0) of every entry of a library search's full iteration, lower
// case, with how often each came.
std::map<std::string, int> library_dns(LDAP* ld, const char* filter, int type, long& entries) {
    std::map<std::string, int> out;
    entries = 0;
    LDAPMessage* res = nullptr;
    EXPECT_EQ(orvlib_search_ext_s(ld, filter, type, &res), 0);
    ORVLibEntry* entry = nullptr;
    for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur;
         cur = orvlib_next_entry(ld, &entry, cur)) {
        ++entries;
        char** dn = orvlib_get_entry_vals(entry, 0);
        EXPECT_NE(dn, nullptr);
        if (dn) ++out[Raw::lower(dn[0])];
        orvlib_free_values(dn);
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
    }
    orvlib_orvmessage_free(res);
    return out;
}

std::string person(int i, const std::string& suffix) {
    const std::string uid = "window" + std::to_string(i);
    return "dn: uid=" + uid + ",ou=People," + suffix +
           "\nchangetype: add\nobjectClass: top\nobjectClass: person\n"
           "objectClass: organizationalPerson\nobjectClass: inetOrgPerson\nuid: " +
           uid + "\ncn: " + uid + "\nsn: Window\n\n";
}

std::string group(int i, const std::string& suffix) {
    const std::string cn = "window group " + std::to_string(i);
    return "dn: cn=" + cn + ",ou=Groups," + suffix +
           "\nchangetype: add\nobjectClass: top\nobjectClass: groupOfUniqueNames\ncn: " + cn +
           "\nuniqueMember: uid=alice,ou=People," + suffix + "\n\n";
}

void expect_each_once(const std::map<std::string, int>& raw,
                      const std::map<std::string, int>& lib, long lib_entries) {
    EXPECT_EQ(lib_entries, static_cast<long>(raw.size()));
    for (const auto& [dn, n] : lib) {
        EXPECT_EQ(n, 1) << dn << " delivered " << n << " times";
        EXPECT_EQ(raw.count(dn), 1u) << dn << " is not a result of the plain search";
    }
    for (const auto& [dn, n] : raw) EXPECT_EQ(lib.count(dn), 1u) << dn << " never delivered";
}

TEST(VlvWindowsTest, PeopleAndGroupsInSeveralWindowsComeOnceEach) {
    const std::string suffix = directory().suffix();
    const std::string people_base = "ou=People," + suffix;
    Raw raw;

    // People: as many as make the server misplace the second window.
    int people = static_cast<int>(raw.dns(people_base, kPeopleFilter).size());
    ASSERT_GT(people, 1000);
    const int people_target = misplaced_length_from(people);
    std::string ldif;
    for (int i = people; i < people_target; ++i) ldif += person(i, suffix);
    if (!ldif.empty()) directory().apply_ldif(ldif);

    // Groups: the same for the group search (the seed has a few groups).
    int groups = static_cast<int>(raw.dns(suffix, kGroupFilter).size());
    const int groups_target = misplaced_length_from(1001 > groups ? 1001 : groups);
    ldif.clear();
    for (int i = groups; i < groups_target; ++i) ldif += group(i, suffix);
    if (!ldif.empty()) directory().apply_ldif(ldif);

    const std::map<std::string, int> raw_people = raw.dns(people_base, kPeopleFilter);
    const std::map<std::string, int> raw_groups = raw.dns(suffix, kGroupFilter);
    ASSERT_EQ(static_cast<int>(raw_people.size()), people_target);
    ASSERT_EQ(static_cast<int>(raw_groups.size()), groups_target);

    // The directory misplaces a window asked for with its own count, and
    // places it right when asked without one.
    EXPECT_EQ(raw.window_start(people_base, kPeopleFilter, 1001, people_target), 1000);
    EXPECT_EQ(raw.window_start(people_base, kPeopleFilter, 1001, 0), 1001);
    EXPECT_EQ(raw.window_start(suffix, kGroupFilter, 1001, groups_target), 1000);

    orvtest::Session session;
    session.open(directory());
    ASSERT_NE(session.ld(), nullptr);
    long entries = 0;
    const std::map<std::string, int> lib_people =
        library_dns(session.ld(), "*", ORV_SEARCH_PEOPLE, entries);
    expect_each_once(raw_people, lib_people, entries);

    const std::map<std::string, int> lib_groups =
        library_dns(session.ld(), "*", ORV_SEARCH_GROUPS, entries);
    expect_each_once(raw_groups, lib_groups, entries);
    session.close();
}

}  // namespace
