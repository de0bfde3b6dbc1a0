// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/inet_address.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <functional>

#include "gtest/gtest.h"
#include "nuvra/testing/offline_host_test_util.h"
#include "nuvra/utils/exception.h"

namespace nuvra::utils {
namespace {

// A sibling of Exception, so that a handler for Exception lets it pass.
static_assert(std::is_base_of_v<std::runtime_error, CantResolveException> &&
              !std::is_base_of_v<Exception, CantResolveException>);

TEST(Inet4Address, DottedQuadSyntaxIsStrictButAllowsLeadingZeros) {
    for (const char* text :
         {"1.2.3", "1..2.3", "256.1.1.1", "1.2.3.4.", "1.2.3.", "", "1.2.3.0255", "1.2.3.a"}) {
        EXPECT_FALSE(Inet4Address::isDottedQuad(text)) << '"' << text << '"';
    }
    EXPECT_TRUE(Inet4Address::isDottedQuad("010.0.0.255"));
}

std::string failure(const std::function<void()>& action) try {
    action();
    return "no exception\n";
} catch (const CantResolveException& e) {
    return std::string(e.what()) + "\n";
}

// On a host of the test's own, which answers from its /etc/hosts alone.
TEST(InetAddress, NamesAndLookUpsWithTheirFixedFailureMessages) {
    const auto result = testing::runOffline("node", {{"hosts", "127.0.0.1 localhost\n"}}, [] {
        const uint32_t zero[4] = {};
        std::string out = Inet4Address(0).getHostName() + " " + Inet6Address(zero).getHostName() +
                          " " + Inet4Address(1, "given").getHostName() + " " +
                          Inet4Address(0x7F000001).getHostName() + "\n";
        // The reason is taken from h_errno, which getnameinfo leaves alone here (kept so); a
        // failure leaves the name unknown, so the second call tries again.
        h_errno = NO_RECOVERY;
        const Inet4Address unnamed(0xC0000201);
        out += failure([&] { (void)unnamed.getHostName(); });
        out += failure([&] { (void)unnamed.getHostName(); });
        // Strict quads never reach the resolver; other text does, by its looser rules.
        for (const char* text : {"192.168.1.1", "010.0.0.1", "1.2.3", "localhost"}) {
            const Inet4Address address = Inet4Address::resolve(text);
            out += address.toString() + "=" + address.getHostName() + " ";
        }
        out += "\n" + failure([] { (void)Inet4Address::resolve("no.such.host"); });
        out += failure([] { (void)Inet4Address::resolve("4294967295"); });  // 255.255.255.255
        for (const char* text : {"::1", "2001:DB8::7"}) {
            const Inet6Address address = Inet6Address::resolve(text);
            out += address.toString() + "=" + address.getHostName() + " ";
        }
        const uint32_t one[4] = {0, 0, 0, htonl(1)};
        return out + Inet6Address(one).getHostName();  // the resolver's canonical name
    });
    if (!result.isolated) {
        GTEST_SKIP() << "no private network, mount and host-name namespaces: " << result.output;
    }
    EXPECT_EQ(
        result.output,
        "0.0.0.0 :: given localhost\n"
        "Can't resolve host: 192.0.2.1 (error Unknown server error)\n"
        "Can't resolve host: 192.0.2.1 (error Unknown server error)\n"
        "192.168.1.1=192.168.1.1 255.255.255.255=010.0.0.1 1.2.0.3=1.2.3 127.0.0.1=localhost \n"
        "Cant resolve host: no.such.host (error Name or service not known)\n"
        "Resolve ok. No address for host: 4294967295 (error Unknown error)\n"
        "::1=::1 2001:db8::7=2001:DB8::7 ::1");
}

}  // namespace
}  // namespace nuvra::utils
