#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CarveSamples.h"
#include "CarverTesting.h"
#include "carve/formats/Carvers.h"

namespace vellum::testing {
namespace {

const FormatCarver& carver() {
  return ole2Carver();
}

Bytes utf16(std::string_view s) {
  Bytes out;
  for (char c : s) {
    out.push_back(static_cast<std::uint8_t>(c));
    out.push_back(0);
  }
  return out;
}

// A compound file header with the given sector shift and allocation-table
// sector count, then body bytes.
Bytes compoundFile(std::uint16_t shift, std::uint32_t fatSectors, const Bytes& body = {}) {
  Bytes b = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
  b.resize(24, 0);
  appendLe16(b, 0x003E);  // minor version
  appendLe16(b, shift == 12 ? 4 : 3);
  appendLe16(b, 0xFFFE);  // byte order mark
  appendLe16(b, shift);
  appendLe16(b, 6);  // mini sector shift
  b.resize(44, 0);
  appendLe32(b, fatSectors);
  b.resize(512, 0xFF);
  append(b, body);
  return b;
}

TEST(Ole2Carver, BoundsTheFileByWhatItsTableAddresses) {
  struct Case {
    std::uint16_t shift;
    std::uint32_t fatSectors;
    std::size_t sourceSize;  // bytes available from the start
    std::optional<std::uint64_t> length;
  };
  const std::vector<Case> cases = {
      {9, 1, 100'000, 66'048},        // 512 + 128 x 512
      {9, 1, 30'000, 30'000},         // cut by the source's end
      {12, 1, 5'000'000, 4'198'400},  // 4096 + 1024 x 4096
      {9, 0, 100'000, std::nullopt},  {9, 65'537, 100'000, std::nullopt},
      {10, 1, 100'000, std::nullopt}, {11, 1, 100'000, std::nullopt},
      {8, 1, 100'000, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "shift " << c.shift << ", n " << c.fatSectors);
    Bytes file = compoundFile(c.shift, c.fatSectors);
    file.resize(c.sourceSize, 0);
    const auto match = carveBytes(carver(), file);
    if (!c.length) {
      EXPECT_EQ(match, std::nullopt);
      continue;
    }
    EXPECT_EQ(match, heuristicMatch(*c.length, "ole", FormatCategory::documents));
  }
}

TEST(Ole2Carver, CapsTheLengthAt256MiBAndAtTheSourcesEnd) {
  // 4096-byte sectors and 65,536 table sectors could address 256 GiB.
  const Bytes header = compoundFile(12, 65'536, filler(1000, 0));
  {
    SparseSource source(300'000'000, {{1000, header}});
    ReadContext context(source);
    EXPECT_EQ(carver().carve(1000, context),
              heuristicMatch(268'435'456, "ole", FormatCategory::documents));
  }
  {
    const std::uint64_t start = 300'000'000 - 1000;
    SparseSource source(300'000'000, {{start, cut(header, 1000)}});
    ReadContext context(source);
    EXPECT_EQ(carver().carve(start, context),
              heuristicMatch(1000, "ole", FormatCategory::documents));
  }
  // A header cut before the table count gives nothing.
  EXPECT_EQ(carveBytes(carver(), cut(header, 40)), std::nullopt);
}

TEST(Ole2Carver, NamesTheFileByItsFirstKnownStream) {
  struct Case {
    const char* name;
    Bytes body;
    std::string ext;
  };
  Bytes both = utf16("Workbook");
  append(both, filler(50, 0));
  append(both, utf16("WordDocument"));
  Bytes late = filler(8'388'608 - 512 - 10, 0);  // past the 8 MiB looked at
  append(late, utf16("WordDocument"));
  const std::vector<Case> cases = {
      {"Word", utf16("WordDocument"), "doc"},
      {"Excel", utf16("Workbook"), "xls"},
      {"PowerPoint", utf16("PowerPoint Document"), "ppt"},
      {"Word before Excel", both, "doc"},
      {"single-byte names", Bytes{'W', 'o', 'r', 'k', 'b', 'o', 'o', 'k'}, "ole"},
      {"name past 8 MiB", late, "ole"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes file = compoundFile(9, 1000, c.body);  // addresses far more than is there
    file.resize(std::max<std::size_t>(file.size() + 100, 9'000'000), 0);
    const auto match = carveBytes(carver(), file);
    ASSERT_TRUE(match);
    EXPECT_EQ(match->ext, c.ext);
  }
}

}  // namespace
}  // namespace vellum::testing

namespace vellum::testing {
namespace {

TEST(Ole2Carver, InTheEngineFilesAfterTheHeaderAreStillFound) {
  Bytes image = compoundFile(9, 1, utf16("Workbook"));
  image.resize(8192, 0);
  const Bytes jpeg = sampleJpeg(100);
  place(image, 8192, jpeg);
  image.resize(100'000, 0);
  EXPECT_EQ(carveImage(image),
            (std::vector<Found>{{0, 66'048, "xls", CarveConfidence::heuristic},
                                {8192, jpeg.size(), "jpg", CarveConfidence::exact}}));
}

}  // namespace
}  // namespace vellum::testing
