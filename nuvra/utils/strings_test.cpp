#include "nuvra/utils/strings.h"

#include <fnmatch.h>
#include <strings.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>

#include "gtest/gtest.h"

namespace nuvra::utils {
namespace {

constexpr int kNoEscape = kWildcardNoEscape;
constexpr int kPath = kWildcardPathName;
constexpr int kPeriod = kWildcardPeriod;
constexpr int kFold = kWildcardFoldCase;

// 64 canary bytes, of which a function is handed `size`: it must write nothing past them
// and leave a terminator within them (when size > 0).
struct Guarded {
    explicit Guarded(size_t n) : size(n) { std::memset(bytes, '\x5a', sizeof bytes); }
    std::string text() const { return {bytes, strnlen(bytes, size)}; }
    bool inBounds() const {
        return std::string(bytes + size, sizeof bytes - size) ==
                   std::string(sizeof bytes - size, '\x5a') &&
               (size == 0 || strnlen(bytes, size) < size);
    }
    size_t size;
    char bytes[64];
};

std::wstring widen(const char* s) { return {s, s + std::strlen(s)}; }

TEST(WildcardEngine, HandPickedCases) {
    static const struct {
        const char* pattern;
        const char* text;
        int flags;
        bool matches;
    } kCases[] = {
        {"*.TXT", "a.txt", kNoEscape | kFold, true},
        {"*.TXT", "a.txt", kNoEscape, false},
        {"a\\*", "a\\xyz", kNoEscape, true},  // backslash literal, then a final star
        {"a\\*", "a*", 0, true},
        {"a\\*", "ab", 0, false},
        {"a\\", "a\\", 0, false},  // a lone trailing backslash never matches
        {"", "", 0, true},
        // A final star never matches in path mode; a leading period is protected until a
        // star has searched. Elsewhere the comparison with fnmatch below covers both rules.
        {"a*", "abc", kPath, false},
        {"*", "", kPath, false},
        {"*x/?b", "ax/.b", kPath | kPeriod, true},  // cleared after a searching star
        {"[a-c]", "B", kFold, true},
        {"[a-c]", "B", 0, false},
        {"[]a]", "a", 0, false},  // "]" right after "[" closes an empty set
        {"[!]", "z", 0, true},
        {"[\\]]", "]", 0, true},
        {"[\\]]", "]", kNoEscape, false},  // "[\]" then a literal "]"
        {"[\\]]", "\\]", kNoEscape, true},
        {"[ab", "a", 0, false},  // unterminated
        {"*[ab", "xa", 0, false},
        {"[\xe0-\xef]", "\xe5", 0, true},  // bytes compare unsigned
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.pattern) + " ~ " + c.text + " flags " + std::to_string(c.flags));
        EXPECT_EQ(wildcardMatchEngine(c.pattern, c.text, c.flags), c.matches ? 0 : 1);
        EXPECT_EQ(wildcardMatchEngineWide(widen(c.pattern).c_str(), widen(c.text).c_str(), c.flags),
                  c.matches ? 0 : 1);
    }
    // The wrappers never escape and never use path or period rules; they fold on request.
    EXPECT_TRUE(wildcardMatch("A\\*", "a\\/.b", true));
    EXPECT_FALSE(wildcardMatch(std::string("A\\*"), std::string("a\\b"), false));
    EXPECT_TRUE(wildcardMatchWide(L"*.C", L"x.c", true));
    EXPECT_FALSE(wildcardMatchWide(std::wstring(L"*.C"), std::wstring(L"x.c"), false));
}

