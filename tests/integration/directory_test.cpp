// The test directory as a plain LDAP client sees it: the library's
// administrator may read and write every kind of entry the library uses,
// users may change their own password only, 389 DS's password policy
// answers the password policy control, large directories are searched
// without limits, and the scenarios carry their parameters.
#include <ldap.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "testbed.hpp"

using orv::testbed::Directory;
using orv::testbed::Environment;
using orv::testbed::Options;

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone").without_plugin());

namespace {

using Attrs = std::vector<std::pair<std::string, std::vector<std::string>>>;

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

struct Entry {
  std::string dn;
  std::map<std::string, std::vector<std::string>> attrs;  // keys in lower case
  std::vector<std::string> values(const std::string& name) const {
    auto it = attrs.find(lower(name));
    return it == attrs.end() ? std::vector<std::string>{} : it->second;
  }
  std::string first(const std::string& name) const {
    auto v = values(name);
    return v.empty() ? "" : v.front();
  }
};

struct PolicyResponse {
  bool present = false;
  int expire = -1;  // seconds before expiration, -1 when not sent
  int grace = -1;
  LDAPPasswordPolicyError error = PP_noError;
};

// A synchronous libldap connection.
class Conn {
 public:
  explicit Conn(const std::string& uri) {
    if (ldap_initialize(&ld_, uri.c_str()) != LDAP_SUCCESS) ld_ = nullptr;
    int version = LDAP_VERSION3;
    if (ld_ != nullptr) ldap_set_option(ld_, LDAP_OPT_PROTOCOL_VERSION, &version);
  }
  ~Conn() {
    if (ld_ != nullptr) ldap_unbind_ext_s(ld_, nullptr, nullptr);
  }
  Conn(const Conn&) = delete;
  Conn& operator=(const Conn&) = delete;

  // Simple bind, asking for the password policy response when pp is given.
  int bind(const std::string& dn, const std::string& pw, PolicyResponse* pp = nullptr) {
    diagnostic_.clear();
    berval cred{static_cast<ber_len_t>(pw.size()), const_cast<char*>(pw.data())};
    LDAPControl* req = nullptr;
    LDAPControl* sctrls[2] = {nullptr, nullptr};
    if (pp != nullptr) {
      if (ldap_create_passwordpolicy_control(ld_, &req) != LDAP_SUCCESS) return -1;
      sctrls[0] = req;
    }
    int msgid = 0;
    int rc = ldap_sasl_bind(ld_, dn.c_str(), LDAP_SASL_SIMPLE, &cred, sctrls, nullptr, &msgid);
    if (req != nullptr) ldap_control_free(req);
    if (rc != LDAP_SUCCESS) return rc;
    LDAPMessage* res = nullptr;
    if (ldap_result(ld_, msgid, LDAP_MSG_ALL, nullptr, &res) <= 0) return -1;
    int result = -1;
    char* diag = nullptr;
    LDAPControl** ctrls = nullptr;
    rc = ldap_parse_result(ld_, res, &result, nullptr, &diag, nullptr, &ctrls, 1);
    if (diag != nullptr) {
      diagnostic_ = diag;
      ldap_memfree(diag);
    }
    if (rc != LDAP_SUCCESS) return rc;
    if (pp != nullptr && ctrls != nullptr) {
      LDAPControl* resp = ldap_control_find(LDAP_CONTROL_PASSWORDPOLICYRESPONSE, ctrls, nullptr);
      if (resp != nullptr) {
        ber_int_t expire = -1, grace = -1;
        LDAPPasswordPolicyError err = PP_noError;
        if (ldap_parse_passwordpolicy_control(ld_, resp, &expire, &grace, &err) == LDAP_SUCCESS) {
          pp->present = true;
          pp->expire = expire;
          pp->grace = grace;
          pp->error = err;
        }
      }
    }
    ldap_controls_free(ctrls);
    return result;
  }

  int search(const std::string& base, int scope, const std::string& filter, const std::vector<std::string>& attrs,
             std::vector<Entry>* out) {
    std::vector<char*> a;
    for (const auto& s : attrs) a.push_back(const_cast<char*>(s.c_str()));
    a.push_back(nullptr);
    LDAPMessage* res = nullptr;
    int rc = ldap_search_ext_s(ld_, base.c_str(), scope, filter.c_str(), attrs.empty() ? nullptr : a.data(), 0,
                               nullptr, nullptr, nullptr, LDAP_NO_LIMIT, &res);
    collect(res, out);
    ldap_msgfree(res);
    return rc;
  }

