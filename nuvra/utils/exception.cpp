// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/exception.h"

namespace nuvra::utils {

Exception::Exception(const std::string& message) : std::runtime_error(message) {}

// Defined here so the type's virtual table and type information live in one object file.
Exception::~Exception() = default;

}  // namespace nuvra::utils
