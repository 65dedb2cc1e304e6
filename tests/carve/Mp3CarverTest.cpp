#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CarveSamples.h"
#include "CarverTesting.h"
#include "carve/formats/Carvers.h"
#include "carve/formats/Mp3Carver.h"

namespace vellum::testing {
namespace {

const FormatCarver& carver() {
  return mp3Carver();
}

// MPEG-1 Layer III, 128 kbit/s, 44,100 Hz: 417 bytes, 418 with padding.
const Bytes frameHeader = {0xFF, 0xFB, 0x90, 0x00};
constexpr std::size_t frameLength = 417;

Bytes frame(const Bytes& header = frameHeader, std::size_t length = frameLength) {
  Bytes f = header;
  f.resize(length, 0x55);
  return f;
}

// An ID3v2.4 tag of tagSize bytes (sync-safe size), optionally with a footer.
Bytes id3(std::uint32_t tagSize, bool footer = false) {
  Bytes t = {'I', 'D', '3', 4, 0, static_cast<std::uint8_t>(footer ? 0x10 : 0)};
  for (int shift = 21; shift >= 0; shift -= 7)
    t.push_back(static_cast<std::uint8_t>((tagSize >> shift) & 0x7F));
  t.resize(10 + tagSize, 0);
  if (footer) append(t, Bytes{'3', 'D', 'I', 4, 0, 0x10, 0, 0, 0, 0});
  return t;
}

Bytes stream(std::size_t frames, std::uint32_t tagSize = 300, bool footer = false) {
  Bytes s = id3(tagSize, footer);
  for (std::size_t i = 0; i < frames; ++i)
    append(s, frame());
  return s;
}

TEST(Mp3Carver, FrameLengthsFollowTheStandardTables) {
  struct Case {
    const char* name;
    Bytes header;
    std::optional<std::uint64_t> length;
  };
  const std::vector<Case> cases = {
      {"MPEG-1 L3 128k 44.1k", {0xFF, 0xFB, 0x90}, 417},
      {"same, padded", {0xFF, 0xFB, 0x92}, 418},
      {"MPEG-1 L3 320k 48k", {0xFF, 0xFB, 0xE4}, 960},
      {"MPEG-1 L2 384k 32k", {0xFF, 0xFD, 0xE8}, 1728},
      {"MPEG-1 L1 448k 44.1k", {0xFF, 0xFF, 0xE0}, 484},  // (12 x 448000 / 44100) x 4
      {"MPEG-2 L3 64k 22.05k", {0xFF, 0xF3, 0x80}, 208},  // 72 x 64000 / 22050
      {"MPEG-2 L2 160k 24k", {0xFF, 0xF5, 0xE4}, 960},    // 144 x 160000 / 24000
      {"MPEG-2.5 L3 8k 8k", {0xFF, 0xE3, 0x18}, 72},
      {"free format", {0xFF, 0xFB, 0x00}, std::nullopt},
      {"bad bitrate", {0xFF, 0xFB, 0xF0}, std::nullopt},
      {"reserved sample rate", {0xFF, 0xFB, 0x9C}, std::nullopt},
      {"reserved version", {0xFF, 0xEB, 0x90}, std::nullopt},
      {"reserved layer", {0xFF, 0xF9, 0x90}, std::nullopt},
      {"no sync", {0xFF, 0xDB, 0x90}, std::nullopt},
      {"too short", {0xFF, 0xFB}, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(mp3FrameLength(c.header), c.length);
  }
}

TEST(Mp3Carver, NeedsFourFramesAfterTheTag) {
  EXPECT_EQ(carveBytes(carver(), stream(3)), std::nullopt);
  Bytes four = stream(4);
  const std::size_t length = four.size();
  append(four, filler(1000, 0));
  EXPECT_EQ(carveBytes(carver(), four), heuristicMatch(length, "mp3", FormatCategory::audio));

  // The footer flag moves the audio 10 bytes further.
  Bytes withFooter = stream(5, 300, true);
  EXPECT_EQ(carveBytes(carver(), withFooter),
            heuristicMatch(withFooter.size(), "mp3", FormatCategory::audio));
  withFooter[5] = 0;  // without the flag the walk lands on the footer
  EXPECT_EQ(carveBytes(carver(), withFooter), std::nullopt);
}

TEST(Mp3Carver, EndsAtTheLastFrameOrAfterAnId3v1Tag) {
  Bytes tagged = stream(6);
  Bytes v1 = {'T', 'A', 'G'};
  v1.resize(128, ' ');
  append(tagged, v1);
  const std::size_t length = tagged.size();
  append(tagged, filler(500, 0));
  EXPECT_EQ(carveBytes(carver(), tagged), heuristicMatch(length, "mp3", FormatCategory::audio));

  // A free-format frame stops the walk there.
  Bytes free = stream(5);
  const std::size_t before = free.size();
  append(free, frame({0xFF, 0xFB, 0x00, 0x00}, 500));
  append(free, frame());
  EXPECT_EQ(carveBytes(carver(), free), heuristicMatch(before, "mp3", FormatCategory::audio));

  // Frames running past the source's end: the last whole frame ends it.
  const Bytes cutShort = cut(stream(8), 10 + 300 + 6 * frameLength + 100);
  EXPECT_EQ(carveBytes(carver(), cutShort),
            heuristicMatch(10 + 300 + 6 * frameLength, "mp3", FormatCategory::audio));
}

TEST(Mp3Carver, RejectsBrokenTags) {
  Bytes bigSize = stream(6);
  bigSize[7] = 0x80;  // not sync-safe
  EXPECT_EQ(carveBytes(carver(), bigSize), std::nullopt);
  Bytes version = stream(6);
  version[3] = 16;
  EXPECT_EQ(carveBytes(carver(), version), std::nullopt);
  EXPECT_EQ(carveBytes(carver(), cut(stream(6), 9)), std::nullopt);
  // A tag size that points past the source's end.
  Bytes huge = stream(6);
  huge[6] = 0x7F;
  EXPECT_EQ(carveBytes(carver(), huge), std::nullopt);
}

}  // namespace
}  // namespace vellum::testing

namespace vellum::testing {
namespace {

TEST(Mp3Carver, InTheEngineFilesInsideAStreamAreStillFound) {
  // Cover art in the tag, on a sector boundary: MP3 finds are heuristic, so
  // the engine looks inside them.
  Bytes mp3 = stream(5, 2000);
  const Bytes png = samplePng(100);
  place(mp3, 512, png);
  Bytes image = mp3;
  image.resize(image.size() + 1000, 0);
  EXPECT_EQ(carveImage(image),
            (std::vector<Found>{{0, mp3.size(), "mp3", CarveConfidence::heuristic},
                                {512, png.size(), "png", CarveConfidence::exact}}));
}

}  // namespace
}  // namespace vellum::testing
