// SPDX-License-Identifier: Apache-2.0
// nuvra::utils::Exception: the library's own exception type.
//
// Most of nuvra reports failure through return values (false, -1, null, status codes) and
// never throws. The few functions that do throw name the exceptions that may leave them in
// their comments, always their own type and std::bad_alloc. C++17 no longer lets a function
// carry a throw(...) list, so those functions keep the list in code: a listed exception
// passes through, any other exception reaching them ends the process with std::terminate.

#ifndef NUVRA_UTILS_EXCEPTION_H_
#define NUVRA_UTILS_EXCEPTION_H_

#include <stdexcept>
#include <string>

namespace nuvra::utils {

// A library failure that carries nothing but its message.
//
// Thrown by value, caught by const reference. what() returns the message exactly as given:
// no prefix, no class name, no trailing newline. A message that needs an operating-system
// error text has that text written into the string before construction.
//
// Other library exceptions (such as the name-resolution failure) derive directly from
// std::runtime_error as siblings of this type, so a handler for Exception does not catch
// them; a handler for std::runtime_error catches all of them.
class Exception : public std::runtime_error {
  public:
    explicit Exception(const std::string& message);
    ~Exception() override;

    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;
};

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_EXCEPTION_H_
