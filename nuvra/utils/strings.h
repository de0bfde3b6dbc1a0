// SPDX-License-Identifier: Apache-2.0
// Matching, searching, tokenising and editing of text.
//
// Most functions work in place on NUL-terminated byte strings with caller-supplied buffers
// and report success in their result: a too-small buffer gives 0, false or null and leaves
// an empty string (never anything outside the given size). Only matchFileName throws. None
// checks for null pointers. Bytes compare as unsigned values; case folding uses tolower
// (towlower for wide text) of the current locale, and white space is isspace.

#ifndef NUVRA_UTILS_STRINGS_H_
#define NUVRA_UTILS_STRINGS_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace nuvra::utils {

// Flag bits of the wildcard engines.
inline constexpr int kWildcardNoEscape = 1;  // backslash is an ordinary character
inline constexpr int kWildcardPathName = 2;  // "/" is matched only by a literal "/"
inline constexpr int kWildcardPeriod = 4;    // a leading "." must be matched literally
inline constexpr int kWildcardFoldCase = 8;  // compare after tolower

// Matches `text` against a shell-style `pattern`: "?" one character, "*" any run, "[...]"
// a set ("!" or "^" negates, "a-z" ranges), and, without kWildcardNoEscape, "\" quoting the
// next character. Returns 0 on a match and 1 otherwise.
//
// Rules that differ from fnmatch and are kept because callers rely on them:
// - In path mode a "*" that ends the pattern never matches, whatever text remains.
// - After a "*" that is tried at several positions, kWildcardPeriod no longer applies.
// - An unterminated "[" gives no match; "]" right after "[" (or "[!") closes the set.
//
// Runs in O(pattern length x text length) at most: a failed "*" only ever retries from the
// latest "*", never from earlier ones, which cannot change the outcome.
int wildcardMatchEngine(const char* pattern, const char* text, int flags);
// The same over wide characters; folds case with towlower.
int wildcardMatchEngineWide(const wchar_t* pattern, const wchar_t* text, int flags);

// True when `text` matches `pattern`, backslash being an ordinary character; folds case
// when ignoreCase is true.
bool wildcardMatch(const char* pattern, const char* text, bool ignoreCase);
bool wildcardMatch(const std::string& pattern, const std::string& text, bool ignoreCase);
bool wildcardMatchWide(const wchar_t* pattern, const wchar_t* text, bool ignoreCase);
bool wildcardMatchWide(const std::wstring& pattern, const std::wstring& text, bool ignoreCase);

// wildcardMatch with two more rules for names written without an extension:
// - when `name` has no ".", a pattern ending in "." is also tried without that ".";
// - a pattern ending in ".*" is also tried without those two characters.
// So "*.*" and "readme.*" match "readme", and so does "readme.".
//
// Throws std::out_of_range for an empty pattern when `name` has no "." and does not match
// it: the last pattern character is read with checked access before the pattern is tested
// for emptiness, and callers have always seen that exception. std::bad_alloc may also leave.
bool matchFileName(const std::string& pattern, const std::string& name, bool ignoreCase);

// Overwrites trailing white space with NULs. Returns non-zero when nothing is left (the
// string was empty or all white space), else 0.
int trimRight(char* s);

// Replaces each byte by tolower of it.
void toLowerInPlace(char* s);

// Replaces every `from` by `to` and returns how many were replaced. A NUL `from` replaces
// nothing.
int replaceChar(char* s, char from, char to);

// Copies at most size-1 bytes of `src` and always terminates within `size`; size 0 writes
// nothing.
void copyString(char* dst, const char* src, size_t size);

// -1 when `s` is shorter than `prefix`; otherwise the memcmp result over the prefix length,
// so 0 means that `s` begins with `prefix`.
int startsWith(const char* s, const char* prefix);
// The same, ignoring case (strncasecmp).
int startsWithNoCase(const char* s, const char* prefix);

// Copies the text between the first `open` and the next `close` after it into dst and
// returns dst. Returns null, leaving dst empty (untouched when size is 0), when either
// character is missing (a NUL `open` or `close` never occurs) or the enclosed text is
// size-1 bytes or longer. Note that an enclosed text of exactly size-1 bytes, which would
// just fit, is refused.
[[nodiscard]] char* extractBetween(char* dst, const char* src, size_t size, char open, char close);
// The same extraction, reporting the outcome as a bool.
[[nodiscard]] bool copyBetween(const char* src, char open, char close, char* dst, size_t size);

// Removes every span from an `open` to the next `close` after it, both included, until no
// complete span is left; an `open` with no later `close` stays. A NUL `open` or `close`
// removes nothing.
void removeDelimited(char* s, char open, char close);

// Replaces every occurrence of `from` by `to` in `s`, which lives in a buffer of
// `bufferSize` bytes. Returns 1 when done and 0 when the next replacement would not fit.
// WARNING: on 0 the replacements made so far stay in place. When `from` and `to` have the
// same length, no size check is made. An empty `from` changes nothing.
[[nodiscard]] int replaceAll(char* s, size_t bufferSize, const char* from, const char* to);

// Skips `delimiters` at *cursor, then copies the token up to the next delimiter (or the end)
// into dst and leaves *cursor there. Returns 1 when a token was copied; 0 at the end of the
// string, or when the token needs more than size-1 bytes (dst is then empty, and the cursor
// has still moved past the token).
[[nodiscard]] int nextToken(const char** cursor, const char* delimiters, char* dst, size_t size);
// Like nextToken, but delimiters between `openQuote` and the next `closeQuote` do not end
// the token; the quote characters stay part of it.
[[nodiscard]] int nextQuotedToken(const char** cursor, const char* delimiters, char openQuote,
                                  char closeQuote, char* dst, size_t size);

// strtok_r.
[[nodiscard]] char* tokenize(char* s, const char* delimiters, char** state);

// Skips white space, takes one optional sign and the decimal digits that follow. The value
// wraps modulo 2^64 instead of saturating; no digits give 0.
int64_t parseInt64(const char* s);

// The first case-insensitive occurrence of `pattern` in `text`, or null; a linear
// (Knuth-Morris-Pratt) search. An empty pattern gives null for an empty text and otherwise a
// pointer to the text's second character; callers have always seen that result. Also null
// when the search table cannot be allocated.
[[nodiscard]] const char* findNoCase(const char* text, const char* pattern);
// The same, giving up once `limit` text characters were read without completing a match;
// limit 0 means no limit.
[[nodiscard]] const char* findNoCaseN(const char* text, const char* pattern, size_t limit);

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_STRINGS_H_
