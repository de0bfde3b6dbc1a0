#include "nuvra/tiny/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "nuvra/tiny/clock.h"

namespace nuvra::tiny {
namespace {

using ::testing::ElementsAre;

std::string describe(const std::set<int>& fds) {
    std::ostringstream text;
    for (const int fd : fds) {
        text << fd << ' ';
    }
    return text.str();
}

// True when `pid` is no longer our child to reap (it was reaped already).
bool wasReaped(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, WNOHANG) == -1 && errno == ECHILD;
}

// Runs `body` in a forked child, which reports a text through a pipe kept open for it.
template <typename Body>
std::string inForkedChild(Body body) {
    int ends[2];
    if (pipe(ends) != 0) {
        return "pipe failed";
    }
    const pid_t pid = fork();
    if (pid == 0) {
        ::close(ends[0]);
        const std::string report = body(ends[1]);
        const ssize_t ignored = write(ends[1], report.data(), report.size());
        static_cast<void>(ignored);
        _exit(0);
    }
    ::close(ends[1]);
    std::string report;
    char buffer[256];
    ssize_t got = 0;
    while ((got = read(ends[0], buffer, sizeof buffer)) > 0) {
        report.append(buffer, static_cast<size_t>(got));
    }
    ::close(ends[0]);
    waitpid(pid, nullptr, 0);
    return report;
}

// ---- PipeChannel ----

TEST(PipeChannel, OpensAnonymousPipesOnceWithNumberedEnds) {
    PipeChannel named;
    PipeSpec spec;
    spec.name = "fifo";
    spec.mode = 1;
    EXPECT_FALSE(named.open(spec));
    EXPECT_EQ(named.mode, 1u);
    EXPECT_FALSE(named.readOpen || named.writeOpen);

    PipeChannel channel;
    spec.name.clear();
    ASSERT_TRUE(channel.open(spec));
    EXPECT_FALSE(channel.open(spec));
    EXPECT_NE(fcntl(channel.readFd, F_GETFD) & FD_CLOEXEC, 0);
    int fd = -1;
    EXPECT_FALSE(channel.descriptor(3, fd));
    EXPECT_FALSE(channel.closeEnd(3));
    EXPECT_FALSE(channel.closeEnd(0));
    ASSERT_TRUE(channel.descriptor(1, fd));
    EXPECT_EQ(fd, channel.readFd);
    EXPECT_TRUE(channel.closeEnd(1));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_TRUE(channel.closeEnd(1));  // already closed
    EXPECT_TRUE(channel.writeOpen);    // mode 1: the other end is its own descriptor
}

TEST(PipeChannel, CarriesDataUntilTheWriteEndCloses) {
    PipeChannel channel;
    ASSERT_TRUE(channel.open(PipeSpec{}));
    int32_t count = -1;
    ASSERT_TRUE(channel.write("abc", 3, count));
    EXPECT_EQ(count, 3);
    char buffer[8] = {};
    ASSERT_TRUE(channel.read(buffer, sizeof buffer, count));
    EXPECT_EQ(count, 3);
    EXPECT_EQ(std::string(buffer, 3), "abc");
    ASSERT_TRUE(channel.closeEnd(2));
    EXPECT_FALSE(channel.write("x", 1, count));
    EXPECT_FALSE(channel.read(buffer, sizeof buffer, count));
    EXPECT_EQ(count, 0);
    ASSERT_TRUE(channel.closeEnd(1));
    EXPECT_FALSE(channel.read(buffer, sizeof buffer, count));
}

TEST(PipeChannel, NegativeReadSizeAsksForAsMuchAsThereIs) {
    // The read then names a range of 2147483647 bytes from the buffer, which the system
    // refuses (EFAULT) when it runs past the end of the address space. A low heap address
    // leaves room on a 64-bit machine; a 32-bit process seldom has that room, and
    // qemu-user checks that every page of the range is mapped.
    if (sizeof(void*) < 8) {
        GTEST_SKIP() << "needs 2 GiB of address space after the buffer";
    }
    PipeChannel channel;
    ASSERT_TRUE(channel.open(PipeSpec{}));
    int32_t count = -1;
    ASSERT_TRUE(channel.write("abc", 3, count));
    std::vector<char> heap(8);
    ASSERT_TRUE(channel.read(heap.data(), -1, count));
    EXPECT_EQ(count, 3);
    EXPECT_EQ(std::string(heap.data(), 3), "abc");
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
        // With one descriptor for both ends, closing one end closes the other too.
        EXPECT_FALSE(channel.readOpen || channel.writeOpen);
    }
    PipeChannel refused;
    PipeSpec named;
    named.name = "fifo";
    EXPECT_FALSE(refused.attach(named, 0));
    EXPECT_FALSE(refused.attach(PipeSpec{}, -1));
}

