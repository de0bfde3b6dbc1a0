// SPDX-License-Identifier: Apache-2.0
#include "nuvra/tiny/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "nuvra/tiny/clock.h"
#include "nuvra/tiny/internal/process_seam.h"
#include "nuvra/tiny/internal/unique_resource.h"

namespace nuvra::tiny {
namespace {

constexpr int kExecEagainTries = 3;
constexpr uint32_t kNoLimitSeconds = 0xFFFFFFFFu;
constexpr uint64_t kMaxWaitMs = 0xFFFFFFFFu;
constexpr size_t kProcFdPathSize = 4096;
constexpr size_t kOomPathSize = 512;
constexpr int kUnknownDescriptorLimit = INT_MAX;

std::atomic<int32_t> waitPollMs{internal::kDefaultWaitPollMs};

// The status of a reaped child as the waits report it: its exit status when it exited
// normally, -1 when it was killed or stopped and for status 255, which a child that could not
// execute its program also ends with.
int decodeStatus(int status) {
    if (!WIFEXITED(status)) {
        return -1;
    }
    const int code = WEXITSTATUS(status);
    return code == 255 ? -1 : code;
}

bool isListed(const std::vector<int>& list, int fd) {
    return std::find(list.begin(), list.end(), fd) != list.end();
}

// Moves `source` onto the standard descriptor `target` in the child. The source is closed
// only when it is another descriptor; when it already is `target` it only loses
// close-on-exec, which dup2 would otherwise have cleared.
void moveOnto(int source, int target) {
    if (source == target) {
        const int flags = fcntl(source, F_GETFD);
        if (flags != -1) {
            fcntl(source, F_SETFD, flags & ~FD_CLOEXEC);
        }
        return;
    }
    if (dup2(source, target) != -1) {
        ::close(source);
    }
}

// The descriptor limit closeDescriptors falls back on.
int descriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return kUnknownDescriptorLimit;
    }
    return limit.rlim_cur >= static_cast<rlim_t>(kUnknownDescriptorLimit)
               ? kUnknownDescriptorLimit
               : static_cast<int>(limit.rlim_cur);
}

// closeDescriptors over the entries of /proc/<pid>/fd; false when the directory cannot be
// opened.
bool closeListedInProc(const DescriptorList& list) {
    char path[kProcFdPathSize];
    const int length = std::snprintf(path, sizeof path, "/proc/%d/fd", static_cast<int>(getpid()));
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
        return false;
    }
    const internal::UniqueDir dir(opendir(path));
    if (dir == nullptr) {
        return false;
    }
    const int ownFd = dirfd(dir.get());
    while (const dirent* entry = readdir(dir.get())) {
        char* end = nullptr;
        errno = 0;
        const long value = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || errno != 0 || value < 0 ||
            value >= static_cast<long>(INT_MAX)) {
            continue;
        }
        const int fd = static_cast<int>(value);
        if (fd == ownFd) {
            continue;
        }
        if (isListed(list.descriptors, fd) == list.closeListed) {
            ::close(fd);
        }
    }
    return true;
}

// A line from `buffer` (cursor at `cursor`), refilled from `channel` whenever the cursor
// stands at the start; see readStdoutLine.
size_t readLineFrom(PipeChannel& channel, char* buffer, size_t& cursor, std::string& line) {
    for (;;) {
        if (cursor == 0) {
            int32_t count = 0;
            if (!channel.read(buffer, static_cast<int32_t>(ChildProcess::kReadChunk), count)) {
                return line.size();
            }
            buffer[count] = '\0';
        }
        const char* text = buffer + cursor;
        const char* newline = std::strchr(text, '\n');
        if (newline != nullptr) {
            line.append(text, static_cast<size_t>(newline - text) + 1);
            cursor = static_cast<size_t>(newline - buffer) + 1;
            return line.size();
        }
        line.append(text);
        cursor = 0;
    }
}

// Left-over text from `buffer`, then one chunk from `channel`; see readStdout.
bool readChunkFrom(PipeChannel& channel, char* buffer, size_t& cursor, std::string& out) {
    if (cursor != 0) {
        out.append(buffer + cursor);
        cursor = 0;
    }
    char chunk[ChildProcess::kReadChunk];
    int32_t count = 0;
    if (!channel.read(chunk, static_cast<int32_t>(sizeof chunk), count)) {
        return false;
    }
    out.append(chunk, static_cast<size_t>(count));
    return true;
}

// The launchers' common body: a pipe-less child of `argv`, not waited for.
pid_t spawnWith(const char* const argv[], pid_t* pidOut, DescriptorList* keepList) {
    ChildProcess child(pidOut == nullptr ? ChildProcess::NoPidRequested : 0u, -1, keepList);
    const pid_t pid = child.start(argv) ? child.pid() : -1;
    if (pidOut != nullptr) {
        *pidOut = pid;
    }
    return pid;
}

}  // namespace