  // Paged search: all entries over pages of page_size; pages counts them.
  int search_paged(const std::string& base, const std::string& filter, int page_size, size_t* entries, int* pages) {
    *entries = 0;
    *pages = 0;
    berval* cookie = nullptr;
    char* no_attrs[] = {const_cast<char*>(LDAP_NO_ATTRS), nullptr};
    int result = LDAP_SUCCESS;
    do {
      LDAPControl* page = nullptr;
      int rc = ldap_create_page_control(ld_, page_size, cookie, 0, &page);
      ber_bvfree(cookie);
      cookie = nullptr;
      if (rc != LDAP_SUCCESS) return rc;
      LDAPControl* sctrls[] = {page, nullptr};
      LDAPMessage* res = nullptr;
      rc = ldap_search_ext_s(ld_, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), no_attrs, 0, sctrls, nullptr,
                             nullptr, LDAP_NO_LIMIT, &res);
      ldap_control_free(page);
      if (rc != LDAP_SUCCESS) {
        ldap_msgfree(res);
        return rc;
      }
      *entries += static_cast<size_t>(ldap_count_entries(ld_, res));
      ++*pages;
      LDAPControl** ctrls = nullptr;
      ldap_parse_result(ld_, res, &result, nullptr, nullptr, nullptr, &ctrls, 1);
      LDAPControl* resp = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, ctrls, nullptr);
      ber_int_t estimate = 0;
      berval next{0, nullptr};
      if (resp != nullptr && ldap_parse_pageresponse_control(ld_, resp, &estimate, &next) == LDAP_SUCCESS &&
          next.bv_len > 0) {
        cookie = ber_bvdup(&next);
      }
      ber_memfree(next.bv_val);
      ldap_controls_free(ctrls);
    } while (cookie != nullptr && *pages < 1000);
    return result;
  }

  int add(const std::string& dn, const Attrs& attrs) { return write(dn, attrs, LDAP_MOD_ADD, true); }
  int modify(const std::string& dn, int op, const std::string& attr, const std::vector<std::string>& vals) {
    return write(dn, {{attr, vals}}, op, false);
  }
  int remove(const std::string& dn) { return ldap_delete_ext_s(ld_, dn.c_str(), nullptr, nullptr); }

  std::string diagnostic() {
    if (!diagnostic_.empty()) return diagnostic_;
    char* msg = nullptr;
    ldap_get_option(ld_, LDAP_OPT_DIAGNOSTIC_MESSAGE, &msg);
    std::string s = msg != nullptr ? msg : "";
    ldap_memfree(msg);
    return s;
  }

 private:
  int write(const std::string& dn, const Attrs& attrs, int op, bool add) {
    diagnostic_.clear();
    std::vector<LDAPMod> mods(attrs.size());
    std::vector<std::vector<char*>> vals(attrs.size());
    std::vector<LDAPMod*> ptrs;
    for (size_t i = 0; i < attrs.size(); ++i) {
      for (const auto& v : attrs[i].second) vals[i].push_back(const_cast<char*>(v.c_str()));
      vals[i].push_back(nullptr);
      mods[i].mod_op = op;
      mods[i].mod_type = const_cast<char*>(attrs[i].first.c_str());
      mods[i].mod_values = vals[i].data();
      ptrs.push_back(&mods[i]);
    }
    ptrs.push_back(nullptr);
    return add ? ldap_add_ext_s(ld_, dn.c_str(), ptrs.data(), nullptr, nullptr)
               : ldap_modify_ext_s(ld_, dn.c_str(), ptrs.data(), nullptr, nullptr);
  }

  void collect(LDAPMessage* res, std::vector<Entry>* out) {
    if (out == nullptr || res == nullptr) return;
    for (LDAPMessage* e = ldap_first_entry(ld_, res); e != nullptr; e = ldap_next_entry(ld_, e)) {
      Entry entry;
      char* dn = ldap_get_dn(ld_, e);
      entry.dn = dn != nullptr ? dn : "";
      ldap_memfree(dn);
      BerElement* ber = nullptr;
      for (char* a = ldap_first_attribute(ld_, e, &ber); a != nullptr; a = ldap_next_attribute(ld_, e, ber)) {
        berval** bv = ldap_get_values_len(ld_, e, a);
        auto& list = entry.attrs[lower(a)];
        for (int i = 0; bv != nullptr && bv[i] != nullptr; ++i) list.emplace_back(bv[i]->bv_val, bv[i]->bv_len);
        ldap_value_free_len(bv);
        ldap_memfree(a);
      }
      ber_free(ber, 0);
      out->push_back(std::move(entry));
    }
  }

  LDAP* ld_ = nullptr;
  std::string diagnostic_;
};

class DirectoryTest : public ::testing::Test {
 protected:
  Directory& dir() { return Environment::directory(); }
  std::string suffix() { return dir().suffix(); }
  std::string people() { return "ou=People," + suffix(); }

  // Brings the scenario in place unless the directory already holds it.
  void use(const std::string& scenario, const std::map<std::string, std::string>& params = {}) {
    std::string key = scenario;
    for (const auto& [k, v] : params) key += "|" + k + "=" + v;
    if (key != current_) {
      dir().reseed(scenario, params);
      current_ = key;
    }
  }
  // Marks the data as changed so that the next use() reseeds.
  static void dirty() { current_ = "dirty"; }

  std::unique_ptr<Conn> admin() {
    auto c = std::make_unique<Conn>(dir().uri());
    EXPECT_EQ(LDAP_SUCCESS, c->bind(dir().admin_dn(), dir().admin_pw())) << "orvadmin bind";
    return c;
  }

  Entry read(Conn& c, const std::string& dn, const std::vector<std::string>& attrs = {}) {
    std::vector<Entry> out;
    int rc = c.search(dn, LDAP_SCOPE_BASE, "(objectClass=*)", attrs, &out);
    EXPECT_EQ(LDAP_SUCCESS, rc) << dn;
    return out.empty() ? Entry{} : out.front();
  }

  static std::string current_;
};

std::string DirectoryTest::current_ = "standalone";

// ------------------------------------------------------------------ scenario

