// SPDX-License-Identifier: Apache-2.0
#include "nuvra/ssl/ssl_err_handler.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <array>
#include <thread>

#include "gtest/gtest.h"
#include "nuvra/utils/singleton_factory.h"

namespace nuvra::ssl {
namespace {

// Queues a real EVP error; returns the line takeErrorText makes of it: OpenSSL's text, "\n".
std::string raiseEvpError(int reason) {
    ERR_raise(ERR_LIB_EVP, reason);
    std::array<char, 4096> text{};
    ERR_error_string_n(ERR_peek_last_error(), text.data(), text.size());
    return std::string(text.data()) + "\n";
}

TEST(SslErrHandler, TakesTheThreadsCodesAsLinesOldestFirstAfterEarlierText) {
    SslErrHandler handler;
    raiseEvpError(EVP_R_UPDATE_ERROR);
    discardErrors();
    handler.recordErrors();  // an empty queue makes no entry, so the earlier text is cleared
    std::string out = "stale\n";
    EXPECT_EQ(handler.takeErrorText(out), 0UL);
    EXPECT_EQ(out, "");
    const std::string older = raiseEvpError(EVP_R_NO_DIGEST_SET);
    handler.recordErrors();  // takes the code off the queue, or it would be recorded twice
    const std::string newer = raiseEvpError(EVP_R_UPDATE_ERROR);
    handler.recordErrors();
    std::thread([&handler] {
        std::string theirs;
        EXPECT_EQ(handler.takeErrorText(theirs), 0UL);  // nothing of this thread's
    }).join();
    out = "earlier\n";
    EXPECT_EQ(ERR_GET_REASON(handler.takeErrorText(out)), EVP_R_UPDATE_ERROR);
    EXPECT_EQ(out, "earlier\n" + older + newer);
    EXPECT_EQ(handler.takeErrorText(out), 0UL) << "taken codes are forgotten";
}

using HandlerFactory = utils::SingletonFactory<SslErrHandler, utils::DestroyAtExit>;

TEST(SingletonFactory, CreatesTheHandlerOnceAndAFreshOneAfterDestruction) {
    SslErrHandler* raced = nullptr;
    std::thread racer([&raced] { raced = HandlerFactory::getInstance(); });
    SslErrHandler* const handler = HandlerFactory::getInstance();
    racer.join();
    EXPECT_EQ(raced, handler);
    raiseEvpError(EVP_R_NO_DIGEST_SET);
    handler->recordErrors();
    HandlerFactory::internalDestroyInstance();
    HandlerFactory::internalDestroyInstance();  // nothing left: harmless
    std::string out;
    EXPECT_EQ(HandlerFactory::getInstance()->takeErrorText(out), 0UL);  // a fresh handler
}

}  // namespace
}  // namespace nuvra::ssl
