// Lets tests build a RandomSource over a file of their own instead of the system's random
// device. Internal to nuvra: not part of the public interface.

#ifndef NUVRA_UTILS_INTERNAL_RANDOM_SOURCE_SEAM_H_
#define NUVRA_UTILS_INTERNAL_RANDOM_SOURCE_SEAM_H_

#include <memory>

#include "nuvra/utils/random_source.h"

namespace nuvra::utils {
namespace [[gnu::visibility("hidden")]] internal {

class RandomSourceSeam {
  public:
    // A source reading `devicePath` where the public constructor reads "/dev/urandom"; a
    // missing path makes it fall back as it would without the device.
    static std::unique_ptr<RandomSource> withDevice(const char* devicePath);
};

}  // namespace internal
}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_INTERNAL_RANDOM_SOURCE_SEAM_H_
