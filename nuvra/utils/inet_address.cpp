// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/inet_address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstring>
#include <new>
#include <sstream>
#include <utility>

#include "nuvra/tiny/internal/exception_contract.h"
#include "nuvra/tiny/internal/unique_resource.h"

namespace nuvra::utils {

namespace {

// getnameinfo's largest host name (NI_MAXHOST) and inet_ntop's buffer for IPv6 text.
constexpr size_t kHostBufferSize = 1025;
constexpr size_t kIPv6TextBufferSize = 100;

std::string failureMessage(const char* head, const std::string& host, const char* reason) {
    return std::string(head) + host + " (error " + reason + ")";
}

// getaddrinfo for `text` with the given hints: the list, never empty. Throws the forward-lookup
// failure when it fails or lists nothing.
tiny::internal::AddrInfoPtr lookUpOrThrow(const std::string& text, const addrinfo& hints) {
    addrinfo* found = nullptr;
    const int code = getaddrinfo(text.c_str(), nullptr, &hints, &found);
    tiny::internal::AddrInfoPtr list(found);
    if (code != 0 || list == nullptr) {
        throw CantResolveException(failureMessage("Cant resolve host: ", text, gai_strerror(code)));
    }
    return list;
}

bool isAllZero(const in6_addr& address) {
    static const in6_addr kZero = {};
    return std::memcmp(&address, &kZero, sizeof address) == 0;
}

in6_addr fromWords(const uint32_t (&words)[4]) {
    in6_addr address;
    std::memcpy(&address, words, sizeof address);
    if (isAllZero(address)) {
        address = in6addr_any;
    }
    return address;
}

}  // namespace

CantResolveException::CantResolveException(const std::string& message)
    : std::runtime_error(message) {}

// Defined here so the type's virtual table and type information live in one object file.
CantResolveException::~CantResolveException() = default;

InetAddress::~InetAddress() = default;

std::string InetAddress::toString() const {
    std::ostringstream text;
    print(text);
    return text.str();
}

std::ostream& operator<<(std::ostream& out, const InetAddress& address) {
    address.print(out);
    return out;
}

bool reverseLookupIPv4(const std::string& dottedQuad, std::string& hostName) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = 0;
    // A text inet_pton refuses leaves the address at 0.0.0.0, which is looked up as it is.
    (void)inet_pton(AF_INET, dottedQuad.c_str(), &address.sin_addr);
    char host[kHostBufferSize];
    if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), sizeof address, host, sizeof host,
                    nullptr, 0, NI_NAMEREQD) != 0) {
        return false;
    }
    hostName = host;
    return true;
}

// --- Inet4Address ---

Inet4Address::Inet4Address(uint32_t address) : m_address(address) {}

Inet4Address::Inet4Address(uint32_t address, std::string hostName)
    : m_address(address), m_hostName(std::move(hostName)), m_hostNameKnown(true) {}

Inet4Address::~Inet4Address() = default;

void Inet4Address::print(std::ostream& out) const {
    out << ((m_address >> 24) & 0xFFU) << '.' << ((m_address >> 16) & 0xFFU) << '.'
        << ((m_address >> 8) & 0xFFU) << '.' << (m_address & 0xFFU);
}

std::string Inet4Address::getHostName() const {
    return tiny::internal::withExceptionContract<CantResolveException, std::bad_alloc>([this] {
        if (m_hostNameKnown) {
            return m_hostName;
        }
        if (m_address == 0) {
            m_hostName = "0.0.0.0";
            m_hostNameKnown = true;
            return m_hostName;
        }
        const std::string numeric = toString();
        std::string found;
        if (!reverseLookupIPv4(numeric, found)) {
            throw CantResolveException(
                failureMessage("Can't resolve host: ", numeric, hstrerror(h_errno)));
        }
        if (!m_hostNameKnown) {
            m_hostName = found;
        }
        m_hostNameKnown = true;
        return m_hostName;
    });
}

in_addr_t Inet4Address::toNetworkOrder() const { return htonl(m_address); }

