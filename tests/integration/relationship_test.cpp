// End types, relationship types, external objects and relationships
// against the test directory seeded with the relationship data set (tools
// T1 and T2; repositories REPO-R1 and REPO-R3 of T1, REPO-R2 of T2; end
// types END-ANY, END-R1, END-R3, END-T1, END-T2; relationship types
// TYPE-R1-T2, TYPE-T2-R1, TYPE-T1-R3, TYPE-ANY-ANY).  What the library wrote
// is read back over a root connection of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "auth_support.hpp"
#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_relationship.h"
#include "testbed.hpp"

namespace {

using orv::authtest::Root;

ORV_TESTBED_ENVIRONMENT(orv::testbed::Options().with_scenario("standalone").with_param("relationships", "1"));

orv::testbed::Directory& dir() { return orv::testbed::Environment::directory(); }
std::string under(const char* ou) { return std::string(ou) + "," + dir().suffix(); }
std::string end_types() { return under("ou=PEXEndTypes"); }
std::string rel_types() { return under("ou=PEXRelationshipTypes"); }
std::string objects() { return under("ou=ExternalRelationshipObjects"); }
std::string relationships() { return under("ou=PEXRelationships"); }

char* cs(const char* s) { return const_cast<char*>(s); }

std::vector<std::string> er_vals(LDAP* ld, ORVLibEntry* e, int id) {
    std::vector<std::string> out;
    char** v = orvlib_get_entry_er_vals(ld, e, id);
    for (char** p = v; p && *p; ++p) out.emplace_back(*p);
    orvlib_free_values(v);
    return out;
}
std::string er_first(LDAP* ld, ORVLibEntry* e, int id) {
    auto v = er_vals(ld, e, id);
    return v.empty() ? std::string() : v[0];
}

std::set<std::string> sorted(std::vector<std::string> v) { return {v.begin(), v.end()}; }

class RelationshipTest : public orv::authtest::BalancedSessionTest {
protected:
    // An end type made by the library.
    ORVLibEntry* end(const char* id, const char* rule, std::vector<const char*> values) {
        values.push_back(nullptr);
        return keep(orvlib_create_end_type_object(ld(), cs(id), cs(rule), const_cast<char**>(values.data()),
                                                  cs("test end")));
    }
    // The values of attribute id of every entry of a result of this area.
    std::vector<std::string> walk(LDAPMessage* res, int id) {
        std::vector<std::string> out;
        ORVLibEntry* e = nullptr;
        for (LDAPMessage* cur = orvlib_first_er_entry(ld(), &e, res); cur; cur = orvlib_next_er_entry(ld(), &e, cur)) {
            out.push_back(er_first(ld(), e, id));
            orvlib_orvlibentry_free(e);
            e = nullptr;
        }
        return out;
    }
    // Ids (104) of the relationship types valid from urn1 to urn2.
    std::set<std::string> valid_types(const char* urn1, const char* urn2, int* status) {
        LDAPMessage* res = nullptr;
        *status = orvlib_search_relationship_types(ld(), cs(urn1), cs(urn2), &res);
        auto ids = walk(res, 104);
        orvlib_orvmessage_free(res);
        std::set<std::string> seeded;
        for (auto& id : ids)
            if (id.rfind("TYPE-", 0) == 0) seeded.insert(id);
        return seeded;
    }
    ORVLibEntry* relate(const char* urn1, const char* ctx1, const char* urn2, const char* ctx2, ORVLibEntry* type,
                        const char* desc1 = "object one", const char* desc2 = "object two") {
        return keep(orvlib_create_external_relationship(ld(), cs(urn1), cs(desc1), cs(ctx1), cs(urn2), cs(desc2),
                                                        cs(ctx2), type, cs("test relationship")));
    }
    ORVLibEntry* seeded_type(const char* id) {
        return keep(get_relationship_type_from_rel_type_id(orv_ld, id));
    }

