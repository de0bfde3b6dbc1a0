// Runs nuvra-guid as a process and checks what it writes and how it exits.

#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "nuvra/testing/spawn_test_util.h"
#include "nuvra/utils/random_source.h"
#include "nuvra/utils/uuid.h"

namespace {

using ::testing::MatchesRegex;

// Lower-case 8-4-4-4-12 text and a line feed. The generator's bytes are printed with the
// first three groups swapped, which puts the version digit "4" at index 16 and leaves the
// variant digit at index 19.
constexpr char kGuidLine[] =
    "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{2}4[0-9a-f]-[89ab][0-9a-f]{3}-[0-9a-f]{12}\n";

using nuvra::testing::SpawnResult;
using nuvra::testing::spawnAndCapture;
using nuvra::testing::Stdout;
using RunResult = SpawnResult;

RunResult run(Stdout mode, std::vector<std::string> args) {
    return spawnAndCapture(std::move(args), mode);
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
            std::make_unique<nuvra::utils::RandomSource>("/nonexistent/nuvra-random");
        EXPECT_FALSE(source->haveDevice());
        EXPECT_THAT(nuvra::utils::Uuid().toString() + "\n", MatchesRegex(kGuidLine));
        return;
    }
    expectCleanExit(result);
    EXPECT_THAT(result.out, MatchesRegex(kGuidLine));
}

}  // namespace
