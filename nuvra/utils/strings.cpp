// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/strings.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <type_traits>

#include "nuvra/tiny/internal/unique_resource.h"

namespace nuvra::utils {
namespace {

// tolower of the current locale for bytes. The C library's own table is fetched once per
// call instead of calling tolower for every character; the result is the same.
class ByteFolder {
  public:
    ByteFolder() : table_(*__ctype_tolower_loc()) {}
    static uint32_t value(char c) { return static_cast<unsigned char>(c); }
    uint32_t operator()(char c) const {
        return static_cast<uint32_t>(table_[static_cast<unsigned char>(c)]);
    }

  private:
    const int32_t* table_;
};

// towlower for wide characters.
class WideFolder {
  public:
    static_assert(sizeof(wchar_t) == 4, "wide text is 32-bit characters");
    static uint32_t value(wchar_t c) { return static_cast<uint32_t>(c); }
    uint32_t operator()(wchar_t c) const {
        return static_cast<uint32_t>(std::towlower(static_cast<wint_t>(c)));
    }
};

enum class BracketResult { kMatch, kNoMatch, kUnterminated };

template <typename Char, typename Folder>
class WildcardMatcher {
  public:
    WildcardMatcher(const Char* pattern, const Char* text, int flags)
        : pattern_(pattern),
          text_(text),
          textStart_(text),
          noEscape_((flags & kWildcardNoEscape) != 0),
          pathMode_((flags & kWildcardPathName) != 0),
          protectPeriod_((flags & kWildcardPeriod) != 0),
          foldCase_((flags & kWildcardFoldCase) != 0) {}

    // 0 on a match, 1 otherwise.
    int run() {
        for (;;) {
            switch (step()) {
                case Step::kGoOn:
                    break;
                case Step::kMatched:
                    return 0;
                case Step::kFailed:
                    if (!retryFromLastStar()) {
                        return 1;
                    }
                    break;
                case Step::kNeverMatches:
                    return 1;
            }
        }
    }

  private:
    enum class Step { kGoOn, kMatched, kFailed, kNeverMatches };

    // Matches one pattern element at the current positions and advances past it.
    Step step() {
        switch (*pattern_) {
            case 0:
                return *text_ == 0 ? Step::kMatched : Step::kFailed;
            case '*':
                return star();
            case '?':
                if (!canMatchAnyOne()) {
                    return Step::kFailed;
                }
                ++pattern_;
                ++text_;
                return Step::kGoOn;
            case '[':
                return bracket();
            case '\\':
                if (!noEscape_) {
                    ++pattern_;
                    if (*pattern_ == 0) {
                        return Step::kNeverMatches;  // a lone trailing backslash
                    }
                }
                return literal();
            default:
                return literal();
        }
    }

    Step literal() {
        if (*text_ == 0 || !sameCharacter(*pattern_, *text_)) {
            return Step::kFailed;
        }
        ++pattern_;
        ++text_;
        return Step::kGoOn;
    }

    Step star() {
        if (isProtectedPeriod(text_)) {
            return Step::kFailed;
        }
        while (*pattern_ == '*') {
            ++pattern_;
        }
        if (*pattern_ == 0) {
            // Deliberate: in path mode a final star matches nothing, not even the rest of
            // the last path component.
            return pathMode_ ? Step::kNeverMatches : Step::kMatched;
        }
        if (pathMode_ && *pattern_ == '/') {
            while (*text_ != 0 && *text_ != '/') {
                ++text_;
            }
            return *text_ == '/' ? Step::kGoOn : Step::kFailed;
        }
        // The rest of the pattern is now tried at every position from here on. Retrying only
        // from this star is enough: moving an earlier star on could only start this one
        // later (or, past a "/" in path mode, at the same place), where it fails as well.
        protectPeriod_ = false;
        starPattern_ = pattern_;
        starLiteral_ = isSpecial(*pattern_) ? 0 : *pattern_;
        return placeStar(text_) ? Step::kGoOn : Step::kNeverMatches;
    }

