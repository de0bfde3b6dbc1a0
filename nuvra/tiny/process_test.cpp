#include "nuvra/tiny/process.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "nuvra/tiny/clock.h"

namespace nuvra::tiny {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

// True when `pid` is no longer our child to reap (it was reaped already).
bool wasReaped(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, WNOHANG) == -1 && errno == ECHILD;
}

// Reads the child's standard output (or error) line by line to its end.
std::vector<std::string> readLines(ChildProcess& child, bool fromStderr = false) {
    std::vector<std::string> lines;
    std::string line;
    for (size_t n = 0;
         (n = fromStderr ? child.readStderrLine(line) : child.readStdoutLine(line)) > 0;) {
        EXPECT_EQ(n, line.size());
        lines.push_back(line);
    }
    EXPECT_EQ(line, "");
    return lines;
}

// Starts `/bin/sh -c script` in `child`.
void runScript(ChildProcess& child, const char* script) {
    const char* const argv[] = {"/bin/sh", "-c", script, nullptr};
    ASSERT_TRUE(child.start(argv));
}

TEST(PipeChannel, OpensAnonymousPipesOnceAndCarriesDataUntilTheWriteEndCloses) {
    PipeSpec spec;
    spec.name = "fifo";  // named pipes are refused, but the mode is taken
    spec.mode = 1;
    PipeChannel channel;
    EXPECT_FALSE(channel.open(spec) || channel.attach(spec, 0));
    EXPECT_EQ(channel.mode, 1u);
    EXPECT_FALSE(channel.readOpen || channel.writeOpen);
    spec.name.clear();
    ASSERT_TRUE(channel.open(spec));
    EXPECT_FALSE(channel.open(spec));
    EXPECT_NE(fcntl(channel.readFd, F_GETFD) & FD_CLOEXEC, 0);
    int32_t count = -1;
    ASSERT_TRUE(channel.write("abc", 3, count));
    EXPECT_EQ(count, 3);
    char buffer[8] = {};
    ASSERT_TRUE(channel.read(buffer, sizeof buffer, count));
    EXPECT_EQ(std::string(buffer, static_cast<size_t>(count)), "abc");

    int fd = -1;
    EXPECT_FALSE(channel.descriptor(3, fd));
    EXPECT_FALSE(channel.closeEnd(3));
    EXPECT_FALSE(channel.closeEnd(0));
    ASSERT_TRUE(channel.descriptor(2, fd));
    EXPECT_EQ(fd, channel.writeFd);
    EXPECT_TRUE(channel.closeEnd(2));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_TRUE(channel.closeEnd(2));  // already closed
    EXPECT_TRUE(channel.readOpen);     // mode 1: the read end is its own descriptor
    EXPECT_FALSE(channel.write("x", 1, count));
    EXPECT_FALSE(channel.read(buffer, sizeof buffer, count));  // end of data
    EXPECT_EQ(count, 0);
    ASSERT_TRUE(channel.closeEnd(1));
    EXPECT_FALSE(channel.read(buffer, sizeof buffer, count));
}

TEST(PipeChannel, NegativeReadSizeAsksForAsMuchAsThereIs) {
    // The read names 2147483647 bytes from the buffer, refused (EFAULT) when that runs past
    // the address space: a 32-bit process seldom has the room, and qemu-user checks each page.
    if (sizeof(void*) < 8) {
        GTEST_SKIP() << "needs 2 GiB of address space after the buffer";
    }
    PipeChannel channel;
    ASSERT_TRUE(channel.open(PipeSpec{}));
    int32_t count = -1;
    ASSERT_TRUE(channel.write("abc", 3, count));
    std::vector<char> heap(8);
    ASSERT_TRUE(channel.read(heap.data(), -1, count));
    EXPECT_EQ(std::string(heap.data(), static_cast<size_t>(count)), "abc");
}

TEST(PipeChannel, AttachesADescriptorByMode) {
    static const struct {
        uint32_t mode;
        bool readOpen;
        bool writeOpen;
    } kCases[] = {{1, true, false}, {2, false, true}, {3, true, true}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.mode);
        const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        PipeSpec spec;
        spec.mode = c.mode;
        PipeChannel channel;
        ASSERT_TRUE(channel.attach(spec, fd));
        EXPECT_EQ(channel.readOpen, c.readOpen);
        EXPECT_EQ(channel.writeOpen, c.writeOpen);
        EXPECT_TRUE(channel.closeEnd(c.readOpen ? 1 : 2));
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
        EXPECT_FALSE(channel.readOpen || channel.writeOpen);  // one descriptor, both ends
    }
    PipeChannel refused;
    EXPECT_FALSE(refused.attach(PipeSpec{}, -1));
}

