// SPDX-License-Identifier: Apache-2.0
// Test support: runs part of a test in a child on a host of the test's own, which reaches no
// name server: new network, mount and host-name namespaces, with a host name and an /etc of
// the test's choosing.
//
// For nuvra's tests only: not part of the library.

#ifndef NUVRA_TESTING_OFFLINE_HOST_TEST_UTIL_H_
#define NUVRA_TESTING_OFFLINE_HOST_TEST_UTIL_H_

#include <sys/mount.h>

#include <fstream>
#include <map>

#include "nuvra/testing/isolated_child_test_util.h"

// GCC's coverage runtime, linked only into builds made with --coverage.
extern "C" void __gcov_dump_one(void* root) __attribute__((weak));  // NOLINT
extern "C" char __gcov_root[] __attribute__((weak));                // NOLINT

namespace nuvra::testing {

// runIsolated in a child named `hostName` whose /etc is an empty file system holding `etc`
// (name to content) and, unless `etc` names one, an nsswitch.conf that looks host names up in
// /etc/hosts alone. A setup failure comes back as "setup: " and the reason.
inline IsolatedResult runOffline(const std::string& hostName,
                                 const std::map<std::string, std::string>& etc,
                                 const std::function<std::string()>& body) {
    return runIsolated(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS, [&]() -> std::string {
        if (sethostname(hostName.data(), hostName.size()) != 0 ||
            mount("nuvra-etc", "/etc", "tmpfs", 0, "mode=0755") != 0) {
            return std::string("setup: ") + std::strerror(errno);
        }
        std::ofstream("/etc/nsswitch.conf") << "hosts: files\n";
        for (const auto& [name, content] : etc) {
            std::ofstream("/etc/" + name, std::ios::binary) << content;
        }
        std::string output = body();
        // The child ends with _exit, which skips writing the coverage counts: write them now.
        if (__gcov_dump_one != nullptr && __gcov_root != nullptr) {
            __gcov_dump_one(__gcov_root);
        }
        return output;
    });
}

}  // namespace nuvra::testing

#endif  // NUVRA_TESTING_OFFLINE_HOST_TEST_UTIL_H_