// ---- Waiting, killing and exit codes ----

TEST(WaitForProcess, DecodesExitStatusAndSignals) {
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
    }
}

TEST(KillProcess, KillsAndReapsButRefusesGroups) {
    const pid_t pid = spawnProgram("sleep", "10", nullptr);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(killProcess(pid));
    EXPECT_TRUE(wasReaped(pid));
    EXPECT_FALSE(killProcess(pid));
    EXPECT_FALSE(killProcess(0));
    EXPECT_FALSE(killProcess(-1));
    EXPECT_EQ(waitForProcess(0), -1);
    EXPECT_EQ(waitForProcess(-1), -1);
}

TEST(WaitForProcess, MissingProgramEndsWithTheExecFailureCode) {
    EXPECT_EQ(runProgram("/nonexistent/program", nullptr), -1);

    ChildProcess child(0);
    child.setExecFailureCode(7);
    const char* const argv[] = {"no-such-program-on-path", nullptr};
    ASSERT_TRUE(child.start(argv));
    EXPECT_EQ(child.waitForExit(), 7);
}

TEST(WaitForProcessTimeout, LimitZeroWaitsWithoutLimit) {
    const char* const argv[] = {"/bin/sh", "-c", "exit 3", nullptr};
    const pid_t pid = spawnArgv(argv, nullptr);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(waitForProcessTimeout(pid, 0), 3);
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

// ---- Process controls ----

TEST(ProcessControls, SetPriorityAndOomAdjustOnAChild) {
    const pid_t pid = spawnProgram("sleep", "10", nullptr);
    ASSERT_GT(pid, 0);
    const int before = getpriority(PRIO_PROCESS, static_cast<id_t>(pid));
    EXPECT_FALSE(setProcessPriority(pid, -1));
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(pid)), before);
    EXPECT_TRUE(setProcessPriority(pid, 7));
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(pid)), 7);

    EXPECT_TRUE(setOomAdjust(pid, 15));
    std::ifstream oomAdj("/proc/" + std::to_string(pid) + "/oom_adj");
    int value = 0;
    oomAdj >> value;
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
    keepDescriptor(keep, 7);
    keepDescriptor(keep, 4);
    keepDescriptor(keep, 7);
    EXPECT_THAT(keep.descriptors, ElementsAre(4, 7));

    DescriptorList close{true, {4, 7, 4}};
    keepDescriptor(close, 4);
    keepDescriptor(close, 9);
    EXPECT_THAT(close.descriptors, ElementsAre(7));
}

// closeDescriptors runs in a forked child, which reports the descriptors left open.
class CloseDescriptors : public ::testing::Test {
  protected:
    void SetUp() override { extra_ = open("/dev/null", O_RDONLY); }
    void TearDown() override { ::close(extra_); }
    int extra_ = -1;
};

TEST_F(CloseDescriptors, FallsBackOnTheDescriptorLimitWithoutProc) {
    constexpr int kLimit = 64;
    const int extra = extra_;
    const std::string report = inForkedChild([extra](int reportFd) -> std::string {
        // Hide /proc in a private mount namespace, and keep the limit small.
        const rlimit limit{kLimit, kLimit};
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", "/proc", "tmpfs", 0, nullptr) != 0 ||
            setrlimit(RLIMIT_NOFILE, &limit) != 0 || reportFd >= kLimit || extra >= kLimit) {
            return "skip";
        }
        const auto openBelowLimit = [] {
            std::set<int> open;
            for (int fd = 0; fd < kLimit; ++fd) {
                if (fcntl(fd, F_GETFD) != -1) {
                    open.insert(fd);
                }
            }
            return open;
        };
        std::set<int> expected = openBelowLimit();
        expected.erase(extra);
        DescriptorList close{true, {extra}};
        closeDescriptors(close);
        if (openBelowLimit() != expected) {
            return "close list: " + describe(openBelowLimit());
        }
        DescriptorList keep{false, {reportFd, 1}};
        closeDescriptors(keep);
        if (openBelowLimit() != std::set<int>{1, reportFd}) {
            return "keep list: " + describe(openBelowLimit());
        }
        // The keep list was sorted in place.
        return keep.descriptors == std::vector<int>{1, reportFd} ? "ok" : "unsorted";
    });
    if (report == "skip") {
        GTEST_SKIP() << "no private mount namespace here";
    }
    EXPECT_EQ(report, "ok");
}

