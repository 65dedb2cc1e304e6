#include <gtest/gtest.h>

#include "CarveSamples.h"
#include "carve/CarverProbe.h"
#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

using namespace vellum::testing;

CarveMatch photo(std::uint64_t length, std::string ext,
                 CarveConfidence confidence = CarveConfidence::exact) {
  return CarveMatch{length, std::move(ext), FormatCategory::photos, confidence};
}

Bytes withTail(Bytes file, std::size_t tail) {
  file.resize(file.size() + tail, 0x00);
  return file;
}

TEST(PngCarverTest, FindsTheEndAtIendAndRejectsDamage) {
  const Bytes png = samplePng();
  EXPECT_EQ(carveBytes(pngCarver(), withTail(png, 1000)), photo(png.size(), "png"));

  struct Case {
    const char* name;
    std::size_t at;
    std::uint8_t value;
  };
  const Case damages[] = {
      {"first chunk not IHDR", 12, 'i'},  // "iHDR"
      {"IHDR length 14", 11, 14},
      {"digit in a chunk type", 33 + 6, '1'},  // IDAT -> ID1T
      {"length with top bit set", 33, 0x80},
  };
  for (const Case& c : damages) {
    Bytes bad = withTail(png, 100);
    bad[c.at] = c.value;
    EXPECT_EQ(carveBytes(pngCarver(), bad), std::nullopt) << c.name;
  }
  // Cut before IEND: not a file.
  for (std::size_t cut : {std::size_t{8}, std::size_t{20}, png.size() - 13, png.size() - 5})
    EXPECT_EQ(carveBytes(pngCarver(), Bytes(png.begin(), png.begin() + static_cast<long>(cut))),
              std::nullopt)
        << cut;
  // Cut inside IEND's CRC: the carver reports the stated end (the engine clamps it).
  EXPECT_EQ(carveBytes(pngCarver(), Bytes(png.begin(), png.end() - 1)), photo(png.size(), "png"));
}

TEST(PngCarverTest, HostileChunkLengthsStopAtTheLimit) {
  Bytes png;
  append(png, {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A});
  appendPngChunk(png, "IHDR", Bytes(13, 1));
  appendBe32(png, 0x7FFFFFF0);  // a chunk claiming 2 GiB
  append(png, "IDAT");
  png.resize(png.size() + 64, 0);
  EXPECT_EQ(carveBytes(pngCarver(), png), std::nullopt);
}

TEST(JpegCarverTest, EndsAtItsOwnEndMarkerNotTheThumbnails) {
  const Bytes jpeg = sampleJpeg(300, /*withThumbnail=*/true);
  EXPECT_EQ(carveBytes(jpegCarver(), withTail(jpeg, 500)), photo(jpeg.size(), "jpg"));
  const Bytes plain = sampleJpeg(300);
  EXPECT_EQ(carveBytes(jpegCarver(), plain), photo(plain.size(), "jpg"));
}

TEST(JpegCarverTest, CutOffImageEndsWhereTheNextBegins) {
  const Bytes first = sampleJpeg(300, false, /*withEnd=*/false);
  const Bytes second = sampleJpeg(100);
  Bytes image = first;
  append(image, second);
  EXPECT_EQ(carveBytes(jpegCarver(), image),
            photo(first.size(), "jpg", CarveConfidence::heuristic));

  // Neither end nor next start: the rest of the source, at most 16 MiB.
  EXPECT_EQ(carveBytes(jpegCarver(), withTail(first, 40)),
            photo(first.size() + 40, "jpg", CarveConfidence::heuristic));
  EXPECT_EQ(carveBytes(jpegCarver(), withTail(first, 17'000'000)),
            photo(16'777'216, "jpg", CarveConfidence::heuristic));
}

