// Runs nuvra-guid as a process and checks what it writes and how it exits.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace {

struct RunResult {
    int status = -1;  // as from waitpid
    std::string out;
    std::string err;
};

enum class Stdout { kPipe, kClosed, kDevFull };

std::string readAll(int fd) {
    std::string text;
    char buffer[512];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) {
            text.append(buffer, static_cast<size_t>(n));
        }
    }
    return text;
}

// Sets up the child's standard output and error, then replaces it with the tool.
[[noreturn]] void execTool(Stdout mode, const int outPipe[2], const int errPipe[2],
                           std::vector<char*>& argv) {
    dup2(errPipe[1], STDERR_FILENO);
    switch (mode) {
        case Stdout::kPipe:
            dup2(outPipe[1], STDOUT_FILENO);
            break;
        case Stdout::kClosed:
            close(STDOUT_FILENO);
            break;
        case Stdout::kDevFull:
            dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
            break;
    }
    close(outPipe[0]);
    close(outPipe[1]);
    close(errPipe[0]);
    close(errPipe[1]);
    execv(argv[0], argv.data());
    _exit(127);
}

RunResult runTool(Stdout mode, std::vector<std::string> args = {}) {
    args.insert(args.begin(), NUVRA_GUID_PATH);
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    int outPipe[2];
    int errPipe[2];
    RunResult result;
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2: " << std::strerror(errno);
        return result;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        execTool(mode, outPipe, errPipe, argv);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    // The tool writes at most one line, far below a pipe's capacity, so reading the two
    // pipes one after the other cannot block it.
    result.out = readAll(outPipe[0]);
    result.err = readAll(errPipe[0]);
    close(outPipe[0]);
    close(errPipe[0]);
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << std::strerror(errno);
        return result;
    }
    waitpid(pid, &result.status, 0);
    return result;
}

void expectCleanExit(const RunResult& result) {
    ASSERT_TRUE(WIFEXITED(result.status)) << "status " << result.status;
    EXPECT_EQ(WEXITSTATUS(result.status), 0);
    EXPECT_EQ(result.err, "");
}

// 36 lower-case hexadecimal digits and hyphens in the 8-4-4-4-12 grouping, a line feed, the
// version digit at index 16 and the variant digit at 19 (the generator's bytes are printed
// with the first three groups swapped).
void expectGuidLine(const std::string& line) {
    ASSERT_EQ(line.size(), 37u) << line;
    EXPECT_EQ(line[36], '\n');
    for (size_t i = 0; i < 36; ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            EXPECT_EQ(line[i], '-') << line;
        } else {
            EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(line[i])) &&
                        !std::isupper(static_cast<unsigned char>(line[i])))
                << "index " << i << " of " << line;
        }
    }
    EXPECT_EQ(line[16], '4') << line;
    EXPECT_NE(std::string("89ab").find(line[19]), std::string::npos) << line;
}

TEST(NuvraGuid, PrintsOneGuidLine) {
    const RunResult result = runTool(Stdout::kPipe);
    expectCleanExit(result);
    expectGuidLine(result.out);
}

TEST(NuvraGuid, IgnoresArguments) {
    const RunResult result = runTool(Stdout::kPipe, {"--help", "-v", "", "extra argument"});
    expectCleanExit(result);
    expectGuidLine(result.out);
}

TEST(NuvraGuid, EachRunPrintsANewValue) {
    const std::string first = runTool(Stdout::kPipe).out;
    const std::string second = runTool(Stdout::kPipe).out;
    EXPECT_NE(first, second);
}

TEST(NuvraGuid, ExitsZeroSilentlyWhenOutputFails) {
    for (Stdout mode : {Stdout::kClosed, Stdout::kDevFull}) {
        SCOPED_TRACE(mode == Stdout::kClosed ? "stdout closed" : "stdout is /dev/full");
        expectCleanExit(runTool(mode));
    }
}

}  // namespace
