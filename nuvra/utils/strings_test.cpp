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

// A buffer whose bytes past the size handed to a function must stay untouched.
class GuardedBuffer {
  public:
    static constexpr size_t kCapacity = 64;
    static constexpr char kCanary = '\x5a';

    explicit GuardedBuffer(size_t size) : size_(size) { std::memset(bytes_, kCanary, kCapacity); }
    char* data() { return bytes_; }
    std::string text() const { return {bytes_, strnlen(bytes_, size_)}; }

    // Nothing written past the size, and a terminator within it when there is room for one.
    void expectWithinBounds() const {
        for (size_t i = size_; i < kCapacity; ++i) {
            ASSERT_EQ(bytes_[i], kCanary) << "byte " << i << " written, size " << size_;
        }
        if (size_ > 0) {
            EXPECT_LT(strnlen(bytes_, size_), size_) << "not terminated within size " << size_;
        }
    }

  private:
    size_t size_;
    char bytes_[kCapacity];
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
        {"a\\*", "a*", kNoEscape, false},
        {"a\\*", "a*", 0, true},  // escaping: the star is literal
        {"a\\*", "ab", 0, false},
        {"a\\", "a\\", 0, false},  // a lone trailing backslash never matches
        {"a***b", "axyzb", 0, true},
        {"", "", 0, true},
        {"", "a", 0, false},
        {"?", "", 0, false},
        // Path mode: "/" only by a literal "/", and a final star never matches.
        {"a?b", "a/b", kPath, false},
        {"a[/]b", "a/b", kPath, false},
        {"a*", "abc", kPath, false},
        {"a*", "abc", 0, true},
        {"*", "", kPath, false},
        {"*/c", "ab/c", kPath, true},
        {"*/c", "a/b/c", kPath, false},
        {"*b/c", "ab/c", kPath, true},
        {"*c", "a/c", kPath, false},
        {"*c", "a/c", 0, true},
        // Leading periods.
        {"*", ".a", kPeriod, false},
        {"?a", ".a", kPeriod, false},
        {"[.]a", ".a", kPeriod, false},
        {".a", ".a", kPeriod, true},
        {"a/*", "a/.b", kPath | kPeriod, false},
        {"a/?b", "a/.b", kPath | kPeriod, false},
        {"a/?b", "a/.b", kPath, true},
        {"*x/?b", "ax/.b", kPath | kPeriod, true},  // cleared after a searching star
        {"x*.b", "x.b", kPeriod, true},
        // Sets.
        {"[abc]", "b", 0, true},
        {"[!abc]", "b", 0, false},
        {"[^abc]", "d", 0, true},
        {"[a-c]x", "bx", 0, true},
        {"[a-c]", "B", kFold, true},
        {"[A-C]", "b", kFold, true},
        {"[a-c]", "B", 0, false},
        {"[a-]", "-", 0, true},
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
}

TEST(WildcardEngine, WrappersNeverEscapeAndFoldOnRequest) {
    EXPECT_TRUE(wildcardMatch("A\\*", "a\\b", true));
    EXPECT_FALSE(wildcardMatch("A\\*", "a\\b", false));
    EXPECT_TRUE(wildcardMatch(std::string("*.C"), std::string("x.c"), true));
    EXPECT_TRUE(wildcardMatchWide(L"*.C", L"x.c", true));
    EXPECT_FALSE(wildcardMatchWide(std::wstring(L"*.C"), std::wstring(L"x.c"), false));
    // Path mode and period protection are never on in the wrappers.
    EXPECT_TRUE(wildcardMatch("*", ".a/b", false));
}

// A random pattern element or text character from small alphabets, so that matches happen.
std::string randomPattern(std::mt19937& random) {
    static const char* const kElements[] = {"a",    "b",     "A",     ".",    "/",    "\\",
                                            "\\*",  "?",     "*",     "**",   "[ab]", "[!a]",
                                            "[^.]", "[a-b]", "[A-B]", "[./]", "[\\a]"};
    std::string pattern;
    for (int n = std::uniform_int_distribution<int>(0, 6)(random); n > 0; --n) {
        pattern += kElements[random() % (sizeof kElements / sizeof *kElements)];
    }
    return pattern;
}

std::string randomText(std::mt19937& random) {
    static const char kCharacters[] = "abAB./\\*";
    std::string text;
    for (int n = std::uniform_int_distribution<int>(0, 7)(random); n > 0; --n) {
        text += kCharacters[random() % (sizeof kCharacters - 1)];
    }
    return text;
}

