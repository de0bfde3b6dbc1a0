// SPDX-License-Identifier: Apache-2.0
#include "nuvra/tiny/tls.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

namespace nuvra::tiny {

struct TlsKey {
    pthread_key_t key;
};

TlsKey* createTlsKey() {
    // The holder goes to pthread_key_create without a null test: a failed 4-byte malloc
    // leaves the process in no state to recover anyway.
    auto* holder = static_cast<TlsKey*>(std::malloc(sizeof(TlsKey)));
    if (pthread_key_create(&holder->key, nullptr) != 0) {
        std::free(holder);
        return nullptr;
    }
    return holder;
}

bool deleteTlsKey(TlsKey* key) {
    if (pthread_key_delete(key->key) != 0) {
        return false;
    }
    std::free(key);
    return true;
}

void* getTlsValue(TlsKey* key) { return pthread_getspecific(key->key); }

bool setTlsValue(TlsKey* key, void* value) { return pthread_setspecific(key->key, value) == 0; }

int32_t currentThreadId() { return static_cast<int32_t>(syscall(SYS_gettid)); }

int32_t currentProcessId() { return static_cast<int32_t>(getpid()); }

pthread_t currentThreadHandle(pthread_t& handle) {
    handle = pthread_self();
    return handle;
}

int32_t getProcessId() { return currentProcessId(); }

int32_t getThreadId() { return currentThreadId(); }

}  // namespace nuvra::tiny