// Small alphabets, so that matches happen. The engine differs from fnmatch on purpose in path
// mode for a final star, and for the period rule after a star that searches.
TEST(WildcardEngine, AgreesWithFnmatch) {
    static const char* const kElements[] = {"a",    "b",     "A",     ".",    "/",    "\\",
                                            "\\*",  "?",     "*",     "**",   "[ab]", "[!a]",
                                            "[^.]", "[a-b]", "[A-B]", "[./]", "[\\a]"};
    std::mt19937 random(20261122);
    int compared = 0;
    for (int i = 0; i < 40000; ++i) {
        const int flags = i % 16;
        std::string pattern;
        for (int n = static_cast<int>(random() % 7); n > 0; --n) {
            pattern += kElements[random() % (sizeof kElements / sizeof *kElements)];
        }
        std::string text;
        for (int n = static_cast<int>(random() % 8); n > 0; --n) {
            text += "abAB./\\*"[random() % 8];
        }
        const size_t star = pattern.find('*');
        const bool finalStar =
            !pattern.empty() && pattern.back() == '*' &&
            (pattern.size() < 2 || pattern[pattern.size() - 2] != '\\' || (flags & kNoEscape));
        const bool laterComponent =
            star != std::string::npos && pattern.find('/', star) != std::string::npos;
        if ((flags & kPath) && (finalStar || ((flags & kPeriod) && laterComponent))) {
            continue;
        }
        const int systemFlags =
            ((flags & kNoEscape) ? FNM_NOESCAPE : 0) | ((flags & kPath) ? FNM_PATHNAME : 0) |
            ((flags & kPeriod) ? FNM_PERIOD : 0) | ((flags & kFold) ? FNM_CASEFOLD : 0);
        ASSERT_EQ(wildcardMatchEngine(pattern.c_str(), text.c_str(), flags) == 0,
                  fnmatch(pattern.c_str(), text.c_str(), systemFlags) == 0)
            << pattern << " ~ " << text << " flags " << flags;
        ++compared;
    }
    EXPECT_GT(compared, 30000);
}

TEST(WildcardEngine, ManyStarsAgainstALongMismatchStayLinearish) {
    // Exponential backtracking would not finish; the engine does ~ pattern x text steps.
    const std::string text(100000, 'a');
    EXPECT_NE(wildcardMatchEngine("*a*a*a*a*a*a*a*a*a*a*b", text.c_str(), 0), 0);
    EXPECT_NE(wildcardMatchEngine("*a*a*a*a*a*a*a*a*a*a*b", text.c_str(), kPath), 0);
}

TEST(MatchFileName, NamesWithoutExtension) {
    static const struct {
        const char* pattern;
        const char* name;
        bool matches;
    } kCases[] = {
        {"*.*", "README", true},  {"readme.*", "readme", true}, {"abc.", "abc", true},
        {"abc.", "abc.d", false}, {"*.txt", "a", false},        {"a.*", "a.b.c", true},
        {".*", "", true},         {"", "a.b", false},           {"", "", true},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.pattern) + " ~ " + c.name);
        EXPECT_EQ(matchFileName(c.pattern, c.name, false), c.matches);
    }
    EXPECT_TRUE(matchFileName("README.*", "readme", true));
    EXPECT_THROW(matchFileName("", "abc", false), std::out_of_range);
}

TEST(InPlaceEdits, TrimReplaceAndLowerCase) {
    static const struct {
        const char* input;
        const char* left;
        bool nothingLeft;
    } kCases[] = {
        {"  ", "", true}, {"a b \t\n", "a b", false}, {"", "", true}, {" a", " a", false}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.input);
        std::string text = c.input;
        EXPECT_EQ(trimRight(text.data()) != 0, c.nothingLeft);
        EXPECT_STREQ(text.c_str(), c.left);
    }
    char text[] = "a.b.c";
    EXPECT_EQ(replaceChar(text, '.', '/'), 2);
    EXPECT_EQ(replaceChar(text, '\0', 'y'), 0);
    EXPECT_STREQ(text, "a/b/c");
    char mixed[] = "MiXeD 123";
    toLowerInPlace(mixed);
    EXPECT_STREQ(mixed, "mixed 123");
}

TEST(StartsWith, ComparesThePrefixOnly) {
    EXPECT_EQ(startsWith("abc", "ab"), 0);
    EXPECT_EQ(startsWith("abc", ""), 0);
    EXPECT_EQ(startsWith("a", "ab"), -1);
    EXPECT_GT(startsWith("b", "a"), 0);
    EXPECT_LT(startsWith("abc", "abd"), 0);
    EXPECT_EQ(startsWithNoCase("ABC", "ab"), 0);
    EXPECT_EQ(startsWithNoCase("A", "ab"), -1);
    EXPECT_NE(startsWithNoCase("ABC", "ac"), 0);
}

