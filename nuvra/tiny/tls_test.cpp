#include "nuvra/tiny/tls.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdint>
#include <future>
#include <vector>

#include "gtest/gtest.h"

namespace nuvra::tiny {
namespace {

void* word(uintptr_t value) { return reinterpret_cast<void*>(value); }  // NOLINT

template <typename Fn>
auto inAnotherThread(Fn fn) {
    return std::async(std::launch::async, fn).get();
}

TEST(TlsSlot, ValuesArePerThread) {
    TLS<void> slot;
    ASSERT_NE(slot.key(), nullptr);
    EXPECT_EQ(slot.get(), nullptr);
    EXPECT_TRUE(slot.set(word(1)));
    EXPECT_EQ(slot.get(), word(1));

    EXPECT_EQ(inAnotherThread([&slot] { return slot.get(); }), nullptr);
    EXPECT_EQ(inAnotherThread([&slot] {
                  slot.set(word(2));
                  return slot.get();
              }),
              word(2));
    EXPECT_EQ(slot.get(), word(1));
}

TEST(TlsKey, DeleteFreesTheHolder) {
    // Leak checking under the sanitizers shows a holder that was not freed.
    TlsKey* key = createTlsKey();
    ASSERT_NE(key, nullptr);
    EXPECT_TRUE(setTlsValue(key, word(3)));
    EXPECT_EQ(getTlsValue(key), word(3));
    EXPECT_TRUE(deleteTlsKey(key));
}

// Takes every key the process has left, gives them back on destruction.
class KeyExhaustion {
  public:
    KeyExhaustion() {
        pthread_key_t key;
        while (pthread_key_create(&key, nullptr) == 0) {
            keys_.push_back(key);
        }
    }
    ~KeyExhaustion() {
        for (pthread_key_t key : keys_) {
            pthread_key_delete(key);
        }
    }
    KeyExhaustion(const KeyExhaustion&) = delete;
    KeyExhaustion& operator=(const KeyExhaustion&) = delete;

  private:
    std::vector<pthread_key_t> keys_;
};

TEST(TlsSlot, FailedKeyLeavesTheSlotInert) {
    KeyExhaustion exhaustion;
    EXPECT_EQ(createTlsKey(), nullptr);
    TLS<void> slot;  // its destructor must not touch the missing key
    EXPECT_EQ(slot.key(), nullptr);
    EXPECT_FALSE(slot.set(word(1)));
    EXPECT_EQ(slot.get(), nullptr);
}

TEST(ThreadIdentity, KernelThreadIdIsTheProcessIdOnlyInTheMainThread) {
    EXPECT_EQ(currentProcessId(), static_cast<int32_t>(getpid()));
    EXPECT_EQ(getProcessId(), currentProcessId());
    EXPECT_EQ(currentThreadId(), currentProcessId());  // gtest runs tests on the main thread
    EXPECT_EQ(getThreadId(), currentThreadId());

    const int32_t other = inAnotherThread([] { return currentThreadId(); });
    EXPECT_GT(other, 0);
    EXPECT_NE(other, currentProcessId());
}

TEST(ThreadIdentity, HandleIsPthreadSelfBothWays) {
    pthread_t out{};
    EXPECT_TRUE(pthread_equal(currentThreadHandle(out), pthread_self()));
    EXPECT_TRUE(pthread_equal(out, pthread_self()));
}

}  // namespace
}  // namespace nuvra::tiny
