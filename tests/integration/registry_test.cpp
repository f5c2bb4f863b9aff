// The application registry and the database objects against the test
// directory: servers and facilities registered, read back, listed through
// search types 5006 and 5007, turned into URLs and removed; databases with
// their access roles, read back by repository and used by database-user
// authentication; the migration flag.
//
// The directory's access log (written unbuffered) shows what the library
// sent: the search base and filter of a registry search, and that a call
// which must not reach the server did not.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "auth_support.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "orvldap_entry.h"
#include "orvldap_registry.h"
#include "orvldap_search.h"
#include "testbed.hpp"

namespace {

using orv::authtest::Root;

ORV_TESTBED_ENVIRONMENT(orv::testbed::Options().with_scenario("standalone"));

orv::testbed::Directory& dir() { return orv::testbed::Environment::directory(); }

const char kUserPw[] = "Secret123!";

std::string registry() { return "ou=Application Registry," + dir().suffix(); }
std::string server_dn(const std::string& id) { return "orvFullyQualifiedObjectId=" + id + "," + registry(); }
std::string database_dn(const std::string& id) {
    return "orvZORLADatabaseId=" + id + ",ou=Databases,ou=Application Data,ou=Morvane Zorla,ou=Applications," +
           dir().suffix();
}

bool is_uuid(const std::string& s) {
    static const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
    return std::regex_match(s, uuid);
}

// Values of attribute id of a record, read as callers read them.
std::vector<std::string> vals(ORVLibEntry* entry, int id) {
    std::vector<std::string> out;
    char** v = orvlib_get_entry_vals(entry, id);
    for (char** p = v; p && *p; ++p) out.emplace_back(*p);
    orvlib_free_values(v);
    return out;
}
std::string first(ORVLibEntry* entry, int id) {
    auto v = vals(entry, id);
    return v.empty() ? std::string() : v[0];
}

// Operations the server has logged so far (see SetUpTestSuite).
struct AccessLog {
    std::vector<std::string> lines() const {
        std::ifstream in(dir().workdir() + "/root/var/log/dirsrv/slapd-" + dir().name() + "/access");
        std::vector<std::string> out;
        static const std::regex op(" (SRCH|ADD|DEL|MOD|MODRDN|CMP|EXT|BIND) ");
        for (std::string line; std::getline(in, line);)
            if (std::regex_search(line, op)) out.push_back(line);
        return out;
    }
    size_t count() const { return lines().size(); }
    // Operations logged after the first `since`.
    std::vector<std::string> after(size_t since) const {
        auto all = lines();
        return since < all.size() ? std::vector<std::string>(all.begin() + since, all.end())
                                  : std::vector<std::string>();
    }
};

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

// The entries of a search of type 5006 or 5007, walked as a caller walks
// them; each as the values of attribute id.
struct Listing {
    int status = -1;
    std::vector<std::string> values;
};
Listing list(LDAP* ld, const std::string& filter, int type, int id) {
    Listing out;
    LDAPMessage* res = nullptr;
    out.status = orvlib_search_ext_s(ld, filter.c_str(), type, &res);
    ORVLibEntry* entry = nullptr;
    for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); entry; cur = orvlib_next_entry(ld, &entry, cur)) {
        out.values.push_back(first(entry, id));
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
    }
    orvlib_orvmessage_free(res);
    return out;
}

class RegistryTest : public orv::authtest::BalancedSessionTest {
protected:
    static void SetUpTestSuite() {
        orv::authtest::enable_library_log();
        dir().apply_ldif(
            "dn: cn=config\nchangetype: modify\nreplace: nsslapd-accesslog-logbuffering\n"
            "nsslapd-accesslog-logbuffering: off\n");
    }

    ORVLibEntry* server(const char* id = nullptr, const char** extended = nullptr) {
        return keep(orvlib_register_application_server(ld(), ORV_TOOL_2, id, extended));
    }
    ORVLibEntry* facility(ORVLibEntry* srv, const char* url, unsigned long type = ORV_FACILITY_WEB_CLIENT) {
        return keep(orvlib_add_application_facility(ld(), srv, url, ORV_FACILITY_STATUS_ON, type));
    }
};

// ------------------------------------------------------------------ servers

