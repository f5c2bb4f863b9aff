// Filter and DN utilities: string helpers, filter repair and building, DN
// recognition, account state.  Every test checks that each returned string
// was freed (the allocation counter is back where it started).

#include <gtest/gtest.h>

#include <cctype>
#include <climits>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "orvldap.h"
#include "orvldap_utils.h"

namespace {

const char* const kCorpGroupClass =
    "(|(objectClass=group)(objectClass=groupOfUniqueNames)(objectClass=groupOfNames))";
const char* const kLocalGroupClass =
    "(& (!(orvCorporateDN=*))(|(objectClass=group)(objectClass=groupOfUniqueNames)"
    "(objectClass=groupOfNames)))";
const char* const kPeopleClass = "(objectClass=person)";

// Returns the text of a library string and frees it.
std::string take(char* p) {
    EXPECT_NE(p, nullptr);
    std::string text = p != nullptr ? p : "<null>";
    orvlib_memfree(p);
    return text;
}

char* cs(const char* s) { return const_cast<char*>(s); }

class UtilsTest : public ::testing::Test {
protected:
    void SetUp() override {
        saved_mode_ = ORV_OPERATION_MODE;
        saved_partition_ = PARTITION_INFO;
        saved_tier2_ = TIER2_GROUP_SEARCH;
        saved_people_ = CORP_PEOPLE_SEARCH_BASE;
        saved_groups_ = CORP_GROUP_SEARCH_BASE;
        CORP_PEOPLE_SEARCH_BASE = nullptr;
        CORP_GROUP_SEARCH_BASE = nullptr;
        ORV_OPERATION_MODE = 0;
        TIER2_GROUP_SEARCH = 0;
        PARTITION_INFO = nullptr;

        partition_ = partition_info{};
        partition_.search_base = cs("DC=corp, DC=example");
        partition_.user_logon_attribute_name = cs("sAMAccountName");
        partition_.people_search_base_suffix = cs("OU=Staff,DC=corp,DC=example");
        partition_.group_search_base_suffix = cs("OU=Teams,DC=corp,DC=example");

        mem_start_ = _memCnt;
    }

    void TearDown() override {
        orvlib_memfree(CORP_PEOPLE_SEARCH_BASE);
        orvlib_memfree(CORP_GROUP_SEARCH_BASE);
        EXPECT_EQ(_memCnt, mem_start_) << "a returned string was not freed";
        ORV_OPERATION_MODE = saved_mode_;
        PARTITION_INFO = saved_partition_;
        TIER2_GROUP_SEARCH = saved_tier2_;
        CORP_PEOPLE_SEARCH_BASE = saved_people_;
        CORP_GROUP_SEARCH_BASE = saved_groups_;
    }

    void corporate(int base_type = 0) {
        ORV_OPERATION_MODE = 1;
        partition_.partition_search_base_type = base_type;
        PARTITION_INFO = &partition_;
    }

    std::string set_filter(const char* filter, int type) {
        char* out = nullptr;
        _setFilter(filter, type, &out);
        return take(out);
    }
    std::string set_filter_paging(const char* filter, int type) {
        char* out = nullptr;
        _setFilterPaging(filter, type, &out);
        return take(out);
    }