TEST(WaitForProcess, DecodesExitStatusAndSignalsAlsoWithoutATimeLimit) {
    static const struct {
        const char* script;
        int expected;
    } kCases[] = {
        {"exit 0", 0},      {"exit 3", 3},
        {"exit 254", 254},  {"exit 255", -1},  // indistinguishable from a failed exec, on purpose
        {"kill -9 $$", -1}, {"kill -TERM $$", -1},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.script);
        const char* const argv[] = {"/bin/sh", "-c", c.script, nullptr};
        EXPECT_EQ(runArgv(argv), c.expected);
        const pid_t pid = spawnArgv(argv, nullptr);
        ASSERT_GT(pid, 0);
        EXPECT_EQ(waitForProcessTimeout(pid, 0), c.expected);
    }
}

TEST(WaitForProcessTimeout, KillsAtTheFirstPollPastTheLimit) {
    const pid_t pid = spawnProgram("sleep", "10", nullptr);
    ASSERT_GT(pid, 0);
    const uint64_t start = tickClockMs();
    EXPECT_EQ(waitForProcessTimeout(pid, 2), -1);
    const uint64_t elapsed = tickClockMs() - start;
    EXPECT_GT(elapsed, 2000u);
    EXPECT_LT(elapsed, 5000u);  // polls are a second apart: about three seconds
    EXPECT_TRUE(wasReaped(pid));
}

TEST(Launchers, RunSpawnAndKillButRefuseGroupsAndMissingPrograms) {
    EXPECT_EQ(runProgram("true", nullptr), 0);
    EXPECT_EQ(runProgram("false", nullptr), 1);
    EXPECT_EQ(runProgram("/nonexistent/program", nullptr), -1);
    const char* const empty[] = {nullptr};
    EXPECT_EQ(runArgv(empty), -1);
    pid_t out = 0;
    EXPECT_EQ(spawnArgv(empty, &out), -1);
    EXPECT_EQ(out, -1);

    const pid_t pid = spawnProgram("sleep", "10", &out);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(out, pid);
    EXPECT_TRUE(killProcess(pid));
    EXPECT_TRUE(wasReaped(pid));
    EXPECT_FALSE(killProcess(pid));
    for (const pid_t group : {0, -1}) {
        EXPECT_FALSE(killProcess(group));
        EXPECT_EQ(waitForProcess(group), -1);
    }
}

TEST(Launchers, ClosingLauncherStartsTheChildWithNothingOpen) {
    char script[] = "/tmp/nuvra-fds-XXXXXX";
    const int fd = mkstemp(script);
    ASSERT_GE(fd, 0);
    // Exits with bit n set when descriptor n (0 to 2) is open in the shell.
    const std::string text =
        "m=0; for n in 0 1 2; do [ -e /proc/$$/fd/$n ] && m=$((m + (1 << n))); done; exit $m\n";
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(fd);
    const pid_t closing = spawnProgramClosingDescriptors("/bin/sh", script, nullptr);
    ASSERT_GT(closing, 0);
    const pid_t plain = spawnProgram("/bin/sh", script, nullptr);
    ASSERT_GT(plain, 0);
    EXPECT_EQ(waitForProcess(closing), 0);
    EXPECT_EQ(waitForProcess(plain) & 6, 6);  // standard output and error inherited
    unlink(script);
}

TEST(ProcessControls, SetPriorityAndOomAdjustOnAChild) {
    const pid_t pid = spawnProgram("sleep", "10", nullptr);
    ASSERT_GT(pid, 0);
    const auto priority = [pid] { return getpriority(PRIO_PROCESS, static_cast<id_t>(pid)); };
    const int before = priority();
    EXPECT_FALSE(setProcessPriority(pid, -1));
    EXPECT_EQ(priority(), before);
    EXPECT_TRUE(setProcessPriority(pid, 7));
    EXPECT_EQ(priority(), 7);

    EXPECT_TRUE(setOomAdjust(pid, 15));
    int value = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/oom_adj") >> value;
    EXPECT_EQ(value, 15);
    EXPECT_TRUE(setOomAdjust(pid, 1000));  // refused by the kernel, but the file opened
    EXPECT_TRUE(killProcess(pid));
    EXPECT_FALSE(setOomAdjust(-1, 0));
}

TEST(ProcessControls, ParseInteger) {
    static const struct {
        const char* text;
        bool ok;
        int value;
    } kCases[] = {
        {"42", true, 42},         {"-17", true, -17},
        {" 8", true, 8},          {"", false, 0},
        {"12x", false, 0},        {"8 ", false, 0},
        {"0x10", false, 0},       {"2147483647", true, INT32_MAX},
        {"2147483648", false, 0}, {"-2147483648", true, INT32_MIN},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.text);
        int value = 99;
        EXPECT_EQ(parseInteger(c.text, value), c.ok);
        EXPECT_EQ(value, c.ok ? c.value : 99);
    }
}

