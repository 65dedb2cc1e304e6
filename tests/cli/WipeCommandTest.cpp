#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>

#include "bytes/FileSource.h"
#include "support/Subprocess.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using testing::ProcessResult;
using testing::TempDir;

ProcessResult cli(std::vector<std::string> arguments,
                  const std::vector<std::string>& environment = {}) {
  arguments.insert(arguments.begin(), VELLUM_CHECK_BINARY);
  return testing::runProcess(arguments, {}, environment);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// An image of reproducible noise with a small JPEG at a sector boundary.
std::string noisyImageWithJpeg(std::size_t size) {
  std::mt19937_64 random(5);
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i + 8 <= size; i += 8) {
    const std::uint64_t word = random();
    std::memcpy(bytes.data() + i, &word, 8);
  }
  using namespace std::string_literals;
  const std::string jpeg =
      "\xFF\xD8\xFF\xE0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00\xFF\xD9"s;
  bytes.replace(4096, jpeg.size(), jpeg);
  return bytes;
}

Bytes readAll(const std::string& path) {
  FileSource source(path);
  return source.read(0, static_cast<std::int64_t>(source.size()));
}

std::size_t entriesIn(const std::filesystem::path& dir) {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir))
    ++count;
  return count;
}

// Random data shows what zeros cannot: the fake card wraps its upper half onto
// its start. The failing card's unreadable sectors stop the search for files,
// so the wipe cannot vouch for it.
TEST(WipeCommand, VerdictsOnTheDemoCards) {
  struct Row {
    std::vector<std::string> arguments;
    int exitCode;
    std::vector<std::string> out;
    std::string err;
  };
  const Row rows[] = {
      {{"demo:genuine"},
       0,
       {"Wiped and verified\n", "Card:                         Demo card (genuine) (268.4 MB)\n",
        "Overwritten:                  268.4 MB\n",
        "Method:                       One pass of zeros\n", "Blocks not erased:            0\n",
        "Recoverable files afterwards: 0\n", "- Format the card to use it in a camera again.\n"},
       ""},
      {{"demo:fake"}, 0, {"Wiped and verified\n", "Overwritten:                  536.9 MB\n"}, ""},
      {{"demo:fake", "--method", "random"},
       1,
       {"Wipe incomplete\n", "Method:                       One pass of random data\n",
        "- The card may be failing. For sensitive data, physically destroy it.\n"},
       ""},
      {{"demo:failing"},
       3,
       {},
       "vellum-check: demo:failing: Read failed at offset 20480000: Input/output error. The card "
       "may be failing; a Health Scan shows which areas.\n"},
  };
  for (const Row& row : rows) {
    std::vector<std::string> arguments = {"wipe", "--confirm", "erase"};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const ProcessResult result = cli(arguments);
    EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
    for (const std::string& line : row.out) {
      EXPECT_TRUE(contains(result.out, line)) << line << "\n" << result.out;
    }
    if (row.out.empty()) {
      EXPECT_EQ(result.out, "");
    }
    EXPECT_EQ(result.err, row.err);
  }
}

TEST(WipeCommand, ImageFileJsonAndScratchFolder) {
  TempDir dir;
  TempDir temp;
  const std::string image = dir.file("card.img");
  testing::writeFile(image, noisyImageWithJpeg(2 << 20));
  const ProcessResult wiped =
      cli({"wipe", image, "--method=random", "--confirm", "erase", "--json"},
          {"TMPDIR=" + temp.path().string()});
  ASSERT_EQ(wiped.exitCode, 0) << wiped.err;
  const auto json = nlohmann::json::parse(wiped.out);
  EXPECT_EQ(json.at("method"), "random");
  EXPECT_EQ(json.at("bytesOverwritten"), 2u << 20);
  EXPECT_EQ(json.at("writeErrors"), 0);
  EXPECT_EQ(json.at("blocksNotErased"), 0);
  EXPECT_EQ(json.at("recoverableFilesFound"), 0);
  EXPECT_TRUE(json.at("write").contains("curve"));
  EXPECT_TRUE(std::regex_match(json.at("startedAt").get<std::string>(),
                               std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
  EXPECT_EQ(json.size(), 8u);

  const Bytes after = readAll(image);
  EXPECT_NE(after, Bytes(after.size(), 0));
  EXPECT_NE(std::string(after.begin() + 4096, after.begin() + 4099), "\xFF\xD8\xFF");
  EXPECT_EQ(entriesIn(temp.path()), 0u) << "the scratch folder was left behind";
}

TEST(WipeCommand, NothingIsWrittenWithoutTheWordOrWithABadMethod) {
  TempDir dir;
  const std::string image = dir.file("card.img");
  testing::writeFile(image, noisyImageWithJpeg(1 << 20));
  const Bytes before = readAll(image);
  struct Row {
    std::vector<std::string> arguments;
    int exitCode;
    std::string err;
  };
  const Row rows[] = {
      {{"wipe", image},
       2,
       "vellum-check: this erases everything on " + image + ". To confirm, add --confirm erase.\n"},
      {{"wipe", image, "--confirm", "yes"},
       2,
       "vellum-check: --confirm yes doesn't match; type --confirm erase to erase " + image + ".\n"},
      {{"wipe", image, "--method", "gutmann", "--confirm", "erase"},
       2,
       "vellum-check wipe: --method takes zeros or random, not gutmann.\n"
       "Usage: vellum-check wipe TARGET [--method zeros|random] [--confirm WORD] [--backup FILE] "
       "[--json]\n"},
  };
  for (const Row& row : rows) {
    const ProcessResult result = cli(row.arguments);
    EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
    EXPECT_EQ(result.err, row.err);
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(readAll(image), before);
}

TEST(WipeCommand, CtrlCStopsTheWipe) {
  TempDir dir;
  const std::string image = dir.file("card.img");
  testing::writeFile(image, "");
  std::filesystem::resize_file(std::filesystem::path(image), 256 << 20);
  bool interrupted = false;
  const ProcessResult result =
      testing::runOnTerminal({VELLUM_CHECK_BINARY, "wipe", image, "--confirm", "erase"},
                             [&](const std::string& output, int pid, int) {
                               if (!interrupted && output.find("Wiping") != std::string::npos) {
                                 interrupted = ::kill(pid, SIGINT) == 0;
                               }
                             });
  ASSERT_TRUE(interrupted) << result.out;
  EXPECT_EQ(result.exitCode, 130) << result.out;
  EXPECT_TRUE(contains(result.out, "The test was stopped.")) << result.out;
  EXPECT_FALSE(contains(result.out, "Wiped and verified")) << result.out;
}

}  // namespace
}  // namespace vellum
