#include "nuvra/ssl/ssl_err_handler.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "nuvra/utils/singleton_factory.h"

namespace nuvra::ssl {
namespace {

using utils::DestroyAtExit;
using utils::SingletonFactory;
using HandlerFactory = SingletonFactory<SslErrHandler, DestroyAtExit>;

// Puts a real EVP error code on the calling thread's OpenSSL queue and returns it.
unsigned long raiseEvpError(int reason) {
    ERR_raise(ERR_LIB_EVP, reason);
    return ERR_peek_last_error();
}

// The line takeErrorText is to produce for `code`: OpenSSL's own text, then a line feed.
std::string lineFor(unsigned long code) {
    std::array<char, 4096> text{};
    ERR_error_string_n(code, text.data(), text.size());
    return std::string(text.data()) + "\n";
}

class SslErrHandlerTest : public ::testing::Test {
  protected:
    void SetUp() override { discardErrors(); }
    void TearDown() override { discardErrors(); }

    SslErrHandler handler_;
};

TEST_F(SslErrHandlerTest, TakesRecordedCodesAsLinesOldestFirstAfterEarlierText) {
    const unsigned long older = raiseEvpError(EVP_R_NO_DIGEST_SET);
    handler_.recordErrors();
    EXPECT_EQ(ERR_peek_error(), 0UL) << "recording empties the OpenSSL queue";
    const unsigned long newer = raiseEvpError(EVP_R_UPDATE_ERROR);
    handler_.recordErrors();  // adds to what the thread already has

    std::string out = "earlier\n";
    EXPECT_EQ(handler_.takeErrorText(out), newer);
    EXPECT_EQ(out, "earlier\n" + lineFor(older) + lineFor(newer));
    EXPECT_NE(out.find("no digest set"), std::string::npos) << out;

    // Taken codes are forgotten: the second call is the nothing-recorded case.
    EXPECT_EQ(handler_.takeErrorText(out), 0UL);
    EXPECT_EQ(out, "");
}

TEST_F(SslErrHandlerTest, NothingRecordedEmptiesOutAndReturnsZero) {
    // An empty queue must not leave an entry behind: with an (empty) entry the earlier text
    // would be kept instead of cleared.
    handler_.recordErrors();
    std::string out = "stale text\n";
    EXPECT_EQ(handler_.takeErrorText(out), 0UL);
    EXPECT_EQ(out, "");
}

TEST_F(SslErrHandlerTest, CodesStayWithTheThreadThatRecordedThem) {
    const unsigned long mine = raiseEvpError(EVP_R_NO_DIGEST_SET);
    handler_.recordErrors();

    std::string otherOut = "other thread's text";
    unsigned long otherResult = 1;
    std::string otherOwnLines;
    std::thread([&] {
        otherResult = handler_.takeErrorText(otherOut);
        const unsigned long otherCode = raiseEvpError(EVP_R_UPDATE_ERROR);
        handler_.recordErrors();
        handler_.takeErrorText(otherOwnLines);
        EXPECT_EQ(otherOwnLines, lineFor(otherCode));
    }).join();
    EXPECT_EQ(otherResult, 0UL);
    EXPECT_EQ(otherOut, "");

    std::string out;
    EXPECT_EQ(handler_.takeErrorText(out), mine);
    EXPECT_EQ(out, lineFor(mine)) << "the other thread's codes are not mine";
}

TEST_F(SslErrHandlerTest, DiscardErrorsEmptiesTheQueue) {
    raiseEvpError(EVP_R_NO_DIGEST_SET);
    raiseEvpError(EVP_R_UPDATE_ERROR);
    discardErrors();
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(SslErrHandlerTest, ProcessWideHandlerSurvivesUntilDestroyed) {
    SslErrHandler* const handler = HandlerFactory::getInstance();
    ASSERT_NE(handler, nullptr);
    EXPECT_EQ(HandlerFactory::getInstance(), handler);

    raiseEvpError(EVP_R_NO_DIGEST_SET);
    handler->recordErrors();
    HandlerFactory::internalDestroyInstance();

    // A fresh handler: what the destroyed one held is gone.
    std::string out = "x";
    EXPECT_EQ(HandlerFactory::getInstance()->takeErrorText(out), 0UL);
    EXPECT_EQ(out, "");
}

// The factory with a policy that only counts, over a type that counts its lives.
struct Counted {
    Counted() { ++alive; }
    ~Counted() { --alive; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    static inline std::atomic<int> alive{0};
};

struct CountingPolicy {
    static void scheduleDestruction(void (*destroy)()) {
        ++scheduled;
        lastDestroy = destroy;
    }
    static inline int scheduled = 0;
    static inline void (*lastDestroy)() = nullptr;
};

using CountedFactory = SingletonFactory<Counted, CountingPolicy>;

TEST(SingletonFactory, CreatesOnceAndAgainOnlyAfterDestruction) {
    CountingPolicy::scheduled = 0;
    std::vector<Counted*> seen(8, nullptr);
    std::vector<std::thread> threads;
    threads.reserve(seen.size());
    for (auto& slot : seen) {
        threads.emplace_back([&slot] { slot = CountedFactory::getInstance(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (Counted* instance : seen) {
        EXPECT_EQ(instance, seen.front());
    }
    EXPECT_EQ(Counted::alive, 1);
    EXPECT_EQ(CountingPolicy::scheduled, 1);
    EXPECT_EQ(CountingPolicy::lastDestroy, &CountedFactory::internalDestroyInstance);

    CountedFactory::internalDestroyInstance();
    EXPECT_EQ(Counted::alive, 0);
    CountedFactory::internalDestroyInstance();  // nothing left: harmless
    EXPECT_EQ(Counted::alive, 0);

    ASSERT_NE(CountedFactory::getInstance(), nullptr);
    EXPECT_EQ(Counted::alive, 1);
    EXPECT_EQ(CountingPolicy::scheduled, 2) << "each new instance schedules its destruction";
    CountedFactory::internalDestroyInstance();
}

}  // namespace
}  // namespace nuvra::ssl
