#include "nuvra/utils/exception.h"

#include <stdexcept>
#include <string>

#include "gtest/gtest.h"

namespace nuvra::utils {
namespace {

TEST(Exception, WhatIsTheMessageExactly) {
    for (const std::string message : {"Wrong hex character.", "", "two\nlines"}) {
        SCOPED_TRACE(message);
        EXPECT_EQ(std::string(Exception(message).what()), message);
    }
}

TEST(Exception, IsCaughtAsRuntimeError) {
    try {
        throw Exception("Wrong hex character.");
    } catch (const std::runtime_error& caught) {
        EXPECT_STREQ(caught.what(), "Wrong hex character.");
    }
}

}  // namespace
}  // namespace nuvra::utils
