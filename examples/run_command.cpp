// SPDX-License-Identifier: Apache-2.0
// Runs a command with its standard output and standard error piped back, and passes both on
// as they come, under a time limit:
//
//   run_command 5 make -j2          # at most 5 seconds
//
// Both pipes are polled together: a child that fills one pipe while the parent waits on the
// other would otherwise block forever. Exits with the command's status, 124 when the time
// limit ended it, 125 when it could not be started, 2 on a usage error.

#include <poll.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "nuvra/tiny/clock.h"
#include "nuvra/tiny/process.h"

namespace {

using nuvra::tiny::ChildProcess;
using nuvra::tiny::PipeChannel;

// Copies what one read brings from `channel` to `fd`; false at the end of the data.
bool pass(PipeChannel& channel, int fd) {
    char buffer[4096];
    int32_t count = 0;
    if (!channel.read(buffer, sizeof buffer, count)) {
        return false;
    }
    for (int32_t done = 0; done < count;) {
        const ssize_t written = write(fd, buffer + done, static_cast<size_t>(count - done));
        if (written <= 0) {
            break;
        }
        done += static_cast<int32_t>(written);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const long seconds = argc < 3 ? 0 : std::strtol(argv[1], nullptr, 10);
    if (seconds <= 0) {
        static_cast<void>(
            std::fprintf(stderr, "usage: run_command SECONDS PROGRAM [ARGUMENT...]\n"));
        return 2;
    }
    const uint64_t limitMs = 1000 * static_cast<uint64_t>(seconds);
    ChildProcess child(ChildProcess::RedirectStdio | ChildProcess::RedirectStderr);
    if (!child.start(argv + 2)) {
        static_cast<void>(std::fprintf(stderr, "run_command: cannot start %s\n", argv[2]));
        return 125;
    }
    // The command reads end of data, never our terminal; should the close fail, a command that
    // reads its input would wait and meet the time limit.
    static_cast<void>(child.stdinPipe().close());

    constexpr nfds_t kStreams = 2;
    PipeChannel* channels[kStreams] = {&child.stdoutPipe(), &child.stderrPipe()};
    const int targets[kStreams] = {STDOUT_FILENO, STDERR_FILENO};
    pollfd fds[kStreams] = {{channels[0]->readFd, POLLIN, 0}, {channels[1]->readFd, POLLIN, 0}};
    const uint64_t startMs = nuvra::tiny::tickClockMs();
    int open = 2;
    while (open > 0) {
        const uint64_t elapsedMs = nuvra::tiny::tickClockMs() - startMs;
        if (elapsedMs >= limitMs) {
            static_cast<void>(nuvra::tiny::killProcess(child.pid()));  // kills and reaps it
            static_cast<void>(
                std::fprintf(stderr, "run_command: %s took longer than %s s\n", argv[2], argv[1]));
            return 124;
        }
        if (poll(fds, kStreams, static_cast<int>(limitMs - elapsedMs)) < 0) {
            continue;  // interrupted: look at the clock again
        }
        for (nfds_t i = 0; i < kStreams; ++i) {
            // POLLHUP without POLLIN: the writer has gone and nothing is left to read.
            if ((fds[i].revents & (POLLIN | POLLHUP)) != 0 && !pass(*channels[i], targets[i])) {
                fds[i].fd = -1;  // poll skips negative descriptors
                --open;
            }
        }
    }
    const int status = child.waitForExit();
    return status < 0 ? 1 : status;
}