// Not joined to the enclosing namespace: the attribute cannot go on a joined name.
namespace [[gnu::visibility("hidden")]] internal {  // NOLINT(modernize-concat-nested-namespaces)

void setWaitPollMsForTesting(int32_t milliseconds) { waitPollMs = milliseconds; }

}  // namespace internal

// ---- PipeChannel ----

PipeChannel::~PipeChannel() {
    // An attached descriptor stays the caller's: only an explicit close() closes it.
    if (!attached_) {
        static_cast<void>(close());  // nothing left to report a failed close to
    }
}

bool PipeChannel::open(const PipeSpec& spec) {
    if (readOpen || writeOpen) {
        return false;
    }
    mode = spec.mode;
    if (!spec.name.empty()) {
        return false;
    }
    attached_ = false;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    readFd = ends[0];
    writeFd = ends[1];
    readOpen = true;
    writeOpen = true;
    return true;
}

bool PipeChannel::attach(const PipeSpec& spec, int descriptor) {
    if (!spec.name.empty() || descriptor == -1 || readOpen || writeOpen) {
        return false;
    }
    mode = spec.mode;
    attached_ = true;
    if ((mode & PipeSpec::kModeRead) != 0) {
        readFd = descriptor;
        readOpen = true;
    }
    if ((mode & PipeSpec::kModeWrite) != 0) {
        writeFd = descriptor;
        writeOpen = true;
    }
    return true;
}

bool PipeChannel::closeEnd(int end) {
    if (end != kReadEnd && end != kWriteEnd) {
        return false;
    }
    bool& isOpen = end == kReadEnd ? readOpen : writeOpen;
    if (!isOpen) {
        return true;
    }
    if (::close(end == kReadEnd ? readFd : writeFd) != 0) {
        return false;
    }
    isOpen = false;
    if (mode == PipeSpec::kModeShared) {
        // Both ends are one descriptor, which is now closed.
        readOpen = false;
        writeOpen = false;
    }
    return true;
}

bool PipeChannel::close() {
    const bool readClosed = closeEnd(kReadEnd);
    const bool writeClosed = closeEnd(kWriteEnd);
    return readClosed && writeClosed;
}

bool PipeChannel::descriptor(int end, int& out) const {
    if (end != kReadEnd && end != kWriteEnd) {
        return false;
    }
    out = end == kReadEnd ? readFd : writeFd;
    return true;
}

// Not const: reading consumes the channel's data, writing fills it.
// NOLINTNEXTLINE(readability-make-member-function-const)
bool PipeChannel::read(void* buffer, int32_t size, int32_t& count) {
    count = 0;
    if (!readOpen) {
        return false;
    }
    const size_t wanted = size < 0 ? size_t{INT32_MAX} : static_cast<size_t>(size);
    const ssize_t got = ::read(readFd, buffer, wanted);
    if (got <= 0) {
        return false;
    }
    count = static_cast<int32_t>(got);
    return true;
}

// NOLINTNEXTLINE(readability-make-member-function-const)
bool PipeChannel::write(const void* buffer, int32_t size, int32_t& count) {
    count = 0;
    if (!writeOpen) {
        return false;
    }
    const size_t wanted = size < 0 ? 0 : static_cast<size_t>(size);
    ssize_t written = 0;
    do {
        written = ::write(writeFd, buffer, wanted);
    } while (written == -1 && errno == EINTR);
    if (written < 0) {
        return false;
    }
    count = static_cast<int32_t>(written);
    return true;
}

// ---- ChildProcess ----

ChildProcess::ChildProcess(uint32_t flags, int priority, DescriptorList* keepList)
    : flags_(flags), priority_(priority), keepList_(keepList) {
    if ((flags_ & RedirectStdio) != 0) {
        PipeSpec input;
        input.mode = PipeSpec::kModeRead;
        PipeSpec output;
        output.mode = PipeSpec::kModeWrite;
        const bool inputOpen = stdinPipe_.open(input);
        const bool outputOpen = stdoutPipe_.open(output);
        stdioReady_ = inputOpen && outputOpen;
    }
    if ((flags_ & RedirectStderr) != 0) {
        PipeSpec errors;
        errors.mode = PipeSpec::kModeWrite;
        stderrReady_ = stderrPipe_.open(errors);
    }
}

