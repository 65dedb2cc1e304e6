#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <sstream>
#include <thread>

#include "CarveSamples.h"
#include "bytes/DeviceError.h"
#include "carve/CarveEngine.h"
#include "carve/formats/Carvers.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using namespace vellum::testing;
namespace fs = std::filesystem;

const FormatCategorySet everything(allFormatCategories.begin(), allFormatCategories.end());

CarveEngine::Config config(const fs::path& dir, CarveEngine::OutputMode mode,
                           std::uint64_t chunk = 65536, std::uint64_t stride = 512,
                           FormatCategorySet categories = everything) {
  return CarveEngine::Config{std::move(categories), dir, mode, chunk, stride, 0.0};
}

std::string readText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

Bytes readBytes(const fs::path& path) {
  const std::string text = readText(path);
  return Bytes(text.begin(), text.end());
}

struct Found {
  std::uint64_t start;
  std::uint64_t length;
  std::string ext;
  CarveConfidence confidence;
  bool operator==(const Found&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Found& f) {
  return out << f.ext << "@" << f.start << "+" << f.length << " " << toString(f.confidence);
}

std::vector<Found> found(const CarveReport& report) {
  std::vector<Found> out;
  for (const CarvedFile& f : report.files)
    out.push_back({f.start, f.length, f.ext, f.confidence});
  return out;
}

// A carver whose verdict a test decides.
class FakeCarver final : public FormatCarver {
 public:
  using Verdict = std::function<std::optional<CarveMatch>(std::uint64_t, ReadContext&)>;
  FakeCarver(std::string signature, FormatCategorySet categories, Verdict verdict)
      : signature_(std::move(signature)),
        categories_(std::move(categories)),
        verdict_(std::move(verdict)) {}
  std::string_view id() const override { return "fake"; }
  FormatCategorySet categories() const override { return categories_; }
  std::vector<Bytes> signatures() const override { return {signatureBytes(signature_)}; }
  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    return verdict_(start, context);
  }

 private:
  std::string signature_;
  FormatCategorySet categories_;
  Verdict verdict_;
};

TEST(CarveEngineTest, EmptySourceFailsBeforeTouchingTheFolder) {
  TempDir temp;
  MemorySource empty(Bytes{});
  CarveEngine engine(empty, config(temp.path() / "out", CarveEngine::OutputMode::files));
  try {
    engine.run();
    FAIL() << "no error";
  } catch (const CarveError& error) {
    EXPECT_EQ(error, CarveError::emptySource());
    EXPECT_EQ(error.description(), "The selected source reports a size of zero bytes.");
  }
  EXPECT_FALSE(fs::exists(temp.path() / "out"));
}

TEST(CarveEngineTest, OutputFolderProblems) {
  TempDir temp;
  MemorySource source(filler(4096));
  writeFile(temp.file("plain"), "x");
  CarveEngine underFile(source,
                        config(temp.path() / "plain" / "out", CarveEngine::OutputMode::catalog));
  EXPECT_THROW(underFile.run(), fs::filesystem_error);

  if (geteuid() == 0) GTEST_SKIP() << "root may write into a read-only folder";
  const fs::path locked = temp.path() / "locked";
  fs::create_directory(locked);
  fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
  CarveEngine engine(source, config(locked, CarveEngine::OutputMode::catalog));
  try {
    engine.run();
    FAIL() << "no error";
  } catch (const CarveError& error) {
    EXPECT_EQ(error.description(), "Cannot write to output folder " + locked.string() + ".");
  }
  fs::permissions(locked, fs::perms::owner_all);
}

