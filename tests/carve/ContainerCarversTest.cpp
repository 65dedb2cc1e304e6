#include <gtest/gtest.h>

#include "CarveSamples.h"
#include "carve/CarverProbe.h"
#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"
#include "carve/formats/IsoBmff.h"

namespace vellum {
namespace {

using namespace vellum::testing;

CarveMatch video(std::uint64_t length, CarveConfidence confidence = CarveConfidence::exact,
                 std::string ext = "mp4") {
  return CarveMatch{length, std::move(ext), FormatCategory::video, confidence};
}

TEST(IsoBmffCarverTest, BrandsChooseExtensionAndCategory) {
  struct Case {
    Bytes brand;
    std::string_view ext;
    FormatCategory category;
  };
  const Case cases[] = {
      {{0x71, 0x74, 0x20, 0x20}, "mov", FormatCategory::video},
      {{0x4D, 0x34, 0x56, 0x20}, "m4v", FormatCategory::video},
      {{0x33, 0x67, 0x70, 0x35}, "3gp", FormatCategory::video},
      {{0x69, 0x73, 0x6F, 0x6D}, "mp4", FormatCategory::video},
      {{'M', '4', 'A', ' '}, "m4a", FormatCategory::audio},
      {{'M', '4', 'B', ' '}, "m4a", FormatCategory::audio},
      {{'h', 'e', 'i', 'c'}, "heic", FormatCategory::photos},
      {{'m', 'i', 'f', '1'}, "heic", FormatCategory::photos},
      {{'a', 'v', 'i', 'f'}, "avif", FormatCategory::photos},
      {{'c', 'r', 'x', ' '}, "cr3", FormatCategory::rawPhotos},
      {{' ', ' ', ' ', ' '}, "mp4", FormatCategory::video},
  };
  for (const Case& c : cases) {
    const std::string brand(c.brand.begin(), c.brand.end());
    Bytes file = sampleIsoBmff(brand, {{"free", 8}, {"moov", 40}, {"mdat", 100}});
    const auto match = carveBytes(isoBmffCarver(), file);
    ASSERT_TRUE(match) << brand;
    EXPECT_EQ(match->ext, c.ext) << brand;
    EXPECT_EQ(match->category, c.category) << brand;
    EXPECT_EQ(match->length, file.size());
    EXPECT_EQ(match->confidence, CarveConfidence::exact);
  }
  EXPECT_EQ(decodeBrand(Bytes{0x80, 'a', 'b', 'c'}), "");
  EXPECT_EQ(isoBmffKind(""), (IsoBmffKind{"mp4", FormatCategory::video}));
}

TEST(IsoBmffCarverTest, TypeBoxSizeAndBrandBytesAreChecked) {
  const Bytes good = sampleIsoBmff("isom", {{"moov", 20}, {"mdat", 40}});
  for (std::uint32_t size : {11U, 4097U, 0U}) {
    Bytes bad = good;
    putBe32(bad, 0, size);
    EXPECT_EQ(carveBytes(isoBmffCarver(), bad), std::nullopt) << size;
  }
  for (std::uint8_t b : {std::uint8_t{31}, std::uint8_t{127}}) {
    Bytes bad = good;
    bad[9] = b;
    EXPECT_EQ(carveBytes(isoBmffCarver(), bad), std::nullopt) << int{b};
  }
  // Sizes 12 and 4096 are accepted.
  for (std::size_t payload : {std::size_t{4}, std::size_t{4088}}) {
    Bytes file;
    Bytes ftyp;
    append(ftyp, "isom");
    ftyp.resize(payload, 0);
    appendBox(file, "ftyp", ftyp);
    appendBox(file, "mdat", Bytes(30, 1));
    EXPECT_EQ(carveBytes(isoBmffCarver(), file), video(file.size())) << payload;
  }
}

TEST(IsoBmffCarverTest, WalkEndsAtUnknownOrOpenEndedBoxes) {
  const Bytes whole = sampleIsoBmff("isom", {{"free", 0}, {"moov", 30}, {"mdat", 50}});
  Bytes unknown = whole;
  append(unknown, {0x00, 0x00, 0x00, 0x10, 0x61, 0x62, 0x63, 0x64});
  unknown.resize(unknown.size() + 8, 0);
  EXPECT_EQ(carveBytes(isoBmffCarver(), unknown), video(whole.size()));

  Bytes sizeZero = whole;
  append(sizeZero, {0, 0, 0, 0});
  append(sizeZero, "free");
  sizeZero.resize(sizeZero.size() + 100, 0);
  EXPECT_EQ(carveBytes(isoBmffCarver(), sizeZero), video(whole.size()));

  // The only content box runs to the end (size 0): no file.
  Bytes onlyOpen = sampleIsoBmff("isom", {{"free", 8}});
  append(onlyOpen, {0, 0, 0, 0});
  append(onlyOpen, "mdat");
  onlyOpen.resize(onlyOpen.size() + 100, 0);
  EXPECT_EQ(carveBytes(isoBmffCarver(), onlyOpen), std::nullopt);

  EXPECT_EQ(carveBytes(isoBmffCarver(), sampleIsoBmff("isom", {{"free", 20}})), std::nullopt);
  EXPECT_EQ(carveBytes(isoBmffCarver(), sampleIsoBmff("isom", {})), std::nullopt);

  // A 64-bit size.
  Bytes large = sampleIsoBmff("isom", {{"moov", 10}});
  appendBe32(large, 1);
  append(large, "mdat");
  appendBe64(large, 16 + 200);
  large.resize(large.size() + 200, 0x44);
  EXPECT_EQ(carveBytes(isoBmffCarver(), large), video(large.size()));
  // A 64-bit size of 15 is nonsense and ends the walk before that box.
  Bytes tiny = large;
  for (std::size_t i = 0; i < 8; ++i)
    tiny[large.size() - 208 + i] = i == 7 ? 15 : 0;
  EXPECT_EQ(carveBytes(isoBmffCarver(), tiny), video(large.size() - 216));
}

TEST(IsoBmffCarverTest, TruncatedOrOverlappingDataEndsHeuristically) {
  // mdat claims 1 MB but the source ends after 500 bytes of it.
  Bytes cut = sampleIsoBmff("isom", {{"moov", 30}});
  appendBe32(cut, 1'000'000);
  append(cut, "mdat");
  cut.resize(cut.size() + 500, 0x55);
  EXPECT_EQ(carveBytes(isoBmffCarver(), cut), video(cut.size(), CarveConfidence::heuristic));

  // ... and another MP4 begins inside it: the first ends there.
  const Bytes second = sampleIsoBmff("qt  ", {{"moov", 30}, {"mdat", 40}});
  Bytes overlapping = cut;
  const std::size_t secondAt = overlapping.size() - 200;
  place(overlapping, secondAt, second);
  EXPECT_EQ(carveBytes(isoBmffCarver(), overlapping), video(secondAt, CarveConfidence::heuristic));

  // A whole mdat that covers another file's start.
  Bytes covering = sampleIsoBmff("isom", {{"moov", 30}, {"mdat", 4000}});
  const std::size_t inside = covering.size() - 1000;
  place(covering, inside, second);
  EXPECT_EQ(carveBytes(isoBmffCarver(), covering), video(inside, CarveConfidence::heuristic));

  // An "ftyp" inside the data whose box size is implausible is ignored.
  Bytes decoy = sampleIsoBmff("isom", {{"moov", 30}, {"mdat", 4000}});
  place(decoy, 200, Bytes{0, 0, 0x20, 0, 'f', 't', 'y', 'p'});
  EXPECT_EQ(carveBytes(isoBmffCarver(), decoy), video(decoy.size()));

  // A truncated run of boxes without content is no file.
  Bytes noContent = sampleIsoBmff("isom", {{"free", 10}});
  appendBe32(noContent, 1'000'000);
  append(noContent, "skip");
  noContent.resize(noContent.size() + 50, 0);
  EXPECT_EQ(carveBytes(isoBmffCarver(), noContent), std::nullopt);
}

TEST(IsoBmffCarverTest, ManyBoxesAreSearchedOnceEach) {
  // A fragmented video: 300 moof/mdat pairs of 16 KiB, with a second file's
  // start planted in the last mdat.
  Bytes file = sampleIsoBmff("isom", {{"moov", 100}});
  for (int i = 0; i < 300; ++i) {
    appendBox(file, "moof", Bytes(100, 0x01));
    appendBox(file, "mdat", Bytes(16'384, 0x02));
  }
  const std::size_t end = file.size();
  const Bytes second = sampleIsoBmff("isom", {{"moov", 10}, {"mdat", 10}});
  const std::size_t secondAt = end - 1000;
  place(file, secondAt, second);
  ScriptedSource source(file);
  std::uint64_t bytesRead = 0;
  source.beforeRead = [&](std::uint64_t, std::size_t count) { bytesRead += count; };
  ReadContext context(source);
  EXPECT_EQ(isoBmffCarver().carve(0, context), video(secondAt, CarveConfidence::heuristic));
  EXPECT_LT(bytesRead, 2 * file.size());

  // Without the second file the walk ends exactly after the last box.
  Bytes whole(file.begin(), file.begin() + static_cast<long>(secondAt));
  whole.resize(end, 0x02);
  EXPECT_EQ(carveBytes(isoBmffCarver(), whole), video(end));
}

TEST(RiffCarverTest, LengthComesFromTheChunkSize) {
  Bytes wav;
  append(wav, "RIFF");
  appendLe32(wav, 36);
  append(wav, "WAVE");
  wav.resize(100, 0x11);
  EXPECT_EQ(carveBytes(riffCarver(), wav),
            (CarveMatch{44, "wav", FormatCategory::audio, CarveConfidence::exact}));
  putLe32(wav, 4, 37);
  EXPECT_EQ(carveBytes(riffCarver(), wav),
            (CarveMatch{46, "wav", FormatCategory::audio, CarveConfidence::exact}));
  putLe32(wav, 4, 36);
  EXPECT_EQ(carveBytes(riffCarver(), Bytes(wav.begin(), wav.begin() + 20)),
            (CarveMatch{20, "wav", FormatCategory::audio, CarveConfidence::heuristic}));

  EXPECT_EQ(carveBytes(riffCarver(), sampleRiff("RIFF", "AVI ", 30)),
            (CarveMatch{42, "avi", FormatCategory::video, CarveConfidence::exact}));
  EXPECT_EQ(carveBytes(riffCarver(), sampleRiff("RIFF", "WEBP", 31)),
            (CarveMatch{44, "webp", FormatCategory::photos, CarveConfidence::exact}));
  const Bytes aifc = sampleRiff("FORM", "AIFC", 100);
  EXPECT_EQ(carveBytes(riffCarver(), aifc),
            (CarveMatch{112, "aiff", FormatCategory::audio, CarveConfidence::exact}));
  EXPECT_EQ(carveBytes(riffCarver(), sampleRiff("FORM", "AIFF", 2)),
            (CarveMatch{14, "aiff", FormatCategory::audio, CarveConfidence::exact}));
}

TEST(RiffCarverTest, RejectsOtherFormsAndSizes) {
  Bytes small;
  append(small, "RIFF");
  appendLe32(small, 3);
  append(small, "WAVE");
  EXPECT_EQ(carveBytes(riffCarver(), small), std::nullopt);
  EXPECT_EQ(carveBytes(riffCarver(), sampleRiff("RIFF", "RMID", 20)), std::nullopt);
  EXPECT_EQ(carveBytes(riffCarver(), sampleRiff("FORM", "WAVE", 20)), std::nullopt);
  EXPECT_EQ(carveBytes(riffCarver(), sampleRiff("RIFF", "AIFF", 20)), std::nullopt);
  EXPECT_EQ(carveBytes(riffCarver(), Bytes{'R', 'I', 'F', 'F', 1, 0}), std::nullopt);
  EXPECT_EQ(carveBytes(riffCarver(), Bytes{'R', 'I', 'F', 'F', 8, 0, 0, 0, 'W', 'A'}),
            std::nullopt);
}

}  // namespace
}  // namespace vellum
