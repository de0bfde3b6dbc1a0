// Test support: an in-memory NStream whose raw layer hands out its input and takes output in
// scripted piece sizes, and fails writes on demand, so that tests can cut a byte sequence anywhere.
//
// For nuvra's tests only: not part of the library.

#ifndef NUVRA_TESTING_STREAM_TEST_UTIL_H_
#define NUVRA_TESTING_STREAM_TEST_UTIL_H_

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "nuvra/utils/stream.h"

namespace nuvra::testing {

class ScriptedStream : public utils::NStream {
  public:
    // Each raw read or write moves at most the next of `pieces` bytes (taken in turn, over
    // and over); the default moves whatever is asked for.
    explicit ScriptedStream(std::string input = "", std::vector<uint32_t> pieces = {UINT32_MAX})
        : input_(std::move(input)), pieces_(std::move(pieces)) {}

    int32_t readRaw(void* buffer, uint32_t length) override {
        const size_t n = std::min<size_t>({length, nextPiece(), input_.size() - readAt_});
        std::memcpy(buffer, input_.data() + readAt_, n);
        readAt_ += n;
        return static_cast<int32_t>(n);
    }
    int32_t writeRaw(const void* buffer, uint32_t length) override {
        if (writesLeft == 0) {
            errno = ENOSPC;
            return -1;
        }
        --writesLeft;
        const size_t n = std::min<size_t>(length, nextPiece());
        output.append(static_cast<const char*>(buffer), n);
        return static_cast<int32_t>(n);
    }

    std::string output;                // what raw writes took
    uint32_t writesLeft = UINT32_MAX;  // raw writes that succeed before every later one fails

  private:
    uint32_t nextPiece() { return pieces_[pieceAt_++ % pieces_.size()]; }

    std::string input_;
    std::vector<uint32_t> pieces_;
    size_t readAt_ = 0;
    size_t pieceAt_ = 0;
};

}  // namespace nuvra::testing

#endif  // NUVRA_TESTING_STREAM_TEST_UTIL_H_
