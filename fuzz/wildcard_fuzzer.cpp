// The wildcard engines, their wrappers and matchFileName.
//
// A control byte holds the engine flags (low four bits) and a mode:
// - modes 0 and 1 build pattern and text from small alphabets, so that matches are common,
//   and compare the narrow engine with fnmatch wherever the two are meant to agree;
// - mode 2 takes pattern and text as raw bytes and checks the narrow engine against the wide
//   one, the wrappers against the engine, the period flag against texts without a period,
//   and matchFileName against its rules;
// - mode 3 runs the wide engine over arbitrary 16-bit characters.

#include <fnmatch.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "fuzz_check.h"
#include "nuvra/utils/strings.h"

namespace {

using nuvra::utils::kWildcardFoldCase;
using nuvra::utils::kWildcardNoEscape;
using nuvra::utils::kWildcardPathName;
using nuvra::utils::kWildcardPeriod;
using nuvra::utils::matchFileName;
using nuvra::utils::wildcardMatch;
using nuvra::utils::wildcardMatchEngine;
using nuvra::utils::wildcardMatchEngineWide;
using nuvra::utils::wildcardMatchWide;

bool matches(const std::string& pattern, const std::string& text, int flags) {
    return wildcardMatchEngine(pattern.c_str(), text.c_str(), flags) == 0;
}

std::wstring widen(const std::string& s) {
    std::wstring wide;
    for (const char c : s) {
        wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
    }
    return wide;
}

// Complete pattern elements only: an unterminated set, a "]" first in a set or a character
// class are handled differently by fnmatch on purpose.
constexpr const char* kElements[] = {
    "a",     "b",    "A",    "B",    ".",    "/",     "\\",     "\\*",   "\\?",   "\\[",
    "\\\\",  "?",    "*",    "**",   "[ab]", "[!a]",  "[^.]",   "[a-b]", "[A-B]", "[./]",
    "[\\a]", "[!/]", "[*?]", "[a-]", "[-b]", "[\\]]", "[!a-b]", "-",     "]",     "[.]"};
constexpr char kTextCharacters[] = "abAB./\\*?[]-";

// Whether a set that the engine reads differently from fnmatch occurs: one left open (for
// fnmatch a literal "["), one closed by a "]" right after its "[" or "[!" (for fnmatch a
// member), or one holding "[.", "[:" or "[=" (for fnmatch collating symbols, classes and
// equivalence classes). With kWildcardNoEscape, "\\[" opens a set like any other "[".
bool hasSetMeantToDiffer(const std::string& pattern, int flags) {
    const bool escapes = (flags & kWildcardNoEscape) == 0;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '\\' && escapes) {
            ++i;
            continue;
        }
        if (pattern[i] != '[') {
            continue;
        }
        size_t j = i + 1;
        if (j < pattern.size() && (pattern[j] == '!' || pattern[j] == '^')) {
            ++j;
        }
        if (j < pattern.size() && pattern[j] == ']') {
            return true;
        }
        while (j < pattern.size() && pattern[j] != ']') {
            if (pattern[j] == '[' && j + 1 < pattern.size() &&
                std::string(".:=").find(pattern[j + 1]) != std::string::npos) {
                return true;
            }
            j += pattern[j] == '\\' && escapes ? 2 : 1;
        }
        if (j >= pattern.size()) {
            return true;
        }
        i = j;
    }
    return false;
}

// Where the engine deliberately differs from fnmatch: the sets above, and in path mode a
// final star, a star that also tries the rest at a "/" (an escaped "/" follows it; fnmatch
// stops before the "/"), and the period rule after a star that searches (fnmatch keeps it
// for later path components).
bool meantToDiffer(const std::string& pattern, int flags) {
    if (hasSetMeantToDiffer(pattern, flags)) {
        return true;
    }
    // With the period flag, fnmatch takes a "?" that follows a star together with the star
    // and still treats the next text character as leading; here only the text's first
    // character (or, in path mode, one after a "/") is.
    if ((flags & kWildcardPeriod) != 0 && pattern.find("*?") != std::string::npos) {
        return true;
    }
    if ((flags & kWildcardPathName) == 0) {
        return false;
    }
    const bool finalStar = !pattern.empty() && pattern.back() == '*';
    const bool escapedSlashAfterStar =
        (flags & kWildcardNoEscape) == 0 && pattern.find("*\\/") != std::string::npos;
    const size_t star = pattern.find('*');
    const bool laterComponent =
        star != std::string::npos && pattern.find('/', star) != std::string::npos;
    return finalStar || escapedSlashAfterStar || ((flags & kWildcardPeriod) != 0 && laterComponent);
}

