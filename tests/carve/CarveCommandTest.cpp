#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "CarveSamples.h"
#include "carve/CarveTypes.h"
#include "support/Subprocess.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using namespace vellum::testing;
namespace fs = std::filesystem;

ProcessResult cli(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), VELLUM_CHECK_BINARY);
  return runProcess(arguments);
}

std::string readText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// An image with two JPEGs, a PNG and a WAV at sector boundaries.
std::string makeImage(const TempDir& temp) {
  Bytes image = filler(1'048'576, 0x20);
  place(image, 512, sampleJpeg(2000));
  place(image, 8192, samplePng(5000));
  place(image, 65536, sampleJpeg(300));
  place(image, 131072, sampleRiff("RIFF", "WAVE", 1000));
  const std::string path = temp.file("card.img");
  writeFile(path, std::string(image.begin(), image.end()));
  return path;
}

TEST(CarveCommandTest, CarvesFilesAndPrintsATable) {
  TempDir temp;
  const std::string image = makeImage(temp);
  const fs::path out = temp.path() / "out";
  const ProcessResult result = cli({"carve", image, "--out", out.string()});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, "Found 4 files (9 KB) in " + image +
                            ".\n"
                            "  Type     Files  Size\n"
                            "  jpg          2  3 KB\n"
                            "  png          1  5 KB\n"
                            "  wav          1  1 KB\n"
                            "Wrote the files and vellum-report.json to " +
                            out.string() + ".\n");
  EXPECT_TRUE(fs::exists(out / "JPG" / "f1.jpg"));
  EXPECT_TRUE(fs::exists(out / "JPG" / "f128.jpg"));
  EXPECT_TRUE(fs::exists(out / "PNG" / "f16.png"));
  EXPECT_TRUE(fs::exists(out / "WAV" / "f256.wav"));
  EXPECT_EQ(decodeReportJson(readText(out / "vellum-report.json")).files.size(), 4U);

  const ProcessResult photos =
      cli({"carve", image, "--out", (temp.path() / "photos").string(), "--catalog", "--categories",
           "audio", "--stride", "4096", "--chunk", "65536"});
  EXPECT_EQ(photos.exitCode, 0) << photos.err;
  const CarveReport report =
      decodeReportJson(readText(temp.path() / "photos" / "vellum-report.json"));
  ASSERT_EQ(report.files.size(), 1U);
  EXPECT_EQ(report.files[0].ext, "wav");
  EXPECT_FALSE(fs::exists(temp.path() / "photos" / "WAV"));
}

TEST(CarveCommandTest, ExportSkipsFilesChangedSinceTheScan) {
  TempDir temp;
  const std::string image = makeImage(temp);
  const fs::path catalog = temp.path() / "catalog";
  ASSERT_EQ(cli({"carve", image, "--out", catalog.string(), "--catalog"}).exitCode, 0);

  const fs::path saved = temp.path() / "saved";
  const ProcessResult whole =
      cli({"export", (catalog / "vellum-report.json").string(), image, "--out", saved.string()});
  EXPECT_EQ(whole.exitCode, 0) << whole.err;
  EXPECT_EQ(whole.out, "Saved 4 of 4 files to " + saved.string() + ".\n");

  {
    std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(65536 + 10);
    file.put('X');
  }
  const fs::path again = temp.path() / "again";
  const ProcessResult changed =
      cli({"export", (catalog / "vellum-report.json").string(), image, "--out", again.string()});
  EXPECT_EQ(changed.exitCode, 1);
  EXPECT_EQ(changed.out, "Saved 3 of 4 files to " + again.string() +
                             ".\n1 changed since the scan and were not saved.\n");
  EXPECT_FALSE(fs::exists(again / "JPG" / "f128.jpg"));
}

TEST(CarveCommandTest, UsageMistakes) {
  TempDir temp;
  const std::string image = makeImage(temp);
  const std::string out = temp.file("out");
  struct Case {
    std::vector<std::string> arguments;
    std::string message;
  };
  const Case cases[] = {
      {{"carve", image}, "--out DIR is needed"},
      {{"carve", image, "--out", out, "--categories", "photo"}, "unknown category photo"},
      {{"carve", image, "--out", out, "--stride", "0"}, "--stride needs a whole number above 0"},
      {{"carve", image, "--out", out, "--stride", "500"}, "--chunk must be a multiple of --stride"},
      {{"export", image, image, "--out", out}, "is not a report written by vellum-check carve"},
  };
  for (const Case& c : cases) {
    const ProcessResult result = cli(c.arguments);
    EXPECT_EQ(result.exitCode, 2) << c.message;
    EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
  }
  writeFile(temp.file("plain"), "x");
  const ProcessResult blocked = cli({"carve", image, "--out", temp.file("plain") + "/sub"});
  EXPECT_EQ(blocked.exitCode, 3);
  EXPECT_EQ(blocked.err,
            "vellum-check: Could not write " + temp.file("plain") + "/sub: Not a directory.\n");
}

}  // namespace
}  // namespace vellum
