// SPDX-License-Identifier: Apache-2.0
// Resolves host names to IPv4 addresses and back, then lists this machine's host name,
// interface addresses and hardware addresses:
//
//   resolve localhost example.org 192.0.2.7
//
// A name that cannot be resolved is reported and the others go on; the exit status is then 1.

#include <arpa/inet.h>

#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "nuvra/utils/host_info.h"
#include "nuvra/utils/inet_address.h"

namespace {

// One line per name: the address, and the name the address itself resolves back to.
bool show(const std::string& name) {
    try {
        const nuvra::utils::Inet4Address address = nuvra::utils::Inet4Address::resolve(name);
        std::cout << name << " -> " << address;
        // The resolved value carries `name` as its host name; a fresh value from the bare
        // address makes getHostName ask the resolver for the reverse look-up.
        const nuvra::utils::Inet4Address bare(ntohl(address.toNetworkOrder()));
        std::cout << " -> " << bare.getHostName() << "\n";
        return true;
    } catch (const nuvra::utils::CantResolveException& e) {
        // The messages name the text and the resolver's reason.
        std::cout << "\n";
        std::cerr << "resolve: " << e.what() << "\n";
        return false;
    }
}

}  // namespace

int main(int argc, char** argv) {
    int status = 0;
    for (int i = 1; i < argc; ++i) {
        if (!show(argv[i])) {
            status = 1;
        }
    }
    std::cout << "host name: " << nuvra::utils::getHostName() << "\n";
    std::vector<nuvra::utils::Inet4Address> addresses;
    if (nuvra::utils::getLocalAddresses(addresses)) {
        for (const auto& address : addresses) {
            std::cout << "interface address: " << address << "\n";
        }
    }
    std::map<std::string, std::string> macs;
    if (nuvra::utils::getMacAddresses(macs)) {
        for (const auto& [interface, mac] : macs) {
            std::cout << "hardware address: " << interface << " " << mac << "\n";
        }
    }
    return status;
}
