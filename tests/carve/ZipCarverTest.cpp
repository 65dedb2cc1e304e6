#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CarveSamples.h"
#include "CarverTesting.h"
#include "carve/formats/Carvers.h"

namespace vellum::testing {
namespace {

const FormatCarver& carver() {
  return zipCarver();
}

void padToSector(Bytes& out) {
  out.resize((out.size() + 511) / 512 * 512, 0);
}

Bytes text(std::string_view s) {
  return Bytes(s.begin(), s.end());
}

void appendLe64(Bytes& out, std::uint64_t value) {
  for (int shift = 0; shift < 64; shift += 8)
    out.push_back(static_cast<std::uint8_t>(value >> shift));
}

enum class Descriptor { none, withSignature, withoutSignature, withSizesInHeader };

struct Entry {
  std::string name;
  Bytes data;
  std::uint16_t method = 8;
  Descriptor descriptor = Descriptor::none;
  bool zip64 = false;  // sizes in a ZIP64 extra field and 8-byte descriptor sizes
};

struct Archive {
  std::vector<Entry> entries;
  std::string comment = "made in a test";
  bool zip64End = false;
};

struct Built {
  Bytes bytes;
  std::size_t directoryAt = 0;
  std::vector<std::size_t> dataAt;
};

Built build(const Archive& archive) {
  Built out;
  Bytes& b = out.bytes;
  std::vector<std::size_t> localAt;
  for (const Entry& e : archive.entries) {
    localAt.push_back(b.size());
    const bool descriptor = e.descriptor != Descriptor::none;
    const bool sizesKnown = !descriptor || e.descriptor == Descriptor::withSizesInHeader;
    const auto size = static_cast<std::uint32_t>(e.data.size());
    appendLe32(b, 0x04034B50);
    appendLe16(b, e.zip64 ? 45 : 20);
    appendLe16(b, descriptor ? 0x08 : 0);
    appendLe16(b, e.method);
    appendLe32(b, 0);  // time and date
    appendLe32(b, 0);  // CRC (not checked)
    appendLe32(b, e.zip64 ? 0xFFFFFFFF : (sizesKnown ? size : 0));
    appendLe32(b, e.zip64 ? 0xFFFFFFFF : (sizesKnown ? size : 0));
    appendLe16(b, static_cast<std::uint16_t>(e.name.size()));
    appendLe16(b, e.zip64 ? 20 : 0);
    append(b, e.name);
    if (e.zip64) {
      appendLe16(b, 0x0001);
      appendLe16(b, 16);
      appendLe64(b, sizesKnown ? size : 0);
      appendLe64(b, sizesKnown ? size : 0);
    }
    out.dataAt.push_back(b.size());
    append(b, e.data);
    if (descriptor) {
      if (e.descriptor != Descriptor::withoutSignature) appendLe32(b, 0x08074B50);
      appendLe32(b, 0);
      if (e.zip64) {
        appendLe64(b, size);
        appendLe64(b, size);
      } else {
        appendLe32(b, size);
        appendLe32(b, size);
      }
    }
  }
  out.directoryAt = b.size();
  for (std::size_t i = 0; i < archive.entries.size(); ++i) {
    const Entry& e = archive.entries[i];
    appendLe32(b, 0x02014B50);
    appendLe16(b, 0x031E);
    appendLe16(b, 20);
    appendLe16(b, e.descriptor != Descriptor::none ? 0x08 : 0);
    appendLe16(b, e.method);
    appendLe32(b, 0);
    appendLe32(b, 0);
    appendLe32(b, static_cast<std::uint32_t>(e.data.size()));
    appendLe32(b, static_cast<std::uint32_t>(e.data.size()));
    appendLe16(b, static_cast<std::uint16_t>(e.name.size()));
    appendLe16(b, 0);
    appendLe16(b, 0);
    appendLe16(b, 0);
    appendLe16(b, 0);
    appendLe32(b, 0);
    appendLe32(b, static_cast<std::uint32_t>(localAt[i]));
    append(b, e.name);
  }
  const std::size_t directorySize = b.size() - out.directoryAt;
  const auto count = static_cast<std::uint16_t>(archive.entries.size());
  if (archive.zip64End) {
    const std::size_t recordAt = b.size();
    appendLe32(b, 0x06064B50);
    appendLe64(b, 44);
    appendLe16(b, 45);
    appendLe16(b, 45);
    appendLe32(b, 0);
    appendLe32(b, 0);
    appendLe64(b, count);
    appendLe64(b, count);
    appendLe64(b, directorySize);
    appendLe64(b, out.directoryAt);
    appendLe32(b, 0x07064B50);
    appendLe32(b, 0);
    appendLe64(b, recordAt);
    appendLe32(b, 1);
  }
  appendLe32(b, 0x06054B50);
  appendLe16(b, 0);
  appendLe16(b, 0);
  appendLe16(b, archive.zip64End ? 0xFFFF : count);
  appendLe16(b, archive.zip64End ? 0xFFFF : count);
  appendLe32(b, archive.zip64End ? 0xFFFFFFFF : static_cast<std::uint32_t>(directorySize));
  appendLe32(b, archive.zip64End ? 0xFFFFFFFF : static_cast<std::uint32_t>(out.directoryAt));
  appendLe16(b, static_cast<std::uint16_t>(archive.comment.size()));
  append(b, archive.comment);
  return out;
}

Entry file(std::string name, std::size_t size = 100) {
  return Entry{std::move(name), filler(size, 0x5A)};
}
Entry storedMimetype(std::string_view type) {
  return Entry{"mimetype", text(type), 0};
}

TEST(ZipCarver, ClassifiesByEntryNamesAndMimetype) {
  struct Case {
    std::vector<Entry> entries;
    std::string ext;
    FormatCategory category;
  };
  const auto docs = FormatCategory::documents;
  const auto archives = FormatCategory::archives;
  const std::vector<Case> cases = {
      {{file("a.txt"), file("b/c.txt")}, "zip", archives},
      {{file("[Content_Types].xml"), file("_rels/.rels"), file("word/document.xml")}, "docx", docs},
      {{file("[Content_Types].xml"), file("xl/workbook.xml")}, "xlsx", docs},
      {{file("[Content_Types].xml"), file("ppt/presentation.xml")}, "pptx", docs},
      {{storedMimetype("application/vnd.oasis.opendocument.text"), file("content.xml")},
       "odt",
       docs},
      {{storedMimetype("application/vnd.oasis.opendocument.spreadsheet"), file("content.xml")},
       "ods",
       docs},
      {{storedMimetype("application/vnd.oasis.opendocument.presentation"), file("content.xml")},
       "odp",
       docs},
      {{storedMimetype("application/epub+zip"), file("META-INF/container.xml")}, "epub", docs},
      {{file("META-INF/MANIFEST.MF"), file("org/example/Main.class")}, "jar", archives},
      {{file("AndroidManifest.xml"), file("classes.dex"), file("META-INF/MANIFEST.MF")},
       "apk",
       archives},
      // Word's folder without the content types part is just a folder.
      {{file("word/document.xml")}, "zip", archives},
      // A compressed "mimetype" cannot be read, so it says nothing.
      {{Entry{"mimetype", text("application/vnd.oasis.opendocument.text"), 8}}, "zip", archives},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ext + " from " + c.entries.back().name);
    Bytes bytes = build({c.entries}).bytes;
    const std::size_t length = bytes.size();
    append(bytes, filler(1000, 0x77));
    EXPECT_EQ(carveBytes(carver(), bytes), exactMatch(length, c.ext, c.category));
  }
}

TEST(ZipCarver, WalksEntriesWithDataDescriptors) {
  // Entry data that holds signatures with the wrong sizes must not end it.
  Bytes tricky = filler(300, 0x33);
  place(tricky, 40, text("PK\x03\x04"));
  place(tricky, 90, text("PK\x07\x08"));
  place(tricky, 120, text("PK\x01\x02"));
  struct Case {
    const char* name;
    Entry entry;
  };
  const std::vector<Case> cases = {
      {"descriptor with signature", Entry{"a.bin", tricky, 8, Descriptor::withSignature}},
      {"descriptor without signature", Entry{"a.bin", tricky, 8, Descriptor::withoutSignature}},
      {"sizes in the header too", Entry{"a.bin", tricky, 8, Descriptor::withSizesInHeader}},
      {"ZIP64 descriptor", Entry{"a.bin", tricky, 8, Descriptor::withSignature, true}},
      {"ZIP64 sizes without descriptor", Entry{"a.bin", tricky, 8, Descriptor::none, true}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = build({{c.entry, file("second.txt")}}).bytes;
    const std::size_t length = bytes.size();
    append(bytes, filler(600, 0));
    EXPECT_EQ(carveBytes(carver(), bytes), exactMatch(length, "zip", FormatCategory::archives));
  }
}

TEST(ZipCarver, EndsAfterZip64EndRecordAndComment) {
  Bytes bytes = build({{file("a.txt"), file("b.txt")}, "a longer comment", true}).bytes;
  const std::size_t length = bytes.size();
  append(bytes, filler(512, 0x10));
  EXPECT_EQ(carveBytes(carver(), bytes), exactMatch(length, "zip", FormatCategory::archives));
}

TEST(ZipCarver, TruncatedArchivesEndWhereTheSourceEnds) {
  const Built built = build({{file("a.txt", 400), file("b.txt", 400)}, "comment"});
  const std::size_t size = built.bytes.size();
  const std::vector<std::pair<const char*, std::size_t>> cuts = {
      {"in the second entry's data", built.dataAt[1] + 100},
      {"in the central directory", built.directoryAt + 20},
      {"in the end record's comment", size - 3},
  };
  for (const auto& [where, at] : cuts) {
    SCOPED_TRACE(where);
    EXPECT_EQ(carveBytes(carver(), cut(built.bytes, at)),
              heuristicMatch(at, "zip", FormatCategory::archives));
  }

  // The descriptor never comes: the data runs to the end of the source.
  const Built streamed =
      build({{file("a.txt"), Entry{"b.bin", filler(500, 1), 8, Descriptor::withSignature}}});
  const std::size_t at = streamed.dataAt[1] + 400;
  EXPECT_EQ(carveBytes(carver(), cut(streamed.bytes, at)),
            heuristicMatch(at, "zip", FormatCategory::archives));
}

TEST(ZipCarver, HostileHeaders) {
  const Built good = build({{file("a.txt"), file("b.txt")}});
  // A compressed size far past the end: the end record still bounds the
  // archive; without it the walk stops at the source's end.
  {
    Bytes bytes = good.bytes;
    putLe32(bytes, 18, 0xFFFFFFF0);
    EXPECT_EQ(carveBytes(carver(), bytes),
              exactMatch(bytes.size(), "zip", FormatCategory::archives));
    append(bytes, filler(100, 0));
    putLe32(bytes, good.bytes.size() - 22 - 14, 0);  // the end record's signature
    EXPECT_EQ(carveBytes(carver(), bytes),
              heuristicMatch(bytes.size(), "zip", FormatCategory::archives));
  }
  // No name, an unknown method or an unheard-of version is no local header.
  {
    Bytes bytes = good.bytes;
    bytes[26] = 0;
    EXPECT_EQ(carveBytes(carver(), bytes), std::nullopt);
    bytes = good.bytes;
    bytes[8] = 200;
    EXPECT_EQ(carveBytes(carver(), bytes), std::nullopt);
    bytes = good.bytes;
    bytes[5] = 0x30;  // version needed 12,308
    EXPECT_EQ(carveBytes(carver(), bytes), std::nullopt);
  }
  // Damage between the entries: the end record is still found and agrees
  // with the central directory it describes.
  {
    Bytes bytes = good.bytes;
    putLe32(bytes, good.dataAt[1] - 30 - 5, 0xDEADBEEF);  // second local header's signature
    const std::size_t length = bytes.size();
    append(bytes, filler(100, 0));
    EXPECT_EQ(carveBytes(carver(), bytes), exactMatch(length, "zip", FormatCategory::archives));
  }
  // An end record that does not agree is not trusted.
  {
    Bytes bytes = good.bytes;
    putLe32(bytes, good.dataAt[1] - 30 - 5, 0xDEADBEEF);
    putLe32(bytes, bytes.size() - 14 - 10, 7);  // central directory size
    const auto match = carveBytes(carver(), bytes);
    ASSERT_TRUE(match);
    EXPECT_EQ(match->confidence, CarveConfidence::heuristic);
  }
  // A ZIP64 end record claiming an enormous size is stepped over through
  // the locator; one whose directory fields disagree is not trusted.
  {
    const Bytes bytes = build({{file("a.txt")}, "", true}).bytes;
    const std::size_t record = bytes.size() - 22 - 20 - 56;
    Bytes huge = bytes;
    for (std::size_t i = 0; i < 8; ++i)
      huge[record + 4 + i] = 0xFF;
    EXPECT_EQ(carveBytes(carver(), huge),
              exactMatch(bytes.size(), "zip", FormatCategory::archives));
    huge[record + 48] ^= 1;  // directory offset
    const auto match = carveBytes(carver(), huge);
    ASSERT_TRUE(match);
    EXPECT_EQ(match->confidence, CarveConfidence::heuristic);
  }
  // Entries whose descriptors never agree: the search gives up at its budget
  // or the source's end, never reading past either.
  {
    Bytes bytes = build({{Entry{"a.bin", filler(3000, 0), 8, Descriptor::withSignature}}}).bytes;
    bytes.resize(bytes.size() - 60);
    for (std::size_t at = 100; at + 4 < bytes.size(); at += 16)
      place(bytes, at, text("PK\x07\x08"));
    const auto match = carveBytes(carver(), bytes);
    ASSERT_TRUE(match);
    EXPECT_EQ(match->confidence, CarveConfidence::heuristic);
    EXPECT_EQ(match->length, bytes.size());
  }
}

}  // namespace
}  // namespace vellum::testing

namespace vellum::testing {
namespace {

TEST(ZipCarver, InTheEngineAStoredArchiveIsSteppedOverWhole) {
  // A stored PNG whose data begins on a sector boundary.
  const std::string name = std::string(512 - 30 - 1, 'n') + "p";
  Bytes archive = build({{Entry{name, samplePng(200), 0}, file("[Content_Types].xml"),
                          file("word/document.xml")}})
                      .bytes;
  ASSERT_EQ(archive[512], 0x89);
  Bytes image = archive;
  padToSector(image);
  const std::size_t nextAt = image.size();
  append(image, build({{file("a.txt")}}).bytes);
  const std::size_t nextLength = image.size() - nextAt;
  image.resize(image.size() + 1024, 0);
  EXPECT_EQ(carveImage(image),
            (std::vector<Found>{{0, archive.size(), "docx", CarveConfidence::exact},
                                {nextAt, nextLength, "zip", CarveConfidence::exact}}));
}

}  // namespace
}  // namespace vellum::testing