TEST_F(DirectoryTest, StandaloneScenarioCarriesConfigurationAndData) {
  use("standalone");
  auto c = admin();

  std::vector<Entry> cfg;
  ASSERT_EQ(LDAP_SUCCESS, c->search(suffix(), LDAP_SCOPE_SUBTREE, "(cn=ORVConfigurationSettings)",
                                    {"orvoperationmode", "orvInstanceId", "orvIsRadiusServerConfigured",
                                     "orvSystemDefaultDomainName", "orvTrustedOSAuth", "orvSecondayCacheSize"},
                                    &cfg));
  ASSERT_EQ(1u, cfg.size());
  EXPECT_EQ("0", cfg[0].first("orvoperationmode"));
  EXPECT_EQ(dir().param("instance_id"), cfg[0].first("orvInstanceId"));
  EXPECT_EQ("0", cfg[0].first("orvIsRadiusServerConfigured"));
  EXPECT_EQ("ORVTEST", cfg[0].first("orvSystemDefaultDomainName"));
  EXPECT_EQ("0", cfg[0].first("orvTrustedOSAuth"));
  EXPECT_EQ("2000000", cfg[0].first("orvSecondayCacheSize"));

  std::vector<Entry> ver;
  ASSERT_EQ(LDAP_SUCCESS, c->search("cn=Version Number," + suffix(), LDAP_SCOPE_BASE,
                                    "(objectclass=morvaneDirectoryVersion)", {"kxslibrarycompatibleversion"}, &ver));
  ASSERT_EQ(1u, ver.size());
  EXPECT_EQ("6.0.0.1", ver[0].first("kxslibrarycompatibleversion"));

  // The library's own password rules, with the attribute names it asks for.
  std::vector<Entry> pol;
  ASSERT_EQ(LDAP_SUCCESS, c->search("cn=Password Policy," + suffix(), LDAP_SCOPE_BASE,
                                    "objectclass=orvPasswordPolicy",
                                    {"pwdchecksyntax", "orvpasswordmaxrepeatedchars", "orvpasswordmindiffchars",
                                     "orvpasswordminnumbers", "orvpasswordminsymbols"},
                                    &pol));
  ASSERT_EQ(1u, pol.size());
  EXPECT_EQ("1", pol[0].first("pwdchecksyntax"));
  EXPECT_EQ("3", pol[0].first("orvpasswordmaxrepeatedchars"));
  std::vector<Entry> srv;
  ASSERT_EQ(LDAP_SUCCESS, c->search("cn=ORVPasswordPolicy,cn=nuvpolicies", LDAP_SCOPE_SUBTREE,
                                    "objectclass=pwdPolicy",
                                    {"pwdMinLength", "pwdInHistory", "pwdMaxFailure", "pwdLockoutDuration",
                                     "pwdlockout"},
                                    &srv));
  ASSERT_EQ(1u, srv.size());
  EXPECT_EQ("6", srv[0].first("pwdMinLength"));
  EXPECT_EQ("3", srv[0].first("pwdInHistory"));

  // The inactive user is found exactly as the library looks for it.
  std::vector<Entry> roles;
  ASSERT_EQ(LDAP_SUCCESS,
            c->search(suffix(), LDAP_SCOPE_SUBTREE,
                      "(&(objectclass=morvaneRole)(cn=Inactive User)(member=" + dir().user_dn("dave") + "))", {},
                      &roles));
  EXPECT_EQ(1u, roles.size());
  roles.clear();
  ASSERT_EQ(LDAP_SUCCESS,
            c->search(suffix(), LDAP_SCOPE_SUBTREE,
                      "(&(objectclass=morvaneRole)(cn=Inactive User)(member=" + dir().user_dn("alice") + "))", {},
                      &roles));
  EXPECT_EQ(0u, roles.size()) << "alice must not be inactive";

  // alice holds the database access role, which names the database.
  std::vector<Entry> access;
  ASSERT_EQ(LDAP_SUCCESS, c->search(suffix(), LDAP_SCOPE_SUBTREE,
                                    "(&(objectclass=morvaneRole)(member=" + dir().user_dn("alice") + "))", {},
                                    &access));
  ASSERT_EQ(1u, access.size());
  std::vector<Entry> acc_role;
  ASSERT_EQ(LDAP_SUCCESS, c->search(access[0].dn, LDAP_SCOPE_SUBTREE, "(&(objectclass=accessrole)(objectclass=morvanerole))",
                                    {"orvZorlaDatabaseId"}, &acc_role));
  ASSERT_EQ(1u, acc_role.size());
  std::string db_id = acc_role[0].first("orvZorlaDatabaseId");
  ASSERT_FALSE(db_id.empty());
  Entry db = read(*c, "orvZORLADatabaseId=" + db_id +
                          ",ou=Databases,ou=Application Data,ou=Morvane Zorla,ou=Applications," + suffix(),
                  {"orvRadius2FactorAuthenticationRequired", "orvSystemLogin2FactorAuthenticationRequired"});
  EXPECT_EQ("0", db.first("orvRadius2FactorAuthenticationRequired"));

  // Local groups as the library's class filter finds them.
  std::vector<Entry> groups;
  ASSERT_EQ(LDAP_SUCCESS, c->search(suffix(), LDAP_SCOPE_SUBTREE,
                                    "(& (!(orvCorporateDN=*))(|(objectClass=group)(objectClass=groupOfUniqueNames)"
                                    "(objectClass=groupOfNames)))",
                                    {"cn", "uniquemember"}, &groups));
  EXPECT_EQ(4u, groups.size());

  // Users and their library attributes; the reset user and the user who may
  // not change the password are marked.
  Entry erin = read(*c, dir().user_dn("erin"), {"orvPasswordMustChange", "orvChangePassword"});
  EXPECT_EQ("on", erin.first("orvPasswordMustChange"));
  Entry frank = read(*c, dir().user_dn("frank"), {"orvChangePassword"});
  EXPECT_EQ("off", frank.first("orvChangePassword"));
  std::vector<Entry> people_list;
  ASSERT_EQ(LDAP_SUCCESS, c->search(people(), LDAP_SCOPE_SUBTREE, "(objectClass=person)", {"uid"}, &people_list));
  EXPECT_EQ(10u, people_list.size());  // nine users and orvadmin

  // No partition and no RADIUS server in standalone mode.
  std::vector<Entry> none;
  ASSERT_EQ(LDAP_SUCCESS, c->search("ou=Partitions,ou=Corporate,ou=Config," + suffix(), LDAP_SCOPE_SUBTREE,
                                    "(objectclass=orvpartition)", {}, &none));
  EXPECT_TRUE(none.empty());
}

