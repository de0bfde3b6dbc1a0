// The searching, tokenising and editing helpers of strings.h, each against a plain model of
// its documented behaviour. A control byte picks the function. Destination buffers are
// allocated at exactly the size handed over, so AddressSanitizer sees any write past it.

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_check.h"
#include "nuvra/utils/strings.h"

namespace {

namespace nu = nuvra::utils;

// A heap block of exactly `size` bytes (a valid pointer even for 0), filled with a canary.
class ExactBuffer {
  public:
    static constexpr char kCanary = '\x5a';
    explicit ExactBuffer(size_t size) : size_(size), bytes_(new char[size]) {
        std::memset(bytes_.get(), kCanary, size);
    }
    char* data() { return bytes_.get(); }
    size_t size() const { return size_; }
    bool untouched() const {
        for (size_t i = 0; i < size_; ++i) {
            if (bytes_[i] != kCanary) {
                return false;
            }
        }
        return true;
    }

  private:
    size_t size_;
    std::unique_ptr<char[]> bytes_;
};

// Text without NULs; with `small`, from a four-letter alphabet with both cases, so that
// repeats, borders and case-folded matches are frequent.
std::string consumeText(FuzzedDataProvider& input, size_t maxLength, bool small) {
    std::string s = input.ConsumeRandomLengthString(maxLength).c_str();
    if (small) {
        for (char& c : s) {
            c = "aAbB"[static_cast<unsigned char>(c) % 4];
        }
    }
    return s;
}

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

// The first case-insensitive occurrence by brute force; an empty pattern is found after the
// first character, as the library has always answered.
const char* naiveFind(const char* text, const char* pattern) {
    const size_t n = std::strlen(text);
    const size_t m = std::strlen(pattern);
    if (m == 0) {
        return n == 0 ? nullptr : text + 1;
    }
    for (size_t i = 0; i + m <= n; ++i) {
        size_t j = 0;
        while (j < m && lower(text[i + j]) == lower(pattern[j])) {
            ++j;
        }
        if (j == m) {
            return text + i;
        }
    }
    return nullptr;
}

void fuzzFindNoCase(FuzzedDataProvider& input) {
    const bool small = input.ConsumeBool();
    const std::string pattern = consumeText(input, 80, small);
    const std::string text = consumeText(input, 4096, small);
    const size_t limit = input.ConsumeIntegralInRange<size_t>(0, text.size() + 2);
    const char* expected = naiveFind(text.c_str(), pattern.c_str());
    FUZZ_CHECK(nu::findNoCase(text.c_str(), pattern.c_str()) == expected);
    // A match counts only when all its characters lie within the limit.
    if (limit != 0 && expected != nullptr &&
        static_cast<size_t>(expected - text.c_str()) + pattern.size() > limit) {
        expected = nullptr;
    }
    FUZZ_CHECK(nu::findNoCaseN(text.c_str(), pattern.c_str(), limit) == expected);
}

bool isDelimiter(char c, const std::string& delimiters) {
    return c != 0 && delimiters.find(c) != std::string::npos;
}

// Calls the tokeniser until it reports the end, comparing each call with the model.
void fuzzTokens(FuzzedDataProvider& input, bool quoted) {
    const std::string delimiters = input.ConsumeRandomLengthString(4).c_str();
    const char openQuote = quoted ? input.ConsumeIntegral<char>() : 0;
    const char closeQuote = quoted ? input.ConsumeIntegral<char>() : 0;
    const size_t size = input.ConsumeIntegralInRange<size_t>(0, 24);
    const std::string text = input.ConsumeRemainingBytesAsString().c_str();
    const char* cursor = text.c_str();
    size_t at = 0;
    for (size_t calls = 0; calls <= text.size() + 1; ++calls) {
        while (isDelimiter(text[at], delimiters)) {
            ++at;
        }
        // nextQuotedToken may be called only while a token lies ahead.
        if (quoted && at == text.size()) {
            return;
        }
        const size_t begin = at;
        bool inQuotes = false;
        for (; at < text.size() && (inQuotes || !isDelimiter(text[at], delimiters)); ++at) {
            if (inQuotes) {
                inQuotes = text[at] != closeQuote;
            } else {
                inQuotes = text[at] == openQuote;
            }
        }
        const std::string token = text.substr(begin, at - begin);
        const bool fits = !token.empty() && token.size() < size;

        ExactBuffer dst(size);
        const int result = quoted ? nu::nextQuotedToken(&cursor, delimiters.c_str(), openQuote,
                                                        closeQuote, dst.data(), size)
                                  : nu::nextToken(&cursor, delimiters.c_str(), dst.data(), size);
        FUZZ_CHECK(result == (fits ? 1 : 0));
        FUZZ_CHECK(cursor == text.c_str() + at);
        if (fits) {
            FUZZ_CHECK(token == dst.data());
        } else if (size > 0) {
            FUZZ_CHECK(dst.data()[0] == 0);
        }
        if (token.empty()) {
            return;  // the end was reported
        }
    }
    std::abort();  // the tokeniser never reached the end
}

void fuzzReplaceAll(FuzzedDataProvider& input) {
    const std::string from = input.ConsumeRandomLengthString(6).c_str();
    const std::string to = input.ConsumeRandomLengthString(6).c_str();
    const std::string text = input.ConsumeRandomLengthString(512).c_str();
    const size_t bufferSize =
        text.size() + 1 + input.ConsumeIntegralInRange<size_t>(0, text.size() * 2 + 8);

    // The model: replacements from the left, searching on after each inserted text; with a
    // change of length, stop before a replacement that would not fit.
    std::string expected = text;
    int expectedResult = 1;
    if (!from.empty()) {
        for (size_t found = expected.find(from); found != std::string::npos;
             found = expected.find(from, found + to.size())) {
            if (from.size() != to.size() &&
                expected.size() + 1 + to.size() - from.size() > bufferSize) {
                expectedResult = 0;
                break;
            }
            expected.replace(found, from.size(), to);
        }
    }
    ExactBuffer buffer(bufferSize);
    std::memcpy(buffer.data(), text.c_str(), text.size() + 1);
    FUZZ_CHECK(nu::replaceAll(buffer.data(), bufferSize, from.c_str(), to.c_str()) ==
               expectedResult);
    FUZZ_CHECK(expected == buffer.data());
}

// Where the first `open` and the next `close` after it are, or false.
bool findSpan(const std::string& s, char open, char close, size_t& begin, size_t& end) {
    begin = s.find(open);
    if (begin == std::string::npos) {
        return false;
    }
    end = s.find(close, begin + 1);
    return end != std::string::npos;
}

void fuzzRemoveDelimited(FuzzedDataProvider& input) {
    const char open = input.ConsumeIntegral<char>();
    const char close = input.ConsumeIntegral<char>();
    const std::string text = input.ConsumeRemainingBytesAsString().c_str();
    std::string expected = text;
    size_t begin = 0;
    size_t end = 0;
    while (open != 0 && close != 0 && findSpan(expected, open, close, begin, end)) {
        expected.erase(begin, end - begin + 1);
    }
    ExactBuffer buffer(text.size() + 1);
    std::memcpy(buffer.data(), text.c_str(), text.size() + 1);
    nu::removeDelimited(buffer.data(), open, close);
    FUZZ_CHECK(expected == buffer.data());
}

void fuzzExtractBetween(FuzzedDataProvider& input) {
    const char open = input.ConsumeIntegral<char>();
    const char close = input.ConsumeIntegral<char>();
    const size_t size = input.ConsumeIntegralInRange<size_t>(0, 40);
    const std::string text = input.ConsumeRemainingBytesAsString().c_str();
    size_t begin = 0;
    size_t end = 0;
    const bool found = open != 0 && close != 0 && findSpan(text, open, close, begin, end);
    // Deliberately one byte stricter than the buffer needs.
    const bool fits = found && size > 0 && end - begin - 1 < size - 1;

    ExactBuffer dst(size);
    const char* result = nu::extractBetween(dst.data(), text.c_str(), size, open, close);
    FUZZ_CHECK(result == (fits ? dst.data() : nullptr));
    if (fits) {
        FUZZ_CHECK(text.substr(begin + 1, end - begin - 1) == dst.data());
    } else if (size > 0) {
        FUZZ_CHECK(dst.data()[0] == 0);
    } else {
        FUZZ_CHECK(dst.untouched());
    }
    ExactBuffer copy(size);
    FUZZ_CHECK(nu::copyBetween(text.c_str(), open, close, copy.data(), size) == fits);
}

void fuzzParseInt64(FuzzedDataProvider& input) {
    const std::string text = input.ConsumeRemainingBytesAsString().c_str();
    const int64_t value = nu::parseInt64(text.c_str());
    size_t at = 0;
    while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at])) != 0) {
        ++at;
    }
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        ++at;
    }
    size_t digits = 0;
    while (at + digits < text.size() &&
           std::isdigit(static_cast<unsigned char>(text[at + digits]))) {
        ++digits;
    }
    // Up to 18 digits nothing wraps, and strtoll reads the same prefix.
    if (digits <= 18) {
        FUZZ_CHECK(value == std::strtoll(text.c_str(), nullptr, 10) || digits == 0);
        FUZZ_CHECK(digits != 0 || value == 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    switch (input.ConsumeIntegralInRange<int>(0, 6)) {
        case 0:
            fuzzFindNoCase(input);
            break;
        case 1:
            fuzzTokens(input, false);
            break;
        case 2:
            fuzzTokens(input, true);
            break;
        case 3:
            fuzzReplaceAll(input);
            break;
        case 4:
            fuzzRemoveDelimited(input);
            break;
        case 5:
            fuzzExtractBetween(input);
            break;
        default:
            fuzzParseInt64(input);
            break;
    }
    return 0;
}
