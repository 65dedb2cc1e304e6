#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "bytes/FileSource.h"
#include "support/Subprocess.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using testing::ProcessResult;
using testing::runOnTerminal;
using testing::runProcess;
using testing::TempDir;

ProcessResult cli(std::vector<std::string> arguments, const std::string& input = {}) {
  arguments.insert(arguments.begin(), VELLUM_CHECK_BINARY);
  return runProcess(arguments, input);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// An image file of the given size filled with reproducible random bytes.
void makeImage(const std::string& path, std::size_t size, unsigned seed = 7) {
  std::mt19937_64 random(seed);
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i + 8 <= size; i += 8) {
    const std::uint64_t word = random();
    std::memcpy(bytes.data() + i, &word, 8);
  }
  testing::writeFile(path, bytes);
}

Bytes readAll(const std::string& path) {
  FileSource source(path);
  return source.read(0, static_cast<std::int64_t>(source.size()));
}

TEST(Cli, QuickCheckVerdictsOfTheDemoCards) {
  const ProcessResult genuine = cli({"quick", "demo:genuine"});
  EXPECT_EQ(genuine.exitCode, 0) << genuine.err;
  EXPECT_TRUE(contains(genuine.out, "Capacity looks genuine")) << genuine.out;
  EXPECT_TRUE(contains(genuine.out, "Demo card (genuine) (268.4 MB)")) << genuine.out;
  EXPECT_EQ(genuine.err, "");  // no progress line when stderr is not a terminal

  const ProcessResult fake = cli({"quick", "demo:fake"});
  EXPECT_EQ(fake.exitCode, 1) << fake.err;
  EXPECT_TRUE(contains(fake.out, "Fake capacity")) << fake.out;
  EXPECT_TRUE(contains(fake.out, "Ask the seller for a refund.")) << fake.out;
}