// ------------------------------------------------------------------ access

TEST_F(DirectoryTest, AdminReadsAndWritesEveryEntryKind) {
  use("standalone");
  dirty();
  auto c = admin();
  const std::string s = suffix();
  const std::string db_base = "ou=Databases,ou=Application Data,ou=Morvane Zorla,ou=Applications," + s;
  const std::string reg = "ou=Application Registry," + s;
  const std::string objs = "ou=ExternalRelationshipObjects," + s;

  // Entries written the way the library writes them; each add proves the
  // schema and the administrator's rights for that kind.
  struct Add {
    std::string dn;
    Attrs attrs;
  };
  std::vector<Add> adds = {
      {"uid=corp\\2Cuser,ou=People," + s,
       {{"cn", {"corp,user"}},
        {"sn", {""}},
        {"objectClass", {"top", "person", "organizationalperson", "inetorgperson", "morvanePerson"}},
        {"uid", {"corp,user"}},
        {"orvCorporateDN", {"uid=corpuser,ou=People,dc=corp,dc=test"}}}},
      {"cn=Corp Group,ou=Groups," + s,
       {{"objectClass", {"top", "groupOfUniqueNames", "morvaneGroup"}},
        {"cn", {"Corp Group"}},
        {"uniqueMember", {"uid=dummyMemberDN,ou=people," + s}},
        {"orvZORLAGroupId", {"g-1"}},
        {"orvCorporateDN", {"cn=Corp Group,ou=Groups,dc=corp,dc=test"}}}},
      {"orvZORLADatabaseId=db-1," + db_base,
       {{"objectclass", {"top", "organizationalUnit", "orvZORLADatabase"}},
        {"orvZORLADatabaseId", {"db-1"}},
        {"ou", {"salesdb"}},
        {"orvHostName", {"dbhost"}},
        {"orvPortNumber", {"1521"}}}},
      {"orvRoleId=role-1,ou=roles," + s,
       {{"objectclass", {"top", "accessRole", "morvanerole"}},
        {"cn", {"salesdb(1521@dbhost)"}},
        {"orvZORLADatabaseId", {"db-1"}},
        {"description", {"Database Access Role"}},
        {"orvRoleId", {"role-1"}}}},
      {"orvFullyQualifiedObjectId=srv-1," + reg,
       {{"orvKXSToolOID", {"1.2.3"}},
        {"orvFullyQualifiedObjectId", {"srv-1"}},
        {"objectClass", {"top", "organizationalUnit", "orvApplicationServer"}},
        {"ou", {"srv-1"}},
        {"orvExtendedKXSAttribute", {"db-1", "x-2"}}}},
      {"orvFullyQualifiedObjectId=fac-1,orvFullyQualifiedObjectId=srv-1," + reg,
       {{"orvBaseURL", {"http://h/app"}},
        {"orvFullyQualifiedObjectId", {"fac-1"}},
        {"objectClass", {"top", "orvApplicationServerFacility"}},
        {"orvApplicationServerFacilityStatus", {"active"}},
        {"orvApplicationServerFacilityType", {"web client"}}}},
      {"orvFullyQualifiedObjectId=end-1,ou=PEXEndTypes," + s,
       {{"objectclass", {"top", "pexEndTypeObject"}},
        {"orvFullyQualifiedObjectId", {"end-1"}},
        {"pexEndId", {"E1"}},
        {"pexEndRuleType", {"any"}},
        {"pexEndDescription", {"any object"}},
        {"pexEndRuleValue", {"EMPTY_STRING"}}}},
      {"orvFullyQualifiedObjectId=rt-1,ou=PEXRelationshipTypes," + s,
       {{"objectclass", {"top", "pexRelationshipTypeObject"}},
        {"orvFullyQualifiedObjectId", {"rt-1"}},
        {"pexRelationshipTypeName", {"depends on"}},
        {"pexEndIdA", {"E1"}},
        {"pexEndIdB", {"E1"}},
        {"pexRelationshipTypeId", {"RT1"}}}},
      {"orvFullyQualifiedObjectId=rep-1," + objs,
       {{"objectclass", {"top", "organizationalUnit", "orvApplicationRepository"}},
        {"orvFullyQualifiedObjectId", {"rep-1"}},
        {"ou", {"rep-1"}},
        {"orvApplicationRepositoryId", {"srv-1"}}}},
      {"orvFullyQualifiedObjectId=obj-1,orvFullyQualifiedObjectId=rep-1," + objs,
       {{"objectclass", {"top", "orvExternalObject"}},
        {"orvFullyQualifiedObjectId", {"obj-1"}},
        {"orvExternalObjectURN", {"urn:morvane:srv-1:obj-1"}},
        {"orvExternalObjectContext", {"ctx"}},
        {"orvExternalObjectDescription", {"object one"}}}},
      {"orvFullyQualifiedObjectId=rel-1,ou=PEXRelationships," + s,
       {{"objectclass", {"top", "pexRelationshipObject"}},
        {"orvFullyQualifiedObjectId", {"rel-1"}},
        {"pexRelationshipTypeId", {"RT1"}},
        {"pexExtObjectAUUID", {"obj-1"}},
        {"pexExtObjectBUUID", {"obj-1"}},
        {"pexRelationshipDescription", {"self"}},
        {"pexRelationshipMarkedForDelete", {"0"}},
        {"pexExtObjectAContext", {"ctx"}},
        {"pexExtObjectBContext", {"ctx"}},
        {"pexExtObjectAURN", {"urn:morvane:srv-1:obj-1"}},
        {"pexExtObjectBURN", {"urn:morvane:srv-1:obj-1"}},
        {"pexExtObjectARepId", {"srv-1"}},
        {"pexExtObjectBRepId", {"srv-1"}}}},
      {"orvWindowsUserSID=S-1-5-21-9,ou=Windows User System Information," + s,
       {{"objectclass", {"top", "orvWindowsUserInformation"}},
        {"orvWindowsUserSID", {"S-1-5-21-9"}},
        {"orvWindowsUserSystemName", {"bob"}},
        {"orvWindowsUserDomainName", {"ORVTEST"}},
        {"orvZORLAUserId", {"u-bob"}}}},
  };
  for (const auto& a : adds) EXPECT_EQ(LDAP_SUCCESS, c->add(a.dn, a.attrs)) << a.dn << ": " << c->diagnostic();

  // Modifications of the kinds the library makes.
  EXPECT_EQ(LDAP_SUCCESS, c->modify("orvFullyQualifiedObjectId=rt-1,ou=PEXRelationshipTypes," + s, LDAP_MOD_ADD,
                                    "pexEndARuleValues", {"EMPTY_STRING"}));
  EXPECT_EQ(LDAP_SUCCESS, c->modify("orvFullyQualifiedObjectId=rel-1,ou=PEXRelationships," + s, LDAP_MOD_REPLACE,
                                    "pexRelationshipMarkedForDelete", {"1"}));
  EXPECT_EQ(LDAP_SUCCESS, c->modify("orvFullyQualifiedObjectId=obj-1,orvFullyQualifiedObjectId=rep-1," + objs,
                                    LDAP_MOD_ADD, "orvExternalRelationshipId", {"rel-1"}));
  EXPECT_EQ(LDAP_SUCCESS, c->modify(dir().user_dn("bob"), LDAP_MOD_REPLACE, "orvUserState", {"inactive"}));
  EXPECT_EQ(LDAP_SUCCESS, c->modify(dir().user_dn("erin"), LDAP_MOD_REPLACE, "orvPasswordMustChange", {"off"}));
  EXPECT_EQ(LDAP_SUCCESS, c->modify("cn=ORVConfigurationSettings," + s, LDAP_MOD_REPLACE, "orvInstanceIsMigrated",
                                    {"1"}));
  // Another user's password, under the server's password rules.
  EXPECT_EQ(LDAP_SUCCESS, c->modify(dir().user_dn("carol"), LDAP_MOD_REPLACE, "userPassword", {"Changed1!"}));
  EXPECT_EQ(LDAP_CONSTRAINT_VIOLATION, c->modify(dir().user_dn("carol"), LDAP_MOD_REPLACE, "userPassword", {"ab1"}));

  // Everything reads back, operational attributes included.
  Entry rel = read(*c, "orvFullyQualifiedObjectId=rel-1,ou=PEXRelationships," + s,
                   {"pexRelationshipMarkedForDelete", "entrydn", "objectclass"});
  EXPECT_EQ("1", rel.first("pexRelationshipMarkedForDelete"));
  EXPECT_EQ(lower("orvFullyQualifiedObjectId=rel-1,ou=PEXRelationships," + s), lower(rel.first("entrydn")));
  Entry srvr = read(*c, "orvFullyQualifiedObjectId=srv-1," + reg, {"orvExtendedKXSAttribute"});
  EXPECT_EQ((std::vector<std::string>{"db-1", "x-2"}), srvr.values("orvExtendedKXSAttribute"));
  Entry corp = read(*c, "uid=corp\\2Cuser,ou=People," + s, {"sn", "orvCorporateDN"});
  EXPECT_EQ("uid=corpuser,ou=People,dc=corp,dc=test", corp.first("orvCorporateDN"));
  std::vector<Entry> mirrored;
  ASSERT_EQ(LDAP_SUCCESS, c->search(people(), LDAP_SCOPE_SUBTREE,
                                    "(&(objectclass=morvaneperson)(orvCorporateDN=uid=corpuser,ou=People,dc=corp,dc=test))",
                                    {"uid"}, &mirrored));
  EXPECT_EQ(1u, mirrored.size());

  // And goes again, children first.
  for (auto it = adds.rbegin(); it != adds.rend(); ++it)
    EXPECT_EQ(LDAP_SUCCESS, c->remove(it->dn)) << it->dn << ": " << c->diagnostic();
}

