// SPDX-License-Identifier: Apache-2.0
// Turning values into text and back: printf-style formatting into std::string and into
// bounded buffers, number text in any base from 2 to 36, IPv4 address text, readable byte
// sizes and durations, 64-bit byte-order reversal, and hexadecimal encoding and decoding.
//
// Failures are reported by results, never by exceptions: a bounded function that runs out
// of room stores what fits (or an empty string) and says so in its count or flag, and
// malformed hexadecimal input decodes to some byte rather than failing. The one thrower is
// hexDigitValue. Functions that return a std::string may also let std::bad_alloc leave.
//
// Bounded functions take the destination and its size in bytes, write nothing at or past
// that size, and leave a NUL-terminated (possibly empty) string whenever the size is at
// least 1. Hexadecimal output is always lower case; input of either case is accepted.

#ifndef NUVRA_UTILS_FORMAT_H_
#define NUVRA_UTILS_FORMAT_H_

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace nuvra::utils {

// ---- printf-style formatting ------------------------------------------------------------

// Formats with vsnprintf and appends the result to `out`, keeping what `out` held. The text
// is built in a malloc'ed buffer of 4096 bytes that grows to whatever vsnprintf asks for.
//
// When the buffer cannot be allocated or grown, `out` is left unchanged and nothing is
// reported; only appending to `out` itself may throw std::bad_alloc.
// WARNING: when realloc fails, the buffer it was asked to grow is leaked, not freed; kept
// as it has always behaved. A format that vsnprintf
// rejects (a wide string that cannot be converted in the current locale, for instance)
// makes the buffer double until an allocation fails, so pass only formats that can succeed.
void appendFormat(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Formats into `buf`, which holds `size` bytes, and returns the number of characters stored
// before the terminator.
//
// A null `buf` or a size of 0 gives 0 and writes nothing; a size of 1 stores an empty
// string. Output that does not fit is cut at size - 1 characters, and size - 1 is returned.
// If vsnprintf fails, the same cut and count apply, whatever the buffer then holds. For a
// size of 2^31 or more, the cut is at index 0x7ffffffe and 0x7ffffffe is returned: the
// count has to fit in an int.
[[nodiscard]] int formatBoundedV(char* buf, size_t size, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// formatBoundedV with the arguments given in place.
[[nodiscard]] int formatBounded(char* buf, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Formats after the string already in `buf` and returns the new total length.
//
// A null `buf` or a size of 0 gives 0 and writes nothing; a size of 1 stores an empty
// string and gives 0. The appended part is bounded as by formatBoundedV. A total that does
// not fit in an int is reported as 0x7fffffff. The existing string should be shorter than
// `size`; if no terminator lies within `size` bytes, the buffer is taken as full: it is cut
// at size - 1 and nothing is appended.
[[nodiscard]] int appendFormatBounded(char* buf, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// ---- Addresses, sizes and durations ----------------------------------------------------

// The size a buffer for formatIPv4 needs: "255.255.255.255" and the terminator.
inline constexpr size_t kIPv4TextSize = 16;
// The size a buffer for formatIPv4Port needs: "255.255.255.255:65535" and the terminator.
inline constexpr size_t kIPv4PortTextSize = 22;
// The size a buffer for formatDuration needs: "49710 days 06:28:15" and the terminator.
inline constexpr size_t kDurationTextSize = 20;

// Writes "a.b.c.d" for an address held in network byte order: the byte at the lowest
// address comes first, whatever the host's byte order. Returns `buf`.
// WARNING: no size limit; `buf` must hold kIPv4TextSize bytes.
char* formatIPv4(char* buf, uint32_t address);

// Writes "a.b.c.d:port", address and port both held in network byte order (the port's
// first byte in memory is its high byte). Returns `buf`.
// WARNING: no size limit; `buf` must hold kIPv4PortTextSize bytes.
char* formatIPv4Port(char* buf, uint32_t address, uint16_t port);

// Writes `bytes` for people to read: up to 4096 as "%u B", then in units of 1024 with two
// decimals, "%.2f kB" up to 1024 kB, "%.2f MB" up to 1024 MB and "%.2f GB" beyond. Negative
// values get a leading "-": -5000 gives "-4.88 kB". Returns what formatBounded returns; a
// `size` of 0 or below writes nothing and gives 0.
//
// INT64_MIN has no positive counterpart and is written "-0 B"; callers have always seen
// that text for it, so it is kept.
[[nodiscard]] int formatByteSize(char* buf, int size, int64_t bytes);

// Writes "hh:mm:ss" below one day and "N days hh:mm:ss" from one day on ("1 day" in the
// singular), for example "2 days 00:01:01" for 172861. Returns the number of characters
// written before the terminator.
// WARNING: no size limit; `buf` must hold kDurationTextSize bytes.
int formatDuration(uint32_t seconds, char* buf);

// ---- Numbers ----------------------------------------------------------------------------

// `value` in octal digits, without a prefix; 0 gives "0".
std::string toOctalString(unsigned long value);

// The size a buffer for uint64ToText needs in any base: 64 binary digits and the terminator.
inline constexpr size_t kUInt64TextSize = 65;

// Writes `value` in `base` (2 to 36), with "a" onward for digits above 9, and a terminator.
// Returns `buf`.
// WARNING: no size limit; `buf` must hold up to kUInt64TextSize bytes (fewer for larger
// bases). The base is not checked: 0 divides by zero and 1 never ends.
char* uint64ToText(uint64_t value, char* buf, unsigned base);

// uint64ToText bounded by `size`: returns the number of digits written, -1 for a size of 0
// (nothing written), and 0 for a size of 1 (an empty string).
//
// A buffer that is too small keeps the least significant digits: 123456 in base 10 with a
// size of 4 gives "456" and 3. No error is reported; callers compare the count with what
// they expected. WARNING: a base of 0 divides by zero.
[[nodiscard]] int uint64ToTextBounded(uint64_t value, char* buf, size_t size, unsigned base);

// Reverses the order of the eight bytes of `value`.
uint64_t byteSwap64(uint64_t value);

// Converts between host and network (big-endian) byte order; applied twice it gives the
// value back. nuvra runs only on little-endian hosts, where this is byteSwap64: both names
// are kept because callers use both, and they always give the same result.
uint64_t hostToNetwork64(uint64_t value);

// ---- Hexadecimal ------------------------------------------------------------------------

// Two lower-case digits per byte, high nibble first: the bytes 00 ff 10 give "00ff10".
std::string toHex(const std::string& bytes);

// One byte per pair of digits of either case; a final unpaired character is ignored.
//
// Nothing is validated: a character that is not a hexadecimal digit counts as -1, so the
// byte is 16 * first + second truncated to 8 bits ("g0" gives 0xf0, "0g" gives 0xff).
// Callers that need to reject such text check it with hexDigitValue first.
std::string fromHex(const std::string& text);

// The value, 0 to 15, of a hexadecimal digit of either case.
//
// Throws Exception("Wrong hex character.") for any other character. Only Exception and
// std::bad_alloc may leave; any other exception ends the process. The list is kept in code
// with tiny::internal::withExceptionContract, since C++17 has no throw(...) lists.
int hexDigitValue(char c);

// Writes 2 * n digits of `src` to `dst`, without a terminator.
// WARNING: no size limit; `dst` must hold 2 * n bytes.
void encodeHex(char* dst, const uint8_t* src, size_t n);

// Writes the 2 * n digits of `src` and a terminator to `dst`, which holds `size` bytes, and
// returns true. A null `dst` or a size of 0 gives false and writes nothing. When `dst` is
// too small or `src` is null, an empty string is written and the result is true only when
// there was nothing to encode (n is 0).
[[nodiscard]] bool encodeHexChecked(char* dst, size_t size, const uint8_t* src, size_t n);

// Writes length / 2 bytes decoded from `src` to `dst`, without validation (see fromHex); an
// odd final character is ignored.
// WARNING: no size limit; `dst` must hold length / 2 bytes.
void decodeHex(uint8_t* dst, const char* src, size_t length);

// decodeHex into `dst`, which holds `size` bytes. A `length` of 0 gives true and writes
// nothing. Otherwise a null `dst` or `src`, or a size below length / 2, gives false and
// writes nothing; else the bytes are decoded and the result is true.
[[nodiscard]] bool decodeHexChecked(uint8_t* dst, size_t size, const char* src, size_t length);

// Writes each byte of `src` as two digits followed by `separator`, the last separator being
// replaced by the terminator ("00:ab:7f"), which takes 3 * n bytes. Returns `dst`.
//
// When 3 * n exceeds `size`, or n is 0, an empty string is written instead and `dst` is
// still returned: only a size of 0, where nothing can be written, gives null.
[[nodiscard]] char* hexDump(char* dst, size_t size, char separator, const uint8_t* src, size_t n);

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_FORMAT_H_
