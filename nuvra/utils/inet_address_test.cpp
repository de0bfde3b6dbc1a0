#include "nuvra/utils/inet_address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sched.h>

#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>

#include "gtest/gtest.h"
#include "nuvra/utils/exception.h"
#include "nuvra/testing/isolated_child_test_util.h"

namespace nuvra::utils {
namespace {

// Runs `body` where no name server can be reached: a look-up that /etc/hosts does not answer
// fails at once inside the child's empty network namespace.
#define RUN_OFFLINE(result, body)                                                                  \
    const testing::IsolatedResult result = testing::runIsolated(CLONE_NEWNET, body);             \
    if (!(result).isolated) {                                                                      \
        GTEST_SKIP() << "no private network namespace, look-up test skipped: " << (result).output; \
    }

// The message of the CantResolveException `action` throws, "ok" when it is `expected`.
std::string messageOf(const std::function<void()>& action, const std::string& expected) {
    try {
        action();
    } catch (const CantResolveException& e) {
        return e.what() == expected ? "ok" : e.what();
    }
    return "no exception";
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

Inet6Address make6(const char* text) {
    uint32_t words[4] = {};
    EXPECT_EQ(inet_pton(AF_INET6, text, words), 1) << text;
    return Inet6Address(words);
}

TEST(CantResolveExceptionTest, IsARuntimeErrorButNotALibraryException) {
    static_assert(std::is_base_of_v<std::runtime_error, CantResolveException>);
    static_assert(!std::is_base_of_v<Exception, CantResolveException>);
    EXPECT_STREQ(CantResolveException("Cant resolve host: x").what(), "Cant resolve host: x");
}

TEST(Inet4AddressTest, DottedQuadSyntaxIsStrict) {
    for (const char* text : {"1.2.3.4", "010.0.0.255", "0.0.0.0", "255.255.255.255"}) {
        EXPECT_TRUE(Inet4Address::isDottedQuad(text)) << text;
    }
    for (const char* text :
         {"1.2.3", "1..2.3", "256.1.1.1", "1.2.3.4.", "", ".1.2.3", "1.2.3.4.5", "1.2.3.0255",
          "1.2.3.260", " 1.2.3.4", "1.2.3.4 ", "1.2.3.-4", "a.b.c.d", "1.2.3."}) {
        EXPECT_FALSE(Inet4Address::isDottedQuad(text)) << '"' << text << '"';
    }
}

TEST(Inet4AddressTest, PrintsOctetsMostSignificantFirst) {
    for (const auto& [address, text] : {std::pair<uint32_t, const char*>{0, "0.0.0.0"},
                                        {0xC0A8010A, "192.168.1.10"},
                                        {0xFFFFFFFF, "255.255.255.255"}}) {
        EXPECT_EQ(Inet4Address(address).toString(), text);
    }
    std::ostringstream out;
    out << Inet4Address(0xC0A8010A) << " " << std::hex << Inet4Address(0xC0A8010A);
    EXPECT_EQ(out.str(), "192.168.1.10 c0.a8.1.a");  // integers follow the stream's format
    const in_addr_t network = Inet4Address(0x0A000102).toNetworkOrder();
    EXPECT_EQ(std::memcmp(&network, "\x0a\x00\x01\x02", 4), 0);
}

TEST(Inet4AddressTest, LoopbackNamesComeFromTheHostsFile) {
    EXPECT_EQ(Inet4Address(0x7F000001).getHostName(), "localhost");
    std::string name = "unchanged";
    EXPECT_TRUE(reverseLookupIPv4("127.0.0.1", name));
    EXPECT_EQ(name, "localhost");
    const Inet4Address address = Inet4Address::resolve("localhost");
    EXPECT_EQ(address.toString() + " " + address.getHostName(), "127.0.0.1 localhost");
}

TEST(Inet4AddressTest, NamesGivenOrOfAddressZeroNeedNoLookUp) {
    RUN_OFFLINE(result, [] {
        const Inet4Address given(0xC0000201, "given.example");
        Inet4Address copy(0);
        std::string out = Inet4Address().getHostName() + "," + copy.getHostName() + ",";
        copy = given;
        return out + given.getHostName() + "," + copy.getHostName();
    });
    EXPECT_EQ(result.output, "0.0.0.0,0.0.0.0,given.example,given.example");
}

// The only message with an apostrophe and with hstrerror's reason; a second call tries again.
TEST(Inet4AddressTest, FailedReverseLookUpThrowsWithApostropheAndHstrerror) {
    RUN_OFFLINE(result, [] {
        std::string name = "unchanged";
        const bool found = reverseLookupIPv4("192.0.2.1", name);
        const Inet4Address address(0xC0000201);
        std::string out = std::string(found ? "found" : "not found") + "|" + name;
        for (int i = 0; i < 2; ++i) {
            try {
                out += "|" + address.getHostName();
            } catch (const CantResolveException& e) {
                const std::string expected =
                    std::string("Can't resolve host: 192.0.2.1 (error ") + hstrerror(h_errno) + ")";
                out += e.what() == expected ? "|expected" : std::string("|") + e.what();
            }
        }
        return out;
    });
    EXPECT_EQ(result.output, "not found|unchanged|expected|expected");
}

// Strict dotted quads never reach the resolver (run offline, where it could not answer); one
// that inet_pton refuses is 255.255.255.255. Other text goes to the resolver's looser rules.
TEST(Inet4AddressTest, ResolvesWithFixedMessagesForFailures) {
    RUN_OFFLINE(result, [] {
        std::string out;
        for (const char* text : {"192.168.1.1", "010.0.0.1", "0.0.0.0", "1.2.3"}) {
            const Inet4Address address = Inet4Address::resolve(text);
            out += address.toString() + "=" + address.getHostName() + ";";
        }
        const std::string missing = "no-such-host.invalid";
        out += messageOf(
            [&] { (void)Inet4Address::resolve(missing); },
            "Cant resolve host: " + missing + " (error " + gaiReason(missing, AF_INET) + ")");
        // The resolver reads this number as 255.255.255.255; the code is 0 on purpose.
        out += messageOf([] { (void)Inet4Address::resolve("4294967295"); },
                         std::string("Resolve ok. No address for host: 4294967295 (error ") +
                             gai_strerror(0) + ")");
        return out;
    });
    EXPECT_EQ(
        result.output,
        "192.168.1.1=192.168.1.1;255.255.255.255=010.0.0.1;0.0.0.0=0.0.0.0;1.2.0.3=1.2.3;okok");
}

TEST(Inet6AddressTest, KeepsTheBytesAndNamesTheZeroAddressWithoutLookUp) {
    const uint32_t zero[4] = {};
    for (const Inet6Address& address : {Inet6Address(), Inet6Address(zero)}) {
        EXPECT_EQ(address.toString() + " " + address.getHostName(), ":: ::");
        const in6_addr bytes = address.toIn6Addr();
        EXPECT_TRUE(IN6_IS_ADDR_UNSPECIFIED(&bytes));
    }
    const in6_addr bytes = make6("2001:db8::1:2").toIn6Addr();
    char text[INET6_ADDRSTRLEN] = {};
    EXPECT_STREQ(inet_ntop(AF_INET6, &bytes, text, sizeof text), "2001:db8::1:2");
    std::ostringstream out;
    out << make6("2001:db8::1:2");
    EXPECT_EQ(out.str(), "2001:db8::1:2");
    for (const char* literal : {"::1", "2001:db8::1", "1.2.3.4", ""}) {
        EXPECT_FALSE(Inet6Address::isNumeric(literal)) << literal;
    }
}

// Literals go through the resolver too, which answers them without a name server.
TEST(Inet6AddressTest, ResolvesThroughTheResolverWithItsReasonForFailures) {
    RUN_OFFLINE(result, [] {
        std::string out;
        for (const char* text : {"::1", "::", "2001:DB8::7"}) {
            const Inet6Address address = Inet6Address::resolve(text);
            out += address.toString() + "=" + address.getHostName() + ";";
        }
        Inet6Address copy;
        copy = make6("::1");
        out += copy.getHostName() + ";";
        const std::string missing = "no-such-host.invalid";
        return out + messageOf([&] { (void)Inet6Address::resolve(missing); },
                               "Cant resolve host: " + missing + " (error " +
                                   gaiReason(missing, AF_INET6) + ")");
    });
    EXPECT_EQ(result.output, "::1=::1;::=::;2001:db8::7=2001:DB8::7;::1;ok");
}

}  // namespace
}  // namespace nuvra::utils
