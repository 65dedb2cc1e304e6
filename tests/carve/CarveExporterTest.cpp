#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "CarveSamples.h"
#include "bytes/DeviceError.h"
#include "carve/CarveEngine.h"
#include "carve/CarveExporter.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using namespace vellum::testing;
namespace fs = std::filesystem;

Bytes readBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  const std::string s = text.str();
  return Bytes(s.begin(), s.end());
}

CarvedFile fileAt(const Bytes& image, std::uint64_t start, std::uint64_t length, std::string ext,
                  bool withDigest = true) {
  CarvedFile file{
      start,        length,      std::move(ext), FormatCategory::photos, CarveConfidence::exact,
      std::nullopt, std::nullopt};
  if (withDigest) {
    const auto headLength = std::min<std::uint64_t>(length, CarvedFile::headDigestBytes);
    file.headDigest = CarvedFile::digestHead(std::span(image).subspan(
        static_cast<std::size_t>(start), static_cast<std::size_t>(headLength)));
  }
  return file;
}

struct Fixture {
  Bytes image = filler(6 * 1'048'576, 0x61);
  Bytes big;
  Bytes small;
  Fixture() {
    big = Bytes(5'000'000);  // more than one 4 MiB copy piece
    for (std::size_t i = 0; i < big.size(); ++i)
      big[i] = static_cast<std::uint8_t>(i * 31 + 7);
    small = sampleJpeg(100);
    place(image, 1'048'576, small);
    place(image, 1'052'672, big);
  }
};

TEST(CarveExporterTest, CopiesCheckedFilesAndListsThem) {
  TempDir temp;
  Fixture f;
  MemorySource source(f.image);
  const std::vector<CarvedFile> files = {fileAt(f.image, 1'048'576, f.small.size(), "jpg"),
                                         fileAt(f.image, 1'052'672, f.big.size(), "bin", false)};
  std::vector<std::pair<std::size_t, std::size_t>> progress;
  const auto result = CarveExporter::exportFiles(
      files, source, temp.path() / "export",
      [&](std::size_t index, std::size_t total) { progress.emplace_back(index, total); },
      [] { return false; });
  ASSERT_EQ(result.saved.size(), 2U);
  EXPECT_TRUE(result.changed.empty());
  EXPECT_TRUE(result.failed.empty());
  EXPECT_EQ(result.folder, temp.path() / "export");
  EXPECT_EQ(result.saved[0].outputPath, (temp.path() / "export" / "JPG" / "f2048.jpg").string());
  EXPECT_EQ(readBytes(*result.saved[0].outputPath), f.small);
  // Without a digest the file is written unchecked.
  EXPECT_EQ(result.saved[1].outputPath, (temp.path() / "export" / "BIN" / "f2056.bin").string());
  EXPECT_EQ(readBytes(*result.saved[1].outputPath), f.big);
  EXPECT_EQ(progress, (std::vector<std::pair<std::size_t, std::size_t>>{{0, 2}, {1, 2}}));

  const Bytes listing = readBytes(temp.path() / "export" / "vellum-report.json");
  EXPECT_EQ(decodeFilesJson(std::string(listing.begin(), listing.end())), result.saved);
}

TEST(CarveExporterTest, NeverOverwritesAnExistingFile) {
  TempDir temp;
  Fixture f;
  MemorySource source(f.image);
  const std::vector<CarvedFile> files = {fileAt(f.image, 1'048'576, f.small.size(), "jpg")};
  std::vector<std::string> paths;
  for (int run = 0; run < 3; ++run) {
    const auto result =
        CarveExporter::exportFiles(files, source, temp.path(), nullptr, [] { return false; });
    ASSERT_EQ(result.saved.size(), 1U);
    paths.push_back(*result.saved[0].outputPath);
  }
  const fs::path jpg = temp.path() / "JPG";
  EXPECT_EQ(paths,
            (std::vector<std::string>{(jpg / "f2048.jpg").string(), (jpg / "f2048-1.jpg").string(),
                                      (jpg / "f2048-2.jpg").string()}));
  for (const std::string& path : paths)
    EXPECT_EQ(readBytes(path), f.small);
}