Inet4Address Inet4Address::resolve(const std::string& text) {
    return tiny::internal::withExceptionContract<CantResolveException, std::bad_alloc>([&text] {
        addrinfo hints = {};
        hints.ai_family = AF_INET;
        uint32_t address = 0;
        if (isDottedQuad(text)) {
            in_addr parsed = {};
            address =
                inet_pton(AF_INET, text.c_str(), &parsed) == 1 ? ntohl(parsed.s_addr) : 0xFFFFFFFFU;
        } else {
            const tiny::internal::AddrInfoPtr list = lookUpOrThrow(text, hints);
            const in_addr found = reinterpret_cast<const sockaddr_in*>(list->ai_addr)->sin_addr;
            if (found.s_addr == INADDR_NONE) {
                throw CantResolveException(
                    failureMessage("Resolve ok. No address for host: ", text, gai_strerror(0)));
            }
            address = ntohl(found.s_addr);
        }
        return Inet4Address(address, text);
    });
}

bool Inet4Address::isDottedQuad(const std::string& text) {
    int dots = 0;
    int digits = 0;
    int value = 0;
    for (const char c : text) {
        if (c >= '0' && c <= '9') {
            ++digits;
            value = value * 10 + (c - '0');
            if (digits > 3 || value > 255) {
                return false;
            }
        } else if (c == '.') {
            if (digits == 0 || ++dots > 3) {
                return false;
            }
            digits = 0;
            value = 0;
        } else {
            return false;
        }
    }
    return dots == 3 && digits > 0;
}

// --- Inet6Address ---

Inet6Address::Inet6Address() : m_address(in6addr_any) {}

Inet6Address::Inet6Address(const uint32_t (&words)[4]) : m_address(fromWords(words)) {}

Inet6Address::Inet6Address(const uint32_t (&words)[4], std::string hostName)
    : m_address(fromWords(words)), m_hostName(std::move(hostName)), m_hostNameKnown(true) {}

Inet6Address::~Inet6Address() = default;

void Inet6Address::print(std::ostream& out) const {
    char text[kIPv6TextBufferSize];
    if (inet_ntop(AF_INET6, &m_address, text, sizeof text) != nullptr) {
        out << text;
    }
}

std::string Inet6Address::getHostName() const {
    return tiny::internal::withExceptionContract<CantResolveException, std::bad_alloc>([this] {
        if (m_hostNameKnown) {
            return m_hostName;
        }
        if (isAllZero(m_address) || IN6_ARE_ADDR_EQUAL(&m_address, &in6addr_any)) {
            m_hostName = "::";
            m_hostNameKnown = true;
            return m_hostName;
        }
        const std::string numeric = toString();
        addrinfo hints = {};
        hints.ai_flags = AI_CANONNAME;
        hints.ai_family = AF_INET6;
        const tiny::internal::AddrInfoPtr list = lookUpOrThrow(numeric, hints);
        if (!m_hostNameKnown) {
            const char* canonical = list->ai_canonname;
            m_hostName = canonical != nullptr ? canonical : numeric;
            m_hostNameKnown = true;
        }
        return m_hostName;
    });
}

in6_addr Inet6Address::toIn6Addr() const { return m_address; }

Inet6Address Inet6Address::resolve(const std::string& text) {
    return tiny::internal::withExceptionContract<CantResolveException, std::bad_alloc>([&text] {
        addrinfo hints = {};
        hints.ai_family = AF_INET6;
        // Literals are looked up too: isNumeric recognises none, so getaddrinfo parses them.
        const tiny::internal::AddrInfoPtr list = lookUpOrThrow(text, hints);
        const in6_addr address = reinterpret_cast<const sockaddr_in6*>(list->ai_addr)->sin6_addr;
        uint32_t words[4];
        std::memcpy(words, &address, sizeof words);
        return Inet6Address(words, text);
    });
}

bool Inet6Address::isNumeric(const std::string& /*text*/) { return false; }

}  // namespace nuvra::utils
