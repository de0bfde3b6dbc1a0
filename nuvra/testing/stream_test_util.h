// SPDX-License-Identifier: Apache-2.0
// Test support: an in-memory NStream whose raw layer moves at most a set number of bytes per
// call and fails writes on demand, so that tests can cut a byte sequence anywhere.
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

#include "nuvra/utils/stream.h"

namespace nuvra::testing {

class ScriptedStream : public utils::NStream {
  public:
    // Raw reads hand out `input`; each raw read or write moves at most `piece` bytes.
    explicit ScriptedStream(std::string input = "", uint32_t piece = UINT32_MAX)
        : input_(std::move(input)), piece_(piece) {}

    int32_t readRaw(void* buffer, uint32_t length) override {
        const size_t n = std::min<size_t>({length, piece_, input_.size() - readAt_});
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
        const size_t n = std::min<size_t>(length, piece_);
        output.append(static_cast<const char*>(buffer), n);
        return static_cast<int32_t>(n);
    }

    std::string output;                // what raw writes took
    uint32_t writesLeft = UINT32_MAX;  // raw writes that succeed before every later one fails

  private:
    std::string input_;
    uint32_t piece_;
    size_t readAt_ = 0;
};

}  // namespace nuvra::testing

#endif  // NUVRA_TESTING_STREAM_TEST_UTIL_H_