    // Moves the latest star on by one character; false when it has no position left.
    bool retryFromLastStar() {
        if (starPattern_ == nullptr || *starText_ == 0 || (pathMode_ && *starText_ == '/')) {
            return false;
        }
        return placeStar(starText_ + 1);
    }

    // Restarts the rest of the pattern at the first position from `at` on where it can begin:
    // when it begins with an ordinary character, positions without that character are
    // skipped. False when the star cannot reach such a position.
    bool placeStar(const Char* at) {
        if (starLiteral_ != 0) {
            at = skipToStarLiteral(at);
            if (*at == 0 || !sameCharacter(starLiteral_, *at)) {
                return false;
            }
        }
        starText_ = at;
        pattern_ = starPattern_;
        text_ = at;
        return true;
    }

    // The first position from `at` on that holds the ordinary character after the star, or
    // else the end of the text or, in path mode, a "/" that the star cannot pass.
    const Char* skipToStarLiteral(const Char* at) const {
        if constexpr (std::is_same_v<Char, char>) {
            if (!foldCase_) {
                // strcspn looks at many bytes per step; this is where a failing search after
                // a star spends its time.
                const char stops[] = {starLiteral_, pathMode_ ? '/' : '\0', '\0'};
                return at + std::strcspn(at, stops);
            }
        }
        while (*at != 0 && !sameCharacter(starLiteral_, *at) && !(pathMode_ && *at == '/')) {
            ++at;
        }
        return at;
    }

    [[nodiscard]] bool isSpecial(Char c) const {
        return c == 0 || c == '*' || c == '?' || c == '[' || (c == '\\' && !noEscape_);
    }

    Step bracket() {
        if (!canMatchAnyOne()) {
            return Step::kFailed;
        }
        ++pattern_;  // past "["
        switch (matchBracket(*text_)) {
            case BracketResult::kMatch:
                ++text_;
                return Step::kGoOn;
            case BracketResult::kNoMatch:
                return Step::kFailed;
            case BracketResult::kUnterminated:
                break;
        }
        return Step::kNeverMatches;
    }

    // Reads the set after "[" up to and past its "]" and tests `c` against it.
    BracketResult matchBracket(Char c) {
        const bool negated = *pattern_ == '!' || *pattern_ == '^';
        if (negated) {
            ++pattern_;
        }
        bool matched = false;
        while (*pattern_ != ']') {
            Char low;
            if (!takeSetCharacter(low)) {
                return BracketResult::kUnterminated;
            }
            Char high = low;
            if (pattern_[0] == '-' && pattern_[1] != ']' && pattern_[1] != 0) {
                ++pattern_;
                if (!takeSetCharacter(high)) {
                    return BracketResult::kUnterminated;
                }
            }
            matched = matched || inRange(c, low, high);
        }
        ++pattern_;  // past "]"
        return matched != negated ? BracketResult::kMatch : BracketResult::kNoMatch;
    }

    bool takeSetCharacter(Char& c) {
        if (*pattern_ == '\\' && !noEscape_) {
            ++pattern_;
        }
        if (*pattern_ == 0) {
            return false;
        }
        c = *pattern_++;
        return true;
    }

    [[nodiscard]] bool inRange(Char c, Char low, Char high) const {
        const uint32_t value = Folder::value(c);
        if (Folder::value(low) <= value && value <= Folder::value(high)) {
            return true;
        }
        const uint32_t folded = fold_(c);
        return foldCase_ && fold_(low) <= folded && folded <= fold_(high);
    }

    // Whether "?" or a set may consume the current text character.
    [[nodiscard]] bool canMatchAnyOne() const {
        return *text_ != 0 && !(pathMode_ && *text_ == '/') && !isProtectedPeriod(text_);
    }

    bool isProtectedPeriod(const Char* at) const {
        return protectPeriod_ && *at == '.' && (at == textStart_ || (pathMode_ && at[-1] == '/'));
    }

    [[nodiscard]] bool sameCharacter(Char a, Char b) const {
        return foldCase_ ? fold_(a) == fold_(b) : a == b;
    }

