// SPDX-License-Identifier: Apache-2.0
// nuvra::utils::RandomSource: random bytes, integers, hexadecimal text and unique ids.
//
// A source reads the kernel's random device ("/dev/urandom"). When the device cannot be
// opened it falls back, without reporting it, to the C library's rand() generator (seeded
// once per thread) and, for byte strings, to OpenSSL's RAND_bytes. Nothing here reports
// failure except by a shorter result; only std::bad_alloc is thrown.

#ifndef NUVRA_UTILS_RANDOM_SOURCE_H_
#define NUVRA_UTILS_RANDOM_SOURCE_H_

#include <cstdint>
#include <fstream>
#include <string>

namespace nuvra::utils {

// WARNING: one object is used by one thread at a time. The rand() fallback is one
// process-wide generator, so its numbers are not independent between threads.
class RandomSource {
  public:
    // Opens the device, close-on-exec. Without it, seeds rand() for the calling thread,
    // unless this thread was seeded before (then seed() stays 0).
    RandomSource();

    // As RandomSource(), reading `devicePath` instead of "/dev/urandom": another random
    // device, or a file of known bytes. A path that cannot be opened makes it fall back as a
    // missing device does.
    explicit RandomSource(const char* devicePath);
    // Closes the device if it was opened.
    ~RandomSource();

    RandomSource(const RandomSource&) = delete;
    RandomSource& operator=(const RandomSource&) = delete;

    // Sets `out` to `count` random bytes and returns it. A negative count gives an empty
    // string. Reads the device; when it is missing or fails part-way, `count` fresh bytes
    // from RAND_bytes are appended to what was read, so the result can be longer than
    // asked for (kept: callers have always received it so). Empty, or only what the device
    // gave, when RAND_bytes fails too: check the length where an exact count matters.
    std::string& getBytes(std::string& out, int32_t count);

    // One value 0 to 255: the next device byte, or rand() >> 23 without one.
    uint32_t getByte();

    // Four (eight) getByte() values, most significant first, each added as a sign-extended
    // signed byte: the bytes 00 00 01 80 give 0x00000080, not 0x00000180. Kept so that
    // values derived from stored seeds stay the same.
    uint32_t getUInt32();
    uint64_t getUInt64();
    // The same as getUInt32() and getUInt64().
    uint32_t nextUInt32();
    uint64_t nextUInt64();

    // Sets `out` to `length` lower-case hexadecimal characters: the MD5 of 16 fresh random
    // bytes per 32 characters, and returns it. Stops short if no random bytes can be had,
    // rather than asking again forever.
    std::string& getRandomText(std::string& out, uint32_t length);

    // Up to 32 lower-case hexadecimal characters (fewer when `length` is smaller): the MD5
    // of the time, rand(), the process id, 20 random bytes, the tick clock and a
    // process-wide sequence number. Distinct for every call within a process.
    static std::string makeUniqueId(uint32_t length);

    // Whether the device was opened.
    [[nodiscard]] bool haveDevice() const { return haveDevice_; }
    // The first device word after the skipped first byte, or the seed given to srand(); 0
    // when neither applies.
    [[nodiscard]] uint32_t seed() const { return seed_; }
    // How many getBytes() calls were made on this object.
    [[nodiscard]] uint32_t requestCount() const { return requestCount_; }

  private:
    void seedThisThreadOnce();

    std::ifstream stream_;
    bool haveDevice_ = false;
    uint32_t seed_ = 0;
    uint32_t requestCount_ = 0;
};

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_RANDOM_SOURCE_H_