TEST(Cli, QuickCheckJsonOfTheFakeCard) {
  const ProcessResult fake = cli({"quick", "demo:fake", "--json"});
  ASSERT_EQ(fake.exitCode, 1) << fake.err;
  const auto json = nlohmann::json::parse(fake.out);
  EXPECT_EQ(json.at("verdict"), "counterfeit");
  EXPECT_EQ(json.at("claimedBytes"), 536'870'912u);
  // The real capacity is 96 MiB; the refined boundary lies within one step.
  const auto verified = json.at("verifiedBytes").get<std::uint64_t>();
  EXPECT_LE(verified, 100'663'296u);
  EXPECT_GE(verified, 100'663'296u - 200'000u);
  EXPECT_GT(json.at("pointsAliased").get<int>(), 0);
  for (const char* key :
       {"pointsTested", "pointsIntact", "pointsCorrupt", "readMBps", "duration"}) {
    EXPECT_TRUE(json.contains(key)) << key;
  }
}

TEST(Cli, FullTestAndHealthScanOfTheDemoCards) {
  const ProcessResult fake = cli({"full", "demo:fake", "--confirm", "erase"});
  EXPECT_EQ(fake.exitCode, 1) << fake.err;
  EXPECT_TRUE(contains(fake.out, "Fake capacity")) << fake.out;
  EXPECT_TRUE(contains(fake.out, "Format it before putting it back in your camera.")) << fake.out;

  const ProcessResult genuine = cli({"full", "demo:genuine", "--confirm=erase", "--json"});
  EXPECT_EQ(genuine.exitCode, 0) << genuine.err;
  EXPECT_EQ(nlohmann::json::parse(genuine.out).at("verdict"), "genuine");

  const ProcessResult failing = cli({"health", "demo:failing", "--json"});
  EXPECT_EQ(failing.exitCode, 1) << failing.err;
  const auto json = nlohmann::json::parse(failing.out);
  EXPECT_EQ(json.at("verdict"), "unreadableAreas");
  const nlohmann::json expected = nlohmann::json::parse(
      R"([{"offset":20480000,"length":1024},{"offset":102400000,"length":512},)"
      R"({"offset":179262976,"length":512}])");
  EXPECT_EQ(json.at("unreadable"), expected);

  const ProcessResult text = cli({"health", "demo:failing"});
  EXPECT_TRUE(contains(text.out, "Unreadable areas")) << text.out;
  EXPECT_TRUE(contains(text.out, "in 3 areas couldn't be read.")) << text.out;
}

TEST(Cli, FullTestNeedsConfirmation) {
  const ProcessResult refused = cli({"full", "demo:genuine"});
  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_TRUE(contains(refused.err, "--confirm erase")) << refused.err;
  EXPECT_EQ(refused.out, "");

  const ProcessResult wrong = cli({"full", "demo:genuine", "--confirm", "yes"});
  EXPECT_EQ(wrong.exitCode, 2);
  EXPECT_TRUE(contains(wrong.err, "--confirm erase")) << wrong.err;

  // On a terminal the word is asked for.
  const ProcessResult typed =
      runOnTerminal({VELLUM_CHECK_BINARY, "full", "demo:genuine"},
                    [sent = false](const std::string& output, int, int terminal) mutable {
                      if (!sent && output.find("Type erase to continue") != std::string::npos) {
                        sent = write(terminal, "erase\n", 6) == 6;
                      }
                    });
  EXPECT_EQ(typed.exitCode, 0) << typed.out;
  EXPECT_TRUE(contains(typed.out, "Genuine")) << typed.out;
}

TEST(Cli, ImageFilesAreTestedAsDevices) {
  TempDir dir;
  const std::string image = dir.file("card.img");
  makeImage(image, 8 << 20);
  const Bytes before = readAll(image);

  const ProcessResult quick = cli({"quick", image, "--json"});
  EXPECT_EQ(quick.exitCode, 0) << quick.err;
  EXPECT_EQ(nlohmann::json::parse(quick.out).at("verdict"), "genuine");
  EXPECT_EQ(readAll(image), before) << "a Quick Check must leave the data as it was";

  const ProcessResult full = cli({"full", image, "--confirm", "erase", "--json"});
  EXPECT_EQ(full.exitCode, 0) << full.err;
  EXPECT_EQ(nlohmann::json::parse(full.out).at("goodBlocks"), 2048);

  const ProcessResult health = cli({"health", image});
  EXPECT_EQ(health.exitCode, 0) << health.err;
  EXPECT_TRUE(contains(health.out, "Healthy")) << health.out;
}

TEST(Cli, BadInputGetsAClearMessage) {
  TempDir dir;
  makeImage(dir.file("tiny.img"), 15 * 4096);
  struct Case {
    std::vector<std::string> arguments;
    int exitCode;
    std::string message;
  };
  const Case cases[] = {
      {{}, 2, "Usage: vellum-check"},
      {{"frobnicate"}, 2, "unknown command frobnicate"},
      {{"quick"}, 2, "missing arguments"},
      {{"quick", "demo:genuine", "--fast"}, 2, "unknown option --fast"},
      {{"quick", "demo:unicorn"}, 2, "unknown demo card demo:unicorn"},
      {{"quick", dir.file("missing.img")}, 3, "There is no file at " + dir.file("missing.img")},
      {{"quick", dir.path().string()}, 3, "is a folder, not a disk image file"},
      {{"quick", dir.file("tiny.img")},
       3,
       dir.file("tiny.img") + ": The device is too small to test."},
      {{"quick", "sdzz"}, 3, "vellum-check: sdzz wasn't found. Was the card removed?"},
      {{"full", "/dev/null", "--confirm", "null"},
       3,
       "vellum-check: null wasn't found. Was the card removed?"},
      {{"image", "demo:genuine", dir.file("no/such/folder.img")},
       3,
       dir.file("no/such/folder.img")},
      {{"image", dir.file("tiny.img"), dir.file("tiny.img")}, 2, "can't replace its own source"},
  };
  for (const Case& c : cases) {
    const ProcessResult result = cli(c.arguments);
    SCOPED_TRACE(result.err);
    EXPECT_EQ(result.exitCode, c.exitCode);
    EXPECT_TRUE(contains(result.err, c.message)) << "wanted: " << c.message;
    EXPECT_FALSE(contains(result.err, "terminate called")) << "uncaught exception";
  }
}

TEST(Cli, HelpAndVersion) {
  const ProcessResult help = cli({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_TRUE(contains(help.out, "vellum-check quick TARGET")) << help.out;
  const ProcessResult version = cli({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_TRUE(contains(version.out, "vellum-check ")) << version.out;
  EXPECT_EQ(cli({"quick", "--help"}).exitCode, 0);
}

TEST(Cli, ImageCommandCopiesTheCard) {
  TempDir dir;
  makeImage(dir.file("source.img"), (1 << 20) + 512);
  const ProcessResult saved = cli({"image", dir.file("source.img"), dir.file("copy.img")});
  EXPECT_EQ(saved.exitCode, 0) << saved.err;
  EXPECT_EQ(readAll(dir.file("copy.img")), readAll(dir.file("source.img")));
}

// Ctrl-C on a terminal stops the Quick Check, which puts every byte back.
TEST(Cli, InterruptedQuickCheckRestoresTheCard) {
  TempDir dir;
  const std::string image = dir.file("card.img");
  makeImage(image, 256 << 20, 11);
  const Bytes before = readAll(image);
  bool interrupted = false;
  const ProcessResult result = runOnTerminal(
      {VELLUM_CHECK_BINARY, "quick", image}, [&](const std::string& output, int pid, int) {
        if (!interrupted && output.find("Testing points") != std::string::npos) {
          interrupted = ::kill(pid, SIGINT) == 0;
        }
      });
  ASSERT_TRUE(interrupted) << result.out;
  EXPECT_EQ(result.exitCode, 130) << result.out;
  EXPECT_TRUE(contains(result.out, "The test was stopped.")) << result.out;
  EXPECT_EQ(readAll(image), before) << "the cancelled check left test blocks behind";
}

}  // namespace
}  // namespace vellum
