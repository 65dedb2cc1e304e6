#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "platform/MountTable.h"
#include "platform/Process.h"
#include "platform/UdevProperties.h"

namespace vellum {
namespace {

using ::testing::ThrowsMessage;

TEST(MountTable, ParsesMountInfoSwapsAndDeviceNumbersSkippingBrokenLines) {
  const std::vector<MountEntry> entries = parseMountInfo(
      R"(36 35 98:0 /mnt1 /mnt/parent rw,noatime master:1 shared:7 - ext3 /dev/root rw,errors=continue
62 27 8:18 / /media/tab\011and\012newline\134slash\040x rw - vfat /dev/sdb2 rw
63 27 0:50 / /media/x rw - fuse.my\040fs my\040source rw
garbage line
64 27 8:19 / /too/short rw
65 x 8:19 / /bad/id rw - vfat /dev/sdb3 rw
66 27 8-19 / /bad/dev rw - vfat /dev/sdb3 rw
67 27 8:20 / /no/super rw - vfat /dev/sdb4)");
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[0], (MountEntry{36, 35, {98, 0}, "/mnt1", "/mnt/parent", "ext3", "/dev/root"}));
  EXPECT_EQ(entries[1].mountPoint, "/media/tab\tand\nnewline\\slash x");
  EXPECT_EQ(entries[2].fileSystemType, "fuse.my fs");
  EXPECT_EQ(entries[2].source, "my source");
  EXPECT_EQ(entries[3].source, "/dev/sdb4");  // no super options: type and source still count
  // Only complete octal escapes are undone.
  for (const auto& [escaped, plain] : {std::pair{R"(end\04)", R"(end\04)"},
                                       {R"(\0a0)", R"(\0a0)"},
                                       {R"(\777)", R"(\777)"},
                                       {R"(\)", R"(\)"}}) {
    EXPECT_EQ(unescapeOctal(escaped), plain) << escaped;
  }
  EXPECT_EQ(parseSwaps("Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
                       "/dev/sdb2                               partition\t1048572\t\t0\t\t-2\n"
                       "/swap\\040file                           file\t\t524284\t\t0\t\t-3\n"),
            (std::vector<std::string>{"/dev/sdb2", "/swap file"}));
  EXPECT_TRUE(parseSwaps("Filename Type Size Used Priority\n").empty());

  EXPECT_EQ(DeviceNumber::parse(" 259:0\n"), (DeviceNumber{259, 0}));
  for (const char* bad : {"", "8", "8:", ":1", "a:b", "8:16:1", "-1:2", "8 :16"})
    EXPECT_EQ(DeviceNumber::parse(bad), std::nullopt) << bad;
  EXPECT_EQ((DeviceNumber{8, 16}).toString(), "8:16");
}

TEST(UdevProperties, ParsesPropertiesAndUnescapesLabels) {
  const auto properties = parseUdevProperties(
      "S:disk/by-label/MY\\x20CARD\nE:ID_FS_LABEL=MY_CARD\nE:ID_FS_LABEL_ENC=MY\\x20CARD\n"
      "E:EMPTY=\nG:systemd\nE:=novalue\nE:WITH=equals=inside");
  EXPECT_EQ(properties.size(), 4u);
  EXPECT_EQ(properties.at("EMPTY"), "");
  EXPECT_EQ(properties.at("WITH"), "equals=inside");
  EXPECT_EQ(unescapeUdev(properties.at("ID_FS_LABEL_ENC")), "MY CARD");
  EXPECT_EQ(unescapeUdev(R"(a\x2fb\xZZ\x4)"), R"(a/b\xZZ\x4)");
}

TEST(Process, RunsWithoutAShellCapturingBothStreamsTheExitAndTheEnvironment) {
  const ProcessResult result = runProcess({"sh", "-c", "printf out; printf err >&2; exit 3"});
  EXPECT_EQ(result.status, (ExitStatus{true, 3}));
  EXPECT_EQ(result.standardOutput, "out");
  EXPECT_EQ(result.standardError, "err");
  EXPECT_EQ(runProcess({"printf", "%s|", "a b", "$HOME", "; rm -rf x", "*"}).standardOutput,
            "a b|$HOME|; rm -rf x|*|");
  EXPECT_EQ(runProcess({"sh", "-c", "kill -TERM $$"}).status, (ExitStatus{false, SIGTERM}));

  ::setenv("VELLUM_PROCESS_TEST", "inherited", 1);
  const std::vector<std::string> show{"sh", "-c", "printf %s \"$VELLUM_PROCESS_TEST-$LC_ALL\""};
  EXPECT_EQ(runProcess(show, {}, {{"LC_ALL", "C"}}).standardOutput, "inherited-C");
  EXPECT_EQ(runProcess(show, {}, {{"VELLUM_PROCESS_TEST", "replaced"}}).standardOutput.substr(0, 9),
            "replaced-");
  ::unsetenv("VELLUM_PROCESS_TEST");

  EXPECT_EQ(runProcess({"cat"}, "input").standardOutput, "input");
  // More than a pipe holds on each stream at once, and a child that never
  // reads its input, must not stall or take this process down.
  const ProcessResult both = runProcess(
      {"sh", "-c", "head -c 1000000 /dev/zero; head -c 700000 /dev/zero >&2; cat >/dev/null"},
      std::string(2'000'000, 'x'));
  EXPECT_EQ(both.standardOutput.size() + both.standardError.size(), 1'700'000u);
  EXPECT_TRUE(runProcess({"true"}, std::string(1'000'000, 'z')).status.succeeded());
}

TEST(Process, MissingProgramsAndUnwaitedChildren) {
  EXPECT_THAT(
      [] { runProcess({"vellum-no-such-tool"}); },
      ThrowsMessage<ProcessError>("Couldn't start vellum-no-such-tool: No such file or directory"));
  EXPECT_THROW(runProcess({"/nonexistent/tool"}), ProcessError);
  EXPECT_EQ(findProgram("vellum-no-such-tool"), std::nullopt);

  pid_t pid = -1;
  {
    ChildProcess child = ChildProcess::start({"sleep", "30"}, SpawnOptions{});
    pid = child.pid();
    const ChildProcess moved = std::move(child);
    EXPECT_EQ(moved.pid(), pid);
  }
  EXPECT_EQ(::kill(pid, 0), -1);  // killed and reaped: no longer a child of ours
}

}  // namespace
}  // namespace vellum