TEST_F(DirectoryTest, UserChangesOwnPasswordButNothingElse) {
  use("standalone");
  dirty();
  const std::string alice = dir().user_dn("alice");
  const std::string bob = dir().user_dn("bob");
  const std::string pw = dir().user_pw();

  Conn c(dir().uri());
  ASSERT_EQ(LDAP_SUCCESS, c.bind(alice, pw));
  // Own entry readable, others not (a search that finds nothing, not an error).
  std::vector<Entry> found;
  ASSERT_EQ(LDAP_SUCCESS, c.search(people(), LDAP_SCOPE_SUBTREE, "(uid=*)", {"uid"}, &found));
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ("alice", found[0].first("uid"));
  EXPECT_EQ(LDAP_INSUFFICIENT_ACCESS, c.modify(bob, LDAP_MOD_REPLACE, "userPassword", {"Hijack123!"}));
  EXPECT_EQ(LDAP_INSUFFICIENT_ACCESS, c.modify(alice, LDAP_MOD_REPLACE, "orvChangePassword", {"off"}));

  // Own password: allowed; the server's length and history rules apply and
  // name themselves in the diagnostic text.
  EXPECT_EQ(LDAP_CONSTRAINT_VIOLATION, c.modify(alice, LDAP_MOD_REPLACE, "userPassword", {"ab1"}));
  EXPECT_NE(std::string::npos, c.diagnostic().find("at least 6 characters")) << c.diagnostic();
  ASSERT_EQ(LDAP_SUCCESS, c.modify(alice, LDAP_MOD_REPLACE, "userPassword", {"NewAlice77"}));
  // 389 DS stamps history entries by the second and misses a password
  // changed back within the same second or the next one.
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  EXPECT_EQ(LDAP_CONSTRAINT_VIOLATION, c.modify(alice, LDAP_MOD_REPLACE, "userPassword", {pw}));
  EXPECT_NE(std::string::npos, c.diagnostic().find("history")) << c.diagnostic();

  Conn again(dir().uri());
  EXPECT_EQ(LDAP_INVALID_CREDENTIALS, again.bind(alice, pw));
  EXPECT_EQ(LDAP_SUCCESS, again.bind(alice, "NewAlice77"));
  Conn other(dir().uri());
  EXPECT_EQ(LDAP_SUCCESS, other.bind(bob, pw)) << "bob's password must be untouched";

  // Tests may put data back as the root DN.
  dir().apply_ldif("dn: " + alice + "\nchangetype: modify\nreplace: userPassword\nuserPassword: " + pw + "\n");
  Conn restored(dir().uri());
  EXPECT_EQ(LDAP_SUCCESS, restored.bind(alice, pw));
}