    const Char* pattern_;
    const Char* text_;
    const Char* const textStart_;
    const Char* starPattern_ = nullptr;  // just after the latest star, when there is one
    const Char* starText_ = nullptr;     // where the rest after it is being tried
    Char starLiteral_ = 0;               // the ordinary character right after it, or 0
    const bool noEscape_;
    const bool pathMode_;
    bool protectPeriod_;
    const bool foldCase_;
    const Folder fold_{};
};

int wrapperFlags(bool ignoreCase) {
    return kWildcardNoEscape | (ignoreCase ? kWildcardFoldCase : 0);
}

bool isDelimiter(char c, const char* delimiters) {
    return c != 0 && std::strchr(delimiters, c) != nullptr;
}

// Copies [begin, end) into dst when it fits within size-1 bytes; else leaves dst empty.
bool copyIfShorter(char* dst, size_t size, const char* begin, const char* end) {
    const auto length = static_cast<size_t>(end - begin);
    if (length >= size) {
        return false;
    }
    std::memcpy(dst, begin, length);
    dst[length] = 0;
    return true;
}

// The text between the first `open` and the next `close`, or false. A NUL delimiter is
// never found: strchr would find the terminator, and the search would go on past it.
bool findBetween(const char* src, char open, char close, const char*& begin, const char*& end) {
    if (open == 0 || close == 0) {
        return false;
    }
    const char* opening = std::strchr(src, open);
    if (opening == nullptr) {
        return false;
    }
    const char* closing = std::strchr(opening + 1, close);
    if (closing == nullptr) {
        return false;
    }
    begin = opening + 1;
    end = closing;
    return true;
}

// A Knuth-Morris-Pratt search for one case-folded pattern. Failure link i is the length of
// the longest proper border of the first i pattern characters, and link 0 is -1. Short
// patterns keep their folded characters and links on the stack; longer ones in one block
// from malloc.
class CaseFoldedSearch {
  public:
    explicit CaseFoldedSearch(const char* pattern) : length_(std::strlen(pattern)) {
        if (length_ >= kLocal) {
            heap_.reset(std::malloc((length_ + 1) * (sizeof(int32_t) + 1)));
            if (heap_ == nullptr) {
                links_ = nullptr;
                return;
            }
            links_ = static_cast<int32_t*>(heap_.get());
            folded_ = reinterpret_cast<uint8_t*>(links_ + length_ + 1);
        }
        // The NUL is folded too: an empty pattern compares it against the first character.
        for (size_t i = 0; i <= length_; ++i) {
            folded_[i] = static_cast<uint8_t>(fold_(pattern[i]));
        }
        buildLinks();
    }
    CaseFoldedSearch(const CaseFoldedSearch&) = delete;
    CaseFoldedSearch& operator=(const CaseFoldedSearch&) = delete;

    // The first match in `text`, giving up after `limit` characters (0: no limit).
    const char* findIn(const char* text, size_t limit) const {
        if (links_ == nullptr) {
            return nullptr;
        }
        const char* const stop = limit == 0 ? nullptr : text + limit;
        int32_t matched = 0;
        for (const char* at = text; *at != 0 && at != stop;) {
            if (matched == 0) {
                at = skipToFirstCharacter(at, stop);
                if (*at == 0 || at == stop) {
                    break;
                }
            }
            const uint32_t folded = fold_(*at);
            while (matched >= 0 && folded_[matched] != folded) {
                matched = links_[matched];
            }
            ++matched;
            ++at;
            if (static_cast<size_t>(matched) == length_) {
                return at - length_;
            }
        }
        return nullptr;
    }

  private:
    static constexpr size_t kLocal = 64;

    // Where nothing is matched yet, characters that cannot start a match are passed over in
    // a tight loop. (For an empty pattern every character can: its "first" is the NUL.)
    const char* skipToFirstCharacter(const char* at, const char* stop) const {
        if (length_ == 0) {
            return at;
        }
        const uint32_t first = folded_[0];
        if (stop == nullptr) {
            while (*at != 0 && fold_(*at) != first) {
                ++at;
            }
            return at;
        }
        while (at != stop && *at != 0 && fold_(*at) != first) {
            ++at;
        }
        return at;
    }

