// SPDX-License-Identifier: Apache-2.0
// nuvra::utils::Uuid: a GUID value over the system UUID library.
//
// A Uuid is 16 bytes in GUID storage order plus a flag that says whether the value came from
// a successful generation or parse. No operation throws: a failed parse shows only in the
// flag (and in the result of parse()).
//
// Storage order keeps the first three groups least significant byte first: storage bytes
// 0-3 hold text bytes 3,2,1,0, bytes 4-5 hold text bytes 5,4, bytes 6-7 hold text bytes 7,6,
// and bytes 8-15 are in text order. Generation stores the generator's bytes as they come,
// without this permutation, so the printed text of a fresh value has its first three groups
// byte-swapped (the version digit "4" appears at index 16, not 14). Programs that read these
// identifiers depend on that, so it is kept.

#ifndef NUVRA_UTILS_UUID_H_
#define NUVRA_UTILS_UUID_H_

#include <array>
#include <cstdint>
#include <string>

namespace nuvra::utils {

class Uuid {
  public:
    using Bytes = std::array<uint8_t, 16>;

    // Generates a fresh identifier and stores its bytes exactly as the system generator
    // delivers them; the value is valid.
    Uuid();

    // Generates twice into the same value and returns the second identifier. Callers have
    // always received a value generated this way, so the second call is kept.
    static Uuid generate();

    // Parses 36-character text (8-4-4-4-12 hexadecimal digits of either case, hyphens at
    // 8, 13, 18 and 23) into a valid value. The text is read as a C string, up to its first
    // NUL: a valid GUID followed by a NUL and anything at all parses. Any other text gives
    // the all-zero, invalid value.
    [[nodiscard]] static Uuid fromString(const std::string& text);

    // A value holding `bytes` (storage order) with the given flag; generates nothing.
    constexpr Uuid(const Bytes& bytes, bool valid) : value_(bytes), valid_(valid) {}

    Uuid(const Uuid& other) = default;
    // Copies all 17 bytes; assigning a value to itself changes nothing.
    Uuid& operator=(const Uuid& other);

    // Parses `text` into this value and returns whether it succeeded; isValid() then says
    // the same. WARNING: on failure the previous bytes stay, with the storage permutation
    // applied to them once more. Look at the result, not at the bytes.
    [[nodiscard]] bool parse(const std::string& text);

    // The 36-character lower-case text form of the value.
    [[nodiscard]] std::string toString() const;

    [[nodiscard]] bool isValid() const { return valid_; }

    // The 16 bytes in storage order.
    [[nodiscard]] const Bytes& bytes() const { return value_; }

    // Copies `bytes` (storage order) into the value and leaves the valid flag as it was.
    Uuid& assignBytes(const Bytes& bytes);

    // Comparisons order values by their storage bytes as unsigned byte strings, which is not
    // the order of their texts when two values differ within the first eight bytes. The
    // valid flag takes no part: an invalid (all-zero) value equals nullUuid.
    friend bool operator==(const Uuid& a, const Uuid& b) { return compare(a, b) == 0; }
    friend bool operator!=(const Uuid& a, const Uuid& b) { return !(a == b); }
    friend bool operator<(const Uuid& a, const Uuid& b) { return compare(a, b) < 0; }
    friend bool operator>(const Uuid& a, const Uuid& b) { return compare(a, b) > 0; }
    friend bool operator<=(const Uuid& a, const Uuid& b) { return a < b || a == b; }
    friend bool operator>=(const Uuid& a, const Uuid& b) { return a > b || a == b; }

  private:
    static int compare(const Uuid& a, const Uuid& b);

    Bytes value_;
    bool valid_;
};

static_assert(sizeof(Uuid) == 17, "a Uuid is its 16 bytes and the valid flag");

// The all-zero value, valid. Constant-initialised, so it is usable from any static
// initialiser; it equals Uuid::fromString("00000000-0000-0000-0000-000000000000").
inline constexpr Uuid nullUuid{Uuid::Bytes{}, true};

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_UUID_H_