TEST_F(DirectoryTest, AnonymousClientsReadOnlyTheVersionEntry) {
  use("standalone");
  // Clients check the server version before they bind.
  Conn anon(dir().uri());
  std::vector<Entry> found;
  ASSERT_EQ(LDAP_SUCCESS, anon.search("cn=Version Number," + suffix(), LDAP_SCOPE_BASE,
                                      "(objectclass=morvaneDirectoryVersion)", {"kxslibrarycompatibleversion"},
                                      &found));
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ("6.0.0.1", found[0].first("kxslibrarycompatibleversion"));
  found.clear();
  ASSERT_EQ(LDAP_SUCCESS, anon.search(suffix(), LDAP_SCOPE_SUBTREE, "(objectClass=*)", {}, &found));
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(lower("cn=Version Number," + suffix()), lower(found[0].dn));
  EXPECT_TRUE(found[0].values("userPassword").empty());

  // An ordinary user sees no configuration either.
  Conn bob(dir().uri());
  ASSERT_EQ(LDAP_SUCCESS, bob.bind(dir().user_dn("bob"), dir().user_pw()));
  found.clear();
  ASSERT_EQ(LDAP_SUCCESS, bob.search(suffix(), LDAP_SCOPE_SUBTREE, "(cn=ORVConfigurationSettings)", {}, &found));
  EXPECT_TRUE(found.empty());
}

// ------------------------------------------------------------------ password policy

TEST_F(DirectoryTest, PasswordPolicyReportsExpiredAccount) {
  use("standalone");
  Conn c(dir().uri());
  PolicyResponse pp;
  EXPECT_EQ(LDAP_INVALID_CREDENTIALS, c.bind(dir().user_dn("ppexpired"), dir().user_pw(), &pp));
  ASSERT_TRUE(pp.present);
  EXPECT_EQ(PP_passwordExpired, pp.error);

  // Any user can be expired with LDIF: reference an expiring policy and put
  // the expiration time in the past.
  dirty();
  const std::string bob = dir().user_dn("bob");
  dir().apply_ldif("dn: " + bob + "\nchangetype: modify\nreplace: pwdpolicysubentry\npwdpolicysubentry: cn=ppexpired-policy,cn=nsPwPolicyContainer," +
                   people() + "\n-\nreplace: passwordExpirationTime\npasswordExpirationTime: 20010101000000Z\n");
  PolicyResponse pp2;
  Conn c2(dir().uri());
  EXPECT_EQ(LDAP_INVALID_CREDENTIALS, c2.bind(bob, dir().user_pw(), &pp2));
  EXPECT_TRUE(pp2.present);
  EXPECT_EQ(PP_passwordExpired, pp2.error);
}

TEST_F(DirectoryTest, PasswordPolicyLocksAfterTwoFailures) {
  use("standalone");
  dirty();
  const std::string dn = dir().user_dn("pplocked");
  for (int i = 0; i < 2; ++i) {
    Conn c(dir().uri());
    EXPECT_EQ(LDAP_INVALID_CREDENTIALS, c.bind(dn, "wrong-password"));
  }
  Conn c(dir().uri());
  PolicyResponse pp;
  EXPECT_EQ(LDAP_CONSTRAINT_VIOLATION, c.bind(dn, dir().user_pw(), &pp));
  ASSERT_TRUE(pp.present);
  EXPECT_EQ(PP_accountLocked, pp.error);

  // The root DN unlocks the account.
  dir().apply_ldif("dn: " + dn + "\nchangetype: modify\nreplace: passwordRetryCount\npasswordRetryCount: 0\n-\n"
                   "delete: accountUnlockTime\n");
  Conn after(dir().uri());
  EXPECT_EQ(LDAP_SUCCESS, after.bind(dn, dir().user_pw()));
}

