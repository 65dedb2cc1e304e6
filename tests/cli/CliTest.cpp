#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "CliRun.h"

// vellum-check on demo cards and image files, and its answers to bad input.

namespace vellum::testing {
namespace {

TEST(Cli, DemoCardRuns) {
  struct Run {
    std::vector<std::string> arguments;
    int exitCode;
    std::vector<std::string> out;  // lines the output holds
  };
  // The texts are the summary's; here the command prints them and exits
  // with the verdict: 0 good, 1 bad.
  const Run runs[] = {
      // clang-format off
      {{"quick", "demo:genuine"}, 0, {"Capacity looks genuine\n", " Demo card (genuine) (268.4 MB)\n"}},
      {{"full", "demo:fake", "--confirm", "erase"}, 1, {"Fake capacity\n"}},
      {{"wipe", "demo:genuine", "--confirm", "erase"}, 0, {"Wiped and verified\n", "Recoverable files afterwards: 0\n"}},
      {{"wipe", "demo:failing", "--confirm", "erase"}, 1, {"Wipe incomplete\n", "Blocks not erased:            49152\n"}},
      // clang-format on
  };
  for (const Run& run : runs) {
    const ProcessResult result = cli(run.arguments, false);
    SCOPED_TRACE(run.arguments[0] + " " + run.arguments[1] + "\n" + result.out);
    EXPECT_EQ(result.exitCode, run.exitCode);
    for (const std::string& line : run.out)
      EXPECT_TRUE(contains(result.out, line)) << line;
    // No progress line either: stderr is not a terminal.
    EXPECT_EQ(result.err, "");
  }

  // --json prints the result object alone; the exit code follows the verdict.
  const ProcessResult fake = cli({"quick", "demo:fake", "--json"}, false);
  EXPECT_EQ(fake.exitCode, 1) << fake.err;
  EXPECT_EQ(nlohmann::json::parse(fake.out).at("verdict"), "counterfeit");
  const ProcessResult failing = cli({"health", "demo:failing", "--json"}, false);
  EXPECT_EQ(failing.exitCode, 1) << failing.err;
  EXPECT_EQ(nlohmann::json::parse(failing.out).at("unreadable").size(), 3u);

  // On a terminal the word is asked for.
  const TerminalRun typed =
      cliOnTerminal({"full", "demo:genuine"}, "Type erase to continue", "erase");
  EXPECT_TRUE(typed.acted) << typed.result.out;
  EXPECT_EQ(typed.result.exitCode, 0) << typed.result.out;
  EXPECT_TRUE(contains(typed.result.out, "Genuine")) << typed.result.out;

  const ProcessResult list = cli({"list", "--json"}, false);
  ASSERT_EQ(list.exitCode, 0) << list.err;
  EXPECT_TRUE(nlohmann::json::parse(list.out).is_array()) << list.out;
}

TEST(Cli, SavesTheReportTheApplicationSaves) {
  const TempDir dir;
  // A folder gets the proposed name; the certificate is said to be one.
  const ProcessResult wipe =
      cli({"wipe", "demo:genuine", "--confirm", "erase", "--report", dir.path().string()}, false);
  ASSERT_EQ(wipe.exitCode, 0) << wipe.err;
  std::vector<std::filesystem::path> saved;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
    saved.push_back(entry.path());
  ASSERT_EQ(saved.size(), 1u);
  EXPECT_TRUE(std::regex_match(
      saved[0].filename().string(),
      std::regex(R"(Vellum Check Wipe Demo card \(genuine\) \d{4}-\d\d-\d\d\.pdf)")))
      << saved[0];
  EXPECT_EQ(wipe.err, "Saved the certificate of erasure to " + saved[0].string() + ".\n");

  // An existing file is refused before the card is touched.
  const ProcessResult again =
      cli({"full", "demo:genuine", "--confirm", "erase", "--report", saved[0].string()}, false);
  EXPECT_EQ(again.exitCode, 2);
  EXPECT_TRUE(contains(again.err, "already exists")) << again.err;
  EXPECT_TRUE(again.out.empty()) << again.out;
}

TEST(Cli, BadInputGetsAClearMessageAndWritesNothing) {
  TempDir dir;
  // An image file under /dev (in /dev/shm) is an image file, not a disk.
  const std::string inShm = "/dev/shm/vellum-test-" + std::to_string(::getpid()) + ".img";
  writeFile(inShm, randomBytes(15 * 4096, 7));
  const std::unique_ptr<const char, int (*)(const char*)> removeShm(inShm.c_str(), ::unlink);
  const std::string image = dir.file("card.img");
  const std::string content = randomBytes(kMiB, 5);
  writeFile(image, content);
  const std::string folder = dir.path().string();
  const std::string wipeUsage =
      "Usage: vellum-check wipe TARGET [--method zeros|random] [--confirm WORD] [--backup FILE "
      "[--force]] [--json]\n";
  struct Case {
    std::vector<std::string> arguments;
    int exitCode;
    std::string message;  // found on stderr, or on stdout when it succeeds
  };
  const Case cases[] = {
      // clang-format off
      {{"--help"}, 0, "vellum-check quick TARGET"},
      {{"--version"}, 0, "vellum-check "},
      {{"wipe", "--help"}, 0, "--method zeros|random  what is written (default zeros)"},
      {{}, 2, "Usage: vellum-check"},
      {{"frobnicate"}, 2, "unknown command frobnicate"},
      {{"quick"}, 2, "missing arguments"},
      {{"quick", "demo:genuine", "--fast"}, 2, "unknown option --fast"},
      {{"quick", "demo:unicorn"}, 2, "unknown demo card demo:unicorn"},
      {{"list", "sdb"}, 2, "Usage: vellum-check list [--json] [--include-images]"},
      {{"full", "demo:genuine"}, 2, "--confirm erase"},
      {{"wipe", image}, 2, "vellum-check: this erases everything on " + image + ". To confirm, add --confirm erase.\n"},
      {{"wipe", image, "--confirm", "yes"}, 2, "vellum-check: --confirm yes doesn't match; type --confirm erase to erase " + image + ".\n"},
      {{"wipe", image, "--method", "gutmann", "--confirm", "erase"}, 2, "vellum-check wipe: --method takes zeros or random, not gutmann.\n" + wipeUsage},
      {{"quick", dir.file("missing.img")}, 3, "There is no file at " + dir.file("missing.img")},
      {{"quick", folder}, 3, "is a folder, not a disk image file"},
      {{"quick", inShm}, 3, inShm + ": The device is too small to test."},
      {{"full", "/dev/null", "--confirm", "null"}, 3, "vellum-check: null wasn't found. Was the card removed?"},
      {{"image", "demo:genuine", dir.file("no/such/folder.img")}, 3, dir.file("no/such/folder.img")},
      {{"image", image, image}, 3, "can't replace its own source"},
      // clang-format on
  };
  for (const Case& c : cases) {
    const ProcessResult result = cli(c.arguments, false);
    SCOPED_TRACE(result.err);
    EXPECT_EQ(result.exitCode, c.exitCode);
    EXPECT_TRUE(contains(c.exitCode == 0 ? result.out : result.err, c.message)) << c.message;
    EXPECT_TRUE(c.exitCode == 0 || result.out.empty()) << result.out;
    EXPECT_FALSE(contains(result.err, "terminate called")) << "uncaught exception";
  }
  EXPECT_TRUE(readFile(image) == content) << "a refused command wrote to the image";
}

TEST(Cli, ImageFilesAreTestedAndCopied) {
  TempDir dir;
  const std::string image = dir.file("card.img");
  const std::string content = randomBytes(8 * kMiB, 7);
  writeFile(image, content);

  writeFile(dir.file("copy.img"), "older copy");
  // An earlier file is replaced only with --force.
  const ProcessResult kept = cli({"image", image, dir.file("copy.img")}, false);
  EXPECT_EQ(kept.exitCode, 3);
  EXPECT_TRUE(contains(kept.err,
                       "already exists. Choose another name; nothing was replaced. "
                       "Add --force to replace it."))
      << kept.err;
  EXPECT_EQ(cli({"image", image, dir.file("copy.img"), "--force"}, false).exitCode, 0);
  EXPECT_TRUE(readFile(dir.file("copy.img")) == content);
}

// Ctrl-C, a closed terminal or Ctrl-\ stops the Quick Check, which puts
// every byte back and says so.
TEST(Cli, InterruptedQuickCheckRestoresTheCard) {
  TempDir dir;
  const std::string image = dir.file("card.img");
  const std::string content = randomBytes(32 * kMiB, 11);
  writeFile(image, content);
  for (const int stop : {SIGINT, SIGHUP, SIGQUIT}) {
    const TerminalRun run = cliOnTerminal({"quick", image}, "Testing points", std::nullopt, stop);
    ASSERT_TRUE(run.acted) << run.result.out;
    EXPECT_EQ(run.result.exitCode, 130) << run.result.out;
    EXPECT_TRUE(contains(run.result.out,
                         "The test was stopped.\r\nEverything the Quick Check "
                         "wrote was put back"))
        << run.result.out;
    EXPECT_TRUE(readFile(image) == content) << "the stopped check left test blocks behind";
  }
}

}  // namespace
}  // namespace vellum::testing
