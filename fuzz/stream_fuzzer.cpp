// NStream's buffered reading and writing over raw operations that deliver random chunk
// sizes. A script of read, readLine, gets, write and flush calls with random sizes runs
// against a model that knows only the byte sequence: the results must not depend on how the
// raw layer cut it up. Caller buffers are allocated at exactly the size handed over.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_check.h"
#include "nuvra/utils/stream.h"

namespace {

using nuvra::utils::NStream;

// Reads come from `content` in chunks of the scripted sizes; writes are taken in chunks of
// the same sizes, and the next write fails when failNextWrite is set.
class ChunkedStream : public NStream {
  public:
    ChunkedStream(std::string content, std::vector<uint32_t> chunks)
        : content_(std::move(content)), chunks_(std::move(chunks)) {}

    int32_t readRaw(void* buffer, uint32_t length) override {
        FUZZ_CHECK(length == kBufferSize);
        const size_t n = std::min<size_t>({length, nextChunk(), content_.size() - readAt_});
        std::memcpy(buffer, content_.data() + readAt_, n);
        readAt_ += n;
        return static_cast<int32_t>(n);
    }

    int32_t writeRaw(const void* buffer, uint32_t length) override {
        FUZZ_CHECK(length > 0 && length <= kBufferSize);
        if (failNextWrite) {
            failNextWrite = false;
            return -1;
        }
        const size_t n = std::min<size_t>(length, nextChunk());
        written.append(static_cast<const char*>(buffer), n);
        return static_cast<int32_t>(n);
    }

    bool failNextWrite = false;
    std::string written;

  private:
    uint32_t nextChunk() {
        const uint32_t chunk = chunks_[chunkAt_ % chunks_.size()];
        ++chunkAt_;
        return chunk;
    }

    const std::string content_;
    const std::vector<uint32_t> chunks_;
    size_t readAt_ = 0;
    size_t chunkAt_ = 0;
};

std::unique_ptr<char[]> exactBuffer(uint32_t size) {
    std::unique_ptr<char[]> buffer(new char[size]);
    std::memset(buffer.get(), 0x5a, size);
    return buffer;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::vector<uint32_t> chunks;
    for (size_t n = input.ConsumeIntegralInRange<size_t>(1, 8); n > 0; --n) {
        // Mostly small pieces, now and then a whole buffer.
        chunks.push_back(input.ConsumeBool() ? input.ConsumeIntegralInRange<uint32_t>(1, 9)
                                             : input.ConsumeIntegralInRange<uint32_t>(1, 5000));
    }
    const size_t operations = input.ConsumeIntegralInRange<size_t>(1, 64);
    // Lines are frequent when the content is drawn from a few characters.
    std::string content = input.ConsumeRandomLengthString(12000);
    if (input.ConsumeBool()) {
        for (char& c : content) {
            c = "ab\n"[static_cast<unsigned char>(c) % 3];
        }
    }
    ChunkedStream stream(content, chunks);
    size_t at = 0;  // how much of the content the model has handed out
    std::string expectedWritten;
    std::string pending;

    for (size_t i = 0; i < operations && input.remaining_bytes() > 0; ++i) {
        const int operation = input.ConsumeIntegralInRange<int>(0, 5);
        const auto length = input.ConsumeIntegralInRange<uint32_t>(0, 5000);
        const std::string rest = content.substr(at);
        switch (operation) {
            case 0: {  // read: at least one byte while any is left, never more than asked
                auto buffer = exactBuffer(length);
                const uint32_t n = stream.read(buffer.get(), length);
                if (length == 0 || rest.empty()) {
                    FUZZ_CHECK(n == 0);
                    FUZZ_CHECK(stream.endOfFile() == (length != 0));
                } else {
                    FUZZ_CHECK(n >= 1 && n <= length && n <= rest.size());
                    FUZZ_CHECK(std::memcmp(buffer.get(), rest.data(), n) == 0);
                    at += n;
                }
                break;
            }
            case 1:
            case 2: {  // readLine, with and without accepting an unterminated last line
                const bool acceptUnterminated = operation == 2;
                auto buffer = exactBuffer(length);
                const uint32_t n = stream.readLine(buffer.get(), length, acceptUnterminated);
                if (length == 0) {
                    FUZZ_CHECK(n == 0);
                    break;
                }
                const size_t newline = rest.find('\n');
                const size_t line = newline == std::string::npos ? rest.size() : newline + 1;
                if (line >= length) {
                    // Too long: the buffer is filled and left unterminated.
                    FUZZ_CHECK(n == 0 && std::memcmp(buffer.get(), rest.data(), length) == 0);
                    at += length;
                } else if (newline == std::string::npos && !acceptUnterminated) {
                    FUZZ_CHECK(n == 0 && buffer[0] == 0);
                    at += line;
                } else {
                    FUZZ_CHECK(n == line && std::memcmp(buffer.get(), rest.data(), n) == 0 &&
                               buffer[n] == 0);
                    at += line;
                }
                break;
            }
            case 3: {  // gets
                auto buffer = exactBuffer(length);
                const uint32_t n = stream.gets(buffer.get(), length);
                if (length == 0) {
                    FUZZ_CHECK(n == 0);
                    break;
                }
                const size_t newline = rest.find('\n');
                const size_t line = newline == std::string::npos ? rest.size() : newline + 1;
                const size_t expected = std::min<size_t>(line, length - 1);
                FUZZ_CHECK(n == expected && std::memcmp(buffer.get(), rest.data(), n) == 0 &&
                           buffer[n] == 0);
                at += n;
                break;
            }
            case 4: {  // write: everything is taken, whatever the raw layer accepts per call
                const std::string bytes(length, static_cast<char>('A' + i % 26));
                FUZZ_CHECK(stream.write(bytes.data(), length) == length);
                expectedWritten += bytes;
                break;
            }
            default: {  // flush, possibly failing once first: nothing lost, nothing doubled
                if (input.ConsumeBool()) {
                    stream.failNextWrite = true;
                    const bool nothingPending = stream.written == expectedWritten;
                    FUZZ_CHECK(stream.flush() == (nothingPending ? 0 : -1));
                    stream.failNextWrite = false;
                }
                FUZZ_CHECK(stream.flush() == 0);
                FUZZ_CHECK(stream.written == expectedWritten);
                break;
            }
        }
    }
    FUZZ_CHECK(stream.flush() == 0);
    FUZZ_CHECK(stream.written == expectedWritten);
    return 0;
}