// ---- ChildProcess ----

TEST(ChildProcess, PipesWorkInBothDirections) {
    ChildProcess cat(ChildProcess::RedirectStdio);
    const char* const argv[] = {"/bin/cat", nullptr};
    ASSERT_TRUE(cat.start(argv));
    EXPECT_EQ(cat.writeLine("x"), 2);
    EXPECT_EQ(cat.writeLine("y\n"), 2);
    EXPECT_EQ(cat.writeLine(""), 1);
    ASSERT_TRUE(cat.stdinPipe().close());  // end of data for cat
    std::string line;
    EXPECT_EQ(cat.readStdoutLine(line), 2u);
    EXPECT_EQ(line, "x\n");
    EXPECT_EQ(cat.readStdoutLine(line), 2u);
    EXPECT_EQ(line, "y\n");
    EXPECT_EQ(cat.readStdoutLine(line), 1u);
    EXPECT_EQ(cat.readStdoutLine(line), 0u);
    EXPECT_EQ(cat.waitForExit(), 0);
}

// Runs `script` with the child's output piped and returns the child.
void runScript(ChildProcess& child, const char* script) {
    const char* const argv[] = {"/bin/sh", "-c", script, nullptr};
    ASSERT_TRUE(child.start(argv));
}

TEST(ChildProcess, ReadsLinesAcrossChunks) {
    ChildProcess child(ChildProcess::RedirectStdio);
    // 600 characters span two reads of 512; the last line has no line feed.
    runScript(child, "printf 'a\\n'; printf '%600s\\n' x; printf b");
    std::string line;
    EXPECT_EQ(child.readStdoutLine(line), 2u);
    EXPECT_EQ(line, "a\n");
    EXPECT_EQ(child.readStdoutLine(line), 601u);
    EXPECT_EQ(line, std::string(599, ' ') + "x\n");
    EXPECT_EQ(child.readStdoutLine(line), 1u);
    EXPECT_EQ(line, "b");
    EXPECT_EQ(child.readStdoutLine(line), 0u);
    EXPECT_EQ(line, "");
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(ChildProcess, ReadStdoutHandsOverWhatALineReadLeft) {
    ChildProcess child(ChildProcess::RedirectStdio);
    runScript(child, "printf 'one\\ntwo\\n'");
    std::string line;
    ASSERT_EQ(child.readStdoutLine(line), 4u);
    std::string rest = "<";
    // The left-over text is appended even though the read then meets end of data.
    EXPECT_FALSE(child.readStdout(rest));
    EXPECT_EQ(rest, "<two\n");
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(ChildProcess, SeparatesStandardError) {
    ChildProcess child(ChildProcess::RedirectStdio | ChildProcess::RedirectStderr);
    runScript(child, "echo err >&2; echo out; exit 4");
    std::string text;
    EXPECT_EQ(child.readStderrLine(text), 4u);
    EXPECT_EQ(text, "err\n");
    text.clear();
    EXPECT_TRUE(child.readStdout(text));
    EXPECT_EQ(text, "out\n");
    EXPECT_FALSE(child.readStderr(text));
    EXPECT_EQ(child.waitForExit(), 4);
}

TEST(ChildProcess, WithoutPipesNothingIsReadOrWritten) {
    ChildProcess child(0);
    std::string text;
    EXPECT_EQ(child.readStdoutLine(text), 0u);
    EXPECT_EQ(child.readStderrLine(text), 0u);
    EXPECT_FALSE(child.readStdout(text));
    EXPECT_FALSE(child.readStderr(text));
    EXPECT_EQ(child.writeLine("x"), 0);
    EXPECT_EQ(child.waitForExit(), -1);  // not started
    EXPECT_EQ(child.pid(), -1);
    EXPECT_EQ(child.childPid(), -1);
    EXPECT_FALSE(child.start(nullptr));
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
    int status = 0;
    waitpid(pid, &status, 0);
    return written == 1;
}

TEST(ChildProcess, VforkChildWorksInTheParentsKeepList) {
    if (!vforkSharesMemory()) {
        GTEST_SKIP() << "vfork does not share memory here (user-mode emulation makes it fork)";
    }
    static const struct {
        uint32_t flags;
        size_t keptInParent;
    } kCases[] = {
        {ChildProcess::RedirectStdio, 0},
        {ChildProcess::RedirectStdio | ChildProcess::UseVfork, 2},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.flags);
        DescriptorList keep;
        keep.descriptors.reserve(4);  // no allocation in a vfork child
        ChildProcess child(c.flags, -1, &keep);
        runScript(child, "echo hi");
        std::string line;
        EXPECT_EQ(child.readStdoutLine(line), 3u);
        EXPECT_EQ(child.waitForExit(), 0);
        EXPECT_EQ(keep.descriptors.size(), c.keptInParent);
    }
}

// The descriptors the child's shell holds, as ls lists them from outside it.
std::set<int> childDescriptors(DescriptorList* keepList) {
    ChildProcess child(ChildProcess::RedirectStdio, -1, keepList);
    runScript(child, "ls /proc/$$/fd; exit 0");
    std::set<int> fds;
    std::string line;
    while (child.readStdoutLine(line) > 0) {
        fds.insert(static_cast<int>(std::strtol(line.c_str(), nullptr, 10)));
    }
    EXPECT_EQ(child.waitForExit(), 0);
    return fds;
}

TEST_F(CloseDescriptors, ChildKeepsOnlyItsPipesAndTheKeepList) {
    const int inherited = dup(extra_);  // not close-on-exec
    ASSERT_GE(inherited, 0);
    const std::set<int> unclosed = childDescriptors(nullptr);
    EXPECT_EQ(unclosed.count(inherited), 1u) << describe(unclosed);
    EXPECT_EQ(unclosed.count(2), 1u) << describe(unclosed);

    DescriptorList keepNothing;
    EXPECT_EQ(childDescriptors(&keepNothing), (std::set<int>{0, 1}));
    DescriptorList keepInherited{false, {inherited}};
    EXPECT_EQ(childDescriptors(&keepInherited), (std::set<int>{0, 1, inherited}));
    DescriptorList closeInherited{true, {inherited}};
    const std::set<int> closed = childDescriptors(&closeInherited);
    EXPECT_EQ(closed.count(inherited), 0u) << describe(closed);
    EXPECT_EQ(closed.count(2), 1u) << describe(closed);
    ::close(inherited);
}

TEST(ChildProcess, PriorityGoesToThePreviouslyStartedChild) {
    const int own = getpriority(PRIO_PROCESS, 0);
    ChildProcess child(0, own + 5);
    const char* const argv[] = {"sleep", "10", nullptr};
    ASSERT_TRUE(child.start(argv));
    const pid_t first = child.pid();
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(first)), own);
    ASSERT_TRUE(child.start(argv));
    const pid_t second = child.pid();
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(first)), own + 5);
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(second)), own);
    EXPECT_TRUE(killProcess(first));
    EXPECT_TRUE(killProcess(second));
}