void compareWithFnmatch(FuzzedDataProvider& input, int flags) {
    std::string pattern;
    const size_t elements = input.ConsumeIntegralInRange<size_t>(0, 12);
    for (size_t i = 0; i < elements; ++i) {
        pattern += kElements[input.ConsumeIntegralInRange<size_t>(
            0, sizeof kElements / sizeof *kElements - 1)];
    }
    std::string text;
    for (const uint8_t byte : input.ConsumeRemainingBytes<uint8_t>()) {
        text += kTextCharacters[byte % (sizeof kTextCharacters - 1)];
    }
    if (meantToDiffer(pattern, flags)) {
        return;
    }
    const int systemFlags = ((flags & kWildcardNoEscape) != 0 ? FNM_NOESCAPE : 0) |
                            ((flags & kWildcardPathName) != 0 ? FNM_PATHNAME : 0) |
                            ((flags & kWildcardPeriod) != 0 ? FNM_PERIOD : 0) |
                            ((flags & kWildcardFoldCase) != 0 ? FNM_CASEFOLD : 0);
    const bool expected = fnmatch(pattern.c_str(), text.c_str(), systemFlags) == 0;
    if (matches(pattern, text, flags) != expected) {
        std::fprintf(stderr, "pattern \"%s\" text \"%s\" flags %d: fnmatch says %d\n",
                     pattern.c_str(), text.c_str(), flags, expected ? 1 : 0);
    }
    FUZZ_CHECK(matches(pattern, text, flags) == expected);
    FUZZ_CHECK((wildcardMatchEngineWide(widen(pattern).c_str(), widen(text).c_str(), flags) == 0) ==
               expected);
}

// matchFileName tries the pattern, then the pattern less a final "." (names without one)
// or less a final ".*"; only an empty pattern against a name without "." may throw.
void checkFileName(const std::string& pattern, const std::string& name, bool ignoreCase) {
    const bool plain = wildcardMatch(pattern, name, ignoreCase);
    const bool hasDot = name.find('.') != std::string::npos;
    bool result = false;
    try {
        result = matchFileName(pattern, name, ignoreCase);
    } catch (const std::out_of_range&) {
        FUZZ_CHECK(pattern.empty() && !hasDot && !plain);
        return;
    }
    FUZZ_CHECK(!pattern.empty() || hasDot || plain);
    FUZZ_CHECK(!plain || result);
    const bool endsWithDotStar =
        pattern.size() >= 2 && pattern.compare(pattern.size() - 2, 2, ".*") == 0;
    if (hasDot && !endsWithDotStar) {
        FUZZ_CHECK(result == plain);
    }
    if (result && !plain) {
        const std::string shorter = pattern.substr(0, pattern.size() - (endsWithDotStar ? 2 : 1));
        FUZZ_CHECK(
            wildcardMatch(shorter, name, ignoreCase) ||
            (!hasDot && wildcardMatch(pattern.substr(0, pattern.size() - 1), name, ignoreCase)));
    }
}

void checkRawBytes(FuzzedDataProvider& input, int flags) {
    const std::string pattern = input.ConsumeRandomLengthString(256).c_str();
    const std::string text = input.ConsumeRemainingBytesAsString().c_str();
    const bool narrow = matches(pattern, text, flags);
    // In the C locale tolower and towlower agree on every byte value.
    FUZZ_CHECK(narrow ==
               (wildcardMatchEngineWide(widen(pattern).c_str(), widen(text).c_str(), flags) == 0));
    if (text.find('.') == std::string::npos) {
        FUZZ_CHECK(narrow == matches(pattern, text, flags ^ kWildcardPeriod));
    }
    for (const bool ignoreCase : {false, true}) {
        const bool expected =
            matches(pattern, text, kWildcardNoEscape | (ignoreCase ? kWildcardFoldCase : 0));
        FUZZ_CHECK(wildcardMatch(pattern.c_str(), text.c_str(), ignoreCase) == expected);
        FUZZ_CHECK(wildcardMatch(pattern, text, ignoreCase) == expected);
        FUZZ_CHECK(wildcardMatchWide(widen(pattern), widen(text), ignoreCase) == expected);
        checkFileName(pattern, text, ignoreCase);
    }
}

std::wstring consumeWide(FuzzedDataProvider& input, size_t maxLength) {
    std::wstring s;
    while (s.size() < maxLength && input.remaining_bytes() >= 2) {
        const auto c = input.ConsumeIntegral<uint16_t>();
        if (c == 0) {
            break;
        }
        s += static_cast<wchar_t>(c);
    }
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const auto control = input.ConsumeIntegral<uint8_t>();
    const int flags = control & 15;
    switch ((control >> 4) & 3) {
        case 0:
        case 1:
            compareWithFnmatch(input, flags);
            break;
        case 2:
            checkRawBytes(input, flags);
            break;
        default: {
            const std::wstring pattern = consumeWide(input, 128);
            const std::wstring text = consumeWide(input, 512);
            const int result = wildcardMatchEngineWide(pattern.c_str(), text.c_str(), flags);
            FUZZ_CHECK(result == 0 || result == 1);
            break;
        }
    }
    return 0;
}