    void buildLinks() {
        links_[0] = -1;
        int32_t border = -1;
        for (size_t i = 0; i < length_; ++i) {
            while (border >= 0 && folded_[border] != folded_[i]) {
                border = links_[border];
            }
            links_[i + 1] = ++border;
        }
    }

    const size_t length_;
    const ByteFolder fold_;
    tiny::internal::MallocPtr<void> heap_;
    int32_t* links_ = localLinks_;
    uint8_t* folded_ = localFolded_;
    int32_t localLinks_[kLocal];
    uint8_t localFolded_[kLocal];
};

}  // namespace

int wildcardMatchEngine(const char* pattern, const char* text, int flags) {
    return WildcardMatcher<char, ByteFolder>(pattern, text, flags).run();
}

int wildcardMatchEngineWide(const wchar_t* pattern, const wchar_t* text, int flags) {
    return WildcardMatcher<wchar_t, WideFolder>(pattern, text, flags).run();
}

bool wildcardMatch(const char* pattern, const char* text, bool ignoreCase) {
    return wildcardMatchEngine(pattern, text, wrapperFlags(ignoreCase)) == 0;
}

bool wildcardMatch(const std::string& pattern, const std::string& text, bool ignoreCase) {
    return wildcardMatch(pattern.c_str(), text.c_str(), ignoreCase);
}

bool wildcardMatchWide(const wchar_t* pattern, const wchar_t* text, bool ignoreCase) {
    return wildcardMatchEngineWide(pattern, text, wrapperFlags(ignoreCase)) == 0;
}

bool wildcardMatchWide(const std::wstring& pattern, const std::wstring& text, bool ignoreCase) {
    return wildcardMatchWide(pattern.c_str(), text.c_str(), ignoreCase);
}

bool matchFileName(const std::string& pattern, const std::string& name, bool ignoreCase) {
    if (wildcardMatch(pattern, name, ignoreCase)) {
        return true;
    }
    // at() rather than back(): an empty pattern throws std::out_of_range here.
    if (name.find('.') == std::string::npos && pattern.at(pattern.size() - 1) == '.') {
        return wildcardMatch(pattern.substr(0, pattern.size() - 1), name, ignoreCase);
    }
    if (pattern.size() >= 2 && pattern.compare(pattern.size() - 2, 2, ".*") == 0) {
        return wildcardMatch(pattern.substr(0, pattern.size() - 2), name, ignoreCase);
    }
    return false;
}

int trimRight(char* s) {
    size_t length = std::strlen(s);
    while (length > 0 && std::isspace(static_cast<unsigned char>(s[length - 1])) != 0) {
        s[--length] = 0;
    }
    return length == 0 ? 1 : 0;
}

void toLowerInPlace(char* s) {
    const ByteFolder fold;
    for (; *s != 0; ++s) {
        *s = static_cast<char>(fold(*s));
    }
}

int replaceChar(char* s, char from, char to) {
    if (from == 0) {
        return 0;
    }
    int count = 0;
    for (char* found = std::strchr(s, from); found != nullptr;
         found = std::strchr(found + 1, from)) {
        *found = to;
        ++count;
    }
    return count;
}

void copyString(char* dst, const char* src, size_t size) {
    if (size == 0) {
        return;
    }
    const size_t length = strnlen(src, size - 1);
    std::memcpy(dst, src, length);
    // The bytes after the copy are cleared up to the end, as strncpy does.
    std::memset(dst + length, 0, size - length);
}

int startsWith(const char* s, const char* prefix) {
    const size_t length = std::strlen(prefix);
    if (strnlen(s, length) < length) {
        return -1;
    }
    return std::memcmp(s, prefix, length);
}

int startsWithNoCase(const char* s, const char* prefix) {
    const size_t length = std::strlen(prefix);
    if (strnlen(s, length) < length) {
        return -1;
    }
    return strncasecmp(s, prefix, length);
}

char* extractBetween(char* dst, const char* src, size_t size, char open, char close) {
    return copyBetween(src, open, close, dst, size) ? dst : nullptr;
}

bool copyBetween(const char* src, char open, char close, char* dst, size_t size) {
    if (size == 0) {
        return false;
    }
    dst[0] = 0;
    const char* begin = nullptr;
    const char* end = nullptr;
    // Deliberately one byte stricter than needed: an enclosed text of exactly size-1 bytes
    // is refused, as it always has been.
    return findBetween(src, open, close, begin, end) && copyIfShorter(dst, size - 1, begin, end);
}

void removeDelimited(char* s, char open, char close) {
    const char* begin = nullptr;
    const char* end = nullptr;
    while (findBetween(s, open, close, begin, end)) {
        char* spanStart = s + (begin - 1 - s);
        std::memmove(spanStart, end + 1, std::strlen(end + 1) + 1);
    }
}

int replaceAll(char* s, size_t bufferSize, const char* from, const char* to) {
    const size_t fromLength = std::strlen(from);
    const size_t toLength = std::strlen(to);
    if (fromLength == 0) {
        return 1;
    }
    if (fromLength == toLength) {
        for (char* found = std::strstr(s, from); found != nullptr;
             found = std::strstr(found + toLength, from)) {
            std::copy_n(to, toLength, found);
        }
        return 1;
    }
    size_t needed = std::strlen(s) + 1;
    for (char* found = std::strstr(s, from); found != nullptr;
         found = std::strstr(found + toLength, from)) {
        if (toLength > fromLength) {
            const size_t growth = toLength - fromLength;
            if (needed > bufferSize || growth > bufferSize - needed) {
                return 0;
            }
            needed += growth;
        } else {
            needed -= fromLength - toLength;
            if (needed > bufferSize) {
                return 0;
            }
        }
        const char* tail = found + fromLength;
        std::memmove(found + toLength, tail, std::strlen(tail) + 1);
        std::copy_n(to, toLength, found);
    }
    return 1;
}

int nextToken(const char** cursor, const char* delimiters, char* dst, size_t size) {
    return nextQuotedToken(cursor, delimiters, 0, 0, dst, size);
}

int nextQuotedToken(const char** cursor, const char* delimiters, char openQuote, char closeQuote,
                    char* dst, size_t size) {
    if (size > 0) {
        dst[0] = 0;
    }
    const char* at = *cursor;
    while (isDelimiter(*at, delimiters)) {
        ++at;
    }
    if (*at == 0) {
        *cursor = at;
        return 0;
    }
    const char* const begin = at;
    bool quoted = false;
    for (; *at != 0 && (quoted || !isDelimiter(*at, delimiters)); ++at) {
        // nextToken passes NUL quotes, which never occur before the end: no quoted stretch.
        if (quoted) {
            quoted = *at != closeQuote;
        } else if (*at == openQuote) {
            quoted = true;
        }
    }
    *cursor = at;
    return copyIfShorter(dst, size, begin, at) ? 1 : 0;
}

char* tokenize(char* s, const char* delimiters, char** state) {
    return strtok_r(s, delimiters, state);
}

int64_t parseInt64(const char* s) {
    while (std::isspace(static_cast<unsigned char>(*s)) != 0) {
        ++s;
    }
    const bool negative = *s == '-';
    if (*s == '-' || *s == '+') {
        ++s;
    }
    uint64_t value = 0;
    for (; *s >= '0' && *s <= '9'; ++s) {
        value = value * 10 + static_cast<uint64_t>(*s - '0');
    }
    // Deliberately wraps: out-of-range input gives its value modulo 2^64.
    return static_cast<int64_t>(negative ? 0 - value : value);
}

const char* findNoCase(const char* text, const char* pattern) {
    return findNoCaseN(text, pattern, 0);
}

const char* findNoCaseN(const char* text, const char* pattern, size_t limit) {
    return CaseFoldedSearch(pattern).findIn(text, limit);
}

}  // namespace nuvra::utils