TEST(ChildProcess, KillOnDestroyKillsAndReaps) {
    const char* const argv[] = {"sleep", "10", nullptr};
    pid_t killed = -1;
    pid_t leftRunning = -1;
    {
        ChildProcess withFlag(ChildProcess::KillOnDestroy);
        ChildProcess without(0);
        ASSERT_TRUE(withFlag.start(argv));
        ASSERT_TRUE(without.start(argv));
        killed = withFlag.pid();
        leftRunning = without.pid();
    }
    EXPECT_TRUE(wasReaped(killed));
    EXPECT_FALSE(wasReaped(leftRunning));
    EXPECT_TRUE(killProcess(leftRunning));
}

// ---- Launchers ----

TEST(Launchers, RunAndSpawn) {
    EXPECT_EQ(runProgram("true", nullptr), 0);
    EXPECT_EQ(runProgram("false", nullptr), 1);
    const char* const argv[] = {"/bin/sh", "-c", "exit 6", nullptr};
    EXPECT_EQ(runArgv(argv), 6);
    const char* const empty[] = {nullptr};
    EXPECT_EQ(runArgv(empty), -1);
    pid_t out = 0;
    EXPECT_EQ(spawnArgv(empty, &out), -1);
    EXPECT_EQ(out, -1);

    const pid_t pid = spawnProgram("sleep", "10", &out);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(out, pid);
    EXPECT_TRUE(killProcess(pid));
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

}  // namespace
}  // namespace nuvra::tiny
