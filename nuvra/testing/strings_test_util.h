// Test support for strings.h, shared by its unit test and fuzz targets: the wildcard engines
// against fnmatch, the search against strcasestr, and the tokenisers and replaceAll against
// plain models. Each check returns whether the library agrees.
//
// For nuvra's tests and fuzz targets only: not part of the library. It does not use
// GoogleTest, so that the fuzz targets can include it too.

#ifndef NUVRA_TESTING_STRINGS_TEST_UTIL_H_
#define NUVRA_TESTING_STRINGS_TEST_UTIL_H_

#include <fnmatch.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>

#include "nuvra/testing/bounded_text_test_util.h"
#include "nuvra/utils/strings.h"

namespace nuvra::testing {

// A pattern of `elements` elements and a text of `characters` characters from a small
// alphabet, so that matches are common, each chosen by pick(n), a number below n. Every set
// is closed within its element: fnmatch reads an unterminated "[", a "]" first in a set and
// "[." inside one differently, on purpose.
template <typename Pick>
std::pair<std::string, std::string> wildcardCase(size_t elements, size_t characters, Pick&& pick) {
    static const char* const kElements[] = {"a",    "b",    "A",     ".",     "/",    "\\*",
                                            "\\?",  "\\\\", "?",     "*",     "**",   "[ab]",
                                            "[!a]", "[^.]", "[a-b]", "[A-B]", "[./]", "[\\a]",
                                            "[!/]", "[*?]", "[a-]",  "[-b]",  "[.]",  "-"};
    std::pair<std::string, std::string> made;
    for (; elements > 0; --elements) {
        made.first += kElements[pick(std::size(kElements))];
    }
    for (; characters > 0; --characters) {
        made.second += "abAB./\\*?[]-"[pick(12)];
    }
    return made;
}

// Both engines give one answer, and fnmatch too except where the engine differs on purpose:
// in path mode a final star never matches, and the period rule ends after a star that
// searches (fnmatch keeps it for later path components and for a "?" right after the star).
inline bool enginesAgree(const std::string& pattern, const std::string& text, int flags) {
    const bool matches = utils::wildcardMatchEngine(pattern.c_str(), text.c_str(), flags) == 0;
    const std::wstring widePattern(pattern.begin(), pattern.end());
    const std::wstring wideText(text.begin(), text.end());
    const bool path = (flags & utils::kWildcardPathName) != 0;
    const bool period = (flags & utils::kWildcardPeriod) != 0;
    const bool differs = (path && !pattern.empty() && pattern.back() == '*') ||
                         (period && pattern.find("*?") != std::string::npos) ||
                         (path && period && pattern.find('/', pattern.find('*')) < pattern.size());
    const int systemFlags = ((flags & utils::kWildcardNoEscape) != 0 ? FNM_NOESCAPE : 0) |
                            (path ? FNM_PATHNAME : 0) | (period ? FNM_PERIOD : 0) |
                            ((flags & utils::kWildcardFoldCase) != 0 ? FNM_CASEFOLD : 0);
    return matches == (utils::wildcardMatchEngineWide(widePattern.c_str(), wideText.c_str(),
                                                      flags) == 0) &&
           (differs || matches == (fnmatch(pattern.c_str(), text.c_str(), systemFlags) == 0));
}

// findNoCase finds what strcasestr finds, except that an empty pattern is found one character
// in (nothing in an empty text); findNoCaseN too, when the match lies within `limit`.
inline bool searchAgrees(const std::string& text, const std::string& pattern, size_t limit) {
    const char* t = text.c_str();
    const char* found =
        pattern.empty() ? (text.empty() ? nullptr : t + 1) : strcasestr(t, pattern.c_str());
    const bool within = limit == 0 || found == nullptr || found - t + pattern.size() <= limit;
    return utils::findNoCase(t, pattern.c_str()) == found &&
           utils::findNoCaseN(t, pattern.c_str(), limit) == (within ? found : nullptr);
}

// nextQuotedToken, called while a token lies ahead, and nextToken at the end, find the tokens
// that a scan for delimiters and quotes finds, and copy those shorter than `size`.
inline bool tokensAgree(const std::string& text, const std::string& delimiters, char open,
                        char close, size_t size) {
    for (const char* cursor = text.c_str();;) {
        GuardedBuffer token(size);
        const char* begin = cursor + std::strspn(cursor, delimiters.c_str());
        const char* end = begin;
        for (bool quoted = false;
             *end != '\0' && (quoted || !std::strchr(delimiters.c_str(), *end)); ++end) {
            quoted = quoted ? *end != close : *end == open;
        }
        const bool fits = begin < end && static_cast<size_t>(end - begin) < size;
        const int result = begin == end
                               ? utils::nextToken(&cursor, delimiters.c_str(), token.data(), size)
                               : utils::nextQuotedToken(&cursor, delimiters.c_str(), open, close,
                                                        token.data(), size);
        if (result != (fits ? 1 : 0) || cursor != end ||
            !token.holds(fits ? std::string(begin, end) : "")) {
            return false;
        }
        if (begin == end) {
            return true;
        }
    }
}

// replaceAll, in a buffer of `size` bytes, replaces from the left, searching on after each
// inserted text and, when the lengths differ, stopping before a replacement that would not
// fit.
inline bool replacementAgrees(const std::string& text, const std::string& from,
                              const std::string& to, size_t size) {
    std::string expected = text;
    int result = 1;
    for (size_t at = expected.find(from); !from.empty() && at != std::string::npos;
         at = expected.find(from, at + to.size())) {
        if (from.size() != to.size() && expected.size() + 1 + to.size() - from.size() > size) {
            result = 0;
            break;
        }
        expected.replace(at, from.size(), to);
    }
    std::string buffer = text;
    buffer.resize(std::max(size, text.size() + 1));
    return utils::replaceAll(buffer.data(), size, from.c_str(), to.c_str()) == result &&
           std::strcmp(buffer.c_str(), expected.c_str()) == 0;
}

}  // namespace nuvra::testing

#endif  // NUVRA_TESTING_STRINGS_TEST_UTIL_H_
