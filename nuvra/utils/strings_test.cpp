// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/strings.h"

#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "gtest/gtest.h"
#include "nuvra/testing/strings_test_util.h"

namespace nuvra::utils {
namespace {

// Where the engine differs from fnmatch on purpose, and unsigned bytes, which the random
// patterns below do not hold.
TEST(WildcardEngine, HandPickedCases) {
    static const std::tuple<const char*, const char*, int, bool> kCases[] = {
        {"a*", "abc", kWildcardPathName, false},
        {"*x/?b", "ax/.b", kWildcardPathName | kWildcardPeriod, true},
        {"[]a]", "a", 0, false},
        {"[ab", "a", 0, false},
        {"[a-\\", "a", 0, false},
        {"a\\", "a\\", 0, false},
        {"[\xe0-\xef]", "\xe5", 0, true}};
    for (const auto& [pattern, text, flags, matches] : kCases) {
        EXPECT_EQ(wildcardMatchEngine(pattern, text, flags), matches ? 0 : 1)
            << pattern << " ~ " << text;
    }
    // The wrappers never escape (and fold case on request, as matchFileName shows).
    EXPECT_TRUE(wildcardMatch("a\\*", "a\\xyz", false) &&
                !wildcardMatchWide(std::wstring(L"a\\*"), L"a*", false));
    // Exponential backtracking would not finish; the engine does ~ pattern x text steps.
    const std::string as(100000, 'a');
    EXPECT_NE(wildcardMatchEngine("*a*a*a*a*a*a*a*a*a*a*b", as.c_str(), kWildcardPathName), 0);
}

TEST(WildcardEngine, AgreesWithFnmatchWhereMeantTo) {
    std::mt19937 random(20261122);
    const auto pick = [&random](size_t n) { return random() % n; };
    for (int i = 0; i < 20000; ++i) {
        const auto [pattern, text] = testing::wildcardCase(pick(7), pick(9), pick);
        ASSERT_TRUE(testing::enginesAgree(pattern, text, i % 16))
            << pattern << " ~ " << text << " flags " << i % 16;
    }
}

TEST(MatchFileName, NamesWithoutExtension) {
    static const std::tuple<const char*, const char*, bool, bool> kCases[] = {
        {"*.*", "README", false, true},   {"README.*", "readme", true, true},
        {"abc.", "abc", false, true},     {"abc.", "abc.d", false, false},
        {"*.txt", "a", false, false},     {"*.b.*", "a.b", false, true},
        {"*.TXT", "a.txt", false, false}, {"*.b", "a.b", false, true}};
    for (const auto& [pattern, name, ignoreCase, matches] : kCases) {
        EXPECT_EQ(matchFileName(pattern, name, ignoreCase), matches) << pattern << " ~ " << name;
    }
    EXPECT_THROW(matchFileName("", "abc", false), std::out_of_range);
}

// Each edit on `input` in 8 bytes. replaceAll searches on after the inserted text, and stops
// where a change of length would not fit in the given size, keeping what it replaced.
TEST(InPlaceEdits, ResultsAndWhatIsLeftPrefixesAndNumbers) {
    using Edit = int (*)(char*);
    static const std::tuple<Edit, const char*, int, const char*> kCases[] = {
        {trimRight, "  ", 1, ""},
        {trimRight, "a b \t\n", 0, "a b"},
        {[](char* s) { return replaceChar(s, '.', '/') + replaceChar(s, '\0', 'y'); }, "a.b.", 2,
         "a/b/"},
        {[](char* s) { return toLowerInPlace(s), 0; }, "AbC", 0, "abc"},
        {[](char* s) { return copyString(s, "abcdef", 3), 0; }, "", 0, "ab"},
        {[](char* s) { return copyString(s, "q", 0), 0; }, "v", 0, "v"},
        {[](char* s) { return replaceAll(s, 7, "aa", "bbb"); }, "aaaa", 1, "bbbbbb"},
        {[](char* s) { return replaceAll(s, 6, "aa", "bbb"); }, "aaaa", 0, "bbbaa"},
        {[](char* s) { return replaceAll(s, 7, "a", "aa"); }, "aaa", 1, "aaaaaa"},
        {[](char* s) { return replaceAll(s, 3, "aa", "b"); }, "aaaa", 0, "aaaa"},
        {[](char* s) { return replaceAll(s, 4, "aa", "b"); }, "aaaa", 1, "bb"},
        {[](char* s) { return replaceAll(s, 1, "ab", "cd"); }, "abab", 1, "cdcd"},
        {[](char* s) { return replaceAll(s, 1, "", "x"); }, "abc", 1, "abc"}};
    for (const auto& [edit, input, result, left] : kCases) {
        std::string text = input;
        text.resize(8);
        EXPECT_EQ(edit(text.data()), result) << input;
        EXPECT_STREQ(text.c_str(), left) << input;
    }
    EXPECT_EQ(startsWith("abc", "ab") + startsWithNoCase("ABC", "ab"), 0);
    EXPECT_EQ(startsWith("a", "ab") + startsWithNoCase("A", "ab"), -2);
    EXPECT_LT(startsWith("abc", "abd"), 0);
    EXPECT_EQ(parseInt64("  -12x") + parseInt64("+"), -12);
    EXPECT_EQ(parseInt64("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(parseInt64("18446744073709551617"), 1);  // wraps, no clamping
}

TEST(Tokens, SkipDelimitersKeepQuotedStretchesAndRefuseTokensThatDoNotFit) {
    const char* cursor = "  x<a, b>y,,ab abcdefghi";
    char token[9];
    for (const char* expected : {"x<a, b>y", "ab", ""}) {
        EXPECT_EQ(nextQuotedToken(&cursor, " ,", '<', '>', token, sizeof token),
                  *expected != '\0' ? 1 : 0);
        EXPECT_STREQ(token, expected);
    }
    EXPECT_EQ(nextToken(&cursor, " ,", token, sizeof token) + *cursor, 0);
}

// Extraction refuses an enclosed text of exactly size-1 bytes, one byte more than it needs. A
// NUL delimiter would be "found" at the terminator, and AddressSanitizer see a read past it.
TEST(Delimited, RemovesAndExtractsCompleteSpansAndNeverFindsNul) {
    static const std::tuple<const char*, char, char, size_t, const char*, const char*> kCases[] = {
        {"a(b)c(d)e", '(', ')', 8, "ace", "b"}, {"a(b(c)d)e", '(', ')', 8, "ad)e", "b(c"},
        {"a)b(c", '(', ')', 8, "a)b(c", ""},    {"a(b)c", '\0', ')', 8, "a(b)c", ""},
        {"a(b)c", '(', '\0', 8, "a(b)c", ""},   {"x(abc)y", '(', ')', 5, "xy", "abc"},
        {"x(abc)y", '(', ')', 4, "xy", ""},     {"x(abc)y", '(', ')', 0, "xy", ""}};
    for (const auto& [input, open, close, size, left, extracted] : kCases) {
        std::vector<char> text(input, input + std::strlen(input) + 1);
        char between[8] = "";
        EXPECT_EQ(extractBetween(between, text.data(), size, open, close),
                  *extracted != '\0' ? between : nullptr)
            << input << size;
        EXPECT_STREQ(between, extracted);
        removeDelimited(text.data(), open, close);
        EXPECT_STREQ(text.data(), left);
    }
}

// An empty pattern is found one character in; "aab" in "xAAAB" needs the search to go on from
// the longest border of what matched; 64 characters or more have their table on the heap.
TEST(FindNoCase, AgreesWithStrcasestrAtEveryLimit) {
    const std::string as = "x" + std::string(100, 'A') + "B";
    for (size_t limit = 0; limit <= 12; ++limit) {
        for (const auto& [text, pattern] :
             {std::pair("Hello World", "WORLD"), std::pair("", ""), std::pair("ab", ""),
              std::pair("xAAAB", "aab"), std::pair("Hello", "xyz")}) {
            EXPECT_TRUE(testing::searchAgrees(text, pattern, limit))
                << pattern << " in " << text << " " << limit;
        }
    }
    EXPECT_EQ(findNoCase(as.c_str(), (std::string(70, 'a') + "b").c_str()), as.c_str() + 31);
}

}  // namespace
}  // namespace nuvra::utils