TEST_F(RegistryTest, RegisterServerStoresItsIdsAndToolAndRefusesUnknownTools) {
    Root root(dir());
    ASSERT_EQ(root.bind_result(), 0);

    // No id given: a fresh UUID names the server and is its "ou".
    ORVLibEntry* fresh = server();
    ASSERT_NE(fresh, nullptr) << ldapErrCode;
    const std::string id = first(fresh, 22);
    EXPECT_TRUE(is_uuid(id)) << id;
    EXPECT_EQ(root.get(server_dn(id), "orvFullyQualifiedObjectId"), std::vector<std::string>{id});
    EXPECT_EQ(root.get(server_dn(id), "ou"), std::vector<std::string>{id});
    EXPECT_EQ(root.get(server_dn(id), "orvKXSToolOID"), std::vector<std::string>{"1.3.6.1.4.1.47391.2"});
    EXPECT_EQ(lower(first(fresh, 0)), lower(server_dn(id)));
    EXPECT_EQ(vals(fresh, 18), (std::vector<std::string>{"top", "organizationalUnit", "orvApplicationServer"}));
    EXPECT_EQ(ldapErrCode, 0);
    // A second registration gets another id.
    ORVLibEntry* other = server();
    ASSERT_NE(other, nullptr);
    EXPECT_NE(first(other, 22), id);

    // Extended ids are stored in the order given; the record carries them.
    const char* extended[] = {"db-3", "db-1", "db-2", nullptr};
    ORVLibEntry* with_ids = keep(orvlib_register_application_server(ld(), ORV_TOOL_8, "srv-extended", extended));
    ASSERT_NE(with_ids, nullptr) << ldapErrCode;
    const std::vector<std::string> expected{"db-3", "db-1", "db-2"};
    EXPECT_EQ(root.get(server_dn("srv-extended"), "orvExtendedKXSAttribute"), expected);
    EXPECT_EQ(vals(with_ids, 21), expected);
    EXPECT_EQ(root.get(server_dn("srv-extended"), "orvKXSToolOID"), std::vector<std::string>{"1.3.6.1.4.1.47391.8"});
    EXPECT_EQ(root.get(server_dn("srv-extended"), "ou"), std::vector<std::string>{"srv-extended"});

    // The same id again: the add fails.
    EXPECT_EQ(orvlib_register_application_server(ld(), ORV_TOOL_3, "srv-extended", nullptr), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNABLE_TO_ADD_SERVER);
    EXPECT_EQ(root.get(server_dn("srv-extended"), "orvKXSToolOID"), std::vector<std::string>{"1.3.6.1.4.1.47391.8"});

    // More extended ids than an entry takes: nothing is written.
    const char* ten[] = {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", nullptr};
    EXPECT_EQ(orvlib_register_application_server(ld(), ORV_TOOL_3, "srv-ten", ten), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNABLE_TO_ADD_SERVER);
    EXPECT_TRUE(root.find(registry(), "(orvFullyQualifiedObjectId=srv-ten)").empty());
    const char* nine[] = {"1", "2", "3", "4", "5", "6", "7", "8", "9", nullptr};
    ORVLibEntry* with_nine = server("srv-nine", nine);
    ASSERT_NE(with_nine, nullptr);
    EXPECT_EQ(root.get(server_dn("srv-nine"), "orvExtendedKXSAttribute").size(), 9u);

    // Tool ids outside the table: 3009, nothing written, and the caller's
    // id string released.
    for (unsigned long tool : {22ul, 30ul}) {
        const std::string name = "srv-refused-" + std::to_string(tool);
        char* given = _orvlib_dupString(name.c_str());
        const int before = _memCnt;
        EXPECT_EQ(orvlib_register_application_server(ld(), tool, given, extended), nullptr);
        EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT) << tool;
        EXPECT_EQ(_memCnt, before - 1) << "the caller's id is released";
        EXPECT_TRUE(root.find(registry(), "(orvFullyQualifiedObjectId=" + name + ")").empty()) << tool;
    }
    const size_t servers = root.find(registry(), "(objectClass=orvApplicationServer)").size();
    EXPECT_EQ(orvlib_register_application_server(ld(), 22, nullptr, nullptr), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(root.find(registry(), "(objectClass=orvApplicationServer)").size(), servers);

    for (ORVLibEntry* e : {fresh, other, with_ids, with_nine}) EXPECT_EQ(orvlib_remove_object_entry(ld(), e), 0);
}

// ------------------------------------------------------------------ facilities and URLs

TEST_F(RegistryTest, FacilitiesAndTheirUrls) {
    Root root(dir());
    ORVLibEntry* srv = server("srv-urls");
    ASSERT_NE(srv, nullptr) << ldapErrCode;

    // Three facilities, the second without a base URL.
    ORVLibEntry* plain = facility(srv, "http://a.orv.test/app", ORV_FACILITY_RICH_CLIENT);
    ORVLibEntry* bare = facility(srv, nullptr, ORV_FACILITY_WEB_SERVICE);
    ORVLibEntry* query = keep(orvlib_add_application_facility(ld(), srv, "http://c.orv.test/x?object=",
                                                              ORV_FACILITY_STATUS_OFF,
                                                              ORV_FACILITY_APPLICATION_INTERNAL_1));
    ASSERT_NE(plain, nullptr) << ldapErrCode;
    ASSERT_NE(bare, nullptr) << ldapErrCode;
    ASSERT_NE(query, nullptr) << ldapErrCode;

    // Stored below the server, with the texts of their type and state.
    const std::string plain_id = first(plain, 22);
    EXPECT_TRUE(is_uuid(plain_id));
    const std::string plain_dn = "orvFullyQualifiedObjectId=" + plain_id + "," + server_dn("srv-urls");
    EXPECT_EQ(root.get(plain_dn, "orvBaseURL"), std::vector<std::string>{"http://a.orv.test/app"});
    EXPECT_EQ(root.get(plain_dn, "orvApplicationServerFacilityType"), std::vector<std::string>{"FACILITY_RICH_CLIENT"});
    EXPECT_EQ(root.get(plain_dn, "orvApplicationServerFacilityStatus"), std::vector<std::string>{"ON"});
    EXPECT_EQ(vals(query, 31), std::vector<std::string>{"FACILITY_APPLICATION_INTERNAL_1"});
    EXPECT_EQ(vals(query, 32), std::vector<std::string>{"OFF"});
    EXPECT_EQ(vals(bare, 31), std::vector<std::string>{"FACILITY_WEB_SERVICE"});
    EXPECT_TRUE(vals(bare, 30).empty());
    EXPECT_EQ(vals(plain, 18), (std::vector<std::string>{"top", "orvApplicationServerFacility"}));

    // Unknown types and states, or a record without a server id: 3009 and
    // nothing written.
    const auto children = [&] { return root.find(server_dn("srv-urls"), "(objectClass=orvApplicationServerFacility)").size(); };
    ASSERT_EQ(children(), 3u);
    struct Bad {
        unsigned long status, type;
    };
    for (Bad b : {Bad{36, 36}, Bad{36, 38}, Bad{38, 34}, Bad{35, 34}, Bad{36, 0}}) {
        EXPECT_EQ(orvlib_add_application_facility(ld(), srv, "http://x", b.status, b.type), nullptr);
        EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT) << b.status << "/" << b.type;
    }
    ORVLibEntry* no_id = keep(orv::new_entry());
    char* classes[] = {const_cast<char*>("orvApplicationServer"), nullptr};
    ASSERT_TRUE(orv::append_attribute(no_id, 18, "objectclass", classes));
    EXPECT_EQ(orvlib_add_application_facility(ld(), no_id, "http://x", 36, 34), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_add_application_facility(ld(), nullptr, "http://x", 36, 34), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(children(), 3u);
    // A facility's record names no server: the add finds no parent.
    EXPECT_EQ(orvlib_add_application_facility(ld(), plain, "http://x", 36, 34), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNABLE_TO_ADD_FACILITY);
    EXPECT_EQ(root.find(registry(), "(orvBaseURL=http://x)").size(), 0u);

    // One facility: base URL, "?" and the URN; a base URL holding "?"
    // takes the URN directly; no base URL: an empty list.
    const char* urn = "urn:orv:object/42 a&b";
    char** urls = orvlib_generate_application_facility_urls(ld(), plain, urn);
    ASSERT_NE(urls, nullptr);
    EXPECT_STREQ(urls[0], "http://a.orv.test/app?urn:orv:object/42 a&b");
    EXPECT_EQ(urls[1], nullptr);
    orvlib_free_values(urls);
    urls = orvlib_generate_application_facility_urls(ld(), query, urn);
    ASSERT_NE(urls, nullptr);
    EXPECT_STREQ(urls[0], "http://c.orv.test/x?object=urn:orv:object/42 a&b");
    EXPECT_EQ(urls[1], nullptr);
    orvlib_free_values(urls);
    urls = orvlib_generate_application_facility_urls(ld(), plain, nullptr);
    ASSERT_NE(urls, nullptr);
    EXPECT_STREQ(urls[0], "http://a.orv.test/app?");
    orvlib_free_values(urls);
    urls = orvlib_generate_application_facility_urls(ld(), bare, urn);
    ASSERT_NE(urls, nullptr);
    EXPECT_EQ(urls[0], nullptr);
    orvlib_free_values(urls);

    // The server: one slot per facility in the order the facility search
    // lists them; the facility without a base URL leaves its slot empty,
    // and the list ends there.
    Listing order = list(ld(), server_dn("srv-urls"), ORV_SEARCH_APPLICATION_FACILITY, 22);
    ASSERT_EQ(order.status, 0);
    ASSERT_EQ(order.values.size(), 3u);
    const std::map<std::string, const char*> url_of{
        {plain_id, "http://a.orv.test/app?urn:orv:object/42 a&b"},
        {first(bare, 22), nullptr},
        {first(query, 22), "http://c.orv.test/x?object=urn:orv:object/42 a&b"}};
    const int before = _memCnt;
    urls = orvlib_generate_application_facility_urls(ld(), srv, urn);
    ASSERT_NE(urls, nullptr);
    bool ended = false;
    for (size_t i = 0; i < 3; ++i) {
        const char* want = url_of.at(order.values[i]);
        if (!want) ended = true;
        if (ended) {
            EXPECT_EQ(urls[i], nullptr) << "slot " << i;
        } else {
            EXPECT_STREQ(urls[i], want) << "slot " << i;
        }
    }
    EXPECT_EQ(urls[3], nullptr);
    orvlib_free_values(urls);
    EXPECT_EQ(_memCnt, before) << "freeing the list frees every slot";

    // A server whose facilities all have base URLs: every URL.
    ORVLibEntry* full = server("srv-full");
    ASSERT_NE(facility(full, "http://one.orv.test/"), nullptr);
    ASSERT_NE(facility(full, "http://two.orv.test/?q="), nullptr);
    urls = orvlib_generate_application_facility_urls(ld(), full, "U");
    ASSERT_NE(urls, nullptr);
    std::set<std::string> got;
    for (char** u = urls; *u; ++u) got.insert(*u);
    EXPECT_EQ(got, (std::set<std::string>{"http://one.orv.test/?U", "http://two.orv.test/?q=U"}));
    EXPECT_EQ(urls[2], nullptr);
    orvlib_free_values(urls);
    // No facilities: an empty list.
    ORVLibEntry* empty = server("srv-empty");
    urls = orvlib_generate_application_facility_urls(ld(), empty, "U");
    ASSERT_NE(urls, nullptr);
    EXPECT_EQ(urls[0], nullptr);
    orvlib_free_values(urls);

    for (ORVLibEntry* e : {srv, full, empty}) EXPECT_EQ(orvlib_remove_object_entry(ld(), e), 0);
}

// ------------------------------------------------------------------ removal

TEST_F(RegistryTest, RemovingAServerRemovesItsFacilitiesFirst) {
    Root root(dir());
    AccessLog log;
    ORVLibEntry* srv = server("srv-remove");
    ASSERT_NE(srv, nullptr);
    ORVLibEntry* f1 = facility(srv, "http://one");
    ORVLibEntry* f2 = facility(srv, nullptr);
    ASSERT_NE(f1, nullptr);
    ASSERT_NE(f2, nullptr);

    // A facility alone.
    EXPECT_EQ(orvlib_remove_object_entry(ld(), f1), 0);
    EXPECT_EQ(root.find(server_dn("srv-remove"), "(objectClass=orvApplicationServerFacility)").size(), 1u);
    // Gone already: 3029.
    EXPECT_EQ(orvlib_remove_object_entry(ld(), f1), ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY);

    ASSERT_NE(facility(srv, "http://three"), nullptr);
    const size_t mark = log.count();
    EXPECT_EQ(orvlib_remove_object_entry(ld(), srv), 0);
    EXPECT_TRUE(root.find(registry(), "(orvFullyQualifiedObjectId=srv-remove)").empty());
    // The facilities' deletes come before the server's.
    std::vector<std::string> deletes;
    for (const std::string& line : log.after(mark))
        if (line.find(" DEL dn=") != std::string::npos) deletes.push_back(lower(line));
    ASSERT_EQ(deletes.size(), 3u);
    EXPECT_EQ(deletes[0].find("dn=\"orvfullyqualifiedobjectid=srv-remove,"), std::string::npos);
    EXPECT_EQ(deletes[1].find("dn=\"orvfullyqualifiedobjectid=srv-remove,"), std::string::npos);
    EXPECT_NE(deletes[2].find("dn=\"orvfullyqualifiedobjectid=srv-remove,"), std::string::npos);
    // Gone already: 3028.
    EXPECT_EQ(orvlib_remove_object_entry(ld(), srv), ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER);
}

TEST_F(RegistryTest, AServerDeleteTheDirectoryRefusesAnswers3028) {
    Root root(dir());
    ORVLibEntry* srv = server("srv-guarded");
    ASSERT_NE(srv, nullptr);
    ASSERT_NE(facility(srv, "http://one"), nullptr);
    ASSERT_NE(facility(srv, "http://two"), nullptr);

    // Nobody may delete this server entry; its facilities may go.
    const std::string aci =
        "(targetfilter=\"(&(objectClass=orvApplicationServer)(orvFullyQualifiedObjectId=srv-guarded))\")"
        "(version 3.0; acl \"registry test: keep srv-guarded\"; deny (delete) userdn=\"ldap:///anyone\";)";
    dir().apply_ldif("dn: " + registry() + "\nchangetype: modify\nadd: aci\naci: " + aci + "\n");

    EXPECT_EQ(orvlib_remove_object_entry(ld(), srv), ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER);
    EXPECT_TRUE(root.find(server_dn("srv-guarded"), "(objectClass=orvApplicationServerFacility)").empty())
        << "every facility was deleted";
    EXPECT_EQ(root.find(registry(), "(orvFullyQualifiedObjectId=srv-guarded)").size(), 1u);

    dir().apply_ldif("dn: " + registry() + "\nchangetype: modify\ndelete: aci\naci: " + aci + "\n");
    EXPECT_EQ(orvlib_remove_object_entry(ld(), srv), 0);
    EXPECT_TRUE(root.find(registry(), "(orvFullyQualifiedObjectId=srv-guarded)").empty());
}

TEST_F(RegistryTest, ARecordOfNeitherKindIsLeftAloneWithoutAsking) {
    Root root(dir());
    AccessLog log;
    ORVLibEntry* srv = server("srv-other-kinds");
    ASSERT_NE(srv, nullptr);

    // A person, and records whose classes only resemble the registry's.
    Listing people = list(ld(), "alice", ORV_SEARCH_PEOPLE, 3);
    ASSERT_EQ(people.values, std::vector<std::string>{"alice"});
    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_ext_s(ld(), "alice", ORV_SEARCH_PEOPLE, &res), 0);
    ORVLibEntry* alice = nullptr;
    orvlib_first_entry(ld(), &alice, res);
    orvlib_orvmessage_free(res);
    ASSERT_NE(alice, nullptr);
    keep(alice);

    ORVLibEntry* lookalike = keep(orv::new_entry());
    char* classes[] = {const_cast<char*>("top"), const_cast<char*>("orvapplicationserver"),
                       const_cast<char*>("orvApplicationServerFacilityX"), nullptr};
    std::string other_dn = server_dn("srv-other-kinds");
    char* dn[] = {&other_dn[0], nullptr};
    ASSERT_TRUE(orv::append_attribute(lookalike, 18, "objectclass", classes));
    ASSERT_TRUE(orv::append_attribute(lookalike, 0, "entrydn", dn));
    ORVLibEntry* classless = keep(orv::new_entry());
    ASSERT_TRUE(orv::append_attribute(classless, 0, "entrydn", dn));

    const size_t mark = log.count();
    for (ORVLibEntry* e : {alice, lookalike, classless}) {
        ldapErrCode = 0;
        EXPECT_EQ(orvlib_remove_object_entry(ld(), e), 0);
        EXPECT_EQ(orvlib_generate_application_facility_urls(ld(), e, "U"), nullptr);
    }
    EXPECT_EQ(log.after(mark), std::vector<std::string>{}) << "nothing was sent";
    EXPECT_EQ(root.find(registry(), "(orvFullyQualifiedObjectId=srv-other-kinds)").size(), 1u);
    EXPECT_EQ(orvlib_remove_object_entry(ld(), srv), 0);
}