TEST(ProcessControls, KeepDescriptorAddsToKeepListsAndRemovesFromCloseLists) {
    DescriptorList keep{false, {4}};
    DescriptorList close{true, {4, 7, 4}};
    for (const int fd : {9, 4, 9}) {
        keepDescriptor(keep, fd);
        keepDescriptor(close, fd);
    }
    EXPECT_THAT(keep.descriptors, ElementsAre(4, 9));
    EXPECT_THAT(close.descriptors, ElementsAre(7));
}

// The descriptors below `limit` open in this process.
std::set<int> openBelow(int limit) {
    std::set<int> open;
    for (int fd = 0; fd < limit; ++fd) {
        if (fcntl(fd, F_GETFD) != -1) {
            open.insert(fd);
        }
    }
    return open;
}

// In a child: hides /proc in a private mount namespace, lowers the descriptor limit to 64,
// closes by a close list and then by a keep list, and tells what went wrong.
const char* closeWithoutProc(int extra, int reportFd) {
    constexpr int kLimit = 64;
    const rlimit limit{kLimit, kLimit};
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/proc", "tmpfs", 0, nullptr) != 0 || setrlimit(RLIMIT_NOFILE, &limit) != 0 ||
        reportFd >= kLimit || extra >= kLimit) {
        return "skip";
    }
    std::set<int> expected = openBelow(kLimit);
    expected.erase(extra);
    DescriptorList close{true, {extra}};
    closeDescriptors(close);
    if (openBelow(kLimit) != expected) {
        return "close list";
    }
    DescriptorList keep{false, {reportFd, 1}};
    closeDescriptors(keep);
    if (openBelow(kLimit) != std::set<int>{1, reportFd}) {
        return "keep list";
    }
    return keep.descriptors == std::vector<int>{1, reportFd} ? "ok" : "keep list unsorted";
}

TEST(CloseDescriptors, FallsBackOnTheDescriptorLimitWithoutProc) {
    const int extra = open("/dev/null", O_RDONLY);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        ::close(ends[0]);
        const std::string report = closeWithoutProc(extra, ends[1]);
        const ssize_t ignored = write(ends[1], report.data(), report.size());
        static_cast<void>(ignored);
        _exit(0);
    }
    ::close(ends[1]);
    ::close(extra);
    char buffer[32] = {};
    const ssize_t got = read(ends[0], buffer, sizeof buffer - 1);
    ::close(ends[0]);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    ASSERT_GT(got, 0);
    if (std::string(buffer) == "skip") {
        GTEST_SKIP() << "no private mount namespace here";
    }
    EXPECT_STREQ(buffer, "ok");
}

// The descriptors the child's shell holds, as it lists them from /proc.
std::set<int> childDescriptors(DescriptorList* keepList) {
    ChildProcess child(ChildProcess::RedirectStdio, -1, keepList);
    runScript(child, "ls /proc/$$/fd; exit 0");
    std::set<int> fds;
    for (const std::string& line : readLines(child)) {
        fds.insert(static_cast<int>(std::strtol(line.c_str(), nullptr, 10)));
    }
    EXPECT_EQ(child.waitForExit(), 0);
    return fds;
}

TEST(CloseDescriptors, ChildKeepsOnlyItsPipesAndTheKeepList) {
    const int inherited = open("/dev/null", O_RDONLY);  // not close-on-exec
    ASSERT_GE(inherited, 0);
    const std::set<int> unclosed = childDescriptors(nullptr);
    EXPECT_THAT(unclosed, Contains(inherited));
    EXPECT_THAT(unclosed, Contains(2));
    DescriptorList keepNothing;
    EXPECT_EQ(childDescriptors(&keepNothing), (std::set<int>{0, 1}));
    DescriptorList keepInherited{false, {inherited}};
    EXPECT_EQ(childDescriptors(&keepInherited), (std::set<int>{0, 1, inherited}));
    DescriptorList closeInherited{true, {inherited}};
    const std::set<int> closed = childDescriptors(&closeInherited);
    EXPECT_THAT(closed, Not(Contains(inherited)));
    EXPECT_THAT(closed, Contains(2));
    ::close(inherited);
}

TEST(ChildProcess, PipesWorkInBothDirections) {
    ChildProcess cat(ChildProcess::RedirectStdio);
    const char* const argv[] = {"/bin/cat", nullptr};
    ASSERT_TRUE(cat.start(argv));
    EXPECT_EQ(cat.writeLine("x"), 2);
    EXPECT_EQ(cat.writeLine("y\n"), 2);
    EXPECT_EQ(cat.writeLine(""), 1);
    ASSERT_TRUE(cat.stdinPipe().close());  // end of data for cat
    EXPECT_THAT(readLines(cat), ElementsAre("x\n", "y\n", "\n"));
    EXPECT_EQ(cat.waitForExit(), 0);
}

