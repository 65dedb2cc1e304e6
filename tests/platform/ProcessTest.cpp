#include <gtest/gtest.h>
#include <signal.h>

#include "platform/Process.h"

namespace vellum {
namespace {

TEST(Process, CapturesBothStreamsAndTheExitCode) {
  const ProcessResult result = runProcess({"sh", "-c", "printf out; printf err >&2; exit 3"});
  EXPECT_EQ(result.status, (ExitStatus{true, 3}));
  EXPECT_FALSE(result.status.succeeded());
  EXPECT_EQ(result.standardOutput, "out");
  EXPECT_EQ(result.standardError, "err");
}

TEST(Process, ArgumentsAreNeverInterpretedByAShell) {
  const ProcessResult result = runProcess({"printf", "%s|", "a b", "$HOME", "; rm -rf x", "*"});
  EXPECT_TRUE(result.status.succeeded());
  EXPECT_EQ(result.standardOutput, "a b|$HOME|; rm -rf x|*|");
}

TEST(Process, LargeOutputOnBothStreamsAndLargeInputDoNotStall) {
  // More than a pipe holds on each stream at once.
  const ProcessResult both = runProcess(
      {"sh", "-c", "head -c 1000000 /dev/zero; head -c 700000 /dev/zero >&2; cat >/dev/null"},
      std::string(2'000'000, 'x'));
  EXPECT_TRUE(both.status.succeeded());
  EXPECT_EQ(both.standardOutput.size(), 1'000'000u);
  EXPECT_EQ(both.standardError.size(), 700'000u);

  const std::string input(300'000, 'y');
  EXPECT_EQ(runProcess({"cat"}, input).standardOutput, input);
  // A child that never reads its input must not take this process down.
  EXPECT_TRUE(runProcess({"true"}, std::string(1'000'000, 'z')).status.succeeded());
}

TEST(Process, EnvironmentIsPassedOnWithOverrides) {
  ::setenv("VELLUM_PROCESS_TEST", "inherited", 1);
  EXPECT_EQ(runProcess({"sh", "-c", "printf %s \"$VELLUM_PROCESS_TEST\""}).standardOutput,
            "inherited");
  EXPECT_EQ(runProcess({"sh", "-c", "printf %s \"$VELLUM_PROCESS_TEST-$LC_ALL\""}, {},
                       {{"VELLUM_PROCESS_TEST", "replaced"}, {"LC_ALL", "C"}})
                .standardOutput,
            "replaced-C");
  ::unsetenv("VELLUM_PROCESS_TEST");
}

TEST(Process, MissingProgramAndSignals) {
  try {
    runProcess({"vellum-no-such-tool"});
    FAIL() << "expected ProcessError";
  } catch (const ProcessError& error) {
    EXPECT_EQ(error, ProcessError::cannotStart("vellum-no-such-tool", ENOENT));
    EXPECT_EQ(error.description(), "Couldn't start vellum-no-such-tool: No such file or directory");
  }
  EXPECT_THROW(runProcess({"/nonexistent/tool"}), ProcessError);
  EXPECT_EQ(runProcess({"sh", "-c", "kill -TERM $$"}).status, (ExitStatus{false, SIGTERM}));
  EXPECT_EQ(findProgram("sh").value_or("").back(), 'h');
  EXPECT_EQ(findProgram("vellum-no-such-tool"), std::nullopt);
}

TEST(Process, ChildThatIsNotWaitedForIsKilledAndReaped) {
  pid_t pid = -1;
  {
    ChildProcess child = ChildProcess::start({"sleep", "30"}, SpawnOptions{});
    pid = child.pid();
    ASSERT_GT(pid, 0);
    ChildProcess moved = std::move(child);
    EXPECT_EQ(moved.pid(), pid);
  }
  // Reaped: the pid no longer names a child of ours.
  EXPECT_EQ(::kill(pid, 0), -1);
}

}  // namespace
}  // namespace vellum
