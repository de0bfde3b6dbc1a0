#include "nuvra/utils/uuid.h"

#include <set>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace nuvra::utils {
namespace {

using ::testing::MatchesRegex;

const Uuid::Bytes kZeroBytes{};
const Uuid::Bytes kCounting{0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                            0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};
// kCounting with the first three groups swapped.
const Uuid::Bytes kCountingSwapped{0x03, 0x02, 0x01, 0x00, 0x05, 0x04, 0x07, 0x06,
                                   0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};

TEST(UuidText, StorageOrderSwapsTheFirstThreeGroups) {
    static const struct {
        const char* text;
        const char* printed;
    } kCases[] = {
        {"00010203-0405-0607-0809-0a0b0c0d0e0f", "00010203-0405-0607-0809-0a0b0c0d0e0f"},
        {"00010203-0405-0607-0809-0A0B0C0D0E0F", "00010203-0405-0607-0809-0a0b0c0d0e0f"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.text);
        const Uuid uuid = Uuid::fromString(c.text);
        EXPECT_TRUE(uuid.isValid());
        EXPECT_EQ(uuid.bytes(), kCountingSwapped);
        EXPECT_EQ(uuid.toString(), c.printed);
    }
    EXPECT_EQ(Uuid(kCounting, true).toString(), "03020100-0504-0706-0809-0a0b0c0d0e0f");
}

TEST(UuidText, RejectedTextGivesZeroBytesAndInvalid) {
    static const std::string kBadTexts[] = {
        "",
        "00112233-4455-6677-8899-aabbccddeef",                      // 35 characters
        "00112233-4455-6677-8899-aabbccddeeff0",                    // 37 characters
        "001122334-455-6677-8899-aabbccddeeff",                     // hyphen one place late
        "00112233-4455-6677-8899aaabbccddeeff",                     // hyphen replaced by a digit
        "00112233-4455-6677-8899-aabbccddeegf",                     // not a hexadecimal digit
        std::string("00112233-4455-6677-8899-aabbccddeeff\0", 37),  // a valid text, then a NUL
        std::string("00112233-4455\0", 14),
    };
    for (const std::string& text : kBadTexts) {
        SCOPED_TRACE(text);
        const Uuid uuid = Uuid::fromString(text);
        EXPECT_FALSE(uuid.isValid());
        EXPECT_EQ(uuid.bytes(), kZeroBytes);
    }
}

TEST(UuidParse, SuccessReplacesTheValue) {
    Uuid uuid(kZeroBytes, false);
    EXPECT_TRUE(uuid.parse("00010203-0405-0607-0809-0a0b0c0d0e0f"));
    EXPECT_TRUE(uuid.isValid());
    EXPECT_EQ(uuid.bytes(), kCountingSwapped);
}

TEST(UuidParse, FailurePermutesThePreviousBytesOnceMore) {
    const std::string kBadTexts[] = {"not a guid",
                                     std::string("00112233-4455-6677-8899-aabbccddeeff\0", 37)};
    for (const std::string& text : kBadTexts) {
        SCOPED_TRACE(text);
        Uuid uuid(kCounting, true);
        EXPECT_FALSE(uuid.parse(text));
        EXPECT_FALSE(uuid.isValid());
        EXPECT_EQ(uuid.bytes(), kCountingSwapped);
    }
}

TEST(UuidNull, IsTheParsedAllZeroText) {
    const Uuid parsed = Uuid::fromString("00000000-0000-0000-0000-000000000000");
    EXPECT_TRUE(parsed.isValid());
    EXPECT_TRUE(nullUuid.isValid());
    EXPECT_EQ(nullUuid.bytes(), kZeroBytes);
    EXPECT_EQ(parsed, nullUuid);
}

TEST(UuidCompare, FollowsStorageBytesNotText) {
    const Uuid textSmaller = Uuid::fromString("00000001-0000-0000-0000-000000000000");
    const Uuid textLarger = Uuid::fromString("01000000-0000-0000-0000-000000000000");
    // Storage byte 0 holds the last byte of the first group, and is compared first.
    EXPECT_GT(textSmaller, textLarger);
    EXPECT_GE(textSmaller, textLarger);
    EXPECT_LT(textLarger, textSmaller);
    EXPECT_LE(textLarger, textSmaller);
    EXPECT_NE(textLarger, textSmaller);
    // Bytes 8-15 are stored in text order; bytes compare unsigned.
    EXPECT_LT(Uuid::fromString("00000000-0000-0000-0000-000000000001"),
              Uuid::fromString("00000000-0000-0000-0001-000000000000"));
    EXPECT_GT(Uuid::fromString("00000080-0000-0000-0000-000000000000"),
              Uuid::fromString("0000007f-0000-0000-0000-000000000000"));
}

TEST(UuidCompare, IgnoresTheValidFlag) {
    const Uuid invalid = Uuid::fromString("garbage");
    EXPECT_EQ(invalid, nullUuid);
    EXPECT_LE(invalid, nullUuid);
    EXPECT_GE(invalid, nullUuid);
}

TEST(UuidCopy, CopiesTheFlagUnlessOnlyBytesAreAssigned) {
    Uuid uuid;
    uuid = Uuid(kCounting, false);
    EXPECT_EQ(uuid.bytes(), kCounting);
    EXPECT_FALSE(uuid.isValid());

    Uuid& self = uuid;
    uuid = self;
    EXPECT_EQ(uuid.bytes(), kCounting);
    EXPECT_FALSE(uuid.isValid());

    Uuid valid = nullUuid;
    EXPECT_EQ(&valid.assignBytes(kCounting), &valid);
    EXPECT_EQ(valid.bytes(), kCounting);
    EXPECT_TRUE(valid.isValid());
}

// A random identifier printed from unswapped generator bytes carries the version digit "4"
// at index 16 and the variant digit at index 19; its text parses back to the same value.
void expectFreshRandomValue(const Uuid& uuid) {
    EXPECT_TRUE(uuid.isValid());
    const std::string text = uuid.toString();
    EXPECT_THAT(text, MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{2}4[0-9a-f]-"
                                   "[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
    EXPECT_EQ(Uuid::fromString(text).bytes(), uuid.bytes()) << text;
}

TEST(UuidGenerate, BothWaysGiveFreshValuesThatNeverRepeat) {
    constexpr int kPerWay = 4096;
    std::set<Uuid> seen;
    for (int i = 0; i < kPerWay; ++i) {
        const Uuid constructed;
        const Uuid generated = Uuid::generate();
        expectFreshRandomValue(constructed);
        expectFreshRandomValue(generated);
        seen.insert(constructed);
        seen.insert(generated);
    }
    EXPECT_EQ(seen.size(), 2u * kPerWay);
}

}  // namespace
}  // namespace nuvra::utils