TEST_F(DirectoryTest, PasswordPolicyWarnsBeforeExpiry) {
  use("standalone");
  // The seeded password has five days left, inside the warning period;
  // every good bind reports the time left.
  for (int i = 0; i < 2; ++i) {
    Conn c(dir().uri());
    PolicyResponse pp;
    EXPECT_EQ(LDAP_SUCCESS, c.bind(dir().user_dn("ppwarning"), dir().user_pw(), &pp));
    ASSERT_TRUE(pp.present);
    EXPECT_EQ(PP_noError, pp.error);
    EXPECT_GT(pp.expire, 4 * 86400);
    EXPECT_LE(pp.expire, 5 * 86400);
  }

  // An ordinary user gets no warning.
  Conn plain(dir().uri());
  PolicyResponse none;
  EXPECT_EQ(LDAP_SUCCESS, plain.bind(dir().user_dn("carol"), dir().user_pw(), &none));
  EXPECT_LE(none.expire, 0);
}

// ------------------------------------------------------------------ large directory

TEST_F(DirectoryTest, AdminSearchesLargeDirectoryWithoutLimits) {
  use("standalone-large");
  auto c = admin();
  std::vector<Entry> found;
  ASSERT_EQ(LDAP_SUCCESS, c->search(suffix(), LDAP_SCOPE_SUBTREE, "(cn=*User*)", {"uid"}, &found));
  size_t generated = static_cast<size_t>(std::count_if(found.begin(), found.end(), [](const Entry& e) {
    return e.first("uid").rfind("user", 0) == 0;
  }));
  EXPECT_EQ(5000u, generated);

  size_t entries = 0;
  int pages = 0;
  ASSERT_EQ(LDAP_SUCCESS, c->search_paged(people(), "(objectClass=person)", 500, &entries, &pages));
  EXPECT_EQ(5010u, entries);  // generated users, nine seeded users, orvadmin
  EXPECT_GE(pages, 11);

  // An ordinary user sees only itself, however large the directory.
  Conn user(dir().uri());
  ASSERT_EQ(LDAP_SUCCESS, user.bind(dir().user_dn("user00042"), dir().user_pw()));
  found.clear();
  int rc = user.search(suffix(), LDAP_SCOPE_SUBTREE, "(cn=*User*)", {"uid"}, &found);
  EXPECT_TRUE(rc == LDAP_SUCCESS || rc == LDAP_ADMINLIMIT_EXCEEDED) << rc;
  EXPECT_LE(found.size(), 1u);
}

// ------------------------------------------------------------------ scenarios

TEST_F(DirectoryTest, ScenarioParametersReachTheEntries) {
  for (const char* v : {"6.0.0.2", "5.9.9.9"}) {
    use("standalone", {{"compat_version", v}});
    auto c = admin();
    Entry ver = read(*c, "cn=Version Number," + suffix(), {"kxslibrarycompatibleversion", "orvversion"});
    EXPECT_EQ(v, ver.first("kxslibrarycompatibleversion"));
    EXPECT_EQ("6.0.0.1", ver.first("orvversion"));
  }

  use("osauth");
  {
    auto c = admin();
    Entry cfg = read(*c, "cn=ORVConfigurationSettings," + suffix(), {"orvoperationmode", "orvTrustedOSAuth"});
    EXPECT_EQ("2", cfg.first("orvoperationmode"));
    EXPECT_EQ("1", cfg.first("orvTrustedOSAuth"));
    std::string passdb;
    {
      std::ifstream f(dir().pam_passdb());
      std::stringstream ss;
      ss << f.rdbuf();
      passdb = ss.str();
    }
    EXPECT_NE(std::string::npos, passdb.find(dir().param("os_user") + ":" + dir().param("os_pw") + ":orv\n"));
    // The service checks passwords against that file (a step that counts
    // the PAM calls may come first).
    std::ifstream svc(dir().pam_dir() + "/orv");
    std::stringstream service;
    service << svc.rdbuf();
    EXPECT_NE(std::string::npos, service.str().find("pam_matrix.so passdb=" + dir().pam_passdb()))
        << service.str();
  }

  use("standalone");
}

