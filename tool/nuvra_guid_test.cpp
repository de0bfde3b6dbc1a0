// Runs nuvra-guid as a process and checks what it writes and how it exits.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "nuvra/utils/internal/random_source_seam.h"
#include "nuvra/utils/uuid.h"

namespace {

using ::testing::MatchesRegex;

// Lower-case 8-4-4-4-12 text and a line feed. The generator's bytes are printed with the
// first three groups swapped, which puts the version digit "4" at index 16 and leaves the
// variant digit at index 19.
constexpr char kGuidLine[] =
    "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{2}4[0-9a-f]-[89ab][0-9a-f]{3}-[0-9a-f]{12}\n";

// Where the child's standard output goes: a pipe read by the test, nowhere (closed),
// /dev/full, or a pipe whose reader has already gone.
enum class Stdout { kPipe, kClosed, kDevFull, kPipeWithoutReader };

struct RunResult {
    int status = -1;  // as from waitpid
    std::string out;
    std::string err;
};

std::string readAll(int fd) {
    std::string text;
    char buffer[512];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
        text.append(buffer, static_cast<size_t>(n > 0 ? n : 0));
    }
    close(fd);
    return text;
}

// Runs args[0] with the rest as its arguments.
RunResult run(Stdout mode, std::vector<std::string> args) {
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    RunResult result;
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2: " << std::strerror(errno);
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    switch (mode) {
        case Stdout::kPipe:
            posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
            break;
        case Stdout::kClosed:
            posix_spawn_file_actions_addclose(&actions, STDOUT_FILENO);
            break;
        case Stdout::kDevFull:
            posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/full", O_WRONLY, 0);
            break;
        case Stdout::kPipeWithoutReader:
            close(out[0]);
            out[0] = -1;
            posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
            break;
    }
    // SIGPIPE at its default action, whatever the test runner left it at.
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
    // One line is far below a pipe's capacity, so reading the pipes in turn cannot block.
    result.out = out[0] == -1 ? "" : readAll(out[0]);
    result.err = readAll(err[0]);
    if (spawnError != 0) {
        ADD_FAILURE() << "posix_spawn: " << std::strerror(spawnError);
        return result;
    }
    waitpid(pid, &result.status, 0);
    return result;
}

// The command that starts the tool: a cross build's tests start it through the same emulator
// that runs them, as the kernel need not run the target's programs itself.
std::vector<std::string> toolCommand() {
    std::vector<std::string> command;
    if (NUVRA_GUID_LAUNCHER[0] != '\0') {
        command.emplace_back(NUVRA_GUID_LAUNCHER);
    }
    command.emplace_back(NUVRA_GUID_PATH);
    return command;
}

RunResult runTool(Stdout mode, std::vector<std::string> args = {}) {
    const std::vector<std::string> command = toolCommand();
    args.insert(args.begin(), command.begin(), command.end());
    return run(mode, std::move(args));
}

void expectCleanExit(const RunResult& result) {
    ASSERT_TRUE(WIFEXITED(result.status)) << "status " << result.status;
    EXPECT_EQ(WEXITSTATUS(result.status), 0);
    EXPECT_EQ(result.err, "");
}

TEST(NuvraGuid, PrintsOneGuidLineWhateverTheArguments) {
    const std::vector<std::string> kArgumentLists[] = {{}, {"--help", "-v", "", "extra arg"}};
    for (const auto& args : kArgumentLists) {
        SCOPED_TRACE(args.size());
        const RunResult result = runTool(Stdout::kPipe, args);
        expectCleanExit(result);
        EXPECT_THAT(result.out, MatchesRegex(kGuidLine));
    }
}

TEST(NuvraGuid, EachRunPrintsANewValue) {
    EXPECT_NE(runTool(Stdout::kPipe).out, runTool(Stdout::kPipe).out);
}

TEST(NuvraGuid, ExitsZeroSilentlyWhenOutputFails) {
    for (Stdout mode : {Stdout::kClosed, Stdout::kDevFull}) {
        SCOPED_TRACE(mode == Stdout::kClosed ? "stdout closed" : "stdout is /dev/full");
        expectCleanExit(runTool(mode));
    }
}

TEST(NuvraGuid, ExitsZeroSilentlyWhenTheReaderHasGone) {
    // SIGPIPE at its default action, and ignored from the start by the parent.
    expectCleanExit(runTool(Stdout::kPipeWithoutReader));
    expectCleanExit(run(Stdout::kPipeWithoutReader,
                        {"/bin/sh", "-c", "trap '' PIPE; exec \"$0\"", NUVRA_GUID_PATH}));
}

TEST(NuvraGuid, PrintsAGuidWithoutTheRandomDevice) {
    // An empty /dev in a private mount namespace hides /dev/urandom from the tool alone.
    constexpr int kNoNamespace = 77;
    std::vector<std::string> args = {
        "/usr/bin/unshare",
        "--mount",
        "/bin/sh",
        "-c",
        "mount -t tmpfs tmpfs /dev 2>/dev/null || exit 77; exec \"$@\"",
        "sh"};
    const std::vector<std::string> command = toolCommand();
    args.insert(args.end(), command.begin(), command.end());
    const RunResult result = run(Stdout::kPipe, std::move(args));
    const bool exited = WIFEXITED(result.status);
    if (exited && (WEXITSTATUS(result.status) == kNoNamespace ||
                   result.err.find("unshare:") != std::string::npos)) {
        // No private mount namespace here: the tool's own steps in this process instead,
        // over a device path that does not exist.
        const auto source =
            nuvra::utils::internal::RandomSourceSeam::withDevice("/nonexistent/nuvra-random");
        EXPECT_FALSE(source->haveDevice());
        EXPECT_THAT(nuvra::utils::Uuid().toString() + "\n", MatchesRegex(kGuidLine));
        return;
    }
    expectCleanExit(result);
    EXPECT_THAT(result.out, MatchesRegex(kGuidLine));
}

}  // namespace
