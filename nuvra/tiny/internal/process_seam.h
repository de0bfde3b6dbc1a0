// SPDX-License-Identifier: Apache-2.0
// Lets tests shorten the pause between the polls of waitForProcessTimeout, so that code
// built on the timed wait can be exercised without a second per poll. The time limit itself
// is still measured on the tick clock. Internal to nuvra: not part of the public interface.

#ifndef NUVRA_TINY_INTERNAL_PROCESS_SEAM_H_
#define NUVRA_TINY_INTERNAL_PROCESS_SEAM_H_

#include <cstdint>

namespace nuvra::tiny {
namespace [[gnu::visibility("hidden")]] internal {

// The pause between two polls, in milliseconds; 1000 unless a test set another.
constexpr int32_t kDefaultWaitPollMs = 1000;

// Sets the pause between polls; kDefaultWaitPollMs restores it.
void setWaitPollMsForTesting(int32_t milliseconds);

}  // namespace internal
}  // namespace nuvra::tiny

#endif  // NUVRA_TINY_INTERNAL_PROCESS_SEAM_H_
