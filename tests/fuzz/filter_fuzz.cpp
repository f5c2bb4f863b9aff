// Filter repair and escaping: the helpers that turn what a client typed into
// a search filter, and the DN tests that decide how a text is searched.
// Checks, besides memory safety: inputs are not modified, the library's
// allocations all come back, a bare value never leaves a raw parenthesis
// once its parentheses do not balance, and the filter-value escapes are
// stable (escaping an escaped value again changes nothing).
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_utils.h"

namespace {

bool balanced(const std::string& s) {
    long depth = 0;
    for (char c : s) {
        if (c == '(') ++depth;
        if (c == ')' && --depth < 0) return false;
    }
    return depth == 0;
}

void free_text(char*& s) {
    orvlib_memfree(s);
    s = nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const kWindowsUserName = ORVLIB_WIN_SYSTEM_USER_NAME;
    FuzzedDataProvider in(data, size);
    static const int kTypes[] = {ORV_SEARCH_PEOPLE, ORV_SEARCH_GROUPS, 5003, 5004, 5005, 5006, 5007, 0, -1};
    const int mode = in.ConsumeIntegralInRange(0, 2);
    const int type = in.PickValueInArray(kTypes);
    const int tier2 = in.ConsumeBool() ? 1 : 0;
    const int base_type = in.ConsumeIntegralInRange(0, 2);
    std::string logon = orvfuzz::c_text(in, 32);
    std::string base = orvfuzz::c_text(in, 64);
    std::string sysuser = orvfuzz::c_text(in, 16);
    const std::string text = orvfuzz::c_text(in, 8192);

    partition_info partition{};
    partition.user_logon_attribute_name = in.ConsumeBool() ? &logon[0] : nullptr;
    partition.search_base = &base[0];
    partition.partition_search_base_type = base_type;
    ORV_OPERATION_MODE = mode;
    TIER2_GROUP_SEARCH = tier2;
    PARTITION_INFO = in.ConsumeBool() ? &partition : nullptr;
    CORP_PEOPLE_SEARCH_BASE = base_type ? &base[0] : nullptr;
    CORP_GROUP_SEARCH_BASE = nullptr;
    ORVLIB_WIN_SYSTEM_USER_NAME = sysuser.empty() ? nullptr : sysuser.c_str();

    std::string input = text;  // the library must leave its input alone
    const char* s = input.c_str();
    {
        orvfuzz::AllocationBalance balance;
        char* out = nullptr;

        const int compliant = is_filter_ldap_complaint(s, &out);
        orvfuzz::check(compliant == (std::strchr(s, '=') ? 1 : 0), "compliance", text);
        if (compliant == 1) {
            orvfuzz::check(out && out[0] == '(', "compliant filter starts with (", text);
            orvfuzz::check(std::strlen(out) >= text.size(), "compliant filter shorter", text);
        }
        free_text(out);

        out = remove_paranthesis_from_string(s);
        orvfuzz::check(out != nullptr, "remove_paranthesis_from_string", text);
        if (balanced(text)) {
            orvfuzz::check(text == out, "balanced text changed", text);
        } else {
            orvfuzz::check(std::strpbrk(out, "()") == nullptr, "raw parenthesis left", out);
        }
        free_text(out);

        out = add_backslash_to_cn(s);
        orvfuzz::check(out && std::strlen(out) >= text.size(), "add_backslash_to_cn", text);
        free_text(out);

        _setFilter(s, type, &out);
        orvfuzz::check(out != nullptr, "_setFilter", text);
        free_text(out);
        _setFilterPaging(s, type, &out);
        orvfuzz::check(out != nullptr, "_setFilterPaging", text);
        free_text(out);

        char* rdn = nullptr;
        out = getUIDFromFilter(s, &rdn);
        orvfuzz::check(out != nullptr, "getUIDFromFilter", text);
        orvfuzz::check((rdn != nullptr) == (std::strchr(s, '=') != nullptr), "rdn out", text);
        free_text(out);
        free_text(rdn);

        out = getGroupCN(s);
        free_text(out);
        for (int m = 0; m < 2; ++m) {
            out = dn_contains_backslash(s, m);
            orvfuzz::check(out != nullptr, "dn_contains_backslash", text);
            free_text(out);
        }

        const int dn = string_is_dn(s);
        orvfuzz::check(dn == 0 || dn == 1, "string_is_dn", text);
        const int group_dn = is_filter_tier2_group_dn(s);
        orvfuzz::check(group_dn == 0 || group_dn == 1, "is_filter_tier2_group_dn", text);
        const int win = systemLoginFilterCheck(s);
        orvfuzz::check(win == 0 || win == 1, "systemLoginFilterCheck", text);
    }
    orvfuzz::check(input == text, "input modified", text);

    const std::string escaped = orv::filter_value(text);
    orvfuzz::check(escaped.find_first_of("()*") == std::string::npos, "filter_value left a special", text);
    orvfuzz::check(orv::filter_value_from_text(escaped) == escaped, "filter_value not stable", text);
    const std::string from_text = orv::filter_value_from_text(text);
    orvfuzz::check(from_text.find_first_of("()*") == std::string::npos, "filter_value_from_text", text);
    orvfuzz::check(orv::filter_value_from_text(from_text) == from_text, "from_text not stable", text);

    PARTITION_INFO = nullptr;
    CORP_PEOPLE_SEARCH_BASE = nullptr;
    ORVLIB_WIN_SYSTEM_USER_NAME = kWindowsUserName;
    ORV_OPERATION_MODE = 0;
    return 0;
}