// Where the engine deliberately differs from fnmatch: a final star in path mode, and the
// period rule after a star that searches (fnmatch keeps it for later path components).
bool meantToDiffer(const std::string& pattern, int flags) {
    if ((flags & kPath) == 0) {
        return false;
    }
    const bool finalStar =
        !pattern.empty() && pattern.back() == '*' &&
        (pattern.size() < 2 || pattern[pattern.size() - 2] != '\\' || (flags & kNoEscape) != 0);
    const size_t star = pattern.find('*');
    const bool laterComponent =
        star != std::string::npos && pattern.find('/', star) != std::string::npos;
    return finalStar || ((flags & kPeriod) != 0 && laterComponent);
}

TEST(WildcardEngine, AgreesWithFnmatch) {
    std::mt19937 random(20261122);
    int compared = 0;
    for (int i = 0; i < 40000; ++i) {
        const int flags = i % 16;
        const std::string pattern = randomPattern(random);
        const std::string text = randomText(random);
        if (meantToDiffer(pattern, flags)) {
            continue;
        }
        const int systemFlags =
            ((flags & kNoEscape) ? FNM_NOESCAPE : 0) | ((flags & kPath) ? FNM_PATHNAME : 0) |
            ((flags & kPeriod) ? FNM_PERIOD : 0) | ((flags & kFold) ? FNM_CASEFOLD : 0);
        const bool expected = fnmatch(pattern.c_str(), text.c_str(), systemFlags) == 0;
        ASSERT_EQ(wildcardMatchEngine(pattern.c_str(), text.c_str(), flags) == 0, expected)
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
        {"*.*", "README", true},  {"readme.*", "readme", true},
        {"abc.", "abc", true},    {"abc.", "abc.d", false},
        {"*.txt", "a.txt", true}, {"*.txt", "a", false},
        {"a.*", "a.b.c", true},   {".*", "", true},
        {"", "a.b", false},       {"", "", true},
        {"*.*", "x.", true},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.pattern) + " ~ " + c.name);
        EXPECT_EQ(matchFileName(c.pattern, c.name, false), c.matches);
    }
    EXPECT_TRUE(matchFileName("README.*", "readme", true));
    EXPECT_THROW(matchFileName("", "abc", false), std::out_of_range);
}

TEST(TrimRight, RemovesTrailingWhiteSpace) {
    static const struct {
        const char* input;
        const char* left;
        bool nothingLeft;
    } kCases[] = {
        {"  ", "", true},    {"a b \t\n", "a b", false}, {"", "", true},
        {" a", " a", false}, {"ab", "ab", false},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.input);
        std::string text = c.input;
        EXPECT_EQ(trimRight(text.data()) != 0, c.nothingLeft);
        EXPECT_STREQ(text.c_str(), c.left);
    }
}

TEST(InPlaceEdits, ReplaceCharAndLowerCase) {
    char text[] = "a.b.c";
    EXPECT_EQ(replaceChar(text, '.', '/'), 2);
    EXPECT_STREQ(text, "a/b/c");
    EXPECT_EQ(replaceChar(text, 'x', 'y'), 0);
    EXPECT_EQ(replaceChar(text, '\0', 'y'), 0);
    EXPECT_STREQ(text, "a/b/c");
    char mixed[] = "MiXeD 123";
    toLowerInPlace(mixed);
    EXPECT_STREQ(mixed, "mixed 123");
}

TEST(CopyString, TruncatesWithinSize) {
    for (size_t size = 0; size <= 6; ++size) {
        SCOPED_TRACE(size);
        GuardedBuffer buffer(size);
        copyString(buffer.data(), "abcd", size);
        buffer.expectWithinBounds();
        if (size > 0) {
            EXPECT_EQ(buffer.text(), std::string("abcd").substr(0, size - 1));
        }
    }
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

TEST(ExtractBetween, RefusesTextsOfSizeMinusOneOrMore) {
    static const struct {
        const char* src;
        size_t size;
        const char* expected;  // null: refused
    } kCases[] = {
        {"x(abc)y", 5, "abc"},  {"x(abc)y", 4, nullptr}, {"x(abc)y", 3, nullptr},
        {"x()y", 2, ""},        {"x()y", 1, nullptr},    {"x()y", 0, nullptr},
        {"x(abc", 10, nullptr}, {"abc)", 10, nullptr},   {")a(b)", 10, "b"},
        {"((a))", 10, "(a"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.src) + " size " + std::to_string(c.size));
        GuardedBuffer extracted(c.size);
        const char* result = extractBetween(extracted.data(), c.src, c.size, '(', ')');
        extracted.expectWithinBounds();
        GuardedBuffer copied(c.size);
        EXPECT_EQ(copyBetween(c.src, '(', ')', copied.data(), c.size), c.expected != nullptr);
        copied.expectWithinBounds();
        if (c.expected == nullptr) {
            EXPECT_EQ(result, nullptr);
            if (c.size > 0) {
                EXPECT_EQ(extracted.text(), "");
                EXPECT_EQ(copied.text(), "");
            }
        } else {
            EXPECT_EQ(result, extracted.data());
            EXPECT_EQ(extracted.text(), c.expected);
            EXPECT_EQ(copied.text(), c.expected);
        }
    }
}