    Root root_{dir()};
};

// ------------------------------------------------------------------ end types

TEST_F(RelationshipTest, EndTypesAreCreatedOnceAndAnyEndsStoreTheEmptyStringValue) {
    ORVLibEntry* any = end("it-any", "AnY", {"REPO-R1", "1.3.6.1.4.1.47391.3"});
    ASSERT_NE(any, nullptr) << ldapErrCode;
    EXPECT_EQ(er_first(ld(), any, 100), "it-any");
    EXPECT_EQ(er_first(ld(), any, 101), "AnY");  // stored as given
    EXPECT_EQ(er_vals(ld(), any, 102), std::vector<std::string>{"EMPTY_STRING"});
    EXPECT_EQ(er_vals(ld(), any, 18), (std::vector<std::string>{"top", "pexEndTypeObject"}));
    const std::string dn = er_first(ld(), any, 0);
    EXPECT_EQ(dn, "orvFullyQualifiedObjectId=" + er_first(ld(), any, 22) + "," + end_types());

    // The same end id again: the stored end type, 3009, nothing added.
    ldapErrCode = 0;
    ORVLibEntry* again = end("it-any", "repository", {"REPO-R2"});
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(er_first(ld(), again, 0), dn);
    EXPECT_EQ(root_.find(end_types(), "(pexEndId=it-any)").size(), 1u);

    // Without an end id the end id is a UUID of its own; "" is an id.
    ORVLibEntry* unnamed = keep(orvlib_create_end_type_object(ld(), nullptr, cs("tool"),
                                                              const_cast<char**>(std::vector<const char*>{"t", nullptr}.data()),
                                                              cs("d")));
    ASSERT_NE(unnamed, nullptr);
    EXPECT_EQ(er_first(ld(), unnamed, 100).size(), 36u);
    EXPECT_NE(er_first(ld(), unnamed, 100), er_first(ld(), unnamed, 22));
    // "" is an end id like any other.
    ASSERT_NE(end("", "repository", {"REPO-R2"}), nullptr);
    ldapErrCode = 0;
    ORVLibEntry* empty_again = end("", "tool", {"t"});
    ASSERT_NE(empty_again, nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(er_first(ld(), empty_again, 101), "repository");

    // Refused arguments: 3008 and nothing written.
    const size_t before = root_.find(end_types(), "(objectclass=pexEndTypeObject)").size();
    ldapErrCode = 0;
    EXPECT_EQ(end("it-bad", "group", {"x"}), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_create_end_type_object(ld(), cs("it-bad"), cs("tool"), nullptr, cs("d")), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    std::vector<std::string> many;
    for (int i = 0; i < 20; ++i) many.push_back("v" + std::to_string(i));
    std::vector<const char*> twenty;
    for (auto& v : many) twenty.push_back(v.c_str());
    ldapErrCode = 0;
    EXPECT_EQ(end("it-bad", "repository", twenty), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    twenty.pop_back();
    EXPECT_NE(end("it-nineteen", "repository", twenty), nullptr);
    EXPECT_EQ(root_.find(end_types(), "(objectclass=pexEndTypeObject)").size(), before + 1);

    // An end id with filter characters names itself only.
    ldapErrCode = 0;
    ORVLibEntry* star = end("*", "tool", {"t"});
    ASSERT_NE(star, nullptr);
    EXPECT_EQ(ldapErrCode, 0);
    EXPECT_EQ(er_first(ld(), star, 100), "*");
}

TEST_F(RelationshipTest, EndRuleChangesCheckArgumentsKeepAnyEndsAndFollowIntoTheType) {
    char* v[] = {cs("REPO-R2"), nullptr};
    // Argument checks answer 3009 and leave the last status alone.
    ldapErrCode = 4242;
    EXPECT_EQ(orvlib_modify_end_rule(ld(), nullptr, 102, v, 0), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("END-R1"), 0, v, 0), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("END-R1"), 102, nullptr, 0), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("END-R1"), 100, v, 1), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("END-R1"), 101, v, 1), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("END-R1"), 102, v, 3), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(ldapErrCode, 4242);
    // An unknown end: 3009; the last status is that of the look-up.
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("no-such-end"), 102, v, 0), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(ldapErrCode, 0);
    // Only the attributes that may change have an id here (1 is "cn").
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("END-R1"), 1, v, 1), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("END-R1"), 104, v, 1), ORV_LDAPLIB_INVALID_INPUT);

    // The rule values of an "any" end stay.
    const std::string any_dn = root_.find(end_types(), "(pexEndId=END-ANY)").at(0);
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("END-ANY"), 102, v, 1), 0);
    EXPECT_EQ(root_.get(any_dn, "pexEndRuleValue"), std::vector<std::string>{"EMPTY_STRING"});
    // Its description may change.
    char* d[] = {cs("anything at all"), nullptr};
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("END-ANY"), 103, d, 1), 0);
    EXPECT_EQ(root_.first(any_dn, "pexEndDescription"), "anything at all");

    // A rule-value change goes into the one relationship type using the end
    // (at end A here, at end B below).
    ORVLibEntry* a = end("it-rule-a", "repository", {"REPO-RA"});
    ORVLibEntry* b = end("it-rule-b", "repository", {"REPO-RB"});
    ORVLibEntry* type = keep(orvlib_create_relationship_type(ld(), cs("it-rule-type"), cs("rule type"), a, b));
    ASSERT_NE(type, nullptr) << ldapErrCode;
    const std::string type_dn = er_first(ld(), type, 0);
    EXPECT_EQ(root_.get(type_dn, "pexEndARuleValues"), std::vector<std::string>{"REPO-RA"});
    char* more[] = {cs("REPO-RA2"), nullptr};
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("it-rule-a"), 102, more, 0), 0);
    EXPECT_EQ(sorted(root_.get(type_dn, "pexEndARuleValues")), (std::set<std::string>{"REPO-RA", "REPO-RA2"}));
    char* only[] = {cs("REPO-RB2"), nullptr};
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("it-rule-b"), 102, only, 1), 0);
    EXPECT_EQ(root_.get(type_dn, "pexEndBRuleValues"), std::vector<std::string>{"REPO-RB2"});
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("it-rule-a"), 102, more, 2), 0);
    EXPECT_EQ(root_.get(type_dn, "pexEndARuleValues"), std::vector<std::string>{"REPO-RA"});
    const std::string a_dn = er_first(ld(), a, 0);
    EXPECT_EQ(root_.get(a_dn, "pexEndRuleValue"), std::vector<std::string>{"REPO-RA"});

    // Only the first type found is updated.
    ORVLibEntry* second = keep(orvlib_create_relationship_type(ld(), cs("it-rule-type2"), cs("second"), a, b));
    ASSERT_NE(second, nullptr);
    char* third[] = {cs("REPO-RA3"), nullptr};
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("it-rule-a"), 102, third, 0), 0);
    const auto with = root_.find(rel_types(), "(pexEndARuleValues=REPO-RA3)");
    EXPECT_EQ(with.size(), 1u);

    // Ends in use at A or at B are not deleted; a free one is.
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("it-rule-a"), 0, nullptr, 0), ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("it-rule-b"), 0, nullptr, 0), ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("END-T2"), 0, nullptr, 0), ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(root_.find(end_types(), "(pexEndId=it-rule-a)").size(), 1u);
    EXPECT_EQ(root_.find(end_types(), "(pexEndId=END-T2)").size(), 1u);
    ASSERT_NE(end("it-free", "tool", {"t"}), nullptr);
    EXPECT_EQ(orvlib_modify_end_rule(ld(), cs("it-free"), 0, nullptr, 0), 0);
    EXPECT_TRUE(root_.find(end_types(), "(pexEndId=it-free)").empty());
}

