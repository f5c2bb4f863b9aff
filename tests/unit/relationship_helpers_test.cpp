// The relationship area without a directory: filters character for
// character (with caller values escaped), repository ids of object URNs,
// relationship ids of relationship URNs, DNs, rule types, values by id of a
// record, and every public operation without a session answering 3007.
#include <gtest/gtest.h>

#include <string>

#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_relationship.h"

namespace {

char* cs(const char* s) { return const_cast<char*>(s); }

// A new string of the library taken over as a std::string ("<null>" for NULL).
std::string take(char* s) {
    std::string out = s ? s : "<null>";
    orvlib_memfree(s);
    return out;
}

TEST(RelationshipHelpers, FiltersAreBuiltCharacterForCharacter) {
    const int start = _memCnt;
    EXPECT_EQ(take(create_ldap_filter("(a=b)", "pexEndTypeObject")), "(&(objectclass=pexEndTypeObject)(a=b))");
    EXPECT_EQ(take(create_ldap_filter(nullptr, "pexEndTypeObject")), "(objectclass=pexEndTypeObject)");

    EXPECT_EQ(take(create_search_filter_for_relationship_type("R1", "1.3.6.1.4.1.47391.3", "R2", "1.3.6.1.4.1.47391.4")),
              "(&(|(pexEndARuleValues=R1)(pexEndARuleValues=1.3.6.1.4.1.47391.3)(pexEndARuleValues=EMPTY_STRING))"
              "(|(pexEndBRuleValues=R2)(pexEndBRuleValues=1.3.6.1.4.1.47391.4)(pexEndBRuleValues=EMPTY_STRING)))");
    EXPECT_EQ(create_search_filter_for_relationship_type("R1", nullptr, "R2", "t"), nullptr);

    EXPECT_EQ(create_search_filter_from_repository_id(nullptr, nullptr), nullptr);
    EXPECT_EQ(take(create_search_filter_from_repository_id("R1", nullptr)),
              "(|(pexExtObjectARepId=R1)(pexExtObjectBRepId=R1))");
    EXPECT_EQ(take(create_search_filter_from_repository_id(nullptr, "ctx")),
              "(|(pexExtObjectAContext=ctx)(pexExtObjectBContext=ctx))");
    EXPECT_EQ(take(create_search_filter_from_repository_id("R1", "ctx")),
              "(|(&(pexExtObjectARepId=R1)(pexExtObjectAContext=ctx))"
              "(&(pexExtObjectBRepId=R1)(pexExtObjectBContext=ctx)))");

    char* two[] = {cs("urn:morvane:R1:a"), cs("urn:morvane:R2:b"), nullptr};
    EXPECT_EQ(take(create_filter_object_urns(two)),
              "(|(pexExtObjectAURN=urn:morvane:R1:a)(pexExtObjectBURN=urn:morvane:R1:a)"
              "(pexExtObjectAURN=urn:morvane:R2:b)(pexExtObjectBURN=urn:morvane:R2:b))");
    EXPECT_EQ(create_filter_object_urns(nullptr), nullptr);

    // Caller values never change the filter around them.
    char* odd[] = {cs("a*)(b"), nullptr};
    EXPECT_EQ(take(create_filter_object_urns(odd)),
              "(|(pexExtObjectAURN=a\\2a\\29\\28b)(pexExtObjectBURN=a\\2a\\29\\28b))");
    EXPECT_EQ(take(create_search_filter_from_repository_id("*", nullptr)),
              "(|(pexExtObjectARepId=\\2a)(pexExtObjectBRepId=\\2a))");
    EXPECT_EQ(_memCnt, start);
}

TEST(RelationshipHelpers, UrnsDnsAndRuleTypes) {
    const int start = _memCnt;
    EXPECT_EQ(take(get_repository_id_from_urn("urn:morvane:R1:x")), "R1");
    EXPECT_EQ(take(get_repository_id_from_urn("urn:morvane:R1:doc:7")), "R1");
    // Fields are counted from the start of the text, empty ones skipped.
    EXPECT_EQ(take(get_repository_id_from_urn("a:urn:morvane:R1")), "morvane");
    EXPECT_EQ(take(get_repository_id_from_urn("urn:morvane::R1:x")), "R1");
    ldapErrCode = 0;
    EXPECT_EQ(get_repository_id_from_urn("urn:other:R1:x"), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    ldapErrCode = 0;
    EXPECT_EQ(get_repository_id_from_urn("urn:morvane"), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(get_repository_id_from_urn(nullptr), nullptr);

    EXPECT_EQ(take(get_relationshipId_from_URN("urn:morvane:rel:1234")), "1234");
    EXPECT_EQ(take(get_relationshipId_from_URN("1234")), "1234");
    EXPECT_EQ(take(get_relationshipId_from_URN("a:")), "");
    EXPECT_EQ(get_relationshipId_from_URN(nullptr), nullptr);

    EXPECT_EQ(take(get_obj_dn_from_uuid("u1", nullptr, "ou=B,dc=x")), "orvFullyQualifiedObjectId=u1,ou=B,dc=x");
    EXPECT_EQ(take(get_obj_dn_from_uuid("u1", "u2", "ou=B,dc=x")),
              "orvFullyQualifiedObjectId=u1,orvFullyQualifiedObjectId=u2,ou=B,dc=x");
    EXPECT_EQ(get_obj_dn_from_uuid(nullptr, "u2", "ou=B"), nullptr);

    for (const char* ok : {"any", "ANY", "Repository", "tool"}) EXPECT_EQ(is_valid_rule_type(ok), 1) << ok;
    for (const char* bad : {"", "anyone", "group", "to ol"}) EXPECT_EQ(is_valid_rule_type(bad), 0) << bad;
    EXPECT_EQ(is_valid_rule_type(nullptr), 0);
    EXPECT_EQ(_memCnt, start);
}

TEST(RelationshipHelpers, WithoutASessionEveryOperationAnswers3007) {
    const int start = _memCnt;
    char* values[] = {cs("v"), nullptr};
    ORVLibEntry* record = orv::new_entry();
    orv::append_attribute(record, 100, "pexEndId", values);

    ldapErrCode = 0;
    EXPECT_EQ(orvlib_create_end_type_object(nullptr, cs("e"), cs("any"), values, cs("d")), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(orvlib_modify_end_rule(nullptr, cs("e"), 102, values, 0), ORV_LDAPLIB_SESSION_INVALID);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_create_relationship_type(nullptr, cs("t"), cs("n"), record, record), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    LDAPMessage* res = reinterpret_cast<LDAPMessage*>(0x1);
    EXPECT_EQ(orvlib_search_relationship_types(nullptr, cs("u"), cs("v"), &res), ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(orvlib_remove_relationship_type(nullptr, cs("t")), ORV_LDAPLIB_SESSION_INVALID);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_create_external_relationship(nullptr, cs("u"), cs("d"), cs("c"), cs("u"), cs("d"), cs("c"),
                                                  record, cs("r")),
              nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    res = reinterpret_cast<LDAPMessage*>(0x1);
    EXPECT_EQ(orvlib_search_external_relationship(nullptr, values, nullptr, &res, 0), ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(orvlib_remove_external_relationship(nullptr, cs("u:1"), 0), ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(orvlib_notify_external_relationship_changes_on_repository_id(nullptr, cs("r"), nullptr),
              ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(orvlib_notify_external_relationship_changes_on_external_objects(nullptr, values),
              ORV_LDAPLIB_SESSION_INVALID);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_search_external_relationship_on_repository_id(nullptr, cs("r")), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    ORVLibEntry* out = record;
    EXPECT_EQ(orvlib_first_er_entry(nullptr, &out, nullptr), nullptr);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(orvlib_next_er_entry(nullptr, &out, nullptr), nullptr);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_get_entry_er_vals(nullptr, record, 100), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_get_url(nullptr, 6001), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);

    orvlib_orvlibentry_free(record);
    EXPECT_EQ(_memCnt, start);
}

TEST(RelationshipHelpers, ValuesByIdComeFromTheRecord) {
    const int start = _memCnt;
    LDAP* any = reinterpret_cast<LDAP*>(0x1);  // never used for a record's own values
    ORVLibEntry* record = orv::new_entry();
    char* empty_vals[] = {nullptr};
    char* ends[] = {cs("E1"), cs("E2"), nullptr};
    orv::append_attribute(record, 100, "pexEndId", empty_vals);
    orv::append_attribute(record, 100, "pexEndId", ends);
    char** v = orvlib_get_entry_er_vals(any, record, 100);
    ASSERT_NE(v, nullptr);
    EXPECT_STREQ(v[0], "E1");
    EXPECT_STREQ(v[1], "E2");
    EXPECT_EQ(v[2], nullptr);
    orvlib_free_values(v);
    // 127 only on relationships; this one is none.
    EXPECT_EQ(orvlib_get_entry_er_vals(any, record, 127), nullptr);
    EXPECT_EQ(orvlib_get_entry_er_vals(any, record, 101), nullptr);
    ORVLibEntry* bare = orv::new_entry();
    orvlib_memfree(reinterpret_cast<char*>(bare->orvlibEntryAttrData));
    bare->orvlibEntryAttrData = nullptr;
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_get_entry_er_vals(any, bare, 100), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    orvlib_orvlibentry_free(bare);
    orvlib_orvlibentry_free(record);
    EXPECT_EQ(_memCnt, start);
}

}  // namespace
