// SPDX-License-Identifier: Apache-2.0
// Keeps a throwing function's declared exception list in code.
//
// Internal to nuvra: not part of the public interface.

#ifndef NUVRA_TINY_INTERNAL_EXCEPTION_CONTRACT_H_
#define NUVRA_TINY_INTERNAL_EXCEPTION_CONTRACT_H_

#include <exception>
#include <utility>

namespace nuvra::tiny {
namespace [[gnu::visibility("hidden")]] internal {

// Must be called from inside a catch handler. Rethrows the exception being handled when it
// matches one of Allowed (as a `catch (const T&)` would match it, so derived types pass);
// otherwise ends the process through std::terminate, as a violated exception list would.
template <typename Allowed, typename... MoreAllowed>
[[noreturn]] void rethrowIfListedElseTerminate() {
    try {
        throw;
    } catch (const Allowed&) {
        throw;
    } catch (...) {
        if constexpr (sizeof...(MoreAllowed) > 0) {
            rethrowIfListedElseTerminate<MoreAllowed...>();
        } else {
            std::terminate();
        }
    }
}

// Runs body() and returns its result. Exceptions of the Allowed types leave as they are; any
// other exception ends the process.
template <typename... Allowed, typename Body>
decltype(auto) withExceptionContract(Body&& body) {
    static_assert(sizeof...(Allowed) > 0, "name at least one exception that may leave");
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        rethrowIfListedElseTerminate<Allowed...>();
    }
}

}  // namespace internal
}  // namespace nuvra::tiny

#endif  // NUVRA_TINY_INTERNAL_EXCEPTION_CONTRACT_H_
