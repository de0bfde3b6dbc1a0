// SPDX-License-Identifier: Apache-2.0
// nuvra::utils::InetAddress and its IPv4 and IPv6 forms: copyable IP address values with a
// host name that is looked up on first use and then kept, static functions that turn a host
// name or a literal into an address, and a reverse look-up of a dotted quad.
//
// All name service work goes through the system resolver (getaddrinfo, getnameinfo), so a
// look-up may consult /etc/hosts and the name servers and take as long as they do. Every
// resolution failure is thrown as CantResolveException, whose message is one of three fixed
// heads, the host text, " (error ", the resolver's reason text and ")". The functions that
// throw name the exceptions that may leave them (CantResolveException and std::bad_alloc);
// since C++17 has no throw(...) lists, that list is kept in code and any other exception
// reaching them ends the process. Everything else reports through its result.

#ifndef NUVRA_UTILS_INET_ADDRESS_H_
#define NUVRA_UTILS_INET_ADDRESS_H_

#include <netinet/in.h>

#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>

namespace nuvra::utils {

// A name or address could not be resolved. Deliberately not a nuvra::utils::Exception: the
// two are siblings under std::runtime_error, so a handler for Exception lets this pass. The
// message is all it carries.
class CantResolveException : public std::runtime_error {
  public:
    explicit CantResolveException(const std::string& message);
    ~CantResolveException() override;

    CantResolveException(const CantResolveException&) = default;
    CantResolveException& operator=(const CantResolveException&) = default;
};

// An IP address of either family. No data of its own.
//
// WARNING: getHostName fills a cache inside a const object without a lock; one object must
// not be used from two threads at once.
class InetAddress {
  public:
    // Writes the numeric text of the address.
    virtual void print(std::ostream& out) const = 0;
    // The host name, looked up on the first call and kept from then on. Throws
    // CantResolveException when the look-up fails, leaving the name unknown so that a later
    // call tries again.
    [[nodiscard]] virtual std::string getHostName() const = 0;
    virtual ~InetAddress();

    // The text print() writes.
    [[nodiscard]] std::string toString() const;

  protected:
    InetAddress() = default;
    InetAddress(const InetAddress&) = default;
    InetAddress& operator=(const InetAddress&) = default;
};

// Calls address.print(out). Integers follow the stream's flags, which are not reset.
std::ostream& operator<<(std::ostream& out, const InetAddress& address);

// An IPv4 address, held in host byte order: 10.0.0.1 is 0x0A000001.
class Inet4Address : public InetAddress {
  public:
    // 0.0.0.0, name unknown.
    Inet4Address() = default;
    // Name unknown until getHostName looks it up.
    explicit Inet4Address(uint32_t address);
    // The name is taken as given and never looked up.
    Inet4Address(uint32_t address, std::string hostName);

    Inet4Address(const Inet4Address&) = default;
    Inet4Address& operator=(const Inet4Address&) = default;
    ~Inet4Address() override;

    // The four octets in decimal, most significant first, joined by "." (no padding).
    void print(std::ostream& out) const override;

    // The name of the address: the one given or found before; "0.0.0.0" for address 0,
    // without a look-up; else the name a reverse look-up (reverseLookupIPv4) finds. When it
    // finds none, throws CantResolveException("Can't resolve host: <address> (error
    // <hstrerror(h_errno)>)"). This is the only message spelt with an apostrophe and the
    // only one whose reason comes from h_errno rather than from the resolver's return code;
    // both are kept so that callers matching on them keep working.
    // Only CantResolveException and std::bad_alloc may leave.
    [[nodiscard]] std::string getHostName() const override;

    // The address in network byte order.
    in_addr_t toNetworkOrder() const;

    // The address of `text`, with `text` as its known host name (also for a literal).
    // A strict dotted quad (isDottedQuad) is converted with inet_pton and never reaches the
    // resolver; one that inet_pton refuses (a group with a leading zero, such as 010.0.0.1)
    // becomes 255.255.255.255 without an exception. Any other text is resolved for IPv4
    // with getaddrinfo and the first address listed is taken. Throws CantResolveException:
    //   "Cant resolve host: <text> (error <gai_strerror(code)>)" when getaddrinfo fails or
    //   lists nothing (code 0 then);
    //   "Resolve ok. No address for host: <text> (error <gai_strerror(0)>)" when the first
    //   address is 255.255.255.255 (the code is deliberately 0).
    // Only CantResolveException and std::bad_alloc may leave.
    static Inet4Address resolve(const std::string& text);

    // Strict dotted-quad syntax: four groups of one to three decimal digits, each at most
    // 255, separated by single dots, nothing else. Leading zeros are allowed here. Never
    // calls the resolver.
    static bool isDottedQuad(const std::string& text);

  private:
    uint32_t m_address = 0;
    mutable std::string m_hostName;
    mutable bool m_hostNameKnown = false;
};

// An IPv6 address, held as its 16 bytes in network byte order (as in in6_addr).
class Inet6Address : public InetAddress {
  public:
    // The all-zero address (::), name unknown.
    Inet6Address();
    // The 16 bytes at `words`, taken in memory order; name unknown. An all-zero argument is
    // stored as in6addr_any.
    explicit Inet6Address(const uint32_t (&words)[4]);
    // The name is taken as given and never looked up.
    Inet6Address(const uint32_t (&words)[4], std::string hostName);

    Inet6Address(const Inet6Address&) = default;
    Inet6Address& operator=(const Inet6Address&) = default;
    ~Inet6Address() override;

    // The inet_ntop text. Never throws: when the conversion fails nothing is written.
    void print(std::ostream& out) const override;

    // The name of the address: the one given or found before; "::" for the all-zero address,
    // without a look-up; else the canonical name getaddrinfo gives for the numeric text
    // (the numeric text itself when it gives none). Throws CantResolveException("Cant
    // resolve host: <address> (error <gai_strerror(code)>)") when getaddrinfo fails, or
    // with code 0 when it lists nothing.
    // Only CantResolveException and std::bad_alloc may leave.
    [[nodiscard]] std::string getHostName() const override;

    // The 16 bytes.
    in6_addr toIn6Addr() const;

    // The first IPv6 address getaddrinfo lists for `text`, with `text` as its known host
    // name. Literals go through getaddrinfo as well (see isNumeric). Throws
    // CantResolveException("Cant resolve host: <text> (error <gai_strerror(code)>)") when
    // getaddrinfo fails, or with code 0 when it lists nothing.
    // Only CantResolveException and std::bad_alloc may leave.
    static Inet6Address resolve(const std::string& text);

    // Always false: IPv6 literals are deliberately never parsed here but always handed to
    // getaddrinfo, which knows every form of them.
    static bool isNumeric(const std::string& text);

  private:
    in6_addr m_address;
    mutable std::string m_hostName;
    mutable bool m_hostNameKnown = false;
};

// Sets `hostName` to the name getnameinfo finds for the dotted quad `dottedQuad` (a name is
// required: NI_NAMEREQD) and returns true. Returns false, leaving `hostName` as it was, when
// none is found. A text that is not an IPv4 literal is looked up as 0.0.0.0.
[[nodiscard]] bool reverseLookupIPv4(const std::string& dottedQuad, std::string& hostName);

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_INET_ADDRESS_H_