// ------------------------------------------------------------------ searches 5006, 5007

TEST_F(RegistryTest, RegistrySearchesThroughTheSearchEntryPoint) {
    AccessLog log;
    ORVLibEntry* abc = server("abc");
    ORVLibEntry* abd = server("abd");
    ASSERT_NE(abc, nullptr);
    ASSERT_NE(abd, nullptr);
    ORVLibEntry* f1 = facility(abc, "http://abc/1");
    ORVLibEntry* f2 = facility(abc, "http://abc/2");
    ASSERT_NE(facility(abd, "http://abd/1"), nullptr);
    ASSERT_NE(f1, nullptr);
    ASSERT_NE(f2, nullptr);
    const std::set<std::string> abc_facilities{first(f1, 22), first(f2, 22)};

    // Facility search with the relative name of server abc: below that
    // name, a comma and the registry base.
    size_t mark = log.count();
    Listing by_rdn = list(ld(), "orvFullyQualifiedObjectId=abc", ORV_SEARCH_APPLICATION_FACILITY, 22);
    EXPECT_EQ(by_rdn.status, 0);
    EXPECT_EQ(std::set<std::string>(by_rdn.values.begin(), by_rdn.values.end()), abc_facilities);
    std::vector<std::string> sent = log.after(mark);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_NE(lower(sent[0]).find(" srch base=\"" + lower(server_dn("abc")) + "\" scope=2 filter=\"(objectclass=orvapplicationserverfacility)\""),
              std::string::npos)
        << sent[0];

    // By the server's DN: the same facilities.
    Listing by_dn = list(ld(), server_dn("abc"), ORV_SEARCH_APPLICATION_FACILITY, 22);
    EXPECT_EQ(std::set<std::string>(by_dn.values.begin(), by_dn.values.end()), abc_facilities);
    // By a filter of its own: the class filter joins it.
    Listing by_url = list(ld(), "orvBaseURL=http://abd/1", ORV_SEARCH_APPLICATION_FACILITY, 30);
    EXPECT_EQ(by_url.values, std::vector<std::string>{"http://abd/1"});

    // Server search with the bare text abc.
    mark = log.count();
    Listing bare = list(ld(), "abc", ORV_SEARCH_APPLICATION_SERVERS, 22);
    EXPECT_EQ(bare.status, 0);
    EXPECT_EQ(bare.values, std::vector<std::string>{"abc"});
    sent = log.after(mark);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_NE(lower(sent[0]).find(" srch base=\"" + lower(registry()) +
                                  "\" scope=2 filter=\"(&(objectclass=orvapplicationserver)(orvfullyqualifiedobjectid=abc))\""),
              std::string::npos)
        << sent[0];
    // By DN: the server itself; a filter of its own; a wildcard id.
    EXPECT_EQ(list(ld(), server_dn("abd"), ORV_SEARCH_APPLICATION_SERVERS, 22).values, std::vector<std::string>{"abd"});
    Listing wild = list(ld(), "ab*", ORV_SEARCH_APPLICATION_SERVERS, 22);
    EXPECT_EQ(std::set<std::string>(wild.values.begin(), wild.values.end()), (std::set<std::string>{"abc", "abd"}));
    EXPECT_TRUE(list(ld(), "abz", ORV_SEARCH_APPLICATION_SERVERS, 22).values.empty());

    for (ORVLibEntry* e : {abc, abd}) EXPECT_EQ(orvlib_remove_object_entry(ld(), e), 0);
}

