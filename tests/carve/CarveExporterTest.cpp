#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "CarveSamples.h"
#include "CarverTesting.h"
#include "bytes/DeviceError.h"
#include "carve/CarveExporter.h"

namespace vellum::testing {
namespace {

namespace fs = std::filesystem;
constexpr std::uint64_t smallAt = 1'048'576;
constexpr std::uint64_t bigAt = 1'052'672;

// A 6 MiB image with a JPEG at 1 MiB and 5,000,000 patterned bytes (more
// than one 4 MiB copy piece) right after it.
struct CarveExporterTest : ::testing::Test {
  Bytes image = filler(6 * 1'048'576, 0x61);
  Bytes big = Bytes(5'000'000);
  Bytes small = sampleJpeg(100);
  TempDir temp;
  CarveExporterTest() {
    for (std::size_t i = 0; i < big.size(); ++i)
      big[i] = static_cast<std::uint8_t>(i * 31 + 7);
    place(image, smallAt, small);
    place(image, bigAt, big);
  }
  CarvedFile fileAt(std::uint64_t start, std::uint64_t length, std::string ext,
                    bool withDigest = true) const {
    CarvedFile file{
        start,        length,      std::move(ext), FormatCategory::photos, CarveConfidence::exact,
        std::nullopt, std::nullopt};
    if (withDigest)
      file.headDigest = CarvedFile::digestHead(std::span(image).subspan(
          start, std::min<std::uint64_t>(length, CarvedFile::headDigestBytes)));
    return file;
  }
  CarvedFile smallFile() const { return fileAt(smallAt, small.size(), "jpg"); }
  CarvedFile bigFile(std::string ext = "bin", bool digest = true) const {
    return fileAt(bigAt, big.size(), std::move(ext), digest);
  }
  static CarveExporter::Result run(const std::vector<CarvedFile>& files, ByteSource& source,
                                   const fs::path& folder) {
    return CarveExporter::exportFiles(files, source, folder, nullptr, [] { return false; });
  }
};

TEST_F(CarveExporterTest, CopiesCheckedFilesAndListsThem) {
  MemorySource source(image);
  const fs::path folder = temp.path() / "export";
  std::vector<std::pair<std::size_t, std::size_t>> progress;
  const auto result = CarveExporter::exportFiles(
      {smallFile(), bigFile("bin", false)}, source, folder,
      [&](std::size_t index, std::size_t total) { progress.emplace_back(index, total); },
      [] { return false; });
  ASSERT_EQ(result.saved.size(), 2U);
  EXPECT_TRUE(result.changed.empty() && result.failed.empty());
  EXPECT_EQ(result.folder, folder);
  EXPECT_EQ(result.saved[0].outputPath, (folder / "JPG" / "f2048.jpg").string());
  EXPECT_EQ(readBytes(*result.saved[0].outputPath), small);
  EXPECT_EQ(result.saved[1].outputPath, (folder / "BIN" / "f2056.bin").string());  // unchecked
  EXPECT_EQ(readBytes(*result.saved[1].outputPath), big);
  EXPECT_EQ(progress, (std::vector<std::pair<std::size_t, std::size_t>>{{0, 2}, {1, 2}}));
  EXPECT_EQ(
      nlohmann::json::parse(readFile(folder / "vellum-report.json")).get<std::vector<CarvedFile>>(),
      result.saved);

  writeFile(temp.file("plain"), "x");
  EXPECT_THROW(run({}, source, temp.path() / "plain" / "sub"), fs::filesystem_error);
}

TEST_F(CarveExporterTest, NeverOverwritesAnExistingFile) {
  MemorySource source(image);
  std::vector<std::string> paths;
  for (int i = 0; i < 3; ++i) {
    const auto result = run({smallFile()}, source, temp.path());
    ASSERT_EQ(result.saved.size(), 1U);
    paths.push_back(*result.saved[0].outputPath);
    EXPECT_EQ(readBytes(paths.back()), small);
  }
  const fs::path jpg = temp.path() / "JPG";
  EXPECT_EQ(paths,
            (std::vector<std::string>{(jpg / "f2048.jpg").string(), (jpg / "f2048-1.jpg").string(),
                                      (jpg / "f2048-2.jpg").string()}));
}

TEST_F(CarveExporterTest, ChangedHeadsAreNotWritten) {
  const std::vector<std::tuple<const char*, std::uint64_t, CarvedFile, bool>> cases = {
      {"last byte of a short file", smallAt + small.size() - 1, smallFile(), true},
      {"last byte of the head", bigAt + 4095, bigFile(), true},
      {"first byte after the head", bigAt + 4096, bigFile(), false}};
  for (const auto& [name, at, file, changed] : cases) {
    SCOPED_TRACE(name);
    Bytes damaged = image;
    damaged[at] ^= 0x01;
    MemorySource source(damaged);
    const auto result = run({file}, source, temp.path() / name);
    EXPECT_EQ(result.changed.size(), changed ? 1U : 0U);
    EXPECT_EQ(result.saved.size(), changed ? 0U : 1U);
    EXPECT_EQ(fs::exists(temp.path() / name / carvedFolderName(file.ext)), !changed);
  }
}

TEST_F(CarveExporterTest, ReadFailuresAndCancellation) {
  const std::vector<CarvedFile> files = {smallFile(), bigFile(), bigFile("dat", false)};
  ScriptedSource source(image);
  // Heads read fine; the long file's body fails past its first 4 MiB.
  source.beforeRead = [](std::uint64_t offset, std::size_t) {
    if (offset == bigAt + 4'194'304) throw DeviceError::readFailed(offset, 5);
  };
  const auto result = run(files, source, temp.path());
  EXPECT_EQ(result.saved.size(), 1U);
  EXPECT_EQ(result.failed, (std::vector<CarvedFile>{files[1], files[2]}));
  EXPECT_FALSE(fs::exists(temp.path() / "BIN" / "f2056.bin"));  // no partial copy left
  EXPECT_FALSE(fs::exists(temp.path() / "DAT" / "f2056.dat"));

  ScriptedSource broken(image);  // a head that cannot be read: nothing written
  broken.beforeRead = [](std::uint64_t offset, std::size_t) {
    throw DeviceError::readFailed(offset, 5);
  };
  EXPECT_EQ(run({files[0]}, broken, temp.path() / "broken").failed.size(), 1U);
  EXPECT_FALSE(fs::exists(temp.path() / "broken" / "JPG"));

  // A source shorter than the recorded file: the copy ends early and fails.
  MemorySource shortSource(cut(image, smallAt + 24));
  CarvedFile beyond = files[0];
  beyond.headDigest.reset();
  EXPECT_EQ(run({beyond}, shortSource, temp.path() / "short").failed.size(), 1U);

  MemorySource good(image);  // cancelled after the first of three files
  int asked = 0;
  const auto partial = CarveExporter::exportFiles(files, good, temp.path() / "cancel", nullptr,
                                                  [&] { return ++asked > 1; });
  EXPECT_EQ(partial.saved.size() + partial.changed.size() + partial.failed.size(), 1U);
}

}  // namespace
}  // namespace vellum::testing