TEST(RemoveDelimited, RemovesCompleteSpans) {
    static const struct {
        const char* input;
        const char* left;
    } kCases[] = {
        {"a(b)c(d)e", "ace"}, {"a(b", "a(b"},     {"a(b(c)d)e", "ad)e"},
        {"(x)", ""},          {"a)b(c", "a)b(c"}, {"", ""},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.input);
        std::string text = c.input;
        removeDelimited(text.data(), '(', ')');
        EXPECT_STREQ(text.c_str(), c.left);
    }
}

// A NUL delimiter would be "found" at the terminator; the search must not read on past it.
// The text sits at the very end of its allocation, so AddressSanitizer sees such a read.
TEST(Delimited, NulDelimitersAreNeverFound) {
    static const struct {
        char open;
        char close;
    } kCases[] = {{'\0', ')'}, {'(', '\0'}, {'\0', '\0'}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::to_string(c.open) + " " + std::to_string(c.close));
        std::unique_ptr<char[]> text(new char[6]);
        std::memcpy(text.get(), "a(b)c", 6);
        removeDelimited(text.get(), c.open, c.close);
        EXPECT_STREQ(text.get(), "a(b)c");
        GuardedBuffer extracted(8);
        EXPECT_EQ(extractBetween(extracted.data(), text.get(), 8, c.open, c.close), nullptr);
        EXPECT_EQ(extracted.text(), "");
        EXPECT_FALSE(copyBetween(text.get(), c.open, c.close, extracted.data(), 8));
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
        {"aaaa", 7, "aa", "bbb", 1, "bbbbbb"},
        {"aaaa", 6, "aa", "bbb", 0, "bbbaa"},
        {"aaaa", 5, "aa", "bbb", 0, "aaaa"},
        {"xaxa", 5, "a", "", 1, "xx"},
        {"abab", 5, "ab", "cd", 1, "cdcd"},
        {"abab", 1, "ab", "cd", 1, "cdcd"},   // same length: no size check
        {"aaa", 10, "a", "aa", 1, "aaaaaa"},  // searches on after the inserted text
        {"abc", 10, "", "x", 1, "abc"},
        {"abc", 10, "z", "xyz", 1, "abc"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.input) + " size " + std::to_string(c.bufferSize));
        char buffer[32] = {};
        std::memcpy(buffer, c.input, std::strlen(c.input) + 1);
        EXPECT_EQ(replaceAll(buffer, c.bufferSize, c.from, c.to), c.result);
        EXPECT_STREQ(buffer, c.output);
    }
}

TEST(NextToken, SkipsDelimitersAndStopsAtTheEnd) {
    const char* cursor = "  ab,,cd";
    char token[8];
    EXPECT_EQ(nextToken(&cursor, " ,", token, sizeof token), 1);
    EXPECT_STREQ(token, "ab");
    EXPECT_STREQ(cursor, ",,cd");
    EXPECT_EQ(nextToken(&cursor, " ,", token, sizeof token), 1);
    EXPECT_STREQ(token, "cd");
    EXPECT_EQ(nextToken(&cursor, " ,", token, sizeof token), 0);
    EXPECT_STREQ(token, "");
    EXPECT_EQ(nextToken(&cursor, " ,", token, sizeof token), 0);
}

TEST(NextToken, TokenMustBeShorterThanTheSize) {
    for (size_t size = 0; size <= 5; ++size) {
        SCOPED_TRACE(size);
        const char* cursor = " abc def";
        GuardedBuffer token(size);
        EXPECT_EQ(nextToken(&cursor, " ", token.data(), size), size >= 4 ? 1 : 0);
        token.expectWithinBounds();
        EXPECT_EQ(token.text(), size >= 4 ? "abc" : "");
        EXPECT_STREQ(cursor, " def");  // moved past the token either way
    }
}