// The bounded copiers at sizes 0 to 6, each with "abc" to copy: copyString cuts it, the
// token needs 4 bytes, and an enclosed text is refused at exactly size-1 bytes. The cursor
// moves past the token either way.
TEST(BoundedCopies, SizeEdges) {
    for (size_t size = 0; size <= 6; ++size) {
        SCOPED_TRACE(size);
        Guarded copy(size);
        Guarded token(size);
        Guarded extracted(size);
        Guarded copied(size);
        const char* cursor = " ,abc,,d";
        copyString(copy.bytes, "abc", size);
        EXPECT_EQ(nextToken(&cursor, " ,", token.bytes, size), size >= 4 ? 1 : 0);
        EXPECT_STREQ(cursor, ",,d");
        EXPECT_EQ(extractBetween(extracted.bytes, "x(abc)y", size, '(', ')'),
                  size >= 5 ? extracted.bytes : nullptr);
        EXPECT_EQ(copyBetween("x(abc)y", '(', ')', copied.bytes, size), size >= 5);
        for (const Guarded* buffer : {&copy, &token, &extracted, &copied}) {
            EXPECT_TRUE(buffer->inBounds());
        }
        EXPECT_EQ(copy.text(), std::string("abc").substr(0, size == 0 ? 0 : size - 1));
        EXPECT_EQ(token.text(), size >= 4 ? "abc" : "");
        EXPECT_EQ(extracted.text(), size >= 5 ? "abc" : "");
        EXPECT_EQ(copied.text(), size >= 5 ? "abc" : "");
    }
    const char* cursor = ",";
    char token[8] = "x";
    EXPECT_EQ(nextToken(&cursor, ",", token, sizeof token), 0);
    EXPECT_STREQ(token, "");
}

// Removal repeats until no span is complete; extraction (size 8) takes the first `open` and
// the next `close` after it. A NUL delimiter would be "found" at the terminator: the text
// ends its allocation, so AddressSanitizer sees a read past it.
TEST(Delimited, RemovesAndExtractsCompleteSpansAndNeverFindsNul) {
    static const struct {
        const char* input;
        char open;
        char close;
        const char* left;
        const char* extracted;  // null: refused
    } kCases[] = {
        {"a(b)c(d)e", '(', ')', "ace", "b"},     {"a(b(c)d)e", '(', ')', "ad)e", "b(c"},
        {")a(b)", '(', ')', ")a", "b"},          {"a)b(c", '(', ')', "a)b(c", nullptr},
        {"a(b)c", '\0', ')', "a(b)c", nullptr},  {"a(b)c", '(', '\0', "a(b)c", nullptr},
        {"a(b)c", '\0', '\0', "a(b)c", nullptr},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.input) + " " + std::to_string(c.open) + std::to_string(c.close));
        const size_t size = std::strlen(c.input) + 1;
        std::unique_ptr<char[]> text(new char[size]);
        std::memcpy(text.get(), c.input, size);
        Guarded extracted(8);
        Guarded copied(8);
        EXPECT_EQ(extractBetween(extracted.bytes, text.get(), 8, c.open, c.close),
                  c.extracted == nullptr ? nullptr : extracted.bytes);
        EXPECT_EQ(copyBetween(text.get(), c.open, c.close, copied.bytes, 8),
                  c.extracted != nullptr);
        EXPECT_EQ(extracted.text(), c.extracted == nullptr ? "" : c.extracted);
        EXPECT_EQ(copied.text(), extracted.text());
        removeDelimited(text.get(), c.open, c.close);
        EXPECT_STREQ(text.get(), c.left);
    }
}

TEST(ReplaceAll, StopsHalfWayWhenTheBufferIsTooSmall) {
    static const struct {
        const char* input;
        size_t bufferSize;
        const char* from;
        const char* to;
        int result;
        const char* output;
    } kCases[] = {
        {"aaaa", 7, "aa", "bbb", 1, "bbbbbb"}, {"aaaa", 6, "aa", "bbb", 0, "bbbaa"},
        {"aaaa", 5, "aa", "bbb", 0, "aaaa"},   {"xaxa", 5, "a", "", 1, "xx"},
        {"abab", 1, "ab", "cd", 1, "cdcd"},   // same length: no size check
        {"aaa", 10, "a", "aa", 1, "aaaaaa"},  // searches on after the inserted text
        {"abc", 10, "", "x", 1, "abc"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.input) + " size " + std::to_string(c.bufferSize));
        char buffer[32] = {};
        std::memcpy(buffer, c.input, std::strlen(c.input) + 1);
        EXPECT_EQ(replaceAll(buffer, c.bufferSize, c.from, c.to), c.result);
        EXPECT_STREQ(buffer, c.output);
    }
}