TEST_F(DirectoryTest, RadiusScenarioDescribesARunningRadiusServer) {
  // The scenario writes the RADIUS accounts; the server is started on them
  // and its port goes into the directory.
  use("radius", {{"radius_secret", "s3cret"}});
  const std::string users = dir().info().str("radius_users_file");
  ASSERT_FALSE(users.empty());
  orv::testbed::Radius radius("s3cret", users);
  const std::string port = std::to_string(radius.port());
  use("radius", {{"radius_port", port}, {"radius_secret", "s3cret"}});

  auto c = admin();
  Entry cfg = read(*c, "cn=ORVConfigurationSettings," + suffix(), {"orvIsRadiusServerConfigured"});
  EXPECT_EQ("1", cfg.first("orvIsRadiusServerConfigured"));
  std::vector<Entry> rad;
  ASSERT_EQ(LDAP_SUCCESS, c->search("ou=RadiusConfiguration,ou=Config," + suffix(), LDAP_SCOPE_SUBTREE,
                                    "(objectclass=orvRadiusServerConfiguration )",
                                    {"orvRadiusServerHostName", "orvRadiusServerPortNumber",
                                     "orvRadiusServerSharedSecret"},
                                    &rad));
  ASSERT_EQ(1u, rad.size());
  EXPECT_EQ("127.0.0.1", rad[0].first("orvRadiusServerHostName"));
  EXPECT_EQ(port, rad[0].first("orvRadiusServerPortNumber"));
  // Stored enciphered when orvctl is built, in plain text otherwise.
  EXPECT_EQ(dir().param("radius_secret_stored"), rad[0].first("orvRadiusServerSharedSecret"));
  if (!orv::testbed::orvctl_path().empty()) {
    EXPECT_EQ("orvctl", dir().param("radius_secret_enciphered"));
    EXPECT_NE("s3cret", rad[0].first("orvRadiusServerSharedSecret"));
  } else {
    EXPECT_EQ("s3cret", rad[0].first("orvRadiusServerSharedSecret"));
  }
  Entry alice = read(*c, dir().user_dn("alice"), {"orvRadius2FactorAuthenticationRequired", "orvRadiusUserName"});
  EXPECT_EQ("1", alice.first("orvRadius2FactorAuthenticationRequired"));
  EXPECT_EQ("alice", alice.first("orvRadiusUserName"));

  // The accounts of the scenario are the RADIUS server's.
  auto accept = orv::testbed::run_program({"/usr/bin/radtest", "alice", "alice-otp", "127.0.0.1:" + port, "0", "s3cret"});
  EXPECT_NE(std::string::npos, accept.out.find("Access-Accept")) << accept.out << accept.err;
  auto reject = orv::testbed::run_program({"/usr/bin/radtest", "alice", "wrong-otp", "127.0.0.1:" + port, "0", "s3cret"});
  EXPECT_EQ(std::string::npos, reject.out.find("Access-Accept")) << reject.out;
  use("standalone");
}

TEST_F(DirectoryTest, CorporatePartitionPointsAtASecondInstance) {
  const std::string corp_suffix = "dc=corp,dc=test";
  std::string corp_workdir;
  int corp_pid = 0;
  {
    Directory corp(Options().with_scenario("corporate-directory").with_suffix(corp_suffix).without_plugin());
    corp_workdir = corp.workdir();
    corp_pid = corp.pid();
    ASSERT_NE(corp.port(), dir().port());
    ASSERT_NE(corp.name(), dir().name());

    use("corporate", {{"corp_host", corp.host()},
                      {"corp_port", std::to_string(corp.port())},
                      {"corp_suffix", corp_suffix},
                      {"corp_admin_dn", corp.admin_dn()},
                      {"corp_admin_pw", corp.admin_pw()}});
    auto c = admin();
    Entry cfg = read(*c, "cn=ORVConfigurationSettings," + suffix(), {"orvoperationmode"});
    EXPECT_EQ("1", cfg.first("orvoperationmode"));
    std::vector<Entry> parts;
    ASSERT_EQ(LDAP_SUCCESS,
              c->search("ou=Partitions,ou=Corporate,ou=Config," + suffix(), LDAP_SCOPE_SUBTREE,
                        "(objectclass=orvpartition)",
                        {"orvHostName", "orvPortNumber", "orvPartitionAdminDN", "orvPartitionAdminPassword",
                         "orvPrimarySearchBaseSuffix", "orvPartitionLogonAttribute", "pexPeopleSearchBaseSuffix",
                         "pexZorlaGroupForUsers"},
                        &parts));
    ASSERT_EQ(1u, parts.size());
    const Entry& p = parts[0];
    EXPECT_EQ(corp.host(), p.first("orvHostName"));
    EXPECT_EQ(std::to_string(corp.port()), p.first("orvPortNumber"));
    EXPECT_EQ(corp_suffix, p.first("orvPrimarySearchBaseSuffix"));
    EXPECT_EQ("uid", p.first("orvPartitionLogonAttribute"));
    if (!orv::testbed::orvctl_path().empty()) {
      EXPECT_NE(corp.admin_pw(), p.first("orvPartitionAdminPassword"));
    }

    // What the partition names works on the corporate server.
    Conn corp_admin(corp.uri());
    ASSERT_EQ(LDAP_SUCCESS, corp_admin.bind(p.first("orvPartitionAdminDN"), corp.admin_pw()));
    std::vector<Entry> users;
    ASSERT_EQ(LDAP_SUCCESS, corp_admin.search(p.first("pexPeopleSearchBaseSuffix"), LDAP_SCOPE_SUBTREE,
                                              "(&(objectclass=person)(uid=*))", {"uid", "sAMAccountName"}, &users));
    EXPECT_EQ(6u, users.size());  // five people and the administrator
    Entry meta = read(corp_admin, p.first("pexZorlaGroupForUsers"), {"member"});
    EXPECT_EQ(4u, meta.values("member").size());
    // A corporate user binds and reads the directory, as on a domain controller.
    Conn jsmith(corp.uri());
    ASSERT_EQ(LDAP_SUCCESS, jsmith.bind(corp.user_dn("jsmith"), corp.user_pw()));
    users.clear();
    ASSERT_EQ(LDAP_SUCCESS, jsmith.search(corp_suffix, LDAP_SCOPE_SUBTREE, "(sAMAccountName=mjones)", {"cn"}, &users));
    EXPECT_EQ(1u, users.size());
    // The corporate server holds no ORV configuration.
    users.clear();
    ASSERT_EQ(LDAP_SUCCESS, corp_admin.search(corp_suffix, LDAP_SCOPE_SUBTREE, "(cn=ORVConfigurationSettings)", {},
                                              &users));
    EXPECT_TRUE(users.empty());
  }
  // The second instance is gone with its object.
  EXPECT_FALSE(orv::testbed::process_running(corp_pid));
  struct stat st;
  EXPECT_NE(0, ::stat(corp_workdir.c_str(), &st));
  use("standalone");
}

}  // namespace