ChildProcess::~ChildProcess() {
    // Best effort: nothing is left to report a failure to.
    static_cast<void>(stdinPipe_.close());
    static_cast<void>(stdoutPipe_.close());
    static_cast<void>(stderrPipe_.close());
    if (childPid_ != -1 && (flags_ & KillOnDestroy) != 0) {
        static_cast<void>(killProcess(childPid_));
    }
}

bool ChildProcess::start(const char* const argv[]) {
    const bool redirectStdio = (flags_ & RedirectStdio) != 0;
    const bool redirectStderr = (flags_ & RedirectStderr) != 0;
    if ((redirectStdio && !stdioReady_) || (redirectStderr && !stderrReady_)) {
        return false;
    }
    if (argv == nullptr || argv[0] == nullptr) {
        return false;
    }
    pid_t pid = -1;
    if ((flags_ & UseVfork) != 0) {
        // The caller asked for vfork and accepts its limits (see UseVfork). The child only
        // closes and moves descriptors before it executes or exits.
        // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.vfork)
        pid = vfork();
        if (pid == 0) {
            runChild(argv);  // NOLINT(clang-analyzer-unix.Vfork)
        }
    } else {
        pid = fork();
        if (pid == 0) {
            runChild(argv);
        }
    }
    childPid_ = pid;
    if (childPid_ == -1) {
        return false;
    }
    // The child has its own copies of these ends; the child is running whether or not the
    // parent's copy closes, so a failure changes nothing start() could report.
    if (redirectStdio) {
        static_cast<void>(stdinPipe_.closeEnd(PipeChannel::kReadEnd));
        static_cast<void>(stdoutPipe_.closeEnd(PipeChannel::kWriteEnd));
    }
    if (redirectStderr) {
        static_cast<void>(stderrPipe_.closeEnd(PipeChannel::kWriteEnd));
    }
    if (priority_ != -1) {
        // pid_ still names the previous child (or -1) here; see the header.
        // Best effort: the child runs whether or not the niceness could be set.
        static_cast<void>(setProcessPriority(pid_, priority_));
    }
    pid_ = childPid_;
    return true;
}

void ChildProcess::runChild(const char* const argv[]) {
    const bool redirectStdio = (flags_ & RedirectStdio) != 0;
    const bool redirectStderr = (flags_ & RedirectStderr) != 0;
    if (keepList_ != nullptr) {
        if (redirectStdio) {
            keepDescriptor(*keepList_, stdinPipe_.readFd);
            keepDescriptor(*keepList_, stdoutPipe_.writeFd);
        }
        if (redirectStderr) {
            keepDescriptor(*keepList_, stderrPipe_.writeFd);
        }
        closeDescriptors(*keepList_);
    }
    // Plain close() from here on: under vfork the channel records are the parent's, which
    // must still see its own ends open.
    if (redirectStdio) {
        ::close(stdinPipe_.writeFd);
        ::close(stdoutPipe_.readFd);
        moveOnto(stdinPipe_.readFd, STDIN_FILENO);
        moveOnto(stdoutPipe_.writeFd, STDOUT_FILENO);
    }
    if (redirectStderr) {
        ::close(stderrPipe_.readFd);
        moveOnto(stderrPipe_.writeFd, STDERR_FILENO);
    }
    // execvp does not change its arguments; the cast only meets its C signature.
    char* const* arguments = const_cast<char* const*>(argv);  // NOLINT
    int eagainFailures = 0;
    for (;;) {
        execvp(arguments[0], arguments);
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN && ++eagainFailures < kExecEagainTries) {
            continue;
        }
        _exit(execFailureCode_);
    }
}

int ChildProcess::waitForExit() const { return pid_ == -1 ? -1 : waitForProcess(pid_); }

int ChildProcess::waitForExit(uint32_t seconds) const {
    return pid_ == -1 ? -1 : waitForProcessTimeout(pid_, seconds);
}

size_t ChildProcess::readStdoutLine(std::string& line) {
    line.clear();
    return stdioReady_ ? readLineFrom(stdoutPipe_, stdoutBuffer_, stdoutCursor_, line) : 0;
}

size_t ChildProcess::readStderrLine(std::string& line) {
    line.clear();
    return stderrReady_ ? readLineFrom(stderrPipe_, stderrBuffer_, stderrCursor_, line) : 0;
}

bool ChildProcess::readStdout(std::string& out) {
    return stdioReady_ && readChunkFrom(stdoutPipe_, stdoutBuffer_, stdoutCursor_, out);
}

bool ChildProcess::readStderr(std::string& out) {
    return stderrReady_ && readChunkFrom(stderrPipe_, stderrBuffer_, stderrCursor_, out);
}

