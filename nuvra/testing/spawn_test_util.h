// SPDX-License-Identifier: Apache-2.0
// Test support: starts a program with posix_spawn, with its standard output sent to a pipe,
// closed, /dev/full or a pipe whose reader has gone, and returns its wait status and what it
// wrote. SIGPIPE is at its default action in the child, whatever the test runner set.
//
// For nuvra's tests only: not part of the library.

#ifndef NUVRA_TESTING_SPAWN_TEST_UTIL_H_
#define NUVRA_TESTING_SPAWN_TEST_UTIL_H_

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

namespace nuvra::testing {

enum class Stdout { kPipe, kClosed, kDevFull, kPipeWithoutReader };

struct SpawnResult {
    int status = -1;  // as from waitpid; -1 when the program could not be started
    std::string out;
    std::string err;  // its standard error, or why it could not be started
};

// Everything up to the end of `fd`, which is then closed.
inline std::string readAll(int fd) {
    std::string text;
    char buffer[512];
    ssize_t n = 0;
    while ((n = read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
        text.append(buffer, static_cast<size_t>(n > 0 ? n : 0));
    }
    close(fd);
    return text;
}

namespace internal {

inline void routeStdout(posix_spawn_file_actions_t& actions, Stdout mode, int pipeWrite) {
    switch (mode) {
        case Stdout::kPipe:
        case Stdout::kPipeWithoutReader:
            posix_spawn_file_actions_adddup2(&actions, pipeWrite, STDOUT_FILENO);
            break;
        case Stdout::kClosed:
            posix_spawn_file_actions_addclose(&actions, STDOUT_FILENO);
            break;
        case Stdout::kDevFull:
            posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/full", O_WRONLY, 0);
            break;
    }
}

}  // namespace internal

// Runs args[0] (a path, not looked up on PATH) with the rest as its arguments. The output is
// read after the program ends its writes, so it must stay below a pipe's capacity.
inline SpawnResult spawnAndCapture(std::vector<std::string> args, Stdout mode = Stdout::kPipe) {
    SpawnResult result;
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        result.err = std::string("pipe2: ") + std::strerror(errno);
        return result;
    }
    if (mode == Stdout::kPipeWithoutReader) {
        close(out[0]);
        out[0] = -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    internal::routeStdout(actions, mode, out[1]);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    const int spawnError = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(out[1]);
    close(err[1]);
    result.out = out[0] == -1 ? "" : readAll(out[0]);
    result.err = readAll(err[0]);
    if (spawnError != 0) {
        result.err = std::string("posix_spawn: ") + std::strerror(spawnError);
        return result;
    }
    while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
    }
    return result;
}

}  // namespace nuvra::testing

#endif  // NUVRA_TESTING_SPAWN_TEST_UTIL_H_
