#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "CarveSamples.h"
#include "CarverTesting.h"
#include "support/Subprocess.h"

namespace vellum::testing {
namespace {

namespace fs = std::filesystem;

ProcessResult cli(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), VELLUM_CHECK_BINARY);
  return runProcess(arguments);
}

// An image with two JPEGs, a PNG and a WAV at sector boundaries.
struct CarveCommandTest : ::testing::Test {
  TempDir temp;
  std::string image = temp.file("card.img");
  fs::path out = temp.path() / "out";
  CarveCommandTest() {
    Bytes bytes = filler(1'048'576, 0x20);
    place(bytes, 512, sampleJpeg(2000));
    place(bytes, 8192, samplePng(5000));
    place(bytes, 65536, sampleJpeg(300));
    place(bytes, 131072, sampleRiff("RIFF", "WAVE", 1000));
    writeFile(image, std::string(bytes.begin(), bytes.end()));
  }
};

// What the engine and exporter find is theirs to test; here the command's
// options, its words and its exit codes.
TEST_F(CarveCommandTest, CarvesFilesAndExportsThoseUnchangedSinceTheScan) {
  const ProcessResult result = cli({"carve", image, "--out", out.string()});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, "Found 4 files (9 KB) in " + image +
                            ".\n  Type     Files  Size\n  jpg          2  3 KB\n"
                            "  png          1  5 KB\n  wav          1  1 KB\n"
                            "Wrote the files and vellum-report.json to " +
                            out.string() + ".\n");
  const fs::path audio = temp.path() / "audio";
  const ProcessResult catalog = cli({"carve", image, "--out", audio.string(), "--catalog",
                                     "--categories", "audio", "--stride", "4096"});
  EXPECT_EQ(catalog.exitCode, 0) << catalog.err;
  EXPECT_EQ(decodeReportJson(readFile(audio / "vellum-report.json")).files.size(), 1U);
  EXPECT_FALSE(fs::exists(audio / "WAV"));

  const std::string listing = (out / "vellum-report.json").string();
  const fs::path saved = temp.path() / "saved";
  const ProcessResult whole = cli({"export", listing, image, "--out", saved.string()});
  EXPECT_EQ(whole.exitCode, 0) << whole.err;
  EXPECT_EQ(whole.out, "Saved 4 of 4 files to " + saved.string() + ".\n");
  {
    std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(65536 + 10);
    file.put('X');
  }
  const fs::path again = temp.path() / "again";
  const ProcessResult changed = cli({"export", listing, image, "--out", again.string()});
  EXPECT_EQ(changed.exitCode, 1);
  EXPECT_EQ(changed.out, "Saved 3 of 4 files to " + again.string() +
                             ".\n1 changed since the scan and were not saved.\n");
  // A report naming a file past the end of the source saves nothing.
  const std::string past = temp.file("past.json");
  writeFile(past, std::regex_replace(readFile(listing), std::regex("\"start\": 512"),
                                     "\"start\": 1048000"));
  const ProcessResult refused = cli({"export", past, image, "--out", temp.file("nowhere")});
  EXPECT_EQ(refused.exitCode, 2) << refused.err;
  EXPECT_NE(refused.err.find("Nothing was saved."), std::string::npos) << refused.err;
  EXPECT_FALSE(fs::exists(temp.file("nowhere")));
}

TEST_F(CarveCommandTest, UsageMistakes) {
  const std::string dir = out.string();
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"carve", image}, "--out DIR is needed"},
      {{"carve", image, "--out", dir, "--categories", "photo"}, "unknown category photo"},
      {{"carve", image, "--out", dir, "--stride", "0"}, "--stride needs a whole number above 0"},
      {{"carve", image, "--out", dir, "--stride", "500"}, "--chunk must be a multiple of --stride"},
      {{"export", image, image, "--out", dir}, "is not a report written by vellum-check carve"}};
  for (const auto& [arguments, message] : cases) {
    const ProcessResult result = cli(arguments);
    EXPECT_EQ(result.exitCode, 2) << message;
    EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
  }
  writeFile(temp.file("plain"), "x");
  const ProcessResult blocked = cli({"carve", image, "--out", temp.file("plain") + "/sub"});
  EXPECT_EQ(blocked.exitCode, 3);
  EXPECT_EQ(blocked.err,
            "vellum-check: Could not write " + temp.file("plain") + "/sub: Not a directory.\n");
}

}  // namespace
}  // namespace vellum::testing
