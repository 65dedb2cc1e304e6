#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "CarveSamples.h"
#include "CarverTesting.h"
#include "bytes/DeviceError.h"
#include "carve/formats/Carvers.h"

namespace vellum::testing {
namespace {

using ::testing::ThrowsMessage;

namespace fs = std::filesystem;
using Mode = CarveEngine::OutputMode;
constexpr auto exact = CarveConfidence::exact;
constexpr auto heuristic = CarveConfidence::heuristic;

TEST(CarveEngineTest, RefusalsAndFailedReads) {
  TempDir temp;
  MemorySource empty(Bytes{});
  CarveEngine none(empty, carveConfig(temp.path() / "out", Mode::files));
  EXPECT_THAT([&] { none.run(); },
              ThrowsMessage<CarveError>("The selected source reports a size of zero bytes."));
  EXPECT_FALSE(fs::exists(temp.path() / "out"));  // before touching the folder

  MemorySource source(filler(4096));

  // A chunk that cannot be read ends the run.
  ScriptedSource failing(filler(262144));
  failing.beforeRead = [](std::uint64_t offset, std::size_t) {
    if (offset == 131072) throw DeviceError::readFailed(offset, 5);
  };
  CarveEngine broken(failing, carveConfig(temp.path()));
  EXPECT_THAT([&] { broken.run(); },
              ThrowsMessage<DeviceError>(DeviceError::readFailed(131072, 5).description()));
  // A read that fails inside a carver only means no file there.
  Bytes image = filler(131072);
  place(image, 65024, sampleJpeg(3000, false, false));  // runs into the next chunk
  place(image, 66048, sampleGif());
  ScriptedSource flaky(image);
  flaky.beforeRead = [](std::uint64_t offset, std::size_t count) {
    if (count != 65536) throw DeviceError::readFailed(offset, 5);
  };
  EXPECT_EQ(found(CarveEngine(flaky, carveConfig(temp.path())).run()),
            (std::vector<Found>{{66048, sampleGif().size(), "gif", exact}}));

  // Root writes into read-only folders, but not into /proc.
  const fs::path locked = geteuid() == 0 ? fs::path("/proc/self") : temp.path() / "locked";
  if (geteuid() != 0) {
    fs::create_directory(locked);
    fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
  }
  CarveEngine engine(source, carveConfig(locked));
  EXPECT_THAT([&] { engine.run(); },
              ThrowsMessage<CarveError>("Cannot write to output folder " + locked.string() + "."));
  if (geteuid() != 0) fs::permissions(locked, fs::perms::owner_all);
}

// Files start at stride multiples. Exact finds are stepped over whole (what
// lies inside is part of them); heuristic ones are looked into.
TEST(CarveEngineTest, SkipRule) {
  const Bytes gif = sampleGif();
  const Bytes jpeg = sampleJpeg(100);
  std::vector<std::tuple<std::string, Bytes, std::vector<Found>>> cases;

  const Bytes png = samplePng(1500);  // ends inside sector 3
  Bytes mixed = filler(65536);
  place(mixed, 0, png);
  place(mixed, 512, gif);   // inside the PNG
  place(mixed, 2048, gif);  // right after its last sector
  place(mixed, 8192, sampleJpeg(3000, false, false));
  place(mixed, 8704, gif);  // inside the cut JPEG
  place(mixed, 12288, jpeg);
  place(mixed, 16384 + 100, jpeg);  // off the 512-byte stride
  cases.emplace_back("images", mixed,
                     std::vector<Found>{{0, png.size(), "png", exact},
                                        {2048, gif.size(), "gif", exact},
                                        {8192, 12288 - 8192, "jpg", heuristic},
                                        {8704, gif.size(), "gif", exact},
                                        {12288, jpeg.size(), "jpg", exact}});

  TiffBuilder tiff(false);  // a JPEG in the strip data, on a sector boundary
  Bytes strip = filler(3000, 0x11);
  place(strip, 1024 - 8, jpeg);
  tiff.setFirstIfd(tiff.ifd(tiffImageFields({tiff.data(strip)}, {3000})));
  Bytes tiffs = withTail(tiff.out, 4096 - tiff.out.size());
  append(tiffs, withTail(stripTiff(true).out, 4096 - 626));
  cases.emplace_back(
      "tiff", tiffs,
      std::vector<Found>{{0, tiff.out.size(), "tif", exact}, {4096, 626, "tif", exact}});

  Bytes mp3 = sampleMp3(5, 2000);  // cover art in the tag
  place(mp3, 512, samplePng(100));
  cases.emplace_back("mp3", withTail(mp3, 1000),
                     std::vector<Found>{{0, mp3.size(), "mp3", heuristic},
                                        {512, samplePng(100).size(), "png", exact}});

  // The source ends inside a file: it is cut to what is there, and doubtful.
  const Bytes wav = sampleRiff("RIFF", "WAVE", 100);
  Bytes endsEarly = filler(512);
  append(endsEarly, cut(wav, wav.size() - 1));
  cases.emplace_back("cut", endsEarly, std::vector<Found>{{512, wav.size() - 1, "wav", heuristic}});

  for (const auto& [name, image, want] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(carveImage(image), want);
  }
}

TEST(CarveEngineTest, OutputModesWriteFilesAndTheReport) {
  TempDir temp;
  const Bytes jpeg = sampleJpeg(100);
  const Bytes png = samplePng(70'000);  // crosses the first chunk's end
  Bytes image = filler(3'000'000);
  place(image, 1'048'576, jpeg);
  place(image, 65536 - 1024, png);
  MemorySource source(image);
  const fs::path out = temp.path() / "a" / "b";
  const CarveReport report = CarveEngine(source, carveConfig(out, Mode::files)).run();
  ASSERT_EQ(report.files.size(), 2U);
  EXPECT_EQ(report.files[0].outputPath, (out / "PNG" / "f126.png").string());
  EXPECT_EQ(readBytes(*report.files[0].outputPath), png);
  EXPECT_EQ(report.files[0].headDigest, CarvedFile::digestHead(std::span(png).first(4096)));
  EXPECT_EQ(report.files[1].outputPath, (out / "JPG" / "f2048.jpg").string());
  EXPECT_EQ(readBytes(*report.files[1].outputPath), jpeg);
  EXPECT_EQ(report.files[1].headDigest, CarvedFile::digestHead(jpeg));  // shorter than 4096
  EXPECT_EQ(decodeReportJson(readFile(out / "vellum-report.json")), report);
  EXPECT_EQ(report.sourceDescription, "memory(3000000 bytes)");
  EXPECT_EQ(report.countsByExt(), (std::map<std::string, std::int64_t>{{"jpg", 1}, {"png", 1}}));
  EXPECT_FALSE(report.cancelled);
  EXPECT_EQ(report.scannedBytes, image.size());

  // Catalog mode writes only the report, replacing an old one.
  const fs::path catalog = temp.path() / "catalog";
  fs::create_directory(catalog);
  writeFile((catalog / "vellum-report.json").string(), "old");
  const CarveReport listed = CarveEngine(source, carveConfig(catalog)).run();
  ASSERT_EQ(listed.files.size(), 2U);
  EXPECT_EQ(listed.files[0].outputPath, std::nullopt);
  EXPECT_EQ(std::distance(fs::directory_iterator(catalog), fs::directory_iterator()), 1);
  EXPECT_EQ(decodeReportJson(readFile(catalog / "vellum-report.json")), listed);
}

TEST(CarveEngineTest, CancelAtTheThirdChunkKeepsWhatWasFound) {
  TempDir temp;
  Bytes image = filler(10 * 65536);
  place(image, 512, sampleGif());
  place(image, 5 * 65536, sampleGif());
  ScriptedSource source(image);
  CarveEngine engine(source, carveConfig(temp.path()));
  int chunks = 0;
  source.beforeRead = [&](std::uint64_t, std::size_t count) {
    if (count == 65536 && ++chunks == 3) engine.cancel();
  };
  std::vector<CarveProgress> progress;
  engine.onProgress = [&](const CarveProgress& p) { progress.push_back(p); };
  const CarveReport report = engine.run();
  EXPECT_TRUE(report.cancelled);
  EXPECT_EQ(report.scannedBytes, 3U * 65536);
  EXPECT_EQ(found(report), (std::vector<Found>{{512, sampleGif().size(), "gif", exact}}));
  ASSERT_FALSE(progress.empty());
  EXPECT_EQ(progress.back().bytesScanned, 3U * 65536);
  EXPECT_EQ(progress.back().filesFound, 1);
  EXPECT_EQ(progress.back().countsByExt, (std::map<std::string, std::int64_t>{{"gif", 1}}));
  EXPECT_EQ(progress.back().bytesRecovered, sampleGif().size());
  EXPECT_TRUE(decodeReportJson(readFile(temp.path() / "vellum-report.json")).cancelled);
}

}  // namespace
}  // namespace vellum::testing
