// Password character checks: the listed edge cases, bytes above 127,
// passwords longer than any scratch buffer, and agreement with a literal
// transcription of the list-based counting rules on random passwords.

#include <gtest/gtest.h>

#include <cctype>
#include <climits>
#include <random>
#include <string>

#include "orvldap.h"
#include "orvldap_password.h"
#include "orvldap_utils.h"

namespace {

constexpr int kPass = ORV_LDAPLIB_CHECK_PASSED;
constexpr int kFail = ORV_LDAPLIB_CHECK_FAILED;

// The repetition count as the policy describes it: a list of characters
// already counted; each position whose character is not listed counts itself
// plus every later occurrence, listing the character at each of them.
int reference_max_repeated(const std::string& pw) {
    std::string listed;
    int highest = 0;
    for (std::size_t i = 0; i < pw.size(); ++i) {
        if (listed.find(pw[i]) != std::string::npos) continue;
        int count = 1;
        for (std::size_t j = i + 1; j < pw.size(); ++j)
            if (pw[j] == pw[i]) {
                ++count;
                listed += pw[j];
            }
        if (count > highest) highest = count;
    }
    return highest;
}

// The different-character count as described: one list for the whole
// password; each position counts 1 plus every character that differs from
// it and is not yet listed (listing it); 1 becomes 0; the highest wins.
int reference_min_diff(const std::string& pw) {
    std::string listed;
    int highest = 0;
    for (std::size_t i = 0; i < pw.size(); ++i) {
        int count = 1;
        for (std::size_t j = 0; j < pw.size(); ++j)
            if (pw[j] != pw[i] && listed.find(pw[j]) == std::string::npos) {
                ++count;
                listed += pw[j];
            }
        if (count == 1) count = 0;
        if (count > highest) highest = count;
    }
    return highest;
}

TEST(PasswordChecks, ListedEdgeCases) {
    EXPECT_EQ(check_max_repeated_characters(2, "abca"), kPass);
    EXPECT_EQ(check_max_repeated_characters(2, "abcaa"), kFail);  // no run of three
    EXPECT_EQ(check_max_repeated_characters(2, "aabbcc"), kPass);
    EXPECT_EQ(check_max_repeated_characters(0, "a"), kFail);  // limit 0 refuses any password
    EXPECT_EQ(check_max_repeated_characters(0, ""), kPass);
    EXPECT_EQ(check_max_repeated_characters(-1, ""), kFail);

    EXPECT_EQ(check_min_diff_characters(2, "aaaa"), kFail);
    EXPECT_EQ(check_min_diff_characters(2, "ab"), kPass);
    EXPECT_EQ(check_min_diff_characters(1, "a"), kFail);    // one repeated character counts 0
    EXPECT_EQ(check_min_diff_characters(1, "aaaa"), kFail);
    EXPECT_EQ(check_min_diff_characters(0, ""), kPass);
    EXPECT_EQ(check_min_diff_characters(1, ""), kFail);
    EXPECT_EQ(check_min_diff_characters(3, "abcabc"), kPass);
    EXPECT_EQ(check_min_diff_characters(4, "abcabc"), kFail);
}

TEST(PasswordChecks, CountingClasses) {
    EXPECT_EQ(check_numeric_characters(3, "a1b2c3"), kPass);
    EXPECT_EQ(check_numeric_characters(4, "a1b2c3"), kFail);
    EXPECT_EQ(check_numeric_characters(0, ""), kPass);
    EXPECT_EQ(check_numeric_characters(-5, ""), kPass);

    // Blanks, punctuation and control bytes are symbols; letters and digits not.
    EXPECT_EQ(orv::count_symbol_characters("a b!c_9\t"), 4);
    EXPECT_EQ(check_symbol_characters(4, "a b!c_9\t"), kPass);
    EXPECT_EQ(check_symbol_characters(5, "a b!c_9\t"), kFail);

    // Digits and symbols are non-alphabetic.
    EXPECT_EQ(orv::count_non_alpha_characters("ab1!Z "), 3);
    EXPECT_EQ(check_non_alpha_characters(3, "ab1!Z "), kPass);
    EXPECT_EQ(check_non_alpha_characters(4, "ab1!Z "), kFail);

    // Null passwords count as empty.
    EXPECT_EQ(check_numeric_characters(1, nullptr), kFail);
    EXPECT_EQ(check_max_repeated_characters(0, nullptr), kPass);
}

TEST(PasswordChecks, BytesAbove127AreSymbols) {
    const char* utf8 = "\xc3\xa9t\xc3\xa9";  // "été" in UTF-8: four high bytes
    EXPECT_EQ(orv::count_symbol_characters(utf8), 4);
    EXPECT_EQ(orv::count_non_alpha_characters(utf8), 4);
    EXPECT_EQ(check_symbol_characters(4, utf8), kPass);
    EXPECT_EQ(check_symbol_characters(5, utf8), kFail);
    EXPECT_EQ(orv::count_max_repeated_characters(utf8), 2);
    EXPECT_EQ(orv::count_different_characters(utf8), 3);

    std::string every;
    for (int c = 1; c < 256; ++c) every += static_cast<char>(c);
    int alnum = 0, alpha = 0;
    for (int c = 1; c < 128; ++c) {
        alnum += std::isalnum(c) ? 1 : 0;
        alpha += std::isalpha(c) ? 1 : 0;
    }
    EXPECT_EQ(orv::count_symbol_characters(every.c_str()), 255 - alnum);
    EXPECT_EQ(orv::count_non_alpha_characters(every.c_str()), 255 - alpha);
    EXPECT_EQ(orv::count_numeric_characters(every.c_str()), 10);
    EXPECT_EQ(orv::count_different_characters(every.c_str()), 255);
    EXPECT_EQ(orv::count_max_repeated_characters(every.c_str()), 1);
}

TEST(PasswordChecks, PasswordsLongerThanAThousandBytes) {
    const std::string many_a = std::string(5000, 'a') + "b";
    EXPECT_EQ(check_max_repeated_characters(4999, many_a.c_str()), kFail);
    EXPECT_EQ(check_max_repeated_characters(5000, many_a.c_str()), kPass);
    EXPECT_EQ(check_min_diff_characters(2, many_a.c_str()), kPass);
    EXPECT_EQ(check_min_diff_characters(3, many_a.c_str()), kFail);
    EXPECT_EQ(check_symbol_characters(1, many_a.c_str()), kFail);

    std::string mixed;
    for (int i = 0; i < 3000; ++i) mixed += static_cast<char>(i % 3 == 0 ? '7' : (i % 3 == 1 ? '#' : '\xff'));
    EXPECT_EQ(check_numeric_characters(1000, mixed.c_str()), kPass);
    EXPECT_EQ(check_numeric_characters(1001, mixed.c_str()), kFail);
    EXPECT_EQ(check_symbol_characters(2000, mixed.c_str()), kPass);
    EXPECT_EQ(check_symbol_characters(2001, mixed.c_str()), kFail);
    EXPECT_EQ(check_non_alpha_characters(3000, mixed.c_str()), kPass);
    EXPECT_EQ(check_max_repeated_characters(1000, mixed.c_str()), kPass);
    EXPECT_EQ(check_max_repeated_characters(999, mixed.c_str()), kFail);
    EXPECT_EQ(check_min_diff_characters(3, mixed.c_str()), kPass);
}

TEST(PasswordChecks, AgreeWithTheListBasedCounting) {
    std::mt19937 rng(2024);
    const std::string alphabets[] = {"a", "ab", "aab!", "abcdefghij0123456789", std::string("xy\x80\xfe", 4)};
    std::uniform_int_distribution<int> length(0, 120);
    for (int round = 0; round < 3000; ++round) {
        const std::string& alphabet = alphabets[round % 5];
        std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
        std::string pw;
        for (int n = length(rng); n > 0; --n) pw += alphabet[pick(rng)];

        const int repeated = reference_max_repeated(pw);
        const int diff = reference_min_diff(pw);
        ASSERT_EQ(orv::count_max_repeated_characters(pw.c_str()), repeated) << pw;
        ASSERT_EQ(orv::count_different_characters(pw.c_str()), diff) << pw;
        for (int limit = -1; limit <= 3; ++limit) {
            ASSERT_EQ(check_max_repeated_characters(repeated + limit - 1, pw.c_str()),
                      repeated <= repeated + limit - 1 ? kPass : kFail);
            ASSERT_EQ(check_min_diff_characters(diff + limit - 1, pw.c_str()),
                      diff >= diff + limit - 1 ? kPass : kFail);
        }
    }
}

}  // namespace