TEST(NextQuotedToken, DelimitersInsideQuotesStay) {
    const char* cursor = " a\"b c\"d e <f g>";
    char token[16];
    EXPECT_EQ(nextQuotedToken(&cursor, " ", '"', '"', token, sizeof token), 1);
    EXPECT_STREQ(token, "a\"b c\"d");
    EXPECT_EQ(nextQuotedToken(&cursor, " ", '<', '>', token, sizeof token), 1);
    EXPECT_STREQ(token, "e");
    EXPECT_EQ(nextQuotedToken(&cursor, " ", '<', '>', token, sizeof token), 1);
    EXPECT_STREQ(token, "<f g>");
    EXPECT_EQ(nextQuotedToken(&cursor, " ", '<', '>', token, sizeof token), 0);

    cursor = "\"unclosed quote";
    EXPECT_EQ(nextQuotedToken(&cursor, " ", '"', '"', token, sizeof token), 1);
    EXPECT_STREQ(token, "\"unclosed quote");
}

TEST(Tokenize, IsStrtokR) {
    char text[] = "a,b";
    char* state = nullptr;
    EXPECT_STREQ(tokenize(text, ",", &state), "a");
    EXPECT_STREQ(tokenize(nullptr, ",", &state), "b");
    EXPECT_EQ(tokenize(nullptr, ",", &state), nullptr);
}

TEST(ParseInt64, HandPickedAndWrapping) {
    static const struct {
        const char* text;
        int64_t value;
    } kCases[] = {
        {"  -12x", -12},
        {"+", 0},
        {"", 0},
        {"+-1", 0},
        {"\t\n 42", 42},
        {"9223372036854775807", INT64_MAX},
        {"-9223372036854775808", INT64_MIN},
        {"9223372036854775808", INT64_MIN},  // wraps, no clamping
        {"18446744073709551617", 1},         // 2^64 + 1
        {"-18446744073709551615", 1},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(parseInt64(c.text), c.value);
    }
}

TEST(ParseInt64, AgreesWithStrtollInRange) {
    std::mt19937_64 random(42);
    for (int i = 0; i < 5000; ++i) {
        const auto value = static_cast<int64_t>(random() >> (random() % 64));
        char text[32];
        (void)std::snprintf(text, sizeof text, " %" PRId64 "z", i % 2 ? value : -value);
        ASSERT_EQ(parseInt64(text), std::strtoll(text, nullptr, 10)) << text;
    }
}

TEST(FindNoCase, HandPicked) {
    const char* hello = "Hello World";
    EXPECT_EQ(findNoCase(hello, "WORLD"), hello + 6);
    EXPECT_EQ(findNoCase(hello, "worlds"), nullptr);
    const char* partialRepeats = "aabaabaaab";  // needs the failure links
    EXPECT_EQ(findNoCase(partialRepeats, "AAAB"), partialRepeats + 6);
    // An empty pattern: null on empty text, else the second character.
    EXPECT_EQ(findNoCase("", ""), nullptr);
    EXPECT_EQ(findNoCase(hello, ""), hello + 1);
}

TEST(FindNoCase, LimitCountsConsumedCharacters) {
    const char* text = "xxABC";
    EXPECT_EQ(findNoCaseN(text, "abc", 5), text + 2);
    EXPECT_EQ(findNoCaseN(text, "abc", 4), nullptr);
    EXPECT_EQ(findNoCaseN(text, "abc", 0), text + 2);
}

TEST(FindNoCase, AgreesWithStrcasestr) {
    std::mt19937 random(7);
    const auto randomString = [&random](int maxLength) {
        std::string s;
        for (int n = std::uniform_int_distribution<int>(0, maxLength)(random); n > 0; --n) {
            s += "abAB"[random() % 4];
        }
        return s;
    };
    for (int i = 0; i < 20000; ++i) {
        const std::string text = randomString(12);
        std::string pattern = randomString(4);
        if (pattern.empty()) {
            pattern = "a";
        }
        ASSERT_EQ(findNoCase(text.c_str(), pattern.c_str()),
                  strcasestr(text.c_str(), pattern.c_str()))
            << pattern << " in " << text;
    }
}

TEST(FindNoCase, LongPatternsAgreeWithStrcasestr) {
    // Patterns of 64 characters and more keep their search table on the heap.
    std::mt19937 random(64);
    std::string text(600, 'a');
    for (char& c : text) {
        c = "abAB"[random() % 4];
    }
    for (int i = 0; i < 300; ++i) {
        const size_t length = 60 + random() % 60;
        std::string pattern = text.substr(random() % (text.size() - length), length);
        for (char& c : pattern) {
            c = static_cast<char>(c ^ 0x20);  // the other case
        }
        if (i % 2 == 1) {
            pattern[random() % length] = "ab"[random() % 2];  // often no longer found
        }
        ASSERT_EQ(findNoCase(text.c_str(), pattern.c_str()),
                  strcasestr(text.c_str(), pattern.c_str()))
            << pattern;
    }
}

}  // namespace
}  // namespace nuvra::utils
