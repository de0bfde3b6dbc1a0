// SPDX-License-Identifier: Apache-2.0
// Test support: runs a piece of a test in a forked child inside new namespaces (network,
// mount, host name), so that tests can change what the child sees (an empty network, a file
// system table of their own, a host name) without touching the machine, and so that look-ups
// that would reach a name server fail at once instead of leaving the machine.
//
// For nuvra's tests only: not part of the library.

#ifndef NUVRA_TESTING_ISOLATED_CHILD_TEST_UTIL_H_
#define NUVRA_TESTING_ISOLATED_CHILD_TEST_UTIL_H_

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <string>

namespace nuvra::testing {

struct IsolatedResult {
    // False when the child could not be started or the namespaces could not be made;
    // `output` then says why.
    bool isolated = false;
    // What the body returned, or why it did not run.
    std::string output;
};

// Forks; the child calls unshare(flags), makes its mounts private when CLONE_NEWNS is among
// the flags (so nothing it mounts reaches the machine), runs `body` and sends back the text
// it returns. An exception leaving `body` comes back as "exception: " and its what() text.
inline IsolatedResult runIsolated(int flags, const std::function<std::string()>& body) {
    IsolatedResult result;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        result.output = std::string("pipe2: ") + std::strerror(errno);
        return result;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        result.output = std::string("fork: ") + std::strerror(errno);
        close(fds[0]);
        close(fds[1]);
        return result;
    }
    if (pid == 0) {
        close(fds[0]);
        std::string text;
        char status = 'y';
        if (unshare(flags) != 0) {
            status = 'n';
            text = std::string("unshare: ") + std::strerror(errno);
        } else if ((flags & CLONE_NEWNS) != 0 &&
                   mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            status = 'n';
            text = std::string("private mounts: ") + std::strerror(errno);
        } else {
            try {
                text = body();
            } catch (const std::exception& e) {
                text = std::string("exception: ") + e.what();
            }
        }
        text.insert(text.begin(), status);
        size_t done = 0;
        while (done < text.size()) {
            const ssize_t n = write(fds[1], text.data() + done, text.size() - done);
            if (n <= 0) {
                break;
            }
            done += static_cast<size_t>(n);
        }
        _exit(0);
    }
    close(fds[1]);
    std::string received;
    char chunk[4096];
    ssize_t n = 0;
    while ((n = read(fds[0], chunk, sizeof chunk)) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) {
            received.append(chunk, static_cast<size_t>(n));
        }
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (received.empty()) {
        // The child died before answering: report it as a result, so the test fails.
        result.isolated = true;
        result.output = "child ended without an answer, wait status " + std::to_string(status);
        return result;
    }
    result.isolated = received[0] == 'y';
    result.output = received.substr(1);
    return result;
}

}  // namespace nuvra::testing

#endif  // NUVRA_TESTING_ISOLATED_CHILD_TEST_UTIL_H_