TEST(CarveEngineTest, FindsFilesOnlyAtStrideMultiples) {
  TempDir temp;
  const Bytes jpeg = sampleJpeg();
  Bytes image = filler(8192);
  place(image, 100, jpeg);   // not aligned: ignored
  place(image, 1024, jpeg);  // aligned
  MemorySource source(image);
  CarveEngine engine(source, config(temp.path(), CarveEngine::OutputMode::catalog));
  const CarveReport report = engine.run();
  EXPECT_EQ(found(report),
            (std::vector<Found>{{1024, jpeg.size(), "jpg", CarveConfidence::exact}}));

  // With a stride of 4 the unaligned copy is found too.
  CarveEngine fine(source, config(temp.path(), CarveEngine::OutputMode::catalog, 65536, 4));
  EXPECT_EQ(found(fine.run()),
            (std::vector<Found>{{100, jpeg.size(), "jpg", CarveConfidence::exact},
                                {1024, jpeg.size(), "jpg", CarveConfidence::exact}}));
}

TEST(CarveEngineTest, SkipRuleStepsOverExactFindsButLooksInsideHeuristicOnes) {
  TempDir temp;
  const Bytes png = samplePng(1500);  // 1,557 bytes: ends inside sector 3
  const Bytes gif = sampleGif();
  const Bytes cutJpeg = sampleJpeg(3000, false, false);
  Bytes image = filler(65536);
  place(image, 0, png);
  place(image, 2048, gif);      // right after the PNG's last sector: found
  place(image, 512, gif);       // inside the PNG's pixel data: must not be found
  place(image, 8192, cutJpeg);  // no end: heuristic up to the next JPEG start
  place(image, 8704, gif);      // inside the heuristic JPEG: found
  place(image, 12288, sampleJpeg(50));

  MemorySource source(image);
  CarveEngine engine(source, config(temp.path(), CarveEngine::OutputMode::catalog));
  const CarveReport report = engine.run();
  EXPECT_EQ(found(report),
            (std::vector<Found>{{0, png.size(), "png", CarveConfidence::exact},
                                {2048, gif.size(), "gif", CarveConfidence::exact},
                                {8192, 12288 - 8192, "jpg", CarveConfidence::heuristic},
                                {8704, gif.size(), "gif", CarveConfidence::exact},
                                {12288, sampleJpeg(50).size(), "jpg", CarveConfidence::exact}}));
  EXPECT_EQ(report.countsByExt(),
            (std::map<std::string, std::int64_t>{{"gif", 2}, {"jpg", 2}, {"png", 1}}));
  EXPECT_FALSE(report.cancelled);
  EXPECT_EQ(report.scannedBytes, image.size());
  EXPECT_EQ(report.totalBytes, image.size());
}

TEST(CarveEngineTest, LongExactFindIsSkippedWithoutReadingItsChunks) {
  TempDir temp;
  // A BMP of 300,000 bytes at 4096, chunks of 64 KiB: the engine must jump
  // from the first chunk to the BMP's end.
  const Bytes bmp = sampleBmp(500, 200);
  Bytes image = filler(1'048'576);
  place(image, 4096, bmp);
  place(image, 4096 + 512 * 200, sampleGif());  // inside the BMP
  const std::uint64_t after = (4096 + bmp.size() + 511) / 512 * 512;
  place(image, after, sampleGif());
  ScriptedSource source(image);
  std::vector<std::uint64_t> chunkReads;
  source.beforeRead = [&](std::uint64_t offset, std::size_t count) {
    if (count == 65536 || offset + count == image.size()) chunkReads.push_back(offset);
  };
  CarveEngine engine(source, config(temp.path(), CarveEngine::OutputMode::catalog));
  const CarveReport report = engine.run();
  EXPECT_EQ(found(report),
            (std::vector<Found>{{4096, bmp.size(), "bmp", CarveConfidence::exact},
                                {after, sampleGif().size(), "gif", CarveConfidence::exact}}));
  ASSERT_GE(chunkReads.size(), 2U);
  EXPECT_EQ(chunkReads[0], 0U);
  EXPECT_EQ(chunkReads[1], after);
}

