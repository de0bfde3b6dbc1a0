#include "nuvra/utils/inet_address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sched.h>

#include <cstring>
#include <sstream>
#include <string>
#include <type_traits>

#include "gtest/gtest.h"
#include "nuvra/utils/exception.h"
#include "nuvra/utils/internal/isolated_child.h"

namespace nuvra::utils {
namespace {

using internal::runIsolated;

// Runs `body` where no name server can be reached: a look-up that /etc/hosts does not answer
// fails at once inside the child's empty network namespace.
#define RUN_OFFLINE(result, body)                                                                  \
    const internal::IsolatedResult result = runIsolated(CLONE_NEWNET, body);                       \
    if (!(result).isolated) {                                                                      \
        GTEST_SKIP() << "no private network namespace, look-up test skipped: " << (result).output; \
    }

std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const CantResolveException& e) {
        return e.what();
    }
    return "no exception";
}

in6_addr parse6(const char* text) {
    in6_addr address = {};
    EXPECT_EQ(inet_pton(AF_INET6, text, &address), 1) << text;
    return address;
}

Inet6Address make6(const char* text) {
    const in6_addr address = parse6(text);
    uint32_t words[4];
    std::memcpy(words, &address, sizeof words);
    return Inet6Address(words);
}

std::string gaiReason(const std::string& name, int family) {
    addrinfo hints = {};
    hints.ai_family = family;
    addrinfo* list = nullptr;
    const int code = getaddrinfo(name.c_str(), nullptr, &hints, &list);
    if (list != nullptr) {
        freeaddrinfo(list);
    }
    return gai_strerror(code);
}

TEST(CantResolveExceptionTest, IsARuntimeErrorButNotALibraryException) {
    static_assert(std::is_base_of_v<std::runtime_error, CantResolveException>);
    static_assert(!std::is_base_of_v<Exception, CantResolveException>);
    const CantResolveException e("Cant resolve host: x (error y)");
    EXPECT_STREQ(e.what(), "Cant resolve host: x (error y)");
}

TEST(Inet4AddressTest, DottedQuadSyntaxIsStrict) {
    const struct {
        const char* text;
        bool accepted;
    } cases[] = {
        {"1.2.3.4", true},         {"010.0.0.255", true}, {"0.0.0.0", true},
        {"255.255.255.255", true}, {"1.2.3", false},      {"1..2.3", false},
        {"256.1.1.1", false},      {"1.2.3.4.", false},   {"", false},
        {".1.2.3", false},         {"1.2.3.4.5", false},  {"1.2.3.0255", false},
        {"1.2.3.260", false},      {" 1.2.3.4", false},   {"1.2.3.4 ", false},
        {"1.2.3.-4", false},       {"a.b.c.d", false},    {"1.2.3.", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Inet4Address::isDottedQuad(c.text), c.accepted) << '"' << c.text << '"';
    }
}

TEST(Inet4AddressTest, PrintsOctetsMostSignificantFirst) {
    const struct {
        uint32_t address;
        const char* text;
    } cases[] = {
        {0, "0.0.0.0"},
        {0x0A000001, "10.0.0.1"},
        {0xC0A80101, "192.168.1.1"},
        {0xFFFFFFFF, "255.255.255.255"},
    };
    for (const auto& c : cases) {
        const Inet4Address address(c.address);
        EXPECT_EQ(address.toString(), c.text);
        std::ostringstream out;
        out << address;
        EXPECT_EQ(out.str(), c.text);
    }
}

TEST(Inet4AddressTest, PrintFollowsTheStreamsIntegerFormat) {
    std::ostringstream out;
    out << std::hex << Inet4Address(0xC0A8010A);
    EXPECT_EQ(out.str(), "c0.a8.1.a");
}

TEST(Inet4AddressTest, NetworkOrderPutsTheFirstOctetFirstInMemory) {
    const in_addr_t network = Inet4Address(0x0A000102).toNetworkOrder();
    unsigned char bytes[4];
    std::memcpy(bytes, &network, sizeof bytes);
    EXPECT_EQ(bytes[0], 10);
    EXPECT_EQ(bytes[1], 0);
    EXPECT_EQ(bytes[2], 1);
    EXPECT_EQ(bytes[3], 2);
}

TEST(Inet4AddressTest, NamesWithoutLookUp) {
    EXPECT_EQ(Inet4Address().getHostName(), "0.0.0.0");
    EXPECT_EQ(Inet4Address(0).getHostName(), "0.0.0.0");
    // A given name is never looked up; offline, a look-up of this address would fail.
    RUN_OFFLINE(result, [] {
        const Inet4Address given(0xC0000201, "given.example");
        const Inet4Address copy = given;
        return given.getHostName() + "," + copy.getHostName();
    });
    EXPECT_EQ(result.output, "given.example,given.example");
}

TEST(Inet4AddressTest, ReverseLookUpOfLoopbackUsesTheHostsFile) {
    const Inet4Address loopback(0x7F000001);
    EXPECT_EQ(loopback.getHostName(), "localhost");
    std::string name = "unchanged";
    EXPECT_TRUE(reverseLookupIPv4("127.0.0.1", name));
    EXPECT_EQ(name, "localhost");
}

