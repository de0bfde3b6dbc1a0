// SPDX-License-Identifier: Apache-2.0
// nuvra host facts: free functions that report the host's name, the space and file-system
// type of the disk holding a path, the total memory, the environment's locale, the IPv4
// addresses and the hardware (MAC) addresses of the network interfaces, and two accessors
// of errno.
//
// None of them throws for a system failure: each reports through its result (false, or the
// text "unspecified.host" for a name) and leaves its outputs as its comment says; only the
// standard containers may throw std::bad_alloc. Failed system calls leave errno as they set
// it. getLocalAddresses alone writes a message (through perror).
//
// Texts copied into caller buffers are cut to size-1 bytes and always terminated within
// `size`; a size of 0 writes nothing. Every descriptor these functions open is close-on-exec.

#ifndef NUVRA_UTILS_HOST_INFO_H_
#define NUVRA_UTILS_HOST_INFO_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "nuvra/utils/inet_address.h"
#include "nuvra/utils/os_info_record.h"

namespace nuvra::utils {

// The node name from uname, or "unspecified.host" when uname fails.
void getHostName(char* buf, size_t size);
// The canonical name getaddrinfo (AI_CANONNAME, any family) gives for the node name, or
// "unspecified.host" when uname or the look-up fails or no canonical name comes back. The
// look-up may ask the name servers.
void getFullHostName(char* buf, size_t size);
// The two above through a 256-byte buffer, with "" for "unspecified.host", so that callers
// of these forms see an empty text for "unknown".
[[nodiscard]] std::string getHostName();
[[nodiscard]] std::string getFullHostName();

// Sizes in bytes of the file system holding `path` (statvfs64): `total` all blocks, `free`
// the free blocks, `available` what the calling user may use: the free blocks for root (real
// user id 0), else those left after the reserved ones. A size that would come out negative
// as a signed 64-bit number is reported as 0. Returns false, outputs untouched, when
// statvfs64 fails.
[[nodiscard]] bool getDiskSpace(const char* path, int64_t& available, int64_t& total,
                                int64_t& free);

// The type (fs_vfstype) of the file-system table entry whose mount point holds `path`: the
// entry for the path itself, else for its parent, and so on up to "/". A relative path is
// taken from the current directory. Matches on mount-point text only, not on what is
// mounted now. Returns false, `type` untouched, for a null path, when getcwd fails or when
// no entry holds the path.
// WARNING: uses the process-wide table cursor of getfsfile; the table is closed again
// (endfsent) only when an entry was found.
[[nodiscard]] bool getFileSystemType(const char* path, std::string& type);

// Sets *bytes to the "MemTotal:" figure of /proc/meminfo in bytes. The number's unit is
// the letter after it: K, M or G (either case) for 2^10, 2^20, 2^30, anything else,
// including none, for bytes. Lines are read up to 127 characters; a longer line ends the
// search. Returns false for a null pointer; otherwise sets *bytes to 0 first and returns
// false when the file cannot be read or has no such line.
[[nodiscard]] bool getTotalMemory(int64_t* bytes);

// Fills the language and territory fields of `info`, and their default copies, from the
// environment's locale (setlocale(LC_ALL, "")): de_AT.UTF-8 gives "de" and "AT", fr gives
// "fr" and "". Each field keeps at most 8 characters. The fields are left empty when the
// environment's locale cannot be set or is "C" or "POSIX". The locale in force before the
// call is put back afterwards, by a name kept to 29 characters: a mixed locale whose
// composite name is longer is not restored (kept so).
// WARNING: switches the process-wide locale for the duration of the call; not safe while
// other threads use locale-dependent functions.
void readLocale(OsInfo& info);

// Appends to `out` the IPv4 address (no host name) of every interface that has one, in the
// kernel's order; what `out` held before stays. The interface list buffer grows until the
// kernel's list fits, so any number of interfaces is seen. Returns false, after writing
// "SIOCGIFCONF" and the reason with perror, when the interface list cannot be read, and
// without a message when memory for the list runs out.
// WARNING: the socket used for the query is never closed (kept so: long-standing callers
// call this once); each call leaves one descriptor open.
[[nodiscard]] bool getLocalAddresses(std::vector<Inet4Address>& out);

// Replaces `out` by a map from interface name to MAC text ("%2.2X:%2.2X:%2.2X:%2.2X:%2.2X:
// %2.2X", upper-case hex digits and colons). Sees at most the first 32 interface records
// the kernel lists; skips interfaces whose hardware address cannot be read or is all zero
// (loopback and the like); a name listed twice keeps its first value. Returns false when
// the socket or the interface list cannot be had (`out` is then empty).
[[nodiscard]] bool getMacAddresses(std::map<std::string, std::string>& out);

// errno.
int getLastError();
// Sets errno to `value` and returns its address.
int* setLastError(int value);

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_HOST_INFO_H_
