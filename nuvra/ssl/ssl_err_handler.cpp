// SPDX-License-Identifier: Apache-2.0
#include "nuvra/ssl/ssl_err_handler.h"

#include <openssl/err.h>

#include <array>
#include <utility>

#include "nuvra/tiny/tls.h"

namespace nuvra::ssl {
namespace {

uint32_t callingThreadKey() { return static_cast<uint32_t>(tiny::currentThreadId()); }

}  // namespace

void SslErrHandler::recordErrors() {
    tiny::NMutexLock lock(mutex_);
    // The entry is made on the first code only, so an empty queue leaves no empty entry.
    std::vector<unsigned long>* codes = nullptr;
    for (unsigned long code = ERR_get_error(); code != 0; code = ERR_get_error()) {
        if (codes == nullptr) {
            codes = &errorsByThread_[callingThreadKey()];
        }
        codes->push_back(code);
    }
}

unsigned long SslErrHandler::takeErrorText(std::string& out) {
    std::vector<unsigned long> codes;
    {
        tiny::NMutexLock lock(mutex_);
        const auto entry = errorsByThread_.find(callingThreadKey());
        if (entry == errorsByThread_.end()) {
            out.clear();
            return 0;
        }
        codes = std::move(entry->second);
        errorsByThread_.erase(entry);
    }
    // Formatted outside the lock, from this thread's own copy.
    std::array<char, 4096> text{};
    for (const unsigned long code : codes) {
        ERR_error_string_n(code, text.data(), text.size());
        out += text.data();
        out += '\n';
    }
    return codes.empty() ? 0 : codes.back();
}

void discardErrors() {
    while (ERR_get_error() != 0) {
    }
}

}  // namespace nuvra::ssl
