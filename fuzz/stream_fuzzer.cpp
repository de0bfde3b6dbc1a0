// NStream's buffered reads, gets and writes over a raw layer that cuts the bytes into random
// pieces and now and then fails a flush: every result must be what the byte sequence alone
// gives. Caller buffers are allocated at exactly the size handed over.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "nuvra/testing/stream_test_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::vector<uint32_t> pieces(input.ConsumeIntegralInRange<size_t>(1, 8));
    for (uint32_t& piece : pieces) {  // mostly small, now and then a whole buffer
        piece = input.ConsumeIntegralInRange<uint32_t>(1, input.ConsumeBool() ? 9 : 5000);
    }
    std::string content = input.ConsumeRandomLengthString(12000);
    if (input.ConsumeBool()) {  // drawn from few characters, lines are frequent
        for (char& c : content) {
            c = "ab\n"[static_cast<unsigned char>(c) % 3];
        }
    }
    nuvra::testing::ScriptedStream stream(content, pieces);
    size_t at = 0;  // how much of the content has been handed out
    std::string written;
    while (input.remaining_bytes() > 0) {
        const int operation = input.ConsumeIntegralInRange<int>(0, 3);
        const auto length = input.ConsumeIntegralInRange<uint32_t>(0, 5000);
        const std::unique_ptr<char[]> buffer(new char[length]);
        const size_t left = content.size() - at;
        const size_t newline = content.find('\n', at);
        const size_t line = (newline == std::string::npos ? content.size() : newline + 1) - at;
        uint32_t n = 0;
        if (operation == 0) {  // at least one byte while any is left, never more than asked
            n = stream.read(buffer.get(), length);
            FUZZ_CHECK(n <= length && (n > 0) == (length > 0 && left > 0));
            FUZZ_CHECK(stream.endOfFile() == (length > 0 && left == 0));
        } else if (operation == 1 && length > 0) {  // gets
            n = stream.gets(buffer.get(), length);
            FUZZ_CHECK(n == std::min<size_t>(line, length - 1) && buffer[n] == '\0');
        } else if (operation == 2) {  // everything is taken, however the raw layer cuts it
            const std::string bytes(length, static_cast<char>('A' + at % 26));
            FUZZ_CHECK(stream.write(bytes.data(), length) == length);
            written += bytes;
        } else if (operation == 3) {  // a failed flush loses nothing and doubles nothing
            if (input.ConsumeBool()) {
                stream.writesLeft = 0;
                FUZZ_CHECK(stream.flush() == (stream.output == written ? 0 : -1));
                stream.writesLeft = UINT32_MAX;
            }
            FUZZ_CHECK(stream.flush() == 0 && stream.output == written);
        }
        FUZZ_CHECK(std::memcmp(buffer.get(), content.data() + at, n) == 0);
        at += n;
    }
    FUZZ_CHECK(stream.flush() == 0 && stream.output == written);
    return 0;
}
