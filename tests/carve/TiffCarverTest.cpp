#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "CarveSamples.h"
#include "CarverTesting.h"
#include "carve/formats/Carvers.h"

namespace vellum::testing {
namespace {

constexpr std::uint16_t shortType = 3;
constexpr std::uint16_t longType = 4;
constexpr std::uint16_t asciiType = 2;

struct Field {
  std::uint16_t tag;
  std::uint16_t type;
  std::vector<std::uint32_t> values;  // SHORT or LONG values
  std::string text = {};              // ASCII value (a zero is added)
};

Field shortField(std::uint16_t tag, std::uint32_t value) {
  return {tag, shortType, {value}};
}
Field longField(std::uint16_t tag, std::vector<std::uint32_t> values) {
  return {tag, longType, std::move(values)};
}
Field asciiField(std::uint16_t tag, std::string text) {
  return {tag, asciiType, {}, std::move(text)};
}

// Writes a TIFF in either byte order: data blocks and IFDs in the order the
// test adds them, values longer than 4 bytes right after their IFD.
class TiffBuilder {
 public:
  explicit TiffBuilder(bool bigEndian) : bigEndian_(bigEndian) {
    append(out_, bigEndian ? "MM" : "II");
    put16(42);
    put32(0);
  }

  std::uint32_t data(const Bytes& bytes) {
    const auto at = static_cast<std::uint32_t>(out_.size());
    append(out_, bytes);
    return at;
  }

  std::uint32_t ifd(std::vector<Field> fields, std::uint32_t next = 0) {
    std::ranges::sort(fields, {}, &Field::tag);
    const auto at = static_cast<std::uint32_t>(out_.size());
    put16(static_cast<std::uint16_t>(fields.size()));
    std::vector<std::pair<std::size_t, Bytes>> outOfLine;
    for (const Field& f : fields) {
      Bytes value;
      std::uint32_t count = 0;
      if (f.type == asciiType) {
        append(value, f.text);
        value.push_back(0);
        count = static_cast<std::uint32_t>(value.size());
      } else {
        for (std::uint32_t v : f.values)
          encode(value, v, f.type == shortType ? 2 : 4);
        count = static_cast<std::uint32_t>(f.values.size());
      }
      put16(f.tag);
      put16(f.type);
      put32(count);
      if (value.size() <= 4) {
        value.resize(4, 0);
        append(out_, value);
      } else {
        outOfLine.emplace_back(out_.size(), value);
        put32(0);
      }
    }
    put32(next);
    for (auto& [field, value] : outOfLine) {
      patch32(field, static_cast<std::uint32_t>(out_.size()));
      append(out_, value);
    }
    return at;
  }

  void setFirstIfd(std::uint32_t offset) { patch32(4, offset); }
  void setNext(std::uint32_t ifd, std::uint32_t next) {
    const std::size_t hi = out_[bigEndian_ ? ifd : ifd + 1];
    const std::size_t lo = out_[bigEndian_ ? ifd + 1 : ifd];
    patch32(ifd + 2 + 12 * (hi << 8 | lo), next);
  }
  void patch16(std::size_t at, std::uint16_t value) {
    Bytes raw;
    encode(raw, value, 2);
    std::ranges::copy(raw, out_.begin() + static_cast<std::ptrdiff_t>(at));
  }
  void patch32(std::size_t at, std::uint32_t value) {
    Bytes raw;
    encode(raw, value, 4);
    std::ranges::copy(raw, out_.begin() + static_cast<std::ptrdiff_t>(at));
  }
  Bytes& bytes() { return out_; }

 private:
  void encode(Bytes& out, std::uint32_t value, int width) const {
    for (int i = 0; i < width; ++i) {
      const int shift = bigEndian_ ? 8 * (width - 1 - i) : 8 * i;
      out.push_back(static_cast<std::uint8_t>(value >> shift));
    }
  }
  void put16(std::uint16_t value) { encode(out_, value, 2); }
  void put32(std::uint32_t value) { encode(out_, value, 4); }