TEST(Inet4AddressTest, FailedReverseLookUpThrowsWithApostropheAndHstrerror) {
    RUN_OFFLINE(result, [] {
        std::string name = "unchanged";
        const bool found = reverseLookupIPv4("192.0.2.1", name);
        const Inet4Address address(0xC0000201);
        std::string expected;
        const std::string first = messageOf([&] {
            try {
                (void)address.getHostName();
            } catch (const CantResolveException&) {
                expected =
                    std::string("Can't resolve host: 192.0.2.1 (error ") + hstrerror(h_errno) + ")";
                throw;
            }
        });
        // The name stayed unknown, so the second call tries again and fails the same way.
        const std::string second = messageOf([&] { (void)address.getHostName(); });
        return std::string(found ? "found" : "not found") + "|" + name + "|" +
               (first == expected ? "expected" : first) + "|" +
               (second == expected ? "expected" : second);
    });
    EXPECT_EQ(result.output, "not found|unchanged|expected|expected");
}

TEST(Inet4AddressTest, DottedQuadResolvesWithoutTheResolver) {
    // Offline, so that a resolver call for a literal could not go anywhere either.
    RUN_OFFLINE(result, [] {
        std::string out;
        for (const char* text : {"192.168.1.1", "010.0.0.1", "0.0.0.0"}) {
            const Inet4Address address = Inet4Address::resolve(text);
            out += address.toString() + "=" + address.getHostName() + ";";
        }
        return out;
    });
    EXPECT_EQ(result.output, "192.168.1.1=192.168.1.1;255.255.255.255=010.0.0.1;0.0.0.0=0.0.0.0;");
}

TEST(Inet4AddressTest, NamesResolveThroughTheHostsFile) {
    const Inet4Address address = Inet4Address::resolve("localhost");
    EXPECT_EQ(address.toString(), "127.0.0.1");
    EXPECT_EQ(address.getHostName(), "localhost");
}

TEST(Inet4AddressTest, OtherTextGoesToTheResolver) {
    RUN_OFFLINE(result, [] {
        // Not a dotted quad, so the resolver reads it with its own, looser rules.
        return Inet4Address::resolve("1.2.3").toString();
    });
    EXPECT_EQ(result.output, "1.2.0.3");
}

TEST(Inet4AddressTest, ResolverFailuresHaveTheirFixedMessages) {
    RUN_OFFLINE(result, [] {
        const std::string missing =
            messageOf([] { (void)Inet4Address::resolve("no-such-host.invalid"); });
        const std::string expectedMissing = "Cant resolve host: no-such-host.invalid (error " +
                                            gaiReason("no-such-host.invalid", AF_INET) + ")";
        // The resolver reads this number as 255.255.255.255.
        const std::string broadcast = messageOf([] { (void)Inet4Address::resolve("4294967295"); });
        const std::string expectedBroadcast =
            std::string("Resolve ok. No address for host: 4294967295 (error ") + gai_strerror(0) +
            ")";
        return (missing == expectedMissing ? "ok" : missing) + std::string("|") +
               (broadcast == expectedBroadcast ? "ok" : broadcast);
    });
    EXPECT_EQ(result.output, "ok|ok");
}

TEST(Inet6AddressTest, AllZeroAddressIsNamedWithoutLookUp) {
    const uint32_t zero[4] = {};
    for (const Inet6Address& address : {Inet6Address(), Inet6Address(zero)}) {
        EXPECT_EQ(address.toString(), "::");
        EXPECT_EQ(address.getHostName(), "::");
        const in6_addr bytes = address.toIn6Addr();
        EXPECT_TRUE(IN6_IS_ADDR_UNSPECIFIED(&bytes));
    }
}

TEST(Inet6AddressTest, KeepsTheBytesInMemoryOrder) {
    const Inet6Address address = make6("2001:db8::1:2");
    EXPECT_EQ(address.toString(), "2001:db8::1:2");
    const in6_addr expected = parse6("2001:db8::1:2");
    const in6_addr bytes = address.toIn6Addr();
    EXPECT_EQ(std::memcmp(&bytes, &expected, sizeof bytes), 0);
    std::ostringstream out;
    out << address;
    EXPECT_EQ(out.str(), "2001:db8::1:2");
}

TEST(Inet6AddressTest, LiteralsAreNeverTakenAsNumeric) {
    for (const char* text : {"::1", "2001:db8::1", "1.2.3.4", ""}) {
        EXPECT_FALSE(Inet6Address::isNumeric(text)) << text;
    }
}

TEST(Inet6AddressTest, ResolvesLiteralsThroughTheResolver) {
    RUN_OFFLINE(result, [] {
        std::string out;
        for (const char* text : {"::1", "::", "2001:DB8::7"}) {
            const Inet6Address address = Inet6Address::resolve(text);
            out += address.toString() + "=" + address.getHostName() + ";";
        }
        return out;
    });
    EXPECT_EQ(result.output, "::1=::1;::=::;2001:db8::7=2001:DB8::7;");
}

TEST(Inet6AddressTest, LookUpOfANumericAddressGivesItsCanonicalText) {
    RUN_OFFLINE(result, [] {
        const Inet6Address address = make6("::1");
        const Inet6Address copy = address;
        return address.getHostName() + "," + copy.getHostName();
    });
    EXPECT_EQ(result.output, "::1,::1");
}

TEST(Inet6AddressTest, ForwardFailureHasTheResolversReason) {
    RUN_OFFLINE(result, [] {
        const std::string message =
            messageOf([] { (void)Inet6Address::resolve("no-such-host.invalid"); });
        const std::string expected = "Cant resolve host: no-such-host.invalid (error " +
                                     gaiReason("no-such-host.invalid", AF_INET6) + ")";
        return message == expected ? "ok" : message;
    });
    EXPECT_EQ(result.output, "ok");
}

}  // namespace
}  // namespace nuvra::utils
