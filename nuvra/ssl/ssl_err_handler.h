// SPDX-License-Identifier: Apache-2.0
// nuvra::ssl::SslErrHandler, which keeps OpenSSL error codes per thread until code on that
// thread asks for them as text, and discardErrors, which drops the calling thread's queue.
//
// OpenSSL queues its error codes per thread. Code that sees an OpenSSL call fail where it
// cannot return an error (inside a stream operation, say) records the queue with the
// handler; the caller on the same thread fetches the texts afterwards. The library's handler
// is the process-wide SingletonFactory<SslErrHandler, DestroyAtExit>::getInstance().
//
// Nothing here throws of its own accord: std::bad_alloc may leave a function that stores or
// formats codes, and the handler's lock is released on the way out.

#ifndef NUVRA_SSL_SSL_ERR_HANDLER_H_
#define NUVRA_SSL_SSL_ERR_HANDLER_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "nuvra/tiny/mutex.h"

namespace nuvra::ssl {

class SslErrHandler {
  public:
    // An empty handler. Handlers share nothing: a code recorded with one is invisible to
    // another. The constructor throws what NMutex's does.
    SslErrHandler() = default;

    // Moves every code from the calling thread's OpenSSL error queue into the handler,
    // oldest first, under the calling thread's kernel id; the queue is empty afterwards. An
    // empty queue leaves the handler as it was.
    //
    // WARNING: codes of a thread that never asks for them stay until the handler goes.
    void recordErrors();

    // Appends to `out` one line per code recorded for the calling thread, oldest first: the
    // text OpenSSL's ERR_error_string_n gives for the code, then "\n" (the last line too).
    // What `out` held is kept in front. The codes are forgotten. Returns the newest code.
    //
    // With nothing recorded for the calling thread, `out` is emptied and 0 returned.
    unsigned long takeErrorText(std::string& out);

  private:
    // Kernel thread id to that thread's codes, oldest first. Guarded by mutex_.
    std::map<uint32_t, std::vector<unsigned long>> errorsByThread_;
    tiny::NMutex mutex_;
};

// Empties the calling thread's OpenSSL error queue without recording anything, so that a
// failure expected and handled by the caller does not surface in a later recordErrors.
void discardErrors();

}  // namespace nuvra::ssl

#endif  // NUVRA_SSL_SSL_ERR_HANDLER_H_
