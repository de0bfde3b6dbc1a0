// SPDX-License-Identifier: Apache-2.0
// Owners of the C resources the library holds for the length of a scope or an object: a file
// descriptor, a malloc'ed block, a getaddrinfo list and an opendir stream. Each releases its
// resource with the call that belongs to it on every way out. Internal to nuvra.

#ifndef NUVRA_TINY_INTERNAL_UNIQUE_RESOURCE_H_
#define NUVRA_TINY_INTERNAL_UNIQUE_RESOURCE_H_

#include <dirent.h>
#include <netdb.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <utility>

namespace nuvra::tiny {
namespace [[gnu::visibility("hidden")]] internal {

// A descriptor, closed when the owner goes; -1 owns nothing.
class UniqueFd {
  public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    [[nodiscard]] int get() const { return fd_; }
    // Gives the descriptor up without closing it.
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

struct FreeDeleter {
    void operator()(void* block) const { std::free(block); }
};

// A block from malloc, realloc or strdup, freed with free.
template <typename T>
using MallocPtr = std::unique_ptr<T, FreeDeleter>;

// realloc for an owned block: on success `block` owns the grown block; on failure it still
// owns the old one, unchanged, and false is returned.
template <typename T>
[[nodiscard]] bool reallocate(MallocPtr<T>& block, size_t bytes) {
    void* grown = std::realloc(block.get(), bytes);
    if (grown == nullptr) {
        return false;
    }
    static_cast<void>(block.release());  // realloc has taken it over
    block.reset(static_cast<T*>(grown));
    return true;
}

struct AddrInfoDeleter {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

// A list from getaddrinfo, freed with freeaddrinfo.
using AddrInfoPtr = std::unique_ptr<addrinfo, AddrInfoDeleter>;

struct DirDeleter {
    void operator()(DIR* dir) const { closedir(dir); }
};

// A stream from opendir, closed with closedir.
using UniqueDir = std::unique_ptr<DIR, DirDeleter>;

}  // namespace internal
}  // namespace nuvra::tiny

#endif  // NUVRA_TINY_INTERNAL_UNIQUE_RESOURCE_H_
