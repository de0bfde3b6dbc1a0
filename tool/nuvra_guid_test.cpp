#include <sys/wait.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "nuvra/testing/spawn_test_util.h"

namespace {

using nuvra::testing::SpawnResult;
using nuvra::testing::Stdout;

// Lower-case 8-4-4-4-12 text and a line feed. The generator's bytes are printed with the
// first three groups swapped, which puts the version digit "4" at index 16 and leaves the
// variant digit at index 19.
constexpr char kGuidLine[] =
    "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{2}4[0-9a-f]-[89ab][0-9a-f]{3}-[0-9a-f]{12}\n";

// Runs `wrapper` (which execs its arguments), the tool (through a cross build's emulator), `args`.
SpawnResult runTool(Stdout mode, const std::vector<std::string>& args = {},
                    std::vector<std::string> wrapper = {}) {
    if (NUVRA_GUID_LAUNCHER[0] != '\0') {
        wrapper.emplace_back(NUVRA_GUID_LAUNCHER);
    }
    wrapper.emplace_back(NUVRA_GUID_PATH);
    wrapper.insert(wrapper.end(), args.begin(), args.end());
    return nuvra::testing::spawnAndCapture(wrapper, mode);
}

void expectCleanExit(const SpawnResult& result) {
    EXPECT_EQ(result.status, 0) << "wait status; standard error: " << result.err;
    EXPECT_EQ(result.err, "");
}

TEST(NuvraGuid, PrintsOneNewGuidLineEachRunWhateverTheArguments) {
    const SpawnResult plain = runTool(Stdout::kPipe);
    const SpawnResult withArguments = runTool(Stdout::kPipe, {"--help", "-v", "", "extra arg"});
    for (const SpawnResult* result : {&plain, &withArguments}) {
        expectCleanExit(*result);
        EXPECT_THAT(result->out, ::testing::MatchesRegex(kGuidLine));
    }
    EXPECT_NE(plain.out, withArguments.out);
}

TEST(NuvraGuid, ExitsZeroSilentlyWhenOutputFails) {
    expectCleanExit(runTool(Stdout::kClosed));
    expectCleanExit(runTool(Stdout::kDevFull));
    expectCleanExit(runTool(Stdout::kPipeWithoutReader));  // SIGPIPE at its default action
}

TEST(NuvraGuid, PrintsAGuidWithoutTheRandomDevice) {
    // An empty /dev in a private mount namespace hides /dev/urandom from the tool alone.
    const SpawnResult result =
        runTool(Stdout::kPipe, {},
                {"/usr/bin/unshare", "--mount", "/bin/sh", "-c",
                 "mount -t tmpfs tmpfs /dev 2>/dev/null || exit 77; exec \"$@\"", "sh"});
    if (WEXITSTATUS(result.status) == 77 || result.err.find("unshare:") != std::string::npos) {
        GTEST_SKIP() << "no private mount namespace here: " << result.err;
    }
    expectCleanExit(result);
    EXPECT_THAT(result.out, ::testing::MatchesRegex(kGuidLine));
}

}  // namespace