TEST_F(RegistryTest, RegistryCallsDuringAnIterationKeepItsPlace) {
    // The people of the directory, walked without interruption.
    const Listing all = list(ld(), "*", ORV_SEARCH_PEOPLE, 3);
    ASSERT_EQ(all.status, 0);
    ASSERT_GE(all.values.size(), 3u);

    // The same walk with registry calls after the first entry.
    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_ext_s(ld(), "*", ORV_SEARCH_PEOPLE, &res), 0);
    std::vector<std::string> walked;
    ORVLibEntry* entry = nullptr;
    bool interrupted = false;
    for (LDAPMessage* cur = orvlib_first_entry(ld(), &entry, res); entry; cur = orvlib_next_entry(ld(), &entry, cur)) {
        walked.push_back(first(entry, 3));
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
        if (interrupted) continue;
        interrupted = true;
        ORVLibEntry* srv = orvlib_register_application_server(ld(), ORV_TOOL_4, "srv-nested", nullptr);
        ASSERT_NE(srv, nullptr);
        ORVLibEntry* fac = orvlib_add_application_facility(ld(), srv, "http://nested", 36, 34);
        ASSERT_NE(fac, nullptr);
        char** urls = orvlib_generate_application_facility_urls(ld(), srv, "U");
        ASSERT_NE(urls, nullptr);
        EXPECT_STREQ(urls[0], "http://nested?U");
        orvlib_free_values(urls);
        ORVLibEntry* db = orvlib_get_database_details(ld(), const_cast<char*>("srv-nested"));
        EXPECT_EQ(db, nullptr);
        EXPECT_EQ(orvlib_instance_is_migrated(ld()), 0);
        EXPECT_EQ(orvlib_remove_object_entry(ld(), srv), 0);
        orvlib_orvlibentry_free(fac);
        orvlib_orvlibentry_free(srv);
    }
    orvlib_orvmessage_free(res);
    EXPECT_TRUE(interrupted);
    EXPECT_EQ(walked, all.values);
    EXPECT_EQ(current_search_type, ORV_SEARCH_PEOPLE);
}