  bool bigEndian_;
  Bytes out_;
};

// The baseline tags of a small greyscale image stored in the given strips.
std::vector<Field> imageFields(std::vector<std::uint32_t> strips,
                               std::vector<std::uint32_t> stripLengths) {
  return {shortField(256, 16), shortField(257, 8),
          shortField(258, 8),  shortField(259, 1),
          shortField(262, 1),  longField(273, std::move(strips)),
          shortField(278, 4),  longField(279, std::move(stripLengths))};
}

// Two strips of 300 and 200 bytes, then IFD0 (as libtiff lays files out).
TiffBuilder stripTiff(bool bigEndian, std::vector<Field> extra = {}) {
  TiffBuilder tiff(bigEndian);
  const std::uint32_t s1 = tiff.data(filler(300, 0x11));
  const std::uint32_t s2 = tiff.data(filler(200, 0x22));
  std::vector<Field> fields = imageFields({s1, s2}, {300, 200});
  fields.insert(fields.end(), extra.begin(), extra.end());
  tiff.setFirstIfd(tiff.ifd(fields));
  return tiff;
}

// IFD0 right after the header, then strips of 300 and 200 bytes.
TiffBuilder ifdFirstTiff(bool bigEndian) {
  TiffBuilder tiff(bigEndian);
  tiff.setFirstIfd(8);
  tiff.ifd(imageFields({0, 0}, {300, 200}));
  // The strip offsets table follows IFD0's 8 entries and next pointer.
  const std::size_t table = 8 + 2 + 12 * 8 + 4;
  tiff.patch32(table, tiff.data(filler(300, 0x11)));
  tiff.patch32(table + 4, tiff.data(filler(200, 0x22)));
  return tiff;
}

const FormatCarver& carver() {
  return tiffCarver();
}

TEST(TiffCarver, WalksStripsAndIfdsInBothByteOrders) {
  for (const bool bigEndian : {false, true}) {
    SCOPED_TRACE(bigEndian ? "big-endian" : "little-endian");
    for (TiffBuilder tiff : {stripTiff(bigEndian), ifdFirstTiff(bigEndian)}) {
      Bytes file = tiff.bytes();
      const std::size_t length = file.size();
      append(file, filler(1000, 0x33));  // whatever follows is not part of it
      EXPECT_EQ(carveBytes(carver(), file), exactMatch(length, "tif", FormatCategory::photos));
      // The same file further into a source.
      Bytes image = filler(4096, 0);
      append(image, file);
      EXPECT_EQ(carveBytes(carver(), image, 4096),
                exactMatch(length, "tif", FormatCategory::photos));
    }
  }
}

TEST(TiffCarver, TakesThePadByteAfterAnOddLengthLastBlock) {
  // IFD0 first, then strips of 300 and 201 bytes: the file's data ends at an
  // odd offset, and a writer that pads adds one zero byte.
  for (const bool bigEndian : {false, true}) {
    SCOPED_TRACE(bigEndian ? "big-endian" : "little-endian");
    TiffBuilder tiff(bigEndian);
    tiff.setFirstIfd(8);
    tiff.ifd(imageFields({0, 0}, {300, 201}));
    const std::size_t table = 8 + 2 + 12 * 8 + 4;
    tiff.patch32(table, tiff.data(filler(300, 0x11)));
    tiff.patch32(table + 4, tiff.data(filler(201, 0x22)));
    const std::size_t length = tiff.bytes().size();
    ASSERT_EQ(length % 2, 1U);

    Bytes padded = tiff.bytes();
    padded.push_back(0);
    append(padded, filler(1000, 0x33));
    EXPECT_EQ(carveBytes(carver(), padded), exactMatch(length + 1, "tif", FormatCategory::photos));

    // Without a zero byte after it, the file ends where its data does.
    Bytes unpadded = tiff.bytes();
    append(unpadded, filler(1000, 0x33));
    EXPECT_EQ(carveBytes(carver(), unpadded), exactMatch(length, "tif", FormatCategory::photos));
    // Nor is a pad byte invented at the source's end.
    EXPECT_EQ(carveBytes(carver(), tiff.bytes()),
              exactMatch(length, "tif", FormatCategory::photos));
  }
}

TEST(TiffCarver, FollowsChainSubIfdsTilesAndThumbnails) {
  // IFD0 (one strip) -> IFD1 (JPEG thumbnail) in the chain; IFD0 also points
  // to a SubIFD whose tiles are written last and so end the file.
  TiffBuilder tiff(true);
  const auto strip = tiff.data(filler(100, 1));
  const auto thumb = tiff.data(filler(50, 2));
  const auto sub =
      tiff.ifd({shortField(256, 32), longField(324, {0, 0}), longField(325, {256, 400})});
  const auto ifd1 = tiff.ifd({longField(513, {thumb}), longField(514, {50})});
  std::vector<Field> fields = imageFields({strip}, {100});
  fields.push_back(longField(330, {sub}));
  tiff.setFirstIfd(tiff.ifd(fields, ifd1));
  const std::size_t tileTable = sub + 2 + 12 * 3 + 4;
  tiff.patch32(tileTable, tiff.data(filler(256, 3)));
  tiff.patch32(tileTable + 4, tiff.data(filler(400, 4)));
  Bytes file = tiff.bytes();
  const std::size_t length = file.size();
  append(file, filler(700, 5));
  EXPECT_EQ(carveBytes(carver(), file), exactMatch(length, "tif", FormatCategory::photos));

  // Without the SubIFD pointer the tiles are unknown and the file ends earlier.
  Bytes unlinked = file;
  const auto ifd0 =
      static_cast<std::size_t>(file[4] << 24 | file[5] << 16 | file[6] << 8 | file[7]);
  const std::size_t subPointer = ifd0 + 2 + 12 * 8 + 8;  // 330 is the ninth entry
  putBe32(unlinked, subPointer, 0);
  const auto match = carveBytes(carver(), unlinked);
  ASSERT_TRUE(match);
  EXPECT_LT(match->length, length);
}

TEST(TiffCarver, NamesCameraRawFiles) {
  struct Case {
    const char* name;
    std::vector<Field> extra;
    bool canonMarker;
    std::string ext;
    FormatCategory category;
  };
  const std::vector<Case> cases = {
      {"DNG", {longField(50706, {0x01040000})}, false, "dng", FormatCategory::rawPhotos},
      {"CR2 marker", {asciiField(271, "Canon")}, true, "cr2", FormatCategory::rawPhotos},
      {"Nikon CFA",
       {asciiField(271, "NIKON CORPORATION"), shortField(262, 32803)},
       false,
       "nef",
       FormatCategory::rawPhotos},
      {"Sony raw compression",
       {asciiField(271, "SONY"), shortField(259, 32767)},
       false,
       "arw",
       FormatCategory::rawPhotos},
      {"Pentax",
       {asciiField(271, "PENTAX Corporation"), shortField(259, 65535)},
       false,
       "pef",
       FormatCategory::rawPhotos},
      {"camera make, ordinary image",
       {asciiField(271, "SONY")},
       false,
       "tif",
       FormatCategory::photos},
      {"scanner",
       {asciiField(271, "Plustek"), shortField(262, 32803)},
       false,
       "tif",
       FormatCategory::photos},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TiffBuilder tiff(false);
    if (c.canonMarker) append(tiff.bytes(), {'C', 'R', 2, 0, 0, 0, 0, 0});
    const auto s1 = tiff.data(filler(64, 7));
    std::vector<Field> fields = imageFields({s1}, {64});
    // Photometric and compression given by the case replace the defaults.
    for (const Field& f : c.extra) {
      std::erase_if(fields, [&](const Field& g) { return g.tag == f.tag; });
      fields.push_back(f);
    }
    tiff.setFirstIfd(tiff.ifd(fields));
    const auto match = carveBytes(carver(), tiff.bytes());
    ASSERT_TRUE(match);
    EXPECT_EQ(match->ext, c.ext);
    EXPECT_EQ(match->category, c.category);
    EXPECT_EQ(match->length, tiff.bytes().size());
  }
}

TEST(TiffCarver, TruncatedFiles) {
  const Bytes whole = stripTiff(false).bytes();
  // IFD0 (508..610) and its two value tables (610..626) lie at the end.
  // Without IFD0 whole there is nothing to go by; with it, the walk keeps
  // what it could read.
  ASSERT_EQ(whole.size(), 626u);
  EXPECT_EQ(carveBytes(carver(), cut(whole, 600)), std::nullopt);
  EXPECT_EQ(carveBytes(carver(), cut(whole, 616)),
            heuristicMatch(610, "tif", FormatCategory::photos));

  // IFD first, strips cut short by the end of the source: the end is the
  // last strip that is whole, and doubtful.
  TiffBuilder tiff = ifdFirstTiff(false);
  const std::size_t stripsAt = 8 + 2 + 12 * 8 + 4 + 16;
  ASSERT_EQ(carveBytes(carver(), tiff.bytes()),
            exactMatch(stripsAt + 500, "tif", FormatCategory::photos));
  EXPECT_EQ(carveBytes(carver(), cut(tiff.bytes(), stripsAt + 350)),
            heuristicMatch(stripsAt + 300, "tif", FormatCategory::photos));
  EXPECT_EQ(carveBytes(carver(), cut(tiff.bytes(), 6)), std::nullopt);
}

TEST(TiffCarver, HostileStructures) {
  // A chain that loops back to IFD0 ends the walk and makes the end doubtful.
  {
    TiffBuilder tiff(false);
    const auto s1 = tiff.data(filler(100, 1));
    const auto ifd0 = tiff.ifd(imageFields({s1}, {100}));
    const auto ifd1 = tiff.ifd({shortField(256, 1)}, ifd0);
    tiff.setNext(ifd0, ifd1);
    tiff.setFirstIfd(ifd0);
    EXPECT_EQ(carveBytes(carver(), tiff.bytes()),
              heuristicMatch(tiff.bytes().size(), "tif", FormatCategory::photos));
  }
  // An IFD that points at itself as its own SubIFD.
  {
    TiffBuilder tiff(true);
    const auto s1 = tiff.data(filler(100, 1));
    std::vector<Field> fields = imageFields({s1}, {100});
    fields.push_back(longField(330, {0}));
    const auto ifd0 = tiff.ifd(fields);
    tiff.setFirstIfd(ifd0);
    // SubIFDs with one LONG value sit inline in the entry.
    const std::size_t subEntry = ifd0 + 2 + 12 * 8;
    tiff.patch32(subEntry + 8, ifd0);
    EXPECT_EQ(carveBytes(carver(), tiff.bytes()),
              exactMatch(tiff.bytes().size(), "tif", FormatCategory::photos));
  }
  // A strip said to lie far past the end is left out and the end is doubtful.
  {
    TiffBuilder tiff = stripTiff(false);
    Bytes& file = tiff.bytes();
    const auto ifd0 = static_cast<std::uint32_t>(8 + 500);
    const std::size_t stripTable = ifd0 + 2 + 12 * 8 + 4;
    tiff.patch32(stripTable + 4, 0xFFFFFF00);
    EXPECT_EQ(carveBytes(carver(), file),
              heuristicMatch(file.size(), "tif", FormatCategory::photos));
  }
  // A huge entry count in IFD0 is not a TIFF; in a later IFD it stops the walk.
  {
    TiffBuilder tiff = stripTiff(false);
    tiff.patch16(8 + 500, 0xFFFF);
    EXPECT_EQ(carveBytes(carver(), tiff.bytes()), std::nullopt);

    TiffBuilder chained(false);
    const auto s1 = chained.data(filler(100, 1));
    const auto ifd1 = chained.ifd({shortField(256, 1)});
    const auto ifd0 = chained.ifd(imageFields({s1}, {100}), ifd1);
    chained.setFirstIfd(ifd0);
    chained.patch16(ifd1, 0xFFFF);
    EXPECT_EQ(carveBytes(carver(), chained.bytes()),
              heuristicMatch(chained.bytes().size(), "tif", FormatCategory::photos));
  }
  // A strip table of a billion entries pointing past the end.
  {
    TiffBuilder tiff = stripTiff(true);
    const std::size_t countField = 8 + 500 + 2 + 12 * 5 + 4;
    tiff.patch32(countField, 1'000'000'000);
    const auto match = carveBytes(carver(), tiff.bytes());
    ASSERT_TRUE(match);
    EXPECT_EQ(match->confidence, CarveConfidence::heuristic);
    EXPECT_LE(match->length, tiff.bytes().size());
  }
  // A chain of 1,000 IFDs stops at the walk's bound.
  {
    TiffBuilder tiff(false);
    const auto s1 = tiff.data(filler(16, 1));
    std::uint32_t next = 0;
    for (int i = 0; i < 1000; ++i)
      next = tiff.ifd({shortField(256, 1)}, next);
    tiff.setFirstIfd(tiff.ifd(imageFields({s1}, {16}), next));
    const auto match = carveBytes(carver(), tiff.bytes());
    ASSERT_TRUE(match);
    EXPECT_EQ(match->confidence, CarveConfidence::heuristic);
  }
  // No ImageWidth, an IFD offset inside the header, an unknown magic.
  {
    TiffBuilder tiff(false);
    tiff.setFirstIfd(tiff.ifd({shortField(257, 8), longField(273, {8}), longField(279, {4})}));
    EXPECT_EQ(carveBytes(carver(), tiff.bytes()), std::nullopt);

    Bytes early = stripTiff(false).bytes();
    putLe32(early, 4, 4);
    EXPECT_EQ(carveBytes(carver(), early), std::nullopt);

    Bytes bigTiff = stripTiff(false).bytes();
    bigTiff[2] = 43;
    EXPECT_EQ(carveBytes(carver(), bigTiff), std::nullopt);
  }
}

}  // namespace
}  // namespace vellum::testing

namespace vellum::testing {
namespace {

TEST(TiffCarver, InTheEngineAnExactTiffIsSteppedOverWhole) {
  // A JPEG inside the strip data, on a sector boundary, is part of the TIFF.
  TiffBuilder tiff(false);
  Bytes strip = filler(3000, 0x11);
  place(strip, 1024 - 8, sampleJpeg(300));
  const auto s1 = tiff.data(strip);
  tiff.setFirstIfd(tiff.ifd(imageFields({s1}, {3000})));
  Bytes image = tiff.bytes();
  const std::size_t length = image.size();
  image.resize(4096, 0);
  append(image, stripTiff(true).bytes());
  const std::size_t second = stripTiff(true).bytes().size();
  image.resize(8192, 0);
  EXPECT_EQ(carveImage(image), (std::vector<Found>{{0, length, "tif", CarveConfidence::exact},
                                                   {4096, second, "tif", CarveConfidence::exact}}));
}

}  // namespace
}  // namespace vellum::testing