    partition_info partition_{};

private:
    int saved_mode_ = 0;
    partition_info* saved_partition_ = nullptr;
    int saved_tier2_ = 0;
    char* saved_people_ = nullptr;
    char* saved_groups_ = nullptr;
    int mem_start_ = 0;
};

TEST_F(UtilsTest, PlainStringHelpers) {
    EXPECT_EQ(strcmp_case_insensitive("uid", "UID"), 0);
    EXPECT_LT(strcmp_case_insensitive("abc", "ABD"), 0);
    EXPECT_GT(strcmp_case_insensitive("b", "A"), 0);
    EXPECT_EQ(strcmp_case_insensitive(nullptr, nullptr), 0);
    EXPECT_LT(strcmp_case_insensitive(nullptr, "a"), 0);
    EXPECT_GT(strcmp_case_insensitive("a", nullptr), 0);

    EXPECT_EQ(take(string_to_lower("CN=Jo Smith,DC=X")), "cn=jo smith,dc=x");
    EXPECT_EQ(take(stringToLower("MiXeD")), "mixed");
    EXPECT_EQ(take(stringToLower("")), "");
    EXPECT_EQ(stringToLower(nullptr), nullptr);
    EXPECT_EQ(string_to_lower(nullptr), nullptr);

    EXPECT_EQ(take(remove_spaces_from_string(" a b\tc  ")), "ab\tc");
    EXPECT_EQ(remove_spaces_from_string(nullptr), nullptr);

    EXPECT_EQ(contains_char("abc=d", '='), 4);
    EXPECT_EQ(contains_char("=a=", '='), 1);
    EXPECT_EQ(contains_char("abc", 'x'), 0);
    EXPECT_EQ(contains_char(nullptr, 'x'), 0);

    char buffer[8] = "zzzzzzz";
    int position = 0;
    add_char_at(buffer, 'a', &position);
    add_char_at(buffer, 'b', &position);
    EXPECT_STREQ(buffer, "ab");
    EXPECT_EQ(position, 2);
    add_char_at(nullptr, 'c', &position);
    EXPECT_EQ(position, 2);

    char* list[] = {cs("cn"), cs("uid"), cs("mail"), nullptr};
    EXPECT_EQ(contains_string(list, "uid"), 1);
    EXPECT_EQ(contains_string(list, "UID"), 0);
    EXPECT_EQ(contains_string(list, nullptr), 0);
    EXPECT_EQ(contains_string(nullptr, "uid"), 0);
    EXPECT_EQ(count_array_elements(list), 3);
    EXPECT_EQ(count_array_elements(list + 3), 0);
    EXPECT_EQ(count_array_elements(nullptr), 0);

    EXPECT_EQ(take(add_opening_paranthesis("cn=x)")), "(cn=x)");
    EXPECT_EQ(take(add_closing_paranthesis("(cn=x")), "(cn=x)");
    EXPECT_EQ(add_opening_paranthesis(nullptr), nullptr);
    EXPECT_EQ(add_closing_paranthesis(nullptr), nullptr);
}

TEST_F(UtilsTest, NumbersAsText) {
    const struct { int n; int digits; const char* text; } cases[] = {
        {1, 1, "1"},   {9, 1, "9"},          {10, 2, "10"},      {1024, 4, "1024"},
        {0, 0, ""},    {-1, 0, ""},          {-1024, 0, ""},
        {INT_MAX, 10, "2147483647"},          {INT_MIN, 0, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(orvlib_utils_num_digits(c.n), c.digits) << c.n;
        EXPECT_EQ(take(orvlib_utils_itoa(c.n)), c.text) << c.n;
    }
}

TEST_F(UtilsTest, LdapComplianceAddsOuterParentheses) {
    const struct { const char* in; const char* out; } cases[] = {
        {"uid=abc", "(uid=abc)"},
        {"(uid=abc)", "(uid=abc)"},
        {"cn=x", "(cn=x)"},
        {"(cn=x", "(cn=x)"},
        {"cn=x)", "(cn=x)"},
        {"(a=b)(c=d)", "(a=b)(c=d))"},  // first ")" is not last
        {"x=(y)", "(x=(y)"},            // first "(" is not first, first ")" is last
        {"=", "(=)"},
        {"(&(a=b)(c=d))", "(&(a=b)(c=d)))"},
    };
    for (const auto& c : cases) {
        char* out = nullptr;
        EXPECT_EQ(is_filter_ldap_complaint(c.in, &out), 1) << c.in;
        EXPECT_EQ(take(out), c.out) << c.in;
    }

    char sentinel = 0;
    char* out = &sentinel;
    EXPECT_EQ(is_filter_ldap_complaint("jsmith", &out), 0);
    EXPECT_EQ(is_filter_ldap_complaint("(jsmith)", &out), 0);
    EXPECT_EQ(is_filter_ldap_complaint("", &out), 0);
    EXPECT_EQ(is_filter_ldap_complaint(nullptr, &out), 0);
    EXPECT_EQ(is_filter_ldap_complaint("a=b", nullptr), 0);
    EXPECT_EQ(out, &sentinel) << "out must be left alone";

    const std::string long_filter = "cn=" + std::string(10000, 'a');
    out = nullptr;
    ASSERT_EQ(is_filter_ldap_complaint(long_filter.c_str(), &out), 1);
    EXPECT_EQ(take(out), "(" + long_filter + ")");
}

TEST_F(UtilsTest, UnbalancedParenthesesAreEscaped) {
    const struct { const char* in; const char* out; } cases[] = {
        {"(cn=abc", "\\28cn=abc"},
        {")(", "\\29\\28"},
        {"(a)", "(a)"},
        {"a)b(", "a\\29b\\28"},  // counts match, but ")" comes first
        {"((a)", "\\28\\28a\\29"},
        {"(a))", "\\28a\\29\\29"},
        {"(a)(b)", "(a)(b)"},
        {"plain", "plain"},
        {"", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(take(remove_paranthesis_from_string(c.in)), c.out) << c.in;
    EXPECT_EQ(remove_paranthesis_from_string(nullptr), nullptr);

    std::string balanced;
    for (int i = 0; i < 2500; ++i) balanced += "(ab)";
    EXPECT_EQ(take(remove_paranthesis_from_string(balanced.c_str())), balanced);

    const std::string unbalanced = "(" + balanced;
    const std::string escaped = take(remove_paranthesis_from_string(unbalanced.c_str()));
    EXPECT_EQ(escaped.size(), unbalanced.size() + 2 * 5001);
    EXPECT_EQ(escaped.find_first_of("()"), std::string::npos);
    EXPECT_EQ(escaped.substr(0, 11), "\\28\\28ab\\29");
}

TEST_F(UtilsTest, DnSpecialCharactersGetBackslash) {
    const struct { const char* in; const char* out; } cases[] = {
        {"Smith, John", "Smith\\, John"},
        {",\\=><+\"#;", "\\,\\\\\\=\\>\\<\\+\\\"\\#\\;"},
        {"a\\,b", "a\\\\\\,b"},         // an escaped comma is escaped again
        {"\\\\\\", "\\\\\\\\\\"},       // the middle backslash sits between two
        {"\\=\\", "\\\\=\\\\"},         // "=" between two backslashes stays
        {",\\", "\\,\\\\"},             // nothing before the first byte
        {" lead and trail ", " lead and trail "},
        {"(x)*", "(x)*"},
        {"", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(take(add_backslash_to_cn(c.in)), c.out) << c.in;
    EXPECT_EQ(add_backslash_to_cn(nullptr), nullptr);

    std::string many, expected;
    for (int i = 0; i < 100; ++i) {
        many += "a,";
        expected += "a\\,";
    }
    EXPECT_EQ(take(add_backslash_to_cn(many.c_str())), expected);
    const std::string long_plain(10000, 'x');
    EXPECT_EQ(take(add_backslash_to_cn(long_plain.c_str())), long_plain);
}

TEST_F(UtilsTest, FilterWithoutValueIsTheClassFilter) {
    EXPECT_EQ(set_filter(nullptr, 5001), kPeopleClass);
    EXPECT_EQ(set_filter(nullptr, 5002), kCorpGroupClass);
    EXPECT_EQ(set_filter_paging(nullptr, 5002), kCorpGroupClass);
    TIER2_GROUP_SEARCH = 1;
    EXPECT_EQ(set_filter(nullptr, 5002), kLocalGroupClass);
    EXPECT_EQ(set_filter_paging(nullptr, 5001), kPeopleClass);

    _setFilter("jsmith", 5001, nullptr);  // no place for the result: nothing happens
    _setFilterPaging(nullptr, 5001, nullptr);
}

TEST_F(UtilsTest, StandaloneFilters) {
    const struct { const char* in; int type; std::string out; } cases[] = {
        {"jsmith", 5001, "(&(|(cn=jsmith)(uid=jsmith))(objectClass=person))"},
        {"j*", 5001, "(&(|(cn=j*)(uid=j*))(objectClass=person))"},
        {"(jsmith", 5001, "(&(|(cn=\\28jsmith)(uid=\\28jsmith))(objectClass=person))"},
        {"uid=js", 5001, "(&(uid=js)(objectClass=person))"},
        {"(a=b)(c=d)", 5001, "(&(a=b)(c=d))(objectClass=person))"},
        {"uid=a,ou=People,dc=x", 5001, "(&(uid=a,ou=People,dc=x)(objectClass=person))"},
        {"Admins", 5002, std::string("(&(cn=Admins)") + kCorpGroupClass + ")"},
        {"(cn=Dev*)", 5002, std::string("(&(cn=Dev*)") + kCorpGroupClass + ")"},
    };
    for (const auto& c : cases) EXPECT_EQ(set_filter(c.in, c.type), c.out) << c.in;

    TIER2_GROUP_SEARCH = 1;
    EXPECT_EQ(set_filter("Admins", 5002), std::string("(&(cn=Admins)") + kLocalGroupClass + ")");

    // The logon attribute of a configured partition is not used outside
    // corporate mode.
    PARTITION_INFO = &partition_;
    EXPECT_EQ(set_filter("jsmith", 5001), "(&(|(cn=jsmith)(uid=jsmith))(objectClass=person))");

    const std::string value(10000, 'v');
    EXPECT_EQ(set_filter(value.c_str(), 5001),
              "(&(|(cn=" + value + ")(uid=" + value + "))(objectClass=person))");
}

TEST_F(UtilsTest, CorporateFilters) {
    corporate();
    EXPECT_EQ(set_filter("jsmith", 5001),
              "(&(|(cn=jsmith)(uid=jsmith)(sAMAccountName=jsmith))(objectClass=person))");
    EXPECT_EQ(set_filter("(cn=Dev*)", 5002), std::string("(&(cn=Dev*)") + kCorpGroupClass + ")");

    EXPECT_EQ(set_filter_paging("jsmith", 5001),
              "(&(!(objectclass=computer))(!(objectclass=contact))"
              "(|(cn=jsmith)(sAMAccountName=jsmith))(objectClass=person))");
    EXPECT_EQ(set_filter_paging("(jsmith", 5001),
              "(&(!(objectclass=computer))(!(objectclass=contact))"
              "(|(cn=\\28jsmith)(sAMAccountName=\\28jsmith))(objectClass=person))");
    EXPECT_EQ(set_filter_paging("sn=Smith", 5001), "(&(sn=Smith)(objectClass=person))");
    EXPECT_EQ(set_filter_paging("Admins", 5002),
              std::string("(&(cn=Admins)") + kCorpGroupClass + ")");

    // A partition without a logon attribute must not break the builders.
    partition_.user_logon_attribute_name = nullptr;
    EXPECT_EQ(set_filter("jsmith", 5001), "(&(|(cn=jsmith)(uid=jsmith))(objectClass=person))");
    PARTITION_INFO = nullptr;
    EXPECT_EQ(set_filter_paging("jsmith", 5001),
              "(&(!(objectclass=computer))(!(objectclass=contact))(|(cn=jsmith))"
              "(objectClass=person))");
}

TEST_F(UtilsTest, UidFromFilter) {
    const struct { const char* in; const char* uid; const char* rdn; } cases[] = {
        {"(uid=jsmith)", "jsmith", "uid"},
        {"uid=jsmith", "jsmith", "uid"},
        {"((cn=x))", "x", "cn"},
        {"(uid=a)(groupCN=b)", "a", "uid"},
        {"sAMAccountName=j.s", "j.s", "sAMAccountName"},
        {"=x", "x", ""},
        {"(jsmith)", "jsmith)", nullptr},  // kept on purpose: not trimmed
        {"jsmith", "jsmith", nullptr},
        {"((jsmith))", "jsmith))", nullptr},
        {"jsmith)", "jsmith\\29", nullptr},  // unbalanced: escaped first
        {"(jsmith", "\\28jsmith", nullptr},
        {"", "", nullptr},
    };
    for (const auto& c : cases) {
        char* rdn = nullptr;
        EXPECT_EQ(take(getUIDFromFilter(c.in, &rdn)), c.uid) << c.in;
        if (c.rdn == nullptr) EXPECT_EQ(rdn, nullptr) << c.in;
        else EXPECT_EQ(take(rdn), c.rdn) << c.in;
    }
    EXPECT_EQ(take(getUIDFromFilter("(uid=jsmith)", nullptr)), "jsmith");
    EXPECT_EQ(getUIDFromFilter(nullptr, nullptr), nullptr);

    const std::string id(10000, 'u');
    char* rdn = nullptr;
    EXPECT_EQ(take(getUIDFromFilter(("(uid=" + id + ")").c_str(), &rdn)), id);
    EXPECT_EQ(take(rdn), "uid");
}

TEST_F(UtilsTest, GroupCnFromFilter) {
    EXPECT_EQ(take(getGroupCN("(groupCN=Admins)")), "Admins");
    EXPECT_EQ(take(getGroupCN("(uid=jsmith)(groupCN=Dev Team)")), "Dev Team");
    EXPECT_EQ(take(getGroupCN("(groupCN=)")), "");
    EXPECT_EQ(getGroupCN("(uid=jsmith)"), nullptr);
    EXPECT_EQ(getGroupCN("(groupcn=Admins)"), nullptr);  // exact spelling only
    EXPECT_EQ(getGroupCN("groupCN=x"), nullptr);         // needs a closing parenthesis
    EXPECT_EQ(getGroupCN("groupCN"), nullptr);
    EXPECT_EQ(getGroupCN(nullptr), nullptr);
}

TEST_F(UtilsTest, StandaloneDnRecognition) {
    const std::string suffix = ORV_ROOT_SUFFIX;
    std::string shouted;
    for (char ch : suffix) shouted += static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    std::string spaced;
    for (char ch : suffix) {
        spaced += ch;
        if (ch == ',') spaced += "  ";
    }

    for (const std::string& dn : {"cn=Admins," + suffix, "CN=Admins, " + shouted,
                                  "(uid=x," + spaced + ")", "(cn=x," + suffix}) {
        EXPECT_EQ(string_is_dn(dn.c_str()), 1) << dn;
        EXPECT_EQ(is_filter_tier2_group_dn(dn.c_str()), 1) << dn;
    }
    for (const char* text : {"Admins", "(cn=Admins)", "cn=x,dc=corp,dc=example", ""}) {
        EXPECT_EQ(string_is_dn(text), 0) << text;
        EXPECT_EQ(is_filter_tier2_group_dn(text), 0) << text;
    }
    EXPECT_EQ(string_is_dn(nullptr), 0);
    EXPECT_EQ(is_filter_tier2_group_dn(nullptr), 0);

    ORV_OPERATION_MODE = 2;  // neither standalone nor corporate
    EXPECT_EQ(string_is_dn(("cn=Admins," + suffix).c_str()), 0);
    EXPECT_EQ(is_filter_tier2_group_dn(("cn=Admins," + suffix).c_str()), 0);
}

TEST_F(UtilsTest, CorporateDnRecognition) {
    const std::string local = "cn=Admins," + std::string(ORV_ROOT_SUFFIX);

    corporate(0);  // one search base for everything
    populate_search_base();
    EXPECT_EQ(string_is_dn("CN=Jo,DC=Corp,DC=Example"), 1);
    EXPECT_EQ(string_is_dn("cn=jo, dc=corp, dc=example"), 1);
    EXPECT_EQ(string_is_dn(local.c_str()), 0);
    EXPECT_EQ(string_is_dn("jsmith"), 0);
    EXPECT_EQ(is_filter_tier2_group_dn("cn=jo,dc=corp,dc=example"), 1);
    EXPECT_EQ(is_filter_tier2_group_dn(local.c_str()), 1);  // second try: local base
    EXPECT_EQ(is_filter_tier2_group_dn("jsmith"), 0);

    corporate(1);  // separate people and group bases
    populate_search_base();
    EXPECT_EQ(string_is_dn("cn=jo,ou=staff,dc=corp,dc=example"), 1);
    EXPECT_EQ(string_is_dn("cn=dev,OU=Teams,DC=corp,DC=example"), 1);
    EXPECT_EQ(string_is_dn("cn=jo,ou=other,dc=corp,dc=example"), 0);

    PARTITION_INFO = nullptr;  // corporate mode before a partition is known
    EXPECT_EQ(string_is_dn("cn=jo,dc=corp,dc=example"), 0);
    EXPECT_EQ(is_filter_tier2_group_dn(local.c_str()), 1);
}

TEST_F(UtilsTest, PopulateSearchBaseReplacesCopies) {
    corporate(0);
    populate_search_base();
    ASSERT_NE(CORP_PEOPLE_SEARCH_BASE, nullptr);
    ASSERT_NE(CORP_GROUP_SEARCH_BASE, nullptr);
    EXPECT_STREQ(CORP_PEOPLE_SEARCH_BASE, "DC=corp, DC=example");
    EXPECT_STREQ(CORP_GROUP_SEARCH_BASE, "DC=corp, DC=example");
    EXPECT_NE(CORP_PEOPLE_SEARCH_BASE, partition_.search_base);
    EXPECT_NE(CORP_PEOPLE_SEARCH_BASE, CORP_GROUP_SEARCH_BASE);

    const int count = _memCnt;
    partition_.partition_search_base_type = 2;
    populate_search_base();
    EXPECT_EQ(_memCnt, count) << "previous copies must be freed";
    EXPECT_STREQ(CORP_PEOPLE_SEARCH_BASE, "OU=Staff,DC=corp,DC=example");
    EXPECT_STREQ(CORP_GROUP_SEARCH_BASE, "OU=Teams,DC=corp,DC=example");

    PARTITION_INFO = nullptr;
    populate_search_base();  // nothing to copy from: bases stay
    EXPECT_STREQ(CORP_PEOPLE_SEARCH_BASE, "OU=Staff,DC=corp,DC=example");
}

TEST_F(UtilsTest, WindowsSystemUserFilter) {
    ORV_WIN_USER_SEARCH = 7;
    EXPECT_EQ(systemLoginFilterCheck("(ORVWINDOWSUSERSYSTEMNAME=host*)"), 1);
    EXPECT_EQ(ORV_WIN_USER_SEARCH, 1);
    EXPECT_EQ(systemLoginFilterCheck("(orvWindowsUserSystemName=h1)(uid=*)"), 1);
    EXPECT_EQ(systemLoginFilterCheck("(orvWindowsUserSID=*)"), 0);
    EXPECT_EQ(ORV_WIN_USER_SEARCH, 0);
    ORV_WIN_USER_SEARCH = 1;
    EXPECT_EQ(systemLoginFilterCheck(nullptr), 0);
    EXPECT_EQ(ORV_WIN_USER_SEARCH, 0);
}

// Builds an entry from (id, values) pairs; values == nullptr leaves attrVals
// NULL, a vector holding nullptr gives an empty value list.
struct TestEntry {
    std::vector<std::vector<char*>> values;
    std::vector<ORVLibAttribute> attrs;
    std::vector<ORVLibAttribute*> slots;
    ORVLibEntry entry{};

    TestEntry(std::initializer_list<std::pair<int, const std::vector<const char*>*>> rows) {
        values.reserve(rows.size());
        attrs.reserve(rows.size());
        for (const auto& row : rows) {
            char** vals = nullptr;
            if (row.second != nullptr) {
                values.emplace_back();
                for (const char* v : *row.second) values.back().push_back(const_cast<char*>(v));
                values.back().push_back(nullptr);
                vals = values.back().data();
            }
            attrs.push_back(ORVLibAttribute{row.first, cs("attr"), vals});
        }
        for (auto& a : attrs) slots.push_back(&a);
        slots.push_back(nullptr);
        entry.orvlibEntryAttrData = slots.data();
    }
};

TEST_F(UtilsTest, AccountState) {
    const std::vector<const char*> disabled = {"514"}, enabled = {"512"}, bit2 = {"2"},
                                   locked = {"true"}, shouted = {"TRUE"}, unlocked = {"false"},
                                   none = {nullptr}, name = {"jsmith"};
    const struct { TestEntry entry; const char* state; const char* what; } cases[] = {
        {TestEntry{{44, &disabled}}, "OFF", "userAccountControl 514"},
        {TestEntry{{44, &enabled}}, "ON", "userAccountControl 512"},
        {TestEntry{{3, &name}, {44, &bit2}}, "OFF", "userAccountControl 2"},
        {TestEntry{{54, &locked}}, "OFF", "nsAccountlock true"},
        {TestEntry{{54, &shouted}}, "ON", "nsAccountlock is compared exactly"},
        {TestEntry{{54, &unlocked}}, "ON", "nsAccountlock false"},
        {TestEntry{{44, &none}, {54, &locked}}, "ON", "44 present without value wins"},
        {TestEntry{{44, nullptr}, {54, &locked}}, "ON", "44 present without value list"},
        {TestEntry{{54, &locked}, {44, &enabled}}, "ON", "44 decides wherever it is"},
        {TestEntry{{3, &name}}, "ON", "neither attribute"},
        {TestEntry{}, "ON", "empty entry"},
    };
    for (const auto& c : cases) {
        char* state = nullptr;
        get_User_State(const_cast<ORVLibEntry*>(&c.entry.entry), &state);
        EXPECT_EQ(take(state), c.state) << c.what;
    }

    ORVLibEntry no_attributes{nullptr};
    char* state = nullptr;
    get_User_State(&no_attributes, &state);
    EXPECT_EQ(take(state), "ON");

    char sentinel = 0;
    state = &sentinel;
    get_User_State(nullptr, &state);
    EXPECT_EQ(state, &sentinel);
    get_User_State(&no_attributes, nullptr);
}

}  // namespace

namespace {

// True when text holds no bare "*", "(" or ")" and every backslash starts
// an escape of two hexadecimal digits: a value a filter cannot be broken by.
bool safe_filter_value(const std::string& text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '*' || c == '(' || c == ')') return false;
        if (c == '\\') {
            if (i + 2 >= text.size()) return false;
            if (!std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
                !std::isxdigit(static_cast<unsigned char>(text[i + 2])))
                return false;
            i += 2;
        }
    }
    return true;
}

}  // namespace

TEST(FilterValue, SpecialCharactersBecomeEscapes) {
    EXPECT_EQ(orv::filter_value("a*b(c)d\\e"), "a\\2ab\\28c\\29d\\5ce");
    // Characters with no meaning in a filter value stay as they are.
    EXPECT_EQ(orv::filter_value(",+=\";<>#& |!~"), ",+=\";<>#& |!~");
    EXPECT_EQ(orv::filter_value(""), "");
    // A DN's own escapes are part of the value.
    EXPECT_EQ(orv::filter_value("uid=o\\,brien,ou=People"), "uid=o\\5c,brien,ou=People");

    // Cut out of filter text: escapes already there are kept.
    EXPECT_EQ(orv::filter_value_from_text("a\\2ab"), "a\\2ab");
    EXPECT_EQ(orv::filter_value_from_text("a\\28b*"), "a\\28b\\2a");
    EXPECT_EQ(orv::filter_value_from_text("dom\\user"), "dom\\5cuser");
    EXPECT_EQ(orv::filter_value_from_text("end\\"), "end\\5c");
    EXPECT_EQ(orv::filter_value_from_text("x\\4"), "x\\5c4");
    EXPECT_EQ(orv::filter_value_from_text("\\zz)"), "\\5czz\\29");

    // Every combination of the special characters (and a hex digit after a
    // backslash) comes out safe, and escaping twice changes nothing.
    const std::string alphabet = "*()\\a2";
    for (int n = 0; n < 6 * 6 * 6 * 6; ++n) {
        std::string in;
        for (int k = n, i = 0; i < 4; ++i, k /= 6) in.push_back(alphabet[k % 6]);
        const std::string once = orv::filter_value(in);
        EXPECT_TRUE(safe_filter_value(once)) << in << " -> " << once;
        EXPECT_TRUE(safe_filter_value(orv::filter_value_from_text(in))) << in;
        EXPECT_EQ(orv::filter_value_from_text(once), once) << in;
    }
}