// ------------------------------------------------------------------ databases

TEST_F(RegistryTest, CreateDatabaseWithItsAccessRole) {
    Root root(dir());

    // No id given: a fresh UUID.
    ASSERT_EQ(orvlib_create_zorla_database(ld(), nullptr, "salesdb", "db1.orv.test", 50000), 0);
    auto found = root.find(dir().suffix(), "(&(objectClass=orvZORLADatabase)(ou=salesdb))");
    ASSERT_EQ(found.size(), 1u);
    const std::string id = root.first(found[0], "orvZORLADatabaseId");
    EXPECT_TRUE(is_uuid(id)) << id;
    EXPECT_EQ(lower(found[0]), lower(database_dn(id)));
    EXPECT_EQ(root.get(database_dn(id), "orvHostName"), std::vector<std::string>{"db1.orv.test"});
    EXPECT_EQ(root.get(database_dn(id), "orvPortNumber"), std::vector<std::string>{"50000"});
    EXPECT_EQ(root.get(database_dn(id), "objectClass"),
              (std::vector<std::string>{"top", "organizationalUnit", "orvZORLADatabase"}));

    // Its role: name, port and host joined; a fresh role id.
    auto roles = root.find("ou=roles," + dir().suffix(), "(orvZORLADatabaseId=" + id + ")");
    ASSERT_EQ(roles.size(), 1u);
    EXPECT_EQ(root.get(roles[0], "cn"), std::vector<std::string>{"salesdb(50000@db1.orv.test)"});
    EXPECT_EQ(root.get(roles[0], "description"), std::vector<std::string>{"Database Access Role"});
    const std::string role_id = root.first(roles[0], "orvRoleId");
    EXPECT_TRUE(is_uuid(role_id));
    EXPECT_NE(role_id, id);
    EXPECT_EQ(lower(roles[0]), lower("orvRoleId=" + role_id + ",ou=roles," + dir().suffix()));
    std::vector<std::string> role_classes = root.get(roles[0], "objectClass");
    for (std::string& c : role_classes) c = lower(c);
    EXPECT_EQ(std::set<std::string>(role_classes.begin(), role_classes.end()),
              (std::set<std::string>{"top", "accessrole", "morvanerole"}));

    // An id given, and a negative port at its ten characters.
    ASSERT_EQ(orvlib_create_zorla_database(ld(), "db-fixed", "hrdb", "db2", -2147483647 - 1), 0);
    EXPECT_EQ(root.get(database_dn("db-fixed"), "orvPortNumber"), std::vector<std::string>{"-214748364"});
    roles = root.find("ou=roles," + dir().suffix(), "(orvZORLADatabaseId=db-fixed)");
    ASSERT_EQ(roles.size(), 1u);
    EXPECT_EQ(root.get(roles[0], "cn"), std::vector<std::string>{"hrdb(-214748364@db2)"});

    // The same DN again: 3026, and no second role.
    EXPECT_EQ(orvlib_create_zorla_database(ld(), "db-fixed", "hrdb", "db2", 1), ORV_LDAPLIB_UNABLE_TO_ADD_SERVER);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNABLE_TO_ADD_SERVER);
    EXPECT_EQ(root.find("ou=roles," + dir().suffix(), "(orvZORLADatabaseId=db-fixed)").size(), 1u);

    // A role the directory refuses: the database exists, the answer is 0
    // and the refusal is the last status.
    const std::string aci = "(target=\"ldap:///orvRoleId=*,ou=roles," + dir().suffix() +
                            "\")(version 3.0; acl \"registry test: no roles\"; deny (add) userdn=\"ldap:///anyone\";)";
    dir().apply_ldif("dn: ou=roles," + dir().suffix() + "\nchangetype: modify\nadd: aci\naci: " + aci + "\n");
    EXPECT_EQ(orvlib_create_zorla_database(ld(), "db-no-role", "norole", "db3", 7), 0);
    EXPECT_EQ(ldapErrCode, LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(root.get(database_dn("db-no-role"), "ou"), std::vector<std::string>{"norole"});
    EXPECT_TRUE(root.find("ou=roles," + dir().suffix(), "(orvZORLADatabaseId=db-no-role)").empty());
    dir().apply_ldif("dn: ou=roles," + dir().suffix() + "\nchangetype: modify\ndelete: aci\naci: " + aci + "\n");

    EXPECT_EQ(orvlib_create_zorla_database(nullptr, "db-x", "x", "x", 1), ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_TRUE(root.find(dir().suffix(), "(orvZORLADatabaseId=db-x)").empty());
}

TEST_F(RegistryTest, DatabaseDetailsByRepositoryAndDatabaseUserAuthentication) {
    Root root(dir());
    ASSERT_EQ(orvlib_create_zorla_database(ld(), "db-auth", "authdb", "db.orv.test", 5432), 0);
    const char* extended[] = {"db-auth", "second-value", nullptr};
    ORVLibEntry* srv = server("repo-auth", extended);
    ASSERT_NE(srv, nullptr);
    ASSERT_EQ(root.set(database_dn("db-auth"), "orvDB2FactorAuthenticationPrompt", "Your code"), 0);
    ASSERT_EQ(root.set(database_dn("db-auth"), "orvRadius2FactorAuthenticationRequired", "1"), 0);

    // The repository's database, through its first extended id.
    char* database_id = nullptr;
    EXPECT_EQ(get_database_id_from_repository_id(ld(), "repo-auth", &database_id), 0);
    EXPECT_STREQ(database_id, "db-auth");
    orvlib_memfree(database_id);
    ORVLibEntry* details = keep(orvlib_get_database_details(ld(), const_cast<char*>("repo-auth")));
    ASSERT_NE(details, nullptr) << ldapErrCode;
    EXPECT_EQ(vals(details, 64), std::vector<std::string>{"1"});
    EXPECT_EQ(vals(details, 69), std::vector<std::string>{});
    bool prompt = false;
    for (ORVLibAttribute** a = details->orvlibEntryAttrData; *a; ++a)
        if ((*a)->attrName && std::string((*a)->attrName) == "orvDB2FactorAuthenticationPrompt")
            prompt = (*a)->attrVals && std::string((*a)->attrVals[0]) == "Your code";
    EXPECT_TRUE(prompt);
    // Unknown repository: no details, the look-up's status.
    EXPECT_EQ(orvlib_get_database_details(ld(), const_cast<char*>("no-such-repo")), nullptr);
    EXPECT_EQ(ldapErrCode, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(orvlib_get_database_details(ld(), nullptr), nullptr);
    EXPECT_EQ(orvlib_get_database_details(nullptr, const_cast<char*>("repo-auth")), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);

    // Database-user authentication reads that database: with the RADIUS
    // factor on for the user as well, the password alone is not enough.
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", kUserPw, "repo-auth"), 0);
    ASSERT_EQ(root.set(dir().user_dn("alice"), "orvRadius2FactorAuthenticationRequired", "1"), 0);
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", kUserPw, "repo-auth"),
              ORV_LDAPLIB_RADIUS_2FACTOR_REQUIRED);
    ASSERT_EQ(root.set(database_dn("db-auth"), "orvRadius2FactorAuthenticationRequired", "0"), 0);
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", kUserPw, "repo-auth"), 0);
    ASSERT_EQ(root.set(dir().user_dn("alice"), "orvRadius2FactorAuthenticationRequired", "0"), 0);

    // The system-login factor of that database: this process does not run
    // as alice's Unix account.
    char* login = get_unix_login_name();
    const std::string me = login ? login : "";
    orvlib_memfree(login);
    if (lower(me) != "alice") {
        ASSERT_EQ(root.set(database_dn("db-auth"), "orvSystemLogin2FactorAuthenticationRequired", "1"), 0);
        EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", kUserPw, "repo-auth"), LDAP_INVALID_CREDENTIALS);
        ASSERT_EQ(root.set(dir().user_dn("alice"), "orvOSPosixUserName", me), 0);
        EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", kUserPw, "repo-auth"), 0);
        ASSERT_EQ(root.set(dir().user_dn("alice"), "orvOSPosixUserName", "alice"), 0);
    }
    EXPECT_EQ(orvlib_remove_object_entry(ld(), srv), 0);
}

TEST_F(RegistryTest, InstanceIsMigratedOnlyForOne) {
    Root root(dir());
    const std::string config = "cn=ORVConfigurationSettings," + dir().suffix();
    EXPECT_EQ(orvlib_instance_is_migrated(ld()), 0);  // seeded "0"
    for (const char* value : {"1", "0", "true", "01", "1 ", "yes"}) {
        ASSERT_EQ(root.set(config, "orvInstanceIsMigrated", value), 0);
        EXPECT_EQ(orvlib_instance_is_migrated(ld()), std::string(value) == "1" ? 1 : 0) << value;
    }
    ASSERT_EQ(root.set(config, "orvInstanceIsMigrated", ""), 0);
    EXPECT_EQ(orvlib_instance_is_migrated(ld()), 0);
    EXPECT_EQ(orvlib_instance_is_migrated(nullptr), ORV_LDAPLIB_SESSION_INVALID);
    ASSERT_EQ(root.set(config, "orvInstanceIsMigrated", "0"), 0);
}

}  // namespace