TEST(CarveEngineTest, FindPastTheEndIsCutAndMarkedHeuristic) {
  TempDir temp;
  Bytes image = filler(4096);
  place(image, 3072, sampleRiff("RIFF", "WAVE", 5000));  // claims more than is left
  image.resize(4096);
  const FakeCarver fake("XYZ", {FormatCategory::documents}, [](std::uint64_t, ReadContext&) {
    return CarveMatch{1'000'000, "xyz", FormatCategory::documents, CarveConfidence::exact};
  });
  place(image, 1024, Bytes{'X', 'Y', 'Z'});
  MemorySource source(image);
  std::vector<const FormatCarver*> carvers = {&fake, &riffCarver()};
  CarveEngine engine(source, config(temp.path(), CarveEngine::OutputMode::catalog), carvers);
  EXPECT_EQ(found(engine.run()),
            (std::vector<Found>{{1024, 3072, "xyz", CarveConfidence::heuristic},
                                {3072, 1024, "wav", CarveConfidence::heuristic}}));
}

TEST(CarveEngineTest, DisabledCategoriesAreNotRecordedButExactOnesAreStillSkipped) {
  TempDir temp;
  const Bytes mp4 = sampleIsoBmff("isom", {{"moov", 100}, {"mdat", 3000}});
  const Bytes wav = sampleRiff("RIFF", "WAVE", 100);
  Bytes image = filler(16384);
  place(image, 0, mp4);
  place(image, 1024, wav);  // inside the exact MP4: skipped with it
  place(image, 4096, wav);
  place(image, 8192, sampleJpeg());  // photos are not enabled
  MemorySource source(image);
  CarveEngine engine(source, config(temp.path(), CarveEngine::OutputMode::catalog, 65536, 512,
                                    {FormatCategory::audio}));
  std::vector<std::string_view> ids;
  for (const FormatCarver* carver : engine.carvers())
    ids.push_back(carver->id());
  EXPECT_EQ(ids, (std::vector<std::string_view>{"isobmff", "riff", "mp3"}));
  ASSERT_EQ(engine.entries().size(), 4U);  // ftyp, RIFF, FORM, ID3
  EXPECT_EQ(engine.entries()[0].offset, 4U);
  EXPECT_EQ(engine.entries()[0].firstByte, 'f');
  EXPECT_EQ(engine.entries()[2].carverIndex, 1U);
  EXPECT_EQ(found(engine.run()),
            (std::vector<Found>{{4096, wav.size(), "wav", CarveConfidence::exact}}));
}

TEST(CarveEngineTest, CarverErrorsCountAsNoMatchAndTheNextEntryIsTried) {
  TempDir temp;
  int calls = 0;
  const FakeCarver failing("GIF", {FormatCategory::photos}, [&](std::uint64_t, ReadContext&) {
    ++calls;
    throw DeviceError::readFailed(0, 5);
    return std::optional<CarveMatch>();
  });
  const FakeCarver empty("GIF", {FormatCategory::photos}, [&](std::uint64_t, ReadContext&) {
    ++calls;
    return CarveMatch{0, "nil", FormatCategory::photos, CarveConfidence::exact};
  });
  Bytes image = filler(4096);
  place(image, 512, sampleGif());
  MemorySource source(image);
  std::vector<const FormatCarver*> carvers = {&failing, &empty, &gifCarver()};
  CarveEngine engine(source, config(temp.path(), CarveEngine::OutputMode::catalog), carvers);
  EXPECT_EQ(found(engine.run()),
            (std::vector<Found>{{512, sampleGif().size(), "gif", CarveConfidence::exact}}));
  EXPECT_EQ(calls, 2);
}

TEST(CarveEngineTest, ChunkReadErrorEndsTheRun) {
  TempDir temp;
  ScriptedSource source(filler(262144));
  source.beforeRead = [](std::uint64_t offset, std::size_t) {
    if (offset == 131072) throw DeviceError::readFailed(offset, 5);
  };
  CarveEngine engine(source, config(temp.path(), CarveEngine::OutputMode::catalog));
  try {
    engine.run();
    FAIL() << "no error";
  } catch (const DeviceError& error) {
    EXPECT_EQ(error, DeviceError::readFailed(131072, 5));
  }
}

