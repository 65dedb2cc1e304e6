#include <gtest/gtest.h>

#include <random>

#include "CarveSamples.h"
#include "carve/CarverProbe.h"
#include "carve/CarverRegistry.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

using namespace vellum::testing;

TEST(CarverRegistryTest, OrderIdsAndSignatures) {
  std::vector<std::string_view> ids;
  for (const FormatCarver* carver : CarverRegistry::all()) {
    ids.push_back(carver->id());
    for (const Bytes& signature : carver->signatures())
      EXPECT_FALSE(signature.empty());
  }
  EXPECT_EQ(ids, (std::vector<std::string_view>{"png", "jpeg", "gif", "bmp", "isobmff", "riff",
                                                "tiff", "pdf", "zip", "ole2", "mp3"}));
  EXPECT_EQ(isoBmffCarver().signatureOffset(), 4U);
  EXPECT_EQ(pngCarver().signatureOffset(), 0U);
  EXPECT_EQ(gifCarver().signatures(),
            (std::vector<Bytes>{signatureBytes("GIF87a"), signatureBytes("GIF89a")}));
  EXPECT_EQ(riffCarver().signatures(),
            (std::vector<Bytes>{signatureBytes("RIFF"), signatureBytes("FORM")}));
  EXPECT_EQ(CarverRegistry::byId("riff"), &riffCarver());
  EXPECT_EQ(CarverRegistry::byId("nope"), nullptr);

  std::vector<std::string_view> documents;
  for (const FormatCarver* carver : CarverRegistry::carvers({FormatCategory::documents}))
    documents.push_back(carver->id());
  EXPECT_EQ(documents, (std::vector<std::string_view>{"pdf", "zip", "ole2"}));
  EXPECT_TRUE(CarverRegistry::carvers({}).empty());
}

TEST(CarverProbeTest, IdentifiesASingleFile) {
  struct Case {
    Bytes file;
    std::string_view carver;
    std::string_view ext;
  };
  const Case cases[] = {
      {samplePng(), "png", "png"},
      {sampleJpeg(), "jpeg", "jpg"},
      {sampleGif(), "gif", "gif"},
      {sampleBmp(), "bmp", "bmp"},
      {sampleIsoBmff("M4A ", {{"moov", 10}, {"mdat", 10}}), "isobmff", "m4a"},
      {sampleRiff("RIFF", "WAVE", 10), "riff", "wav"},
  };
  for (const Case& c : cases) {
    MemorySource source(c.file);
    const auto found = identify(source);
    ASSERT_TRUE(found) << c.carver;
    EXPECT_EQ(found->carver->id(), c.carver);
    EXPECT_EQ(found->match.ext, c.ext);
    EXPECT_EQ(found->match.length, c.file.size());
  }
  MemorySource nothing(filler(100, 0x20));
  EXPECT_FALSE(identify(nothing));
  // A file whose stated end lies past the source is cut and marked heuristic.
  Bytes wav = sampleRiff("RIFF", "WAVE", 100);
  wav.resize(60);
  MemorySource cut(wav);
  const auto found = identify(cut);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->match.length, 60U);
  EXPECT_EQ(found->match.confidence, CarveConfidence::heuristic);
}

// Damaged copies of every sample, fed to every carver: none may crash, and
// every match names an extension and one of the carver's own categories.
TEST(CarverProbeTest, EveryCarverSurvivesDamagedInput) {
  const std::vector<Bytes> samples = {
      samplePng(),
      sampleJpeg(60, true),
      sampleGif(),
      sampleBmp(),
      sampleIsoBmff("isom", {{"free", 4}, {"moov", 20}, {"mdat", 40}}),
      sampleRiff("FORM", "AIFC", 30),
  };
  std::mt19937 random(1234);
  int matches = 0;
  for (const Bytes& sample : samples) {
    for (int round = 0; round < 300; ++round) {
      Bytes damaged = sample;
      const int flips = 1 + static_cast<int>(random() % 4);
      for (int i = 0; i < flips; ++i) {
        const std::size_t at = random() % damaged.size();
        damaged[at] = static_cast<std::uint8_t>(random() % 3 == 0 ? 0xFF : random());
      }
      if (round % 3 == 0) damaged.resize(random() % damaged.size());
      for (const FormatCarver* carver : CarverRegistry::all()) {
        const auto match = carveBytes(*carver, damaged);
        if (!match) continue;
        ++matches;
        EXPECT_GT(match->length, 0U) << carver->id();
        EXPECT_FALSE(match->ext.empty()) << carver->id();
        EXPECT_TRUE(carver->categories().contains(match->category)) << carver->id();
      }
    }
  }
  EXPECT_GT(matches, 0);  // some damage leaves files intact
}

}  // namespace
}  // namespace vellum