// ------------------------------------------------------------------ relationship types

TEST_F(RelationshipTest, RelationshipTypesAreCreatedOnceWithTheirEndsRuleValues) {
    ORVLibEntry* a = keep(get_end_type_object_from_end_id(orv_ld, "END-R1"));
    ORVLibEntry* b = keep(get_end_type_object_from_end_id(orv_ld, "END-ANY"));
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    ORVLibEntry* type = keep(orvlib_create_relationship_type(ld(), nullptr, cs("R1 to anything"), a, b));
    ASSERT_NE(type, nullptr) << ldapErrCode;
    EXPECT_EQ(er_first(ld(), type, 105), "R1 to anything");
    EXPECT_EQ(er_first(ld(), type, 106), "END-R1");
    EXPECT_EQ(er_first(ld(), type, 107), "END-ANY");
    EXPECT_EQ(er_first(ld(), type, 104).size(), 36u);
    EXPECT_NE(er_first(ld(), type, 104), er_first(ld(), type, 22));
    EXPECT_EQ(er_vals(ld(), type, 121), std::vector<std::string>{"REPO-R1"});
    EXPECT_EQ(er_vals(ld(), type, 122), std::vector<std::string>{"EMPTY_STRING"});

    ldapErrCode = 0;
    ORVLibEntry* existing = keep(orvlib_create_relationship_type(ld(), cs("TYPE-R1-T2"), cs("x"), a, b));
    ASSERT_NE(existing, nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(er_first(ld(), existing, 106), "END-R1");
    EXPECT_EQ(er_first(ld(), existing, 107), "END-T2");

    ldapErrCode = 0;
    EXPECT_EQ(orvlib_create_relationship_type(ld(), cs("it-t"), nullptr, a, b), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(orvlib_create_relationship_type(ld(), cs("it-t"), cs("n"), a, nullptr), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_TRUE(root_.find(rel_types(), "(pexRelationshipTypeId=it-t)").empty());

    // An end record without rule values: the type is added, the call fails.
    ORVLibEntry* bare = orv::new_entry();
    char* end_id[] = {cs("END-T1"), nullptr};
    orv::append_attribute(bare, 100, "pexEndId", end_id);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_create_relationship_type(ld(), cs("it-no-rules"), cs("n"), a, bare), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(root_.find(rel_types(), "(pexRelationshipTypeId=it-no-rules)").size(), 1u);
    orvlib_orvlibentry_free(bare);
}

TEST_F(RelationshipTest, ValidTypesMatchByRepositoryToolOrAnyAndDependOnTheOrder) {
    int status = -1;
    const char* r1 = "urn:morvane:REPO-R1:doc:1";
    const char* r2 = "urn:morvane:REPO-R2:item:7";
    const char* r3 = "urn:morvane:REPO-R3:x";
    EXPECT_EQ(valid_types(r1, r2, &status), (std::set<std::string>{"TYPE-R1-T2", "TYPE-ANY-ANY"}));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(valid_types(r2, r1, &status), (std::set<std::string>{"TYPE-T2-R1", "TYPE-ANY-ANY"}));
    // End A of TYPE-T1-R3 admits REPO-R1 by its tool, end B only REPO-R3.
    EXPECT_EQ(valid_types(r1, r3, &status), (std::set<std::string>{"TYPE-T1-R3", "TYPE-ANY-ANY"}));
    EXPECT_EQ(valid_types(r3, r1, &status), (std::set<std::string>{"TYPE-ANY-ANY"}));

    // Either URN missing: every type.
    EXPECT_EQ(valid_types(r1, nullptr, &status),
              (std::set<std::string>{"TYPE-R1-T2", "TYPE-T2-R1", "TYPE-T1-R3", "TYPE-ANY-ANY"}));
    EXPECT_EQ(status, 0);
    // A URN without repository, a repository without registered server.
    EXPECT_TRUE(valid_types("doc:1", r2, &status).empty());
    EXPECT_EQ(status, ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_TRUE(valid_types(r1, "urn:morvane:REPO-NONE:1", &status).empty());
    EXPECT_EQ(status, ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_search_relationship_types(ld(), cs(r1), cs(r2), nullptr), ORV_LDAPLIB_INVALID_INPUT);
}

// ------------------------------------------------------------------ external objects

TEST_F(RelationshipTest, ObjectsCreateTheirRepositoryOnceAndAreUpdatedByUrn) {
    const size_t before = root_.find(objects(), "(objectclass=*)").size();
    char* uuid = reinterpret_cast<char*>(0x1);
    EXPECT_EQ(create_external_object(orv_ld, "urn:other:REPO-R3:1", "c", "d", &uuid), ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(uuid, nullptr);
    EXPECT_EQ(root_.find(objects(), "(objectclass=*)").size(), before);

    // The first object of a repository id creates the repository first.
    ASSERT_TRUE(root_.find(objects(), "(orvApplicationRepositoryId=REPO-NEW)").empty());
    ASSERT_EQ(create_external_object(orv_ld, "urn:morvane:REPO-NEW:obj:1", "Context", "First", &uuid), 0);
    ASSERT_NE(uuid, nullptr);
    const std::string first_uuid = uuid;
    orvlib_memfree(uuid);
    const auto repos = root_.find(objects(), "(orvApplicationRepositoryId=REPO-NEW)");
    ASSERT_EQ(repos.size(), 1u);
    const std::string repo_uuid = root_.first(repos[0], "orvFullyQualifiedObjectId");
    EXPECT_EQ(root_.first(repos[0], "ou"), repo_uuid);
    const std::string obj_dn = "orvFullyQualifiedObjectId=" + first_uuid + "," + repos[0];
    EXPECT_EQ(root_.first(obj_dn, "orvExternalObjectURN"), "urn:morvane:REPO-NEW:obj:1");
    EXPECT_EQ(root_.first(obj_dn, "orvExternalObjectContext"), "Context");

    // A second object joins the repository.
    ASSERT_EQ(create_external_object(orv_ld, "urn:morvane:REPO-NEW:obj:2", "c", "d", &uuid), 0);
    orvlib_memfree(uuid);
    EXPECT_EQ(root_.find(repos[0], "(objectclass=orvExternalObject)").size(), 2u);
    EXPECT_EQ(root_.find(objects(), "(orvApplicationRepositoryId=REPO-NEW)").size(), 1u);

    // The same URN again updates the object and keeps its UUID; a context
    // that differs in letter case only is not rewritten.
    ASSERT_EQ(create_external_object(orv_ld, "urn:morvane:REPO-NEW:obj:1", "CONTEXT", "Second", &uuid), 0);
    EXPECT_EQ(std::string(uuid), first_uuid);
    orvlib_memfree(uuid);
    EXPECT_EQ(root_.first(obj_dn, "orvExternalObjectContext"), "Context");
    EXPECT_EQ(root_.first(obj_dn, "orvExternalObjectDescription"), "Second");
    ASSERT_EQ(create_external_object(orv_ld, "urn:morvane:REPO-NEW:obj:1", "Other", "SECOND", &uuid), 0);
    orvlib_memfree(uuid);
    EXPECT_EQ(root_.first(obj_dn, "orvExternalObjectContext"), "Other");
    EXPECT_EQ(root_.first(obj_dn, "orvExternalObjectDescription"), "Second");
    EXPECT_EQ(root_.find(objects(), "(orvExternalObjectURN=urn:morvane:REPO-NEW:obj:1)").size(), 1u);

    char** description = get_external_object_description(orv_ld, first_uuid.c_str());
    ASSERT_NE(description, nullptr);
    EXPECT_STREQ(description[0], "Second");
    orvlib_free_values(description);
}

// ------------------------------------------------------------------ relationships

TEST_F(RelationshipTest, RelationshipsAreCreatedSearchedByRepositoryAndUrnAndReadWithDescriptions) {
    ORVLibEntry* type = seeded_type("TYPE-R1-T2");
    ASSERT_NE(type, nullptr);
    const char* u1 = "urn:morvane:REPO-R1:rel:a";
    const char* u2 = "urn:morvane:REPO-R2:rel:b";
    ORVLibEntry* rel = relate(u1, "ctxA", u2, "ctxB", type, "Alpha object", "Beta object");
    ASSERT_NE(rel, nullptr) << ldapErrCode;
    EXPECT_EQ(er_first(ld(), rel, 104), "TYPE-R1-T2");
    EXPECT_EQ(er_first(ld(), rel, 113), "test relationship");
    EXPECT_EQ(er_first(ld(), rel, 114), "0");
    EXPECT_EQ(er_first(ld(), rel, 115), "ctxA");
    EXPECT_EQ(er_first(ld(), rel, 116), "ctxB");
    EXPECT_EQ(er_first(ld(), rel, 117), u1);
    EXPECT_EQ(er_first(ld(), rel, 118), u2);
    EXPECT_EQ(er_first(ld(), rel, 119), "REPO-R1");
    EXPECT_EQ(er_first(ld(), rel, 120), "REPO-R2");
    EXPECT_EQ(root_.find(objects(), "(orvFullyQualifiedObjectId=" + er_first(ld(), rel, 111) + ")").size(), 1u);
    EXPECT_EQ(er_vals(ld(), rel, 127), std::vector<std::string>{"Alpha object"});
    EXPECT_EQ(er_vals(ld(), rel, 128), std::vector<std::string>{"Beta object"});
    EXPECT_TRUE(er_vals(ld(), type, 127).empty());  // not a relationship

    // Missing arguments and a type without id: 3008, no relationship.
    const size_t count = root_.find(relationships(), "(objectclass=pexRelationshipObject)").size();
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_create_external_relationship(ld(), cs(u1), nullptr, cs("c"), cs(u2), cs("d"), cs("c"), type,
                                                  cs("x")),
              nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    ORVLibEntry* no_id = orv::new_entry();
    ldapErrCode = 0;
    EXPECT_EQ(relate(u1, "c", u2, "c", no_id), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    orvlib_orvlibentry_free(no_id);
    ldapErrCode = 0;
    EXPECT_EQ(relate("not-an-urn", "c", u2, "c", type), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(root_.find(relationships(), "(objectclass=pexRelationshipObject)").size(), count);

    // Searches by repository id and by URN.
    char* by_repo[] = {cs("REPO-R2"), nullptr};
    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_external_relationship(ld(), by_repo, nullptr, &res, 0), 0);
    const std::string id = er_first(ld(), rel, 22);
    auto ids = walk(res, 22);
    orvlib_orvmessage_free(res);
    EXPECT_NE(std::find(ids.begin(), ids.end(), id), ids.end());
    char* by_urn[] = {cs(u2), cs("urn:morvane:REPO-R9:none"), nullptr};
    ASSERT_EQ(orvlib_search_external_relationship(ld(), by_urn, nullptr, &res, 1), 0);
    EXPECT_EQ(walk(res, 22), std::vector<std::string>{id});
    orvlib_orvmessage_free(res);

    // A context with a URN search: 3009, the last status left alone.
    ldapErrCode = 4242;
    res = reinterpret_cast<LDAPMessage*>(0x1);
    EXPECT_EQ(orvlib_search_external_relationship(ld(), by_urn, cs("ctxA"), &res, 1), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldapErrCode, 4242);
    EXPECT_EQ(orvlib_search_external_relationship(ld(), by_urn, nullptr, &res, 2), ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(res, nullptr);
}

TEST_F(RelationshipTest, RepositoryAndContextMeetAtTheSameEndForSearchAndNotify) {
    ORVLibEntry* type = seeded_type("TYPE-ANY-ANY");
    ASSERT_NE(type, nullptr);
    // Same end: REPO-R1 with C1 at A.  Crossed: REPO-R1 at A with C2, C1 at B.
    ORVLibEntry* same = relate("urn:morvane:REPO-R1:pair:1", "C1", "urn:morvane:REPO-R3:pair:2", "C2", type);
    ORVLibEntry* crossed = relate("urn:morvane:REPO-R1:pair:3", "C2", "urn:morvane:REPO-R3:pair:4", "C1", type);
    ORVLibEntry* at_b = relate("urn:morvane:REPO-R3:pair:5", "C9", "urn:morvane:REPO-R1:pair:6", "C1", type);
    ASSERT_TRUE(same && crossed && at_b) << ldapErrCode;
    const std::string same_id = er_first(ld(), same, 22);
    const std::string at_b_id = er_first(ld(), at_b, 22);

    char* repo[] = {cs("REPO-R1"), nullptr};
    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_external_relationship(ld(), repo, cs("C1"), &res, 0), 0);
    EXPECT_EQ(sorted(walk(res, 22)), (std::set<std::string>{same_id, at_b_id}));
    orvlib_orvmessage_free(res);

    EXPECT_EQ(orvlib_notify_external_relationship_changes_on_repository_id(ld(), cs("REPO-R1"), cs("C1")), 0);
    auto marked = [&](ORVLibEntry* r) { return root_.first(er_first(ld(), r, 0), "pexRelationshipMarkedForDelete"); };
    EXPECT_EQ(marked(same), "1");
    EXPECT_EQ(marked(at_b), "1");
    EXPECT_EQ(marked(crossed), "0");
    EXPECT_EQ(root_.find(relationships(), "(orvFullyQualifiedObjectId=" + same_id + ")").size(), 1u);

    // Notify on objects marks the relationships of any URN given.
    char* urns[] = {cs("urn:morvane:REPO-R3:pair:4"), nullptr};
    EXPECT_EQ(orvlib_notify_external_relationship_changes_on_external_objects(ld(), urns), 0);
    EXPECT_EQ(marked(crossed), "1");
    char* none[] = {nullptr};
    EXPECT_EQ(orvlib_notify_external_relationship_changes_on_external_objects(ld(), none), 0);
    EXPECT_EQ(orvlib_notify_external_relationship_changes_on_external_objects(ld(), nullptr), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_notify_external_relationship_changes_on_repository_id(ld(), nullptr, nullptr),
              ORV_LDAPLIB_INVALID_INPUT);
}

TEST_F(RelationshipTest, RemovalMarksOrDeletesAndTypesInUseStay) {
    ORVLibEntry* a = keep(get_end_type_object_from_end_id(orv_ld, "END-T1"));
    ORVLibEntry* b = keep(get_end_type_object_from_end_id(orv_ld, "END-T2"));
    ORVLibEntry* type = keep(orvlib_create_relationship_type(ld(), cs("it-removal"), cs("removal"), a, b));
    ASSERT_NE(type, nullptr) << ldapErrCode;
    ORVLibEntry* rel = relate("urn:morvane:REPO-R1:rm:1", "c", "urn:morvane:REPO-R2:rm:2", "c", type);
    ASSERT_NE(rel, nullptr);
    const std::string dn = er_first(ld(), rel, 0);
    const std::string urn = "urn:morvane:relationship:" + er_first(ld(), rel, 22);

    ldapErrCode = 0;
    EXPECT_EQ(orvlib_remove_relationship_type(ld(), cs("it-removal")), ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(root_.find(rel_types(), "(pexRelationshipTypeId=it-removal)").size(), 1u);

    EXPECT_EQ(orvlib_remove_external_relationship(ld(), cs(urn.c_str()), 7), 0);
    EXPECT_EQ(root_.first(dn, "pexRelationshipMarkedForDelete"), "1");
    EXPECT_EQ(orvlib_remove_external_relationship(ld(), cs(urn.c_str()), 0), 0);
    EXPECT_TRUE(root_.get(dn, "objectclass").empty());
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_remove_external_relationship(ld(), cs(urn.c_str()), 0), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_remove_external_relationship(ld(), cs("urn:x:*"), 0), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_remove_external_relationship(ld(), nullptr, 0), ORV_LDAPLIB_INVALID_INPUT);

    // Unused now: removed; then unknown.
    EXPECT_EQ(orvlib_remove_relationship_type(ld(), cs("it-removal")), 0);
    EXPECT_TRUE(root_.find(rel_types(), "(pexRelationshipTypeId=it-removal)").empty());
    EXPECT_EQ(orvlib_remove_relationship_type(ld(), cs("it-removal")), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_remove_relationship_type(ld(), cs("*")), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(root_.find(rel_types(), "(pexRelationshipTypeId=TYPE-ANY-ANY)").size(), 1u);
}

// ------------------------------------------------------------------ older layout, URL

TEST_F(RelationshipTest, ObjectsOfARepositoryAreListedFromTheOlderBase) {
    const std::string older = under("ou=External Relationship");
    dir().apply_ldif("dn: orvFullyQualifiedObjectId=old-repo," + older +
                     "\nchangetype: add\nobjectClass: top\nobjectClass: organizationalUnit\n"
                     "objectClass: orvApplicationRepository\nou: old-repo\norvFullyQualifiedObjectId: old-repo\n"
                     "orvApplicationRepositoryId: REPO-OLD\n\n"
                     "dn: orvFullyQualifiedObjectId=old-1,orvFullyQualifiedObjectId=old-repo," + older +
                     "\nchangetype: add\nobjectClass: top\nobjectClass: orvExternalObject\n"
                     "orvFullyQualifiedObjectId: old-1\norvExternalObjectURN: urn:morvane:REPO-OLD:1\n"
                     "orvExternalRelationshipId: rel-1\norvExternalRelationshipEndId: A\n\n"
                     "dn: orvFullyQualifiedObjectId=old-2,orvFullyQualifiedObjectId=old-repo," + older +
                     "\nchangetype: add\nobjectClass: top\nobjectClass: orvExternalObject\n"
                     "orvFullyQualifiedObjectId: old-2\n");
    char** urns = orvlib_search_external_relationship_on_repository_id(ld(), cs("REPO-OLD"));
    ASSERT_NE(urns, nullptr);
    EXPECT_STREQ(urns[0], "urn:morvane:REPO-OLD:1");
    EXPECT_EQ(urns[1], nullptr);  // the object without URN leaves no gap
    orvlib_free_values(urns);
    // Repositories of the current layout are not looked for there.
    char* uuid = nullptr;
    ASSERT_EQ(create_external_object(orv_ld, "urn:morvane:REPO-CUR:1", "c", "d", &uuid), 0);
    orvlib_memfree(uuid);
    EXPECT_EQ(orvlib_search_external_relationship_on_repository_id(ld(), cs("REPO-CUR")), nullptr);
    EXPECT_EQ(orvlib_search_external_relationship_on_repository_id(ld(), cs("*")), nullptr);

    LDAPMessage* res = nullptr;
    ASSERT_EQ(search_on_relationshipId(orv_ld, "rel-1", &res), 0);
    LDAPMessage* e = ldap_first_entry(orv_ld, res);
    ASSERT_NE(e, nullptr);
    char** end_ids = getAttributeValue(orv_ld, e, "ORVEXTERNALRELATIONSHIPENDID");
    ASSERT_NE(end_ids, nullptr);
    EXPECT_STREQ(end_ids[0], "A");
    orvlib_free_values(end_ids);
    EXPECT_EQ(getAttributeValue(orv_ld, e, "orvExternalObjectURN"), nullptr);  // not asked for
    ldap_msgfree(res);
    ASSERT_EQ(search_on_objectURN(orv_ld, "urn:morvane:REPO-OLD:1", &res), 0);
    EXPECT_EQ(ldap_count_entries(orv_ld, res), 1);
    ldap_msgfree(res);
}

TEST_F(RelationshipTest, UrlJoinsTheMiniApplicationConfiguration) {
    char* url = orvlib_get_url(ld(), 6001);
    ASSERT_NE(url, nullptr) << ldapErrCode;
    EXPECT_STREQ(url, "http://127.0.0.1:8080/?view=start");
    orvlib_memfree(url);

    const std::string config = "cn=MiniAppConfiguration," + under("ou=Config");
    ASSERT_EQ(root_.set(config, "pexProtocol", "P"), 0);
    ASSERT_EQ(root_.set(config, "orvHostName", "H"), 0);
    ASSERT_EQ(root_.set(config, "orvPortNumber", "N"), 0);
    ASSERT_EQ(root_.set(config, "pexInitialQueryString", "Q"), 0);
    url = orvlib_get_url(ld(), 6001);
    ASSERT_NE(url, nullptr);
    EXPECT_STREQ(url, "P://H:N/Q");
    orvlib_memfree(url);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_get_url(ld(), 6002), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    // An incomplete configuration gives no URL.
    ASSERT_EQ(root_.set(config, "orvPortNumber", ""), 0);
    EXPECT_EQ(orvlib_get_url(ld(), 6001), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    ASSERT_EQ(root_.set(config, "orvPortNumber", "8080"), 0);
}

// ------------------------------------------------------------------ NULL and nonsense

TEST_F(RelationshipTest, NullAndNonsenseArgumentsAnswerTheirStatusOnALiveSession) {
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_create_end_type_object(ld(), nullptr, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(orvlib_create_relationship_type(ld(), nullptr, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(orvlib_search_relationship_types(ld(), nullptr, nullptr, nullptr), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_remove_relationship_type(ld(), nullptr), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_modify_end_rule(ld(), nullptr, 0, nullptr, 0), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_create_external_relationship(ld(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                  nullptr, nullptr),
              nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNKNOWN_ERROR);
    EXPECT_EQ(orvlib_search_external_relationship(ld(), nullptr, nullptr, nullptr, 0), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_search_external_relationship(ld(), nullptr, nullptr, nullptr, -5), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_remove_external_relationship(ld(), cs(""), 0), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_search_external_relationship_on_repository_id(ld(), nullptr), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    ORVLibEntry* e = reinterpret_cast<ORVLibEntry*>(0x1);
    EXPECT_EQ(orvlib_first_er_entry(ld(), &e, nullptr), nullptr);
    EXPECT_EQ(e, nullptr);
    EXPECT_EQ(orvlib_next_er_entry(ld(), &e, nullptr), nullptr);
    EXPECT_EQ(orvlib_first_er_entry(ld(), nullptr, nullptr), nullptr);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_get_entry_er_vals(ld(), nullptr, 100), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_get_url(ld(), -1), nullptr);

    // Every relationship searched with no restriction, then walked.
    LDAPMessage* res = nullptr;
    EXPECT_EQ(orvlib_search_external_relationship(ld(), nullptr, nullptr, &res, 1), 0);
    walk(res, 127);
    orvlib_orvmessage_free(res);
    // An empty URN list makes the alternative list "(|)", which 389 DS
    // refuses.
    char* empty[] = {nullptr};
    EXPECT_EQ(orvlib_search_external_relationship(ld(), empty, nullptr, &res, 1), LDAP_PROTOCOL_ERROR);
    EXPECT_TRUE(walk(res, 22).empty());
    orvlib_orvmessage_free(res);
}

}  // namespace