TEST(ChildProcess, ReadsLinesAcrossChunksAndStandardErrorApart) {
    ChildProcess child(ChildProcess::RedirectStdio | ChildProcess::RedirectStderr);
    // 600 characters span two reads of 512; the last line has no line feed.
    runScript(child, "echo err >&2; printf 'a\\n'; printf '%600s\\n' x; printf b; exit 4");
    EXPECT_THAT(readLines(child, true), ElementsAre("err\n"));
    EXPECT_THAT(readLines(child), ElementsAre("a\n", std::string(599, ' ') + "x\n", "b"));
    std::string text;
    EXPECT_FALSE(child.readStdout(text) || child.readStderr(text));
    EXPECT_EQ(child.waitForExit(), 4);
}

TEST(ChildProcess, ReadStdoutHandsOverWhatALineReadLeft) {
    ChildProcess child(ChildProcess::RedirectStdio);
    runScript(child, "printf 'one\\ntwo\\n'");
    std::string line;
    ASSERT_EQ(child.readStdoutLine(line), 4u);
    std::string rest = "<";
    EXPECT_FALSE(child.readStdout(rest));  // appended even though the read meets end of data
    EXPECT_EQ(rest, "<two\n");
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(ChildProcess, WithoutPipesNothingIsReadOrWrittenAndAFailedExecEndsWithItsCode) {
    ChildProcess child(0);
    std::string text;
    EXPECT_EQ(child.readStdoutLine(text) + child.readStderrLine(text), 0u);
    EXPECT_FALSE(child.readStdout(text) || child.readStderr(text));
    EXPECT_EQ(child.writeLine("x"), 0);
    EXPECT_EQ(child.waitForExit(), -1);  // not started
    EXPECT_EQ(child.pid(), -1);
    EXPECT_FALSE(child.start(nullptr));

    child.setExecFailureCode(7);
    const char* const argv[] = {"no-such-program-on-path", nullptr};
    ASSERT_TRUE(child.start(argv));
    EXPECT_EQ(child.waitForExit(), 7);
}

// Whether vfork really lends the parent's memory to the child; qemu-user, for one, turns
// vfork into fork.
bool vforkSharesMemory() {
    static volatile int written = 0;
    written = 0;
    const pid_t pid = vfork();
    if (pid == 0) {
        written = 1;
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    return written == 1;
}

TEST(ChildProcess, VforkChildWorksInTheParentsKeepList) {
    if (!vforkSharesMemory()) {
        GTEST_SKIP() << "vfork does not share memory here (user-mode emulation makes it fork)";
    }
    for (const uint32_t flags : {0u, uint32_t{ChildProcess::UseVfork}}) {
        SCOPED_TRACE(flags);
        DescriptorList keep;
        keep.descriptors.reserve(4);  // no allocation in a vfork child
        ChildProcess child(ChildProcess::RedirectStdio | flags, -1, &keep);
        runScript(child, "echo hi");
        std::string line;
        EXPECT_EQ(child.readStdoutLine(line), 3u);
        EXPECT_EQ(child.waitForExit(), 0);
        EXPECT_EQ(keep.descriptors.size(), flags == 0 ? 0u : 2u);  // the child's pipe ends
    }
}

TEST(ChildProcess, PriorityGoesToThePreviouslyStartedChildAndKillOnDestroyToTheLast) {
    const auto priority = [](pid_t pid) {
        return getpriority(PRIO_PROCESS, static_cast<id_t>(pid));
    };
    const int own = priority(0);
    const char* const argv[] = {"sleep", "10", nullptr};
    pid_t first = -1;
    pid_t second = -1;
    pid_t leftRunning = -1;
    {
        ChildProcess child(ChildProcess::KillOnDestroy, own + 5);
        ChildProcess without(0);
        ASSERT_TRUE(child.start(argv));
        first = child.pid();
        EXPECT_EQ(priority(first), own);
        ASSERT_TRUE(child.start(argv));
        second = child.pid();
        EXPECT_EQ(priority(first), own + 5);
        EXPECT_EQ(priority(second), own);
        ASSERT_TRUE(without.start(argv));
        leftRunning = without.pid();
    }
    EXPECT_TRUE(wasReaped(second));
    EXPECT_FALSE(wasReaped(first));
    EXPECT_FALSE(wasReaped(leftRunning));
    EXPECT_TRUE(killProcess(first));
    EXPECT_TRUE(killProcess(leftRunning));
}

}  // namespace
}  // namespace nuvra::tiny