TEST(NextToken, DelimitersInsideQuotesStay) {
    const char* cursor = " a\"b c\"d <e f>";
    char token[16];
    EXPECT_EQ(nextQuotedToken(&cursor, " ", '"', '"', token, sizeof token), 1);
    EXPECT_STREQ(token, "a\"b c\"d");
    EXPECT_EQ(nextQuotedToken(&cursor, " ", '<', '>', token, sizeof token), 1);
    EXPECT_STREQ(token, "<e f>");
    EXPECT_EQ(nextQuotedToken(&cursor, " ", '<', '>', token, sizeof token), 0);
    cursor = "\"unclosed quote";
    EXPECT_EQ(nextQuotedToken(&cursor, " ", '"', '"', token, sizeof token), 1);
    EXPECT_STREQ(token, "\"unclosed quote");
}

TEST(ParseInt64, HandPickedWrapsAndAgreesWithStrtoll) {
    static const struct {
        const char* text;
        int64_t value;
    } kCases[] = {
        {"  -12x", -12},
        {"+", 0},
        {"+-1", 0},
        {"\t\n 42", 42},
        {"9223372036854775807", INT64_MAX},
        {"-9223372036854775808", INT64_MIN},
        {"9223372036854775808", INT64_MIN},  // wraps, no clamping
        {"18446744073709551617", 1},         // 2^64 + 1
        {"-18446744073709551615", 1},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(parseInt64(c.text), c.value) << c.text;
    }
    std::mt19937_64 random(42);
    for (int i = 0; i < 5000; ++i) {
        const auto value = static_cast<int64_t>(random() >> (random() % 64));
        char text[32];
        (void)std::snprintf(text, sizeof text, " %" PRId64 "z", i % 2 ? value : -value);
        ASSERT_EQ(parseInt64(text), std::strtoll(text, nullptr, 10)) << text;
    }
}

TEST(FindNoCase, HandPickedAndLimit) {
    const char* hello = "Hello World";
    EXPECT_EQ(findNoCase(hello, "WORLD"), hello + 6);
    EXPECT_EQ(findNoCase(hello, "worlds"), nullptr);
    // An empty pattern: null on empty text, else the second character.
    EXPECT_EQ(findNoCase("", ""), nullptr);
    EXPECT_EQ(findNoCase(hello, ""), hello + 1);
    // The limit counts consumed characters; 0 means none.
    const char* text = "xxABC";
    EXPECT_EQ(findNoCaseN(text, "abc", 5), text + 2);
    EXPECT_EQ(findNoCaseN(text, "abc", 4), nullptr);
    EXPECT_EQ(findNoCaseN(text, "abc", 0), text + 2);
}

// Short patterns against short texts, and patterns of 60 to 119 characters (those of 64 and
// more keep their search table on the heap) cut from a long text in the other case, half of
// them changed in one place.
TEST(FindNoCase, AgreesWithStrcasestr) {
    std::mt19937 random(7);
    const auto randomString = [&random](size_t length) {
        std::string s(length, 'a');
        for (char& c : s) {
            c = "abAB"[random() % 4];
        }
        return s;
    };
    const std::string longText = randomString(600);
    for (int i = 0; i < 20000; ++i) {
        std::string text = randomString(random() % 13);
        std::string pattern = randomString(1 + random() % 4);
        if (i % 50 == 0) {
            text = longText;
            pattern = longText.substr(random() % 480, 60 + random() % 60);
            for (char& c : pattern) {
                c = static_cast<char>(c ^ 0x20);
            }
            if (i % 100 == 0) {
                pattern[random() % pattern.size()] = "ab"[random() % 2];  // often not found then
            }
        }
        ASSERT_EQ(findNoCase(text.c_str(), pattern.c_str()),
                  strcasestr(text.c_str(), pattern.c_str()))
            << pattern << " in " << text;
    }
}

}  // namespace
}  // namespace nuvra::utils
