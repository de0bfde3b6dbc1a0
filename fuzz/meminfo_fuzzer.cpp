// getTotalMemory over arbitrary meminfo text, read from a memory file through the internal
// path seam, against a model of the rules: lines of at most 127 characters (a longer one
// ends the search), the first line that holds "MemTotal:" before any NUL byte wins, blanks,
// then a number as strtoll reads it, then digits and blanks, then the unit letter; the
// product is held at the int64_t limits. Without such a line the result is false and 0.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

#include "fuzz_check.h"
#include "nuvra/utils/internal/host_info_seam.h"

namespace {

constexpr size_t kLongestLine = 127;

bool isBlank(char c) { return c == ' ' || c == '\t'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isSpace(char c) { return isBlank(c) || (c >= '\n' && c <= '\r'); }

// The figure after "MemTotal:" in `text` (which holds no NUL and no line feed).
int64_t modelFigure(const std::string& text) {
    size_t at = 0;
    while (at < text.size() && isBlank(text[at])) {
        ++at;
    }
    // strtoll: white space, a sign, digits; with no digits it reads nothing at all.
    size_t number = at;
    while (number < text.size() && isSpace(text[number])) {
        ++number;
    }
    bool negative = false;
    if (number < text.size() && (text[number] == '+' || text[number] == '-')) {
        negative = text[number] == '-';
        ++number;
    }
    __int128 value = 0;
    size_t end = number;
    while (end < text.size() && isDigit(text[end])) {
        if (value <= std::numeric_limits<int64_t>::max()) {
            value = value * 10 + (text[end] - '0');
        }
        ++end;
    }
    if (end == number) {
        end = at;
        value = 0;
    }
    value = negative ? -value : value;
    while (end < text.size() && (isDigit(text[end]) || isBlank(text[end]))) {
        ++end;
    }
    int unit = 0;
    if (end < text.size()) {
        switch (text[end]) {
            case 'K':
            case 'k':
                unit = 10;
                break;
            case 'M':
            case 'm':
                unit = 20;
                break;
            case 'G':
            case 'g':
                unit = 30;
                break;
            default:
                break;
        }
    }
    constexpr __int128 kMax = std::numeric_limits<int64_t>::max();
    constexpr __int128 kMin = std::numeric_limits<int64_t>::min();
    // Past the limits the number is held there already (as strtoll does); the unit moves it
    // no further.
    value = value > kMax ? kMax : value < kMin ? kMin : value;
    value *= __int128{1} << unit;
    return static_cast<int64_t>(value > kMax ? kMax : value < kMin ? kMin : value);
}

// Whether the text has a usable MemTotal line, and its figure.
bool model(const std::string& content, int64_t& figure) {
    static const std::string kKey = "MemTotal:";
    size_t start = 0;
    while (start < content.size()) {
        size_t end = content.find('\n', start);
        const bool terminated = end != std::string::npos;
        end = terminated ? end : content.size();
        if (end - start > kLongestLine) {
            return false;
        }
        std::string line = content.substr(start, end - start);
        line = line.substr(0, line.find('\0'));
        const size_t key = line.find(kKey);
        if (key != std::string::npos) {
            figure = modelFigure(line.substr(key + kKey.size()));
            return true;
        }
        start = end + 1;
    }
    return false;
}

// One memory file for the life of the process, rewritten for every input.
struct MemoryFile {
    MemoryFile() : fd(memfd_create("meminfo", MFD_CLOEXEC)) {
        FUZZ_CHECK(fd >= 0);
        path = "/proc/self/fd/" + std::to_string(fd);
    }
    void write(const uint8_t* data, size_t size) const {
        FUZZ_CHECK(ftruncate(fd, 0) == 0);
        size_t done = 0;
        while (done < size) {
            const ssize_t n = pwrite(fd, data + done, size - done, static_cast<off_t>(done));
            FUZZ_CHECK(n > 0);
            done += static_cast<size_t>(n);
        }
    }
    int fd;
    std::string path;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    namespace internal = nuvra::utils::internal;
    static const MemoryFile file;
    file.write(data, size);
    const std::string content(reinterpret_cast<const char*>(data), size);

    int64_t expected = 0;
    const bool found = model(content, expected);
    int64_t bytes = -1;
    FUZZ_CHECK(internal::getTotalMemoryFrom(file.path.c_str(), &bytes) == found);
    FUZZ_CHECK(bytes == (found ? expected : 0));
    FUZZ_CHECK(!internal::getTotalMemoryFrom(file.path.c_str(), nullptr));
    return 0;
}