int32_t ChildProcess::writeLine(const std::string& text) {
    if (!stdioReady_) {
        return 0;
    }
    std::string line = text;
    if (line.empty() || line.back() != '\n') {
        line += '\n';
    }
    int32_t written = 0;
    const int32_t size =
        line.size() > size_t{INT32_MAX} ? INT32_MAX : static_cast<int32_t>(line.size());
    static_cast<void>(stdinPipe_.write(line.data(), size, written));  // `written` is 0 on failure
    return written;
}

// ---- Process controls ----

int waitForProcess(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) {
        return -1;
    }
    return decodeStatus(status);
}

bool killProcess(pid_t pid) {
    if (pid <= 0) {
        return false;
    }
    const bool sent = kill(pid, SIGKILL) == 0;
    static_cast<void>(waitForProcess(pid));  // only reaps: the status of a killed child is -1
    return sent;
}

int waitForProcessTimeout(pid_t pid, uint32_t seconds) {
    // Refused before any wait: a time limit would end in killProcess, and without one the
    // answer for a group or any child is -1 anyway.
    if (pid <= 0) {
        return -1;
    }
    if (seconds == 0 || seconds == kNoLimitSeconds) {
        return waitForProcess(pid);
    }
    const uint64_t startMs = tickClockMs();
    const uint32_t limitMs = seconds * 1000u;  // wraps for limits past 49 days, as it always has
    for (;;) {
        int status = 0;
        const pid_t result = waitpid(pid, &status, WNOHANG);
        if (result == 0) {
            const uint64_t elapsedMs = tickClockMs() - startMs;
            if (elapsedMs > kMaxWaitMs || elapsedMs > limitMs) {
                static_cast<void>(killProcess(pid));  // -1 whether or not the kill went through
                return -1;
            }
            sleepMs(waitPollMs.load(), false);
            continue;
        }
        if (result == pid) {
            return decodeStatus(status);
        }
        if (result == -1 && errno == EINTR) {
            continue;
        }
        return -1;
    }
}

bool setProcessPriority(pid_t pid, int priority) {
    if (priority == -1) {
        return false;
    }
    return setpriority(PRIO_PROCESS, static_cast<id_t>(pid), priority) == 0;
}

bool setOomAdjust(pid_t pid, int value) {
    char path[kOomPathSize];
    static_cast<void>(std::snprintf(path, sizeof path, "/proc/%d/oom_adj", static_cast<int>(pid)));
    FILE* file = std::fopen(path, "wte");
    if (file == nullptr) {
        return false;
    }
    // What the kernel makes of the value is not reported.
    static_cast<void>(std::fprintf(file, "%d", value));
    static_cast<void>(std::fclose(file));
    return true;
}

void closeDescriptors(DescriptorList& list) {
    if (closeListedInProc(list)) {
        return;
    }
    const int limit = descriptorLimit();
    if (list.closeListed) {
        for (const int fd : list.descriptors) {
            ::close(fd);
        }
        return;
    }
    std::sort(list.descriptors.begin(), list.descriptors.end());
    for (int fd = 0; fd < limit; ++fd) {
        if (!std::binary_search(list.descriptors.begin(), list.descriptors.end(), fd)) {
            ::close(fd);
        }
    }
}

void keepDescriptor(DescriptorList& list, int fd) {
    auto& fds = list.descriptors;
    if (list.closeListed) {
        fds.erase(std::remove(fds.begin(), fds.end(), fd), fds.end());
    } else if (!isListed(fds, fd)) {
        fds.push_back(fd);
    }
}

bool parseInteger(const std::string& text, int& out) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || *end != '\0') {
        return false;
    }
    // Clamped, where long is wider than int, as strtol itself clamps where they are the same
    // width: out-of-range text gives the nearest int on every target.
    out = value < INT_MIN ? INT_MIN : value > INT_MAX ? INT_MAX : static_cast<int>(value);
    return true;
}

// ---- Launchers ----

pid_t spawnProgram(const char* program, const char* argument, pid_t* pidOut) {
    const char* const argv[] = {program, argument, nullptr};
    return spawnWith(argv, pidOut, nullptr);
}

pid_t spawnProgramClosingDescriptors(const char* program, const char* argument, pid_t* pidOut) {
    const char* const argv[] = {program, argument, nullptr};
    DescriptorList keepNothing;
    return spawnWith(argv, pidOut, &keepNothing);
}

int runProgram(const char* program, const char* argument) {
    const char* const argv[] = {program, argument, nullptr};
    return runArgv(argv);
}

pid_t spawnArgv(const char* const argv[], pid_t* pidOut) {
    return spawnWith(argv, pidOut, nullptr);
}

int runArgv(const char* const argv[]) {
    const pid_t pid = spawnWith(argv, nullptr, nullptr);
    return pid == -1 ? -1 : waitForProcess(pid);
}

}  // namespace nuvra::tiny
