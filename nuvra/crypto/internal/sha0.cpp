// SPDX-License-Identifier: Apache-2.0
#include "nuvra/crypto/internal/sha0.h"

namespace nuvra::crypto {
namespace [[gnu::visibility("hidden")]] internal {

template class Sha160<0>;

}  // namespace internal
}  // namespace nuvra::crypto
