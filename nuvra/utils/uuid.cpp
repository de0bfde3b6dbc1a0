// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/uuid.h"

#include <uuid/uuid.h>

#include <utility>

namespace nuvra::utils {
namespace {

// Converts between text (big-endian) order and GUID storage order. The mapping is its own
// inverse, so one function serves both directions.
void swapGuidGroups(Uuid::Bytes& bytes) {
    std::swap(bytes[0], bytes[3]);
    std::swap(bytes[1], bytes[2]);
    std::swap(bytes[4], bytes[5]);
    std::swap(bytes[6], bytes[7]);
}

// uuid_parse of the text as a C string: it reads up to the first NUL, so a GUID followed by
// a NUL and anything else parses, as it always has for callers passing C strings. Writes
// `out` only on success.
bool parseText(const std::string& text, Uuid::Bytes& out) {
    return uuid_parse(text.c_str(), out.data()) == 0;
}

}  // namespace

Uuid::Uuid() : value_{}, valid_(true) { uuid_generate(value_.data()); }

Uuid Uuid::generate() {
    Uuid result;
    uuid_generate(result.value_.data());
    return result;
}

Uuid Uuid::fromString(const std::string& text) {
    Uuid result(Bytes{}, false);
    if (!parseText(text, result.value_)) {
        // The parser may have written part of the value before it failed.
        result.value_.fill(0);
        return result;
    }
    swapGuidGroups(result.value_);
    result.valid_ = true;
    return result;
}

Uuid& Uuid::operator=(const Uuid& other) {
    if (this != &other) {
        value_ = other.value_;
        valid_ = other.valid_;
    }
    return *this;
}

bool Uuid::parse(const std::string& text) {
    valid_ = parseText(text, value_);
    // Applied whether or not the parse succeeded: on failure the previous bytes end up
    // permuted once more. Callers look at the flag, and this is how the value has always
    // behaved.
    swapGuidGroups(value_);
    return valid_;
}

std::string Uuid::toString() const {
    Bytes textOrder = value_;
    swapGuidGroups(textOrder);
    char text[37];
    // The _lower form pins the case the library promises, whatever the system default is.
    uuid_unparse_lower(textOrder.data(), text);
    return {text, 36};
}

Uuid& Uuid::assignBytes(const Bytes& bytes) {
    value_ = bytes;
    return *this;
}

int Uuid::compare(const Uuid& a, const Uuid& b) {
    return uuid_compare(a.value_.data(), b.value_.data());
}

}  // namespace nuvra::utils