TEST(JpegCarverTest, RejectsBrokenHeaders) {
  const Bytes jpeg = sampleJpeg();
  struct Case {
    const char* name;
    std::size_t at;
    std::uint8_t value;
  };
  // Layout: FFD8 | FFE0 len=16 (4..19) | FFDB at 20, len at 22.
  const Case damages[] = {
      {"fourth byte 00", 3, 0x00},
      {"marker without FF", 20, 0x12},
      {"second start in the header", 21, 0xD8},
      {"end in the header", 21, 0xD9},
      {"segment length 1", 23, 0x01},
  };
  for (const Case& c : damages) {
    Bytes bad = jpeg;
    bad[c.at] = c.value;
    if (c.at == 23) bad[22] = 0;
    EXPECT_EQ(carveBytes(jpegCarver(), bad), std::nullopt) << c.name;
  }
  // Header cut before the start of scan.
  EXPECT_EQ(carveBytes(jpegCarver(), Bytes(jpeg.begin(), jpeg.begin() + 30)), std::nullopt);
  // Fill bytes and restart markers in the header are stepped over.
  Bytes padded(jpeg.begin(), jpeg.begin() + 20);
  append(padded, {0xFF, 0xFF, 0xFF, 0xD0});
  padded.insert(padded.end(), jpeg.begin() + 20, jpeg.end());
  EXPECT_EQ(carveBytes(jpegCarver(), padded), photo(padded.size(), "jpg"));
}

TEST(GifCarverTest, WalksBlocksToTheTrailer) {
  const Bytes gif = sampleGif();
  EXPECT_EQ(carveBytes(gifCarver(), withTail(gif, 100)), photo(gif.size(), "gif"));
  Bytes old = gif;
  old[4] = '7';
  EXPECT_EQ(carveBytes(gifCarver(), old), photo(gif.size(), "gif"));

  Bytes noGlobalTable = gif;
  noGlobalTable[10] = 0x00;
  noGlobalTable.erase(noGlobalTable.begin() + 13, noGlobalTable.begin() + 19);
  EXPECT_EQ(carveBytes(gifCarver(), noGlobalTable), photo(noGlobalTable.size(), "gif"));
}

TEST(GifCarverTest, RejectsDamageAndTruncation) {
  const Bytes gif = sampleGif();
  Bytes zeroWidth = gif;
  zeroWidth[6] = 0;
  zeroWidth[7] = 0;
  EXPECT_EQ(carveBytes(gifCarver(), zeroWidth), std::nullopt);
  Bytes zeroHeight = gif;
  zeroHeight[8] = 0;
  zeroHeight[9] = 0;
  EXPECT_EQ(carveBytes(gifCarver(), zeroHeight), std::nullopt);
  Bytes unknownIntroducer = gif;
  unknownIntroducer[19] = 0x22;  // the extension's 21
  EXPECT_EQ(carveBytes(gifCarver(), unknownIntroducer), std::nullopt);
  for (std::size_t cut = 6; cut < gif.size(); ++cut)
    EXPECT_EQ(carveBytes(gifCarver(), Bytes(gif.begin(), gif.begin() + static_cast<long>(cut))),
              std::nullopt)
        << cut;
  // A sub-block chain that never terminates runs into the end of the source.
  Bytes endless(gif.begin(), gif.begin() + 19);
  append(endless, {0x21, 0xFE});
  for (int i = 0; i < 1000; ++i)
    append(endless, {1, 0x41});
  EXPECT_EQ(carveBytes(gifCarver(), endless), std::nullopt);
}

TEST(BmpCarverTest, TrustsTheStatedSizeWithinBounds) {
  const Bytes bmp = sampleBmp(4, 4);
  EXPECT_EQ(carveBytes(bmpCarver(), withTail(bmp, 10)), photo(bmp.size(), "bmp"));
  for (std::uint32_t header : {12U, 40U, 52U, 56U, 64U, 108U, 124U}) {
    Bytes variant = bmp;
    putLe32(variant, 14, header);
    EXPECT_EQ(carveBytes(bmpCarver(), variant), photo(bmp.size(), "bmp")) << header;
  }

  struct Case {
    const char* name;
    std::size_t at;
    std::uint32_t value;
  };
  const Case damages[] = {
      {"header size 20", 14, 20},
      {"file size 57", 2, 57},
      {"file size over 256 MiB", 2, 268'435'457},
      {"data offset 25", 10, 25},
      {"data offset at the file size", 10, 102},
      {"file size past the source", 2, 103},
  };
  for (const Case& c : damages) {
    Bytes bad = bmp;
    putLe32(bad, c.at, c.value);
    EXPECT_EQ(carveBytes(bmpCarver(), bad), std::nullopt) << c.name;
  }
  Bytes smallest = sampleBmp(4, 4);
  putLe32(smallest, 2, 58);
  EXPECT_EQ(carveBytes(bmpCarver(), smallest), photo(58, "bmp"));
}

}  // namespace
}  // namespace vellum
