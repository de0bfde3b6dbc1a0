// SPDX-License-Identifier: Apache-2.0
// Thread-local value slots over POSIX thread-specific keys, and the identity of the calling
// thread and process.
//
// Nothing here throws or logs. Failures show only as a null key holder, a null value or a
// false result.

#ifndef NUVRA_TINY_TLS_H_
#define NUVRA_TINY_TLS_H_

#include <pthread.h>

#include <cstdint>

namespace nuvra::tiny {

// A heap block, from malloc, holding one pthread_key_t. Opaque: pass the pointer around.
struct TlsKey;

// Creates a key with no per-thread destructor function, so a thread's value is simply
// dropped when the thread ends. Returns the holder, or null when the system has no key to
// give (the holder is then freed).
[[nodiscard]] TlsKey* createTlsKey();

// Deletes the key and frees its holder; returns true. On failure returns false and leaves
// the holder allocated, so that a key still registered is never freed.
[[nodiscard]] bool deleteTlsKey(TlsKey* key);

// The calling thread's value for `key`; null when this thread never set one.
void* getTlsValue(TlsKey* key);

// Sets the calling thread's value for `key`; true on success. The slot never owns or frees
// the value.
[[nodiscard]] bool setTlsValue(TlsKey* key, void* value);

// The kernel thread id of the caller (gettid), not pthread_self(). In the main thread it
// equals currentProcessId().
int32_t currentThreadId();

// getpid().
int32_t currentProcessId();

// pthread_self(), stored into `handle` and also returned.
pthread_t currentThreadHandle(pthread_t& handle);

// Forwards to currentProcessId() and currentThreadId(), for callers outside the thread code.
int32_t getProcessId();
int32_t getThreadId();

template <typename T>
class TLS;

// A per-thread untyped word behind one key. Used as a function-local static, so that the
// key is created once on first use and deleted at exit:
//
//   static TLS<void> seeded;
//   if (seeded.get() == nullptr) { doOncePerThread(); seeded.set(reinterpret_cast<void*>(1)); }
//
// When the key could not be created the slot is inert: get() returns null, set() returns
// false, and the owner does its guarded work every time.
template <>
class TLS<void> {
  public:
    TLS() : key_(createTlsKey()) {}
    ~TLS() {
        if (key_ != nullptr) {
            // Nothing to do on failure: the holder then stays allocated, as it must.
            static_cast<void>(deleteTlsKey(key_));
        }
    }

    TLS(const TLS&) = delete;
    TLS& operator=(const TLS&) = delete;

    // The key holder; null when key creation failed.
    [[nodiscard]] TlsKey* key() const { return key_; }

    [[nodiscard]] void* get() const { return key_ != nullptr ? getTlsValue(key_) : nullptr; }
    bool set(void* value) { return key_ != nullptr && setTlsValue(key_, value); }

  private:
    TlsKey* key_;
};

}  // namespace nuvra::tiny

#endif  // NUVRA_TINY_TLS_H_
