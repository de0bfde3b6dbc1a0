// SPDX-License-Identifier: Apache-2.0
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

// Runs the tool (through a cross build's emulator) with `args`.
SpawnResult runTool(Stdout mode, const std::vector<std::string>& args = {}) {
    std::vector<std::string> command;
    if (NUVRA_GUID_LAUNCHER[0] != '\0') {
        command.emplace_back(NUVRA_GUID_LAUNCHER);
    }
    command.emplace_back(NUVRA_GUID_PATH);
    command.insert(command.end(), args.begin(), args.end());
    return nuvra::testing::spawnAndCapture(command, mode);
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
}

TEST(NuvraGuid, EndsBySigpipeWhenTheReaderHasGone) {
    const SpawnResult result = runTool(Stdout::kPipeWithoutReader);
    EXPECT_TRUE(WIFSIGNALED(result.status) && WTERMSIG(result.status) == SIGPIPE) << result.status;
    EXPECT_EQ(result.err, "");
}

}  // namespace
