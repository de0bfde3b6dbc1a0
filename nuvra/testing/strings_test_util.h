// SPDX-License-Identifier: Apache-2.0
// Checks of strings.h for its unit test and fuzz targets (so without GoogleTest): the wildcard
// engines against fnmatch, the case-insensitive search against strcasestr. Each returns
// whether the library agrees.

#ifndef NUVRA_TESTING_STRINGS_TEST_UTIL_H_
#define NUVRA_TESTING_STRINGS_TEST_UTIL_H_

#include <fnmatch.h>
#include <strings.h>

#include <iterator>
#include <string>
#include <utility>

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
    const auto wide = [](const std::string& s) { return std::wstring(s.begin(), s.end()); };
    const bool path = (flags & utils::kWildcardPathName) != 0;
    const bool period = (flags & utils::kWildcardPeriod) != 0;
    const bool differs = (path && !pattern.empty() && pattern.back() == '*') ||
                         (period && pattern.find("*?") != std::string::npos) ||
                         (path && period && pattern.find('/', pattern.find('*')) < pattern.size());
    const int systemFlags = ((flags & utils::kWildcardNoEscape) != 0 ? FNM_NOESCAPE : 0) |
                            (path ? FNM_PATHNAME : 0) | (period ? FNM_PERIOD : 0) |
                            ((flags & utils::kWildcardFoldCase) != 0 ? FNM_CASEFOLD : 0);
    return matches == (utils::wildcardMatchEngineWide(wide(pattern).c_str(), wide(text).c_str(),
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

}  // namespace nuvra::testing

#endif  // NUVRA_TESTING_STRINGS_TEST_UTIL_H_
