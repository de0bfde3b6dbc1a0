#include "nuvra/utils/strings.h"

#include <cstring>
#include <random>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "gtest/gtest.h"
#include "nuvra/testing/strings_test_util.h"

namespace nuvra::utils {
namespace {

// Where the engine differs from fnmatch on purpose (a final star in path mode, no period
// rule after a star, "[]" an empty set, no match for an unterminated set or a lone trailing
// backslash) and unsigned bytes, which the random patterns below do not hold.
TEST(WildcardEngine, HandPickedCases) {
    static const std::tuple<const char*, const char*, int, bool> kCases[] = {
        {"a*", "abc", kWildcardPathName, false},
        {"*x/?b", "ax/.b", kWildcardPathName | kWildcardPeriod, true},
        {"[]a]", "a", 0, false},
        {"[ab", "a", 0, false},
        {"a\\", "a\\", 0, false},
        {"[\xe0-\xef]", "\xe5", 0, true}};
    for (const auto& [pattern, text, flags, matches] : kCases) {
        EXPECT_EQ(wildcardMatchEngine(pattern, text, flags), matches ? 0 : 1)
            << pattern << " ~ " << text;
    }
    // The wrappers never escape, and fold case on request.
    EXPECT_TRUE(wildcardMatch("*.TXT", "a.txt", true) && wildcardMatch("a\\*", "a\\xyz", false));
    EXPECT_FALSE(wildcardMatch("*.TXT", "a.txt", false) ||
                 wildcardMatchWide(std::wstring(L"a\\*"), L"a*", false));
    // Exponential backtracking would not finish; the engine does ~ pattern x text steps.
    const std::string as(100000, 'a');
    EXPECT_NE(wildcardMatchEngine("*a*a*a*a*a*a*a*a*a*a*b", as.c_str(), 0), 0);
    EXPECT_NE(wildcardMatchEngine("*a*a*a*a*a*a*a*a*a*a*b", as.c_str(), kWildcardPathName), 0);
}

// Patterns of up to six elements and texts of up to eight characters, under every
// combination of flags.
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
        {"*.*", "README", false, true}, {"README.*", "readme", true, true},
        {"abc.", "abc", false, true},   {"abc.", "abc.d", false, false},
        {"*.txt", "a", false, false},   {"", "a.b", false, false},
        {"*.b.*", "a.b", false, true},  {"a", "a", false, true}};
    for (const auto& [pattern, name, ignoreCase, matches] : kCases) {
        EXPECT_EQ(matchFileName(pattern, name, ignoreCase), matches) << pattern << " ~ " << name;
    }
    EXPECT_THROW(matchFileName("", "abc", false), std::out_of_range);
}

TEST(InPlaceEdits, TrimReplaceLowerPrefixesAndNumbers) {
    for (const auto& [input, left] :
         {std::pair("  ", ""), std::pair("a b \t\n", "a b"), std::pair("", "")}) {
        std::string text = input;
        EXPECT_EQ(trimRight(text.data()) != 0, *left == '\0') << input;
        EXPECT_EQ(text.c_str(), std::string(left));
    }
    char text[] = "A.B.C";
    EXPECT_EQ(replaceChar(text, '.', '/') + replaceChar(text, '\0', 'y'), 2);
    toLowerInPlace(text);
    EXPECT_STREQ(text, "a/b/c");
    EXPECT_EQ(startsWith("abc", "ab") + startsWithNoCase("ABC", "ab"), 0);
    EXPECT_EQ(startsWith("a", "ab") + startsWithNoCase("A", "ab"), -2);
    EXPECT_LT(startsWith("abc", "abd"), 0);
    EXPECT_EQ(parseInt64("  -12x") + parseInt64("+"), -12);
    EXPECT_EQ(parseInt64("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(parseInt64("18446744073709551617"), 1);  // wraps, no clamping
}

// Every size up to past the whole text. An enclosed text is refused at exactly size-1 bytes,
// one byte more than it needs.
TEST(BoundedCopies, TokensCopiesAndReplacementsAtEverySize) {
    for (size_t size = 0; size <= 8; ++size) {
        SCOPED_TRACE(size);
        EXPECT_TRUE(testing::tokensAgree("  ab,,cd", " ,", '\0', '\0', size));
        EXPECT_TRUE(testing::tokensAgree(" a\"b c\"d <e f>", " ", '<', '>', size));
        for (const auto& [text, from, to] :
             {std::tuple("aaaa", "aa", "bbb"), std::tuple("aaaa", "aa", "b"),
              std::tuple("abab", "ab", "cd"), std::tuple("aaa", "a", "aa"),
              std::tuple("abc", "", "x")}) {
            EXPECT_TRUE(testing::replacementAgrees(text, from, to, size))
                << text << " " << from << " " << to;
        }
        testing::GuardedBuffer copy(size);
        testing::GuardedBuffer extracted(size);
        copyString(copy.data(), "abc", size);
        const std::string kept = testing::cut("abc", size);
        EXPECT_TRUE(copy.holds(kept + std::string(size - kept.size(), '\0'), false));
        EXPECT_EQ(extractBetween(extracted.data(), "x(abc)y", size, '(', ')'),
                  size >= 5 ? extracted.data() : nullptr);
        EXPECT_TRUE(extracted.holds(size >= 5 ? "abc" : ""));
    }
}

// Removal repeats until no span is complete; extraction takes the first `open` and the next
// `close` after it. A NUL delimiter would be "found" at the terminator: the text ends its
// allocation, so AddressSanitizer sees a read past it.
TEST(Delimited, RemovesAndExtractsCompleteSpansAndNeverFindsNul) {
    static const std::tuple<const char*, char, char, const char*, const char*> kCases[] = {
        {"a(b)c(d)e", '(', ')', "ace", "b"},
        {"a(b(c)d)e", '(', ')', "ad)e", "b(c"},
        {"a)b(c", '(', ')', "a)b(c", ""},
        {"a(b)c", '\0', ')', "a(b)c", ""},
        {"a(b)c", '(', '\0', "a(b)c", ""}};
    for (const auto& [input, open, close, left, extracted] : kCases) {
        std::vector<char> text(input, input + std::strlen(input) + 1);
        char between[8];
        EXPECT_EQ(copyBetween(text.data(), open, close, between, 8), *extracted != '\0') << input;
        EXPECT_STREQ(between, extracted);
        removeDelimited(text.data(), open, close);
        EXPECT_STREQ(text.data(), left);
    }
}

// At every limit: an empty pattern is found one character in; a pattern that repeats itself
// needs the search to go on from the longest border of what matched; one of 64 characters or
// more keeps its table on the heap.
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
