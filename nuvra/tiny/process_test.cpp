// SPDX-License-Identifier: Apache-2.0
#include "nuvra/tiny/process.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "nuvra/testing/temp_dir_test_util.h"
#include "nuvra/tiny/clock.h"

namespace nuvra::tiny {
namespace {

using ::testing::ElementsAre;

bool wasReaped(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == -1 && errno == ECHILD; }

void runScript(ChildProcess& child, const char* script) {
    const char* const argv[] = {"/bin/sh", "-c", script, nullptr};
    ASSERT_TRUE(child.start(argv));
}

std::vector<std::string> readLines(ChildProcess& child, bool fromStderr = false) {
    std::vector<std::string> lines;
    std::string line;
    while ((fromStderr ? child.readStderrLine(line) : child.readStdoutLine(line)) > 0) {
        lines.push_back(line);
    }
    return lines;
}

TEST(PipeChannel, ClosesAnEndOnceAndBothEndsOfOneDescriptorTogether) {
    PipeSpec named;
    named.name = "fifo";
    PipeChannel shared;  // mode 3: one descriptor serves both ends
    EXPECT_FALSE(shared.open(named) || shared.attach(named, 0) || shared.attach({}, -1));
    const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    ASSERT_TRUE(shared.attach({}, fd));
    EXPECT_FALSE(shared.open({}) || shared.closeEnd(3));
    EXPECT_TRUE(shared.readOpen && shared.writeOpen && shared.closeEnd(1) && shared.closeEnd(2));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // closed once; the second end found it closed
    char byte = 'x';
    int32_t count = -1;
    EXPECT_FALSE(shared.writeOpen || shared.write(&byte, 1, count) || shared.read(&byte, 1, count));
    const int borrowed = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(PipeChannel{}.attach({}, borrowed));
    EXPECT_EQ(close(borrowed), 0);  // still the caller's after the channel went
}

TEST(Launchers, DecodeTheExitStatusAlsoWithoutATimeLimit) {
    static const struct {
        std::vector<const char*> argv;
        int expected;
    } kCases[] = {
        {{"/bin/sh", "-c", "exit 3", nullptr}, 3},
        {{"/bin/sh", "-c", "exit 255", nullptr}, -1},  // the same as a failed exec, on purpose
        {{"/bin/sh", "-c", "kill -9 $$", nullptr}, -1},
        {{"/nonexistent/program", nullptr}, -1},
        {{nullptr}, -1},  // nothing to start, as for a null vector
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(&c - kCases);
        EXPECT_EQ(runArgv(c.argv.data()), c.expected);
        EXPECT_EQ(waitForProcessTimeout(spawnArgv(c.argv.data(), nullptr), 0), c.expected);
    }
    EXPECT_EQ(runProgram("false", nullptr), 1);
    EXPECT_EQ(waitForProcess(spawnProgramClosingDescriptors("true", nullptr, nullptr)), 0);
}

TEST(WaitForProcessTimeout, KillsAtTheFirstPollPastTheLimit) {
    pid_t pid = 0;
    ASSERT_EQ(spawnProgram("sleep", "10", &pid), pid);
    const uint64_t start = tickClockMs();
    EXPECT_EQ(waitForProcessTimeout(pid, 2), -1);
    const uint64_t elapsed = tickClockMs() - start;
    EXPECT_TRUE(elapsed > 2000u && elapsed < 5000u) << elapsed;  // polls are a second apart
    EXPECT_TRUE(wasReaped(pid));
}

TEST(ProcessControls, ParseIntegerTakesWholeDecimalNumbersClampedToInt) {
    int value = 0;
    EXPECT_TRUE(parseInteger(" 2147483648", value) && value == INT32_MAX);
    EXPECT_TRUE(parseInteger("-99999999999999999999", value) && value == INT32_MIN);
    EXPECT_FALSE(parseInteger("", value) || parseInteger("12x", value) || parseInteger("-", value));
    EXPECT_EQ(value, INT32_MIN);  // left alone by the failures
}

TEST(ProcessControls, WaitForProcessTakesAnyPidButTheTimedWaitRefusesGroups) {
    const pid_t pid = spawnProgram("true", nullptr, nullptr);
    EXPECT_EQ(waitForProcessTimeout(-1, 0) + waitForProcessTimeout(0, 5), -2);
    EXPECT_FALSE(wasReaped(pid));
    EXPECT_EQ(waitForProcess(-1), -1);  // reaps any child, whose pid is not -1
    EXPECT_TRUE(wasReaped(pid));
}

// The descriptors a child has open after closing them by `keepList`.
std::set<int> childDescriptors(DescriptorList keepList) {
    keepList.descriptors.reserve(8);  // no allocation in a vfork child
    ChildProcess child(ChildProcess::RedirectStdio | ChildProcess::UseVfork, -1, &keepList);
    runScript(child, "ls /proc/$$/fd");
    std::set<int> fds;
    for (const std::string& line : readLines(child)) {
        fds.insert(std::stoi(line));
    }
    EXPECT_EQ(child.waitForExit(), 0);
    return fds;
}

TEST(CloseDescriptors, ChildKeepsOnlyItsPipesAndTheKeepList) {
    const int inherited = open("/dev/null", O_RDONLY);  // not close-on-exec
    EXPECT_EQ(childDescriptors({}), (std::set<int>{0, 1}));
    EXPECT_EQ(childDescriptors({false, {inherited}}), (std::set<int>{0, 1, inherited}));
    const std::set<int> closed = childDescriptors({true, {inherited}});
    EXPECT_TRUE(closed.count(inherited) == 0 && closed.count(2) == 1);
    ::close(inherited);
}

TEST(ChildProcess, PipesCarryLinesBothWaysAcrossChunksWithStandardErrorApart) {
    ChildProcess child(ChildProcess::RedirectStdio | ChildProcess::RedirectStderr |
                       ChildProcess::UseVfork);
    // Input goes to the error output; 600 characters span two reads; the last line is unended.
    runScript(child, "cat >&2; printf z >&2; printf 'a\\nb\\n'; printf c; exit 4");
    const std::string wide = std::string(599, ' ') + "x\n";
    EXPECT_EQ(child.writeLine("x"), 2);
    EXPECT_EQ(child.writeLine(wide), 601);
    EXPECT_EQ(child.writeLine(""), 1);
    ASSERT_TRUE(child.stdinPipe().close());  // end of input for cat
    EXPECT_THAT(readLines(child, true), ElementsAre("x\n", wide, "\n", "z"));
    std::string text;
    ASSERT_EQ(child.readStdoutLine(text), 2u);
    while (child.readStdout(text)) {
    }
    EXPECT_EQ(text, "a\nb\nc");  // what the line read left, then the rest
    EXPECT_EQ(child.waitForExit(), 4);
}

TEST(ChildProcess, PriorityGoesToThePreviouslyStartedChildAndKillOnDestroyToTheLast) {
    const auto priority = [](pid_t pid) { return getpriority(PRIO_PROCESS, id_t(pid)); };
    const int own = priority(0);
    const char* const argv[] = {"sleep", "10", nullptr};
    pid_t first = -1;
    pid_t second = -1;
    {
        ChildProcess child(ChildProcess::KillOnDestroy, own + 5);
        EXPECT_EQ(child.waitForExit(), -1);  // not started yet
        ASSERT_TRUE(child.start(argv));
        first = child.pid();
        EXPECT_EQ(priority(first), own);
        ASSERT_TRUE(child.start(argv));
        second = child.pid();
        EXPECT_TRUE(priority(first) == own + 5 && priority(second) == own);
    }
    EXPECT_TRUE(wasReaped(second));
    EXPECT_FALSE(setProcessPriority(first, -1) || setOomAdjust(-1, 0));
    EXPECT_TRUE(setOomAdjust(first, 15));
    EXPECT_EQ(testing::readFile("/proc/" + std::to_string(first) + "/oom_adj"), "15\n");
    EXPECT_TRUE(killProcess(first));  // neither killed nor reaped by the object
    EXPECT_TRUE(wasReaped(first));
    EXPECT_FALSE(killProcess(first) || killProcess(0) || killProcess(-1));  // nor a group
}

}  // namespace
}  // namespace nuvra::tiny