TEST(CarveEngineTest, FilesModeWritesEachFileAndTheReport) {
  TempDir temp;
  const Bytes jpeg = sampleJpeg(100);
  const Bytes png = samplePng(70'000);  // crosses the first chunk's end
  Bytes image = filler(3'000'000);
  place(image, 1'048'576, jpeg);
  place(image, 65536 - 1024, png);
  MemorySource source(image);
  const fs::path out = temp.path() / "a" / "b";
  CarveEngine engine(source, config(out, CarveEngine::OutputMode::files));
  const CarveReport report = engine.run();
  ASSERT_EQ(report.files.size(), 2U);
  const CarvedFile& first = report.files[0];
  EXPECT_EQ(first.outputPath, (out / "PNG" / "f126.png").string());
  EXPECT_EQ(readBytes(*first.outputPath), png);
  EXPECT_EQ(first.headDigest, CarvedFile::digestHead(std::span(png).first(4096)));
  const CarvedFile& second = report.files[1];
  EXPECT_EQ(second.outputPath, (out / "JPG" / "f2048.jpg").string());
  EXPECT_EQ(readBytes(*second.outputPath), jpeg);
  EXPECT_EQ(second.headDigest, CarvedFile::digestHead(jpeg));  // shorter than 4096

  EXPECT_EQ(decodeReportJson(readText(out / "vellum-report.json")), report);
  EXPECT_EQ(report.sourceDescription, "memory(3000000 bytes)");
}

TEST(CarveEngineTest, CatalogModeWritesOnlyTheReport) {
  TempDir temp;
  Bytes image = filler(8192);
  place(image, 0, sampleJpeg());
  MemorySource source(image);
  writeFile(temp.file("vellum-report.json"), "old");
  CarveEngine engine(source, config(temp.path(), CarveEngine::OutputMode::catalog));
  const CarveReport report = engine.run();
  ASSERT_EQ(report.files.size(), 1U);
  EXPECT_EQ(report.files[0].outputPath, std::nullopt);
  std::vector<fs::path> entries(fs::directory_iterator(temp.path()), fs::directory_iterator());
  EXPECT_EQ(entries, (std::vector<fs::path>{temp.path() / "vellum-report.json"}));
  EXPECT_EQ(decodeReportJson(readText(temp.path() / "vellum-report.json")), report);
}

TEST(CarveEngineTest, HeadThatCannotBeReadLeavesTheDigestOut) {
  TempDir temp;
  const Bytes png = samplePng(8000);
  Bytes image = filler(65536);
  place(image, 6144, png);
  ScriptedSource source(image);
  // Chunks of 4 KiB: the head of the PNG reaches past its chunk, so it is read
  // from the source, and that read fails.
  source.beforeRead = [](std::uint64_t offset, std::size_t count) {
    if (offset == 6144 && count == 4096) throw DeviceError::readFailed(offset, 5);
  };
  CarveEngine engine(source, config(temp.path(), CarveEngine::OutputMode::catalog, 4096));
  const CarveReport report = engine.run();
  ASSERT_EQ(report.files.size(), 1U);
  EXPECT_EQ(report.files[0].headDigest, std::nullopt);
  EXPECT_EQ(readText(temp.path() / "vellum-report.json").find("headDigest"), std::string::npos);
}

TEST(CarveEngineTest, CancelAtTheThirdChunkKeepsWhatWasFound) {
  TempDir temp;
  Bytes image = filler(10 * 65536);
  place(image, 512, sampleGif());
  place(image, 5 * 65536, sampleGif());
  ScriptedSource source(image);
  CarveEngine* running = nullptr;
  int chunks = 0;
  source.beforeRead = [&](std::uint64_t, std::size_t count) {
    if (count == 65536 && ++chunks == 3) running->cancel();
  };
  CarveEngine engine(source, config(temp.path(), CarveEngine::OutputMode::catalog));
  running = &engine;
  std::vector<CarveProgress> progress;
  engine.onProgress = [&](const CarveProgress& p) { progress.push_back(p); };
  const CarveReport report = engine.run();
  EXPECT_TRUE(report.cancelled);
  EXPECT_EQ(report.scannedBytes, 3U * 65536);
  EXPECT_EQ(found(report),
            (std::vector<Found>{{512, sampleGif().size(), "gif", CarveConfidence::exact}}));
  ASSERT_FALSE(progress.empty());
  EXPECT_EQ(progress.back().bytesScanned, 3U * 65536);
  EXPECT_EQ(progress.back().filesFound, 1);
  EXPECT_EQ(progress.back().countsByExt, (std::map<std::string, std::int64_t>{{"gif", 1}}));
  EXPECT_EQ(progress.back().bytesRecovered, sampleGif().size());
  EXPECT_TRUE(decodeReportJson(readText(temp.path() / "vellum-report.json")).cancelled);
}

TEST(CarveEngineTest, CancelFromAnotherThreadStopsInsideALargeChunk) {
  TempDir temp;
  // One 32 MiB chunk: the flag is polled every 4 MiB inside it.
  ScriptedSource source(filler(64 * 1'048'576));
  CarveEngine engine(source, config(temp.path(), CarveEngine::OutputMode::catalog, 32 * 1'048'576));
  std::promise<void> firstRead;
  std::promise<void> cancelled;
  bool once = true;
  source.beforeRead = [&](std::uint64_t, std::size_t) {
    if (!once) return;
    once = false;
    firstRead.set_value();
    cancelled.get_future().wait();
  };
  std::thread canceller([&] {
    firstRead.get_future().wait();
    engine.cancel();
    cancelled.set_value();
  });
  const CarveReport report = engine.run();
  canceller.join();
  EXPECT_TRUE(report.cancelled);
  EXPECT_EQ(report.scannedBytes, 4U * 1'048'576);
  EXPECT_LT(report.scannedBytes, report.totalBytes);
}

TEST(CarveEngineTest, ProgressIsRateLimitedWithOneFinalCall) {
  TempDir temp;
  MemorySource source(filler(16 * 65536));
  auto settings = config(temp.path(), CarveEngine::OutputMode::catalog);
  settings.progressInterval = 3600;  // only the first chunk and the final call
  CarveEngine engine(source, settings);
  std::vector<std::uint64_t> scanned;
  engine.onProgress = [&](const CarveProgress& p) {
    scanned.push_back(p.bytesScanned);
    EXPECT_EQ(p.totalBytes, 16U * 65536);
  };
  engine.run();
  EXPECT_EQ(scanned, (std::vector<std::uint64_t>{65536, 16 * 65536}));

  MemorySource again(filler(4 * 65536 + 100));
  CarveEngine every(again, config(temp.path(), CarveEngine::OutputMode::catalog));
  scanned.clear();
  every.onProgress = [&](const CarveProgress& p) { scanned.push_back(p.bytesScanned); };
  every.run();
  EXPECT_EQ(scanned, (std::vector<std::uint64_t>{65536, 131072, 196608, 262144, 262244, 262244}));
}

TEST(CarveEngineTest, CarvedFileNames) {
  EXPECT_EQ(carvedFileName(1'048'576, "jpg"), "f2048.jpg");
  EXPECT_EQ(carvedFileName(1000, "png"), "f1.png");
  EXPECT_EQ(carvedFolderName("jpg"), "JPG");
  EXPECT_EQ(carvedFolderName("m4a"), "M4A");
}

}  // namespace
}  // namespace vellum