TEST(CarveExporterTest, ChangedHeadsAreNotWritten) {
  TempDir temp;
  Fixture f;
  const CarvedFile shortFile = fileAt(f.image, 1'048'576, f.small.size(), "jpg");
  const CarvedFile longFile = fileAt(f.image, 1'052'672, f.big.size(), "bin");
  struct Case {
    const char* name;
    std::size_t at;
    const CarvedFile& file;
    bool changed;
  };
  const Case cases[] = {
      {"first byte", 1'048'576, shortFile, true},
      {"last byte of a short file", 1'048'576 + f.small.size() - 1, shortFile, true},
      {"last byte of the head", 1'052'672 + 4095, longFile, true},
      {"first byte after the head", 1'052'672 + 4096, longFile, false},
  };
  for (const Case& c : cases) {
    Bytes damaged = f.image;
    damaged[c.at] ^= 0x01;
    MemorySource source(damaged);
    const fs::path folder = temp.path() / c.name;
    const auto result =
        CarveExporter::exportFiles({c.file}, source, folder, nullptr, [] { return false; });
    EXPECT_EQ(result.changed.size(), c.changed ? 1U : 0U) << c.name;
    EXPECT_EQ(result.saved.size(), c.changed ? 0U : 1U) << c.name;
    EXPECT_EQ(fs::exists(folder / carvedFolderName(c.file.ext)), !c.changed) << c.name;
  }
}

TEST(CarveExporterTest, ReadFailuresAndCancellation) {
  TempDir temp;
  Fixture f;
  const std::vector<CarvedFile> files = {fileAt(f.image, 1'048'576, f.small.size(), "jpg"),
                                         fileAt(f.image, 1'052'672, f.big.size(), "bin"),
                                         fileAt(f.image, 1'052'672, f.big.size(), "dat", false)};
  ScriptedSource source(f.image);
  // Heads read fine; the body of the long file fails past its first 4 MiB.
  source.beforeRead = [](std::uint64_t offset, std::size_t) {
    if (offset == 1'052'672 + 4'194'304) throw DeviceError::readFailed(offset, 5);
  };
  const auto result =
      CarveExporter::exportFiles(files, source, temp.path(), nullptr, [] { return false; });
  EXPECT_EQ(result.saved.size(), 1U);
  EXPECT_EQ(result.failed, (std::vector<CarvedFile>{files[1], files[2]}));
  EXPECT_FALSE(fs::exists(temp.path() / "BIN" / "f2056.bin"));  // no partial copy left
  EXPECT_FALSE(fs::exists(temp.path() / "DAT" / "f2056.dat"));

  // A head that cannot be read is a failure, and nothing is written for it.
  ScriptedSource broken(f.image);
  broken.beforeRead = [](std::uint64_t offset, std::size_t) {
    throw DeviceError::readFailed(offset, 5);
  };
  const auto none = CarveExporter::exportFiles({files[0]}, broken, temp.path() / "broken", nullptr,
                                               [] { return false; });
  EXPECT_EQ(none.failed.size(), 1U);
  EXPECT_FALSE(fs::exists(temp.path() / "broken" / "JPG"));

  // Source shorter than the recorded file: the copy ends early and fails.
  MemorySource shortSource(Bytes(f.image.begin(), f.image.begin() + 1'048'600));
  CarvedFile beyond = files[0];
  beyond.headDigest.reset();
  const auto cut = CarveExporter::exportFiles({beyond}, shortSource, temp.path() / "short", nullptr,
                                              [] { return false; });
  EXPECT_EQ(cut.failed.size(), 1U);

  // Cancelled after the first of three files: one entry in all.
  MemorySource good(f.image);
  int asked = 0;
  const auto partial = CarveExporter::exportFiles(files, good, temp.path() / "cancel", nullptr,
                                                  [&] { return ++asked > 1; });
  EXPECT_EQ(partial.saved.size() + partial.changed.size() + partial.failed.size(), 1U);
}

TEST(CarveExporterTest, FolderThatCannotBeCreatedFailsTheExport) {
  TempDir temp;
  writeFile(temp.file("plain"), "x");
  MemorySource source(filler(1024));
  EXPECT_THROW(CarveExporter::exportFiles({}, source, temp.path() / "plain" / "sub", nullptr,
                                          [] { return false; }),
               fs::filesystem_error);
}

}  // namespace
}  // namespace vellum
