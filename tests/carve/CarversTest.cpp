#include <gtest/gtest.h>

#include "CarveSamples.h"
#include "CarverTesting.h"
#include "carve/CarverRegistry.h"
#include "carve/formats/Carvers.h"

namespace vellum::testing {
namespace {

constexpr auto photos = FormatCategory::photos;
constexpr auto raw = FormatCategory::rawPhotos;
constexpr auto video = FormatCategory::video;
constexpr auto audio = FormatCategory::audio;
constexpr auto docs = FormatCategory::documents;
constexpr auto archives = FormatCategory::archives;

CarveMatch sure(std::uint64_t length, std::string ext, FormatCategory category) {
  return exactMatch(length, std::move(ext), category);
}
CarveMatch doubt(std::uint64_t length, std::string ext, FormatCategory category) {
  return heuristicMatch(length, std::move(ext), category);
}

struct Case {
  const FormatCarver* carver;
  Bytes bytes;
  std::optional<CarveMatch> want;
  std::uint64_t start = 0;
};

void check(const std::vector<Case>& cases) {
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(::testing::Message() << "case " << i << " (" << c.carver->id() << ")");
    MemorySource source(c.bytes);
    ReadContext context(source);
    const auto got = c.carver->carve(c.start, context);
    if (!c.want || c.want->length != 0) {
      EXPECT_EQ(got, c.want);
      continue;
    }
    // Length 0: a doubtful find of any length within the source.
    ASSERT_TRUE(got);
    EXPECT_EQ(got->confidence, CarveConfidence::heuristic);
    EXPECT_EQ(got->ext, c.want->ext);
    EXPECT_LE(got->length, c.bytes.size());
  }
}

Bytes edited(Bytes bytes, std::size_t at, std::initializer_list<std::uint8_t> values) {
  for (std::uint8_t v : values)
    bytes[at++] = v;
  return bytes;
}
Bytes le32At(Bytes bytes, std::size_t at, std::uint32_t value) {
  putLe32(bytes, at, value);
  return bytes;
}

// The fuzzers' seed files, one whole file of each format: each is found
// whole whatever follows it, and a cut one is never taken for a complete
// file that ends before the cut.
TEST(Carvers, SeedFilesWholeAndCut) {
  const auto& carvers = CarverRegistry::all();
  int seeds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(VELLUM_CARVER_SEEDS)) {
    const Bytes seed = readBytes(entry.path());
    const FormatCarver& carver = *carvers[seed[0] % carvers.size()];
    const Bytes file(seed.begin() + 1, seed.end());
    SCOPED_TRACE(entry.path().filename().string());
    ++seeds;
    for (const std::uint8_t tail : {std::uint8_t{0x00}, std::uint8_t{0xFF}}) {
      const auto whole = carveBytes(carver, withTail(file, 4096, tail));
      ASSERT_TRUE(whole);
      // An OLE2 file's length comes from its allocation table, which
      // addresses more than the seed holds.
      EXPECT_EQ(whole->length, carver.id() == "ole2" ? 4624 : file.size());
    }
    for (std::size_t at = 1; at < file.size(); ++at) {
      const auto match = carveBytes(carver, cut(file, at));
      EXPECT_FALSE(match && match->confidence == CarveConfidence::exact && match->length < at)
          << "cut at " << at;
    }
  }
  EXPECT_EQ(seeds, 12);
}

// The name and category of a find follow what is inside the file.
TEST(Carvers, KindsOfFileWithinAFormat) {
  std::vector<Case> cases;
  const auto add = [&](const FormatCarver& carver, Bytes bytes, CarveMatch want) {
    cases.push_back({&carver, withTail(std::move(bytes), 100, 0x33), want});
  };
  for (const auto& [brand, ext, category] :
       std::vector<std::tuple<std::string, std::string, FormatCategory>>{{"M4B ", "m4a", audio},
                                                                         {"crx ", "cr3", raw}}) {
    const Bytes file = sampleIsoBmff(brand, {{"moov", 40}, {"mdat", 100}});
    add(isoBmffCarver(), file, sure(file.size(), ext, category));
  }
  const std::vector<std::tuple<std::string, std::vector<TiffField>, std::string>> cameras = {
      {"DNG", {TiffField::of(4, 50706, {0x01040000})}, "dng"},
      {"CR2 marker", {TiffField{271, 2, {}, "Canon"}}, "cr2"}};
  for (const auto& [name, extra, ext] : cameras) {
    TiffBuilder tiff(false);
    if (ext == "cr2") append(tiff.out, {'C', 'R', 2, 0, 0, 0, 0, 0});
    std::vector<TiffField> fields = tiffImageFields({tiff.data(filler(64, 7))}, {64});
    for (const TiffField& f : extra) {
      std::erase_if(fields, [&](const TiffField& g) { return g.tag == f.tag; });
      fields.push_back(f);
    }
    tiff.setFirstIfd(tiff.ifd(fields));
    add(tiffCarver(), tiff.out, sure(tiff.out.size(), ext, raw));
  }
  const std::vector<std::tuple<std::vector<ZipEntry>, std::string, FormatCategory>> zips = {
      {{{"[Content_Types].xml"}, {"_rels/.rels"}, {"word/document.xml"}}, "docx", docs},
      {{{"mimetype", text("application/epub+zip"), 0}, {"META-INF/container.xml"}}, "epub", docs},
      {{{"word/document.xml"}}, "zip", archives}};  // no content types part
  for (const auto& [entries, ext, category] : zips) {
    const Bytes zip = sampleZip(entries).bytes;
    add(zipCarver(), zip, sure(zip.size(), ext, category));
  }
  Bytes both = utf16("Workbook");
  append(both, filler(50));
  append(both, utf16("WordDocument"));
  for (const auto& [body, ext] : std::vector<std::pair<Bytes, std::string>>{
           {utf16("Workbook"), "xls"}, {both, "doc"}}) {  // the first known name decides
    const Bytes file = sampleOle2(9, 1000, body);
    add(ole2Carver(), withTail(file, 9'000'000 - 100 - file.size()), doubt(9'000'000, ext, docs));
  }
  check(cases);
}

// Where a file without its end is taken to stop.
TEST(Carvers, FilesWithoutTheirEnd) {
  std::vector<Case> cases;
  const auto add = [&](const FormatCarver& carver, Bytes bytes, std::optional<CarveMatch> want) {
    cases.push_back({&carver, std::move(bytes), want});
  };
  const Bytes open = sampleJpeg(300, false, false);
  Bytes next = open;
  append(next, sampleJpeg(100));
  // A JPEG without its end runs to the next one's start, or at most 16 MiB.
  add(jpegCarver(), next, doubt(open.size(), "jpg", photos));
  add(jpegCarver(), withTail(open, 17'000'000), doubt(16'777'216, "jpg", photos));

  Bytes mdat = sampleIsoBmff("isom", {{"moov", 30}});  // mdat claims 1 MB, 500 bytes are there
  be(mdat, 4, {1'000'000});
  append(mdat, "mdat");
  mdat.resize(mdat.size() + 500, 0x55);
  add(isoBmffCarver(), mdat, doubt(mdat.size(), "mp4", video));
  Bytes overlapping = mdat;  // ... and another begins inside it
  place(overlapping, mdat.size() - 200, sampleIsoBmff("qt  ", {{"moov", 30}, {"mdat", 40}}));
  add(isoBmffCarver(), overlapping, doubt(mdat.size() - 200, "mp4", video));

  // A revised PDF cut in its update is its first revision; one cut short
  // must not take the next PDF's end marker.
  Bytes revised = pdfBody();
  append(revised, "%%EOF\n");
  const std::size_t firstEnd = revised.size();
  append(revised, pdfUpdate(3000));
  add(pdfCarver(), revised, sure(firstEnd, "pdf", docs));
  Bytes shortPdf = pdfBody();
  padToSector(shortPdf);
  const std::size_t nextAt = shortPdf.size();
  Bytes whole = pdfBody("1.5");
  append(whole, "%%EOF\n");
  append(shortPdf, withTail(whole, 1000));
  add(pdfCarver(), shortPdf, std::nullopt);
  cases.push_back({&pdfCarver(), shortPdf, sure(whole.size(), "pdf", docs), nextAt});

  // A ZIP cut in its directory: everything up to the cut.
  const ZipArchive zip = sampleZip({{"a.txt", filler(400, 1)}, {"b.txt", filler(400, 2)}});
  add(zipCarver(), cut(zip.bytes, zip.directoryAt + 20),
      doubt(zip.directoryAt + 20, "zip", archives));
  check(cases);
}

TEST(Carvers, HostileFiles) {
  std::vector<Case> cases;
  const auto add = [&](const FormatCarver& carver, Bytes bytes,
                       std::optional<CarveMatch> want = std::nullopt) {
    cases.push_back({&carver, std::move(bytes), want});
  };
  // Crashes and runaway reads are the fuzzers' to find; here, inputs that
  // look like files but must not be taken for one, and walks that must end.
  // JPEG: an end marker in the header (FFDB at 20).
  add(jpegCarver(), edited(sampleJpeg(), 21, {0xD9}));
  const Bytes gif = sampleGif();
  // GIF: a sub-block chain that never ends.
  Bytes endless = cut(gif, 19);
  append(endless, {0x21, 0xFE});
  for (int i = 0; i < 1000; ++i)
    append(endless, {1, 0x41});
  add(gifCarver(), endless);
  Bytes onlyOpen = sampleIsoBmff("isom", {{"free", 8}});
  append(onlyOpen, {0, 0, 0, 0, 'm', 'd', 'a', 't'});
  // The only content box runs to the end (size 0): no file.
  add(isoBmffCarver(), withTail(onlyOpen, 100));

  const auto doubtful = [](std::uint64_t length) { return doubt(length, "tif", photos); };
  {  // a chain that loops back to IFD0
    TiffBuilder tiff(false);
    const auto ifd0 = tiff.ifd(tiffImageFields({tiff.data(filler(100, 1))}, {100}));
    tiff.patch(ifd0 + 2 + 12 * 8, tiff.ifd({TiffField::of(3, 256, {1})}, ifd0));
    tiff.setFirstIfd(ifd0);
    add(tiffCarver(), tiff.out, doubtful(tiff.out.size()));
  }
  {  // 1,000 chained IFDs (the walk's bound)
    TiffBuilder tiff(false);
    const auto s1 = tiff.data(filler(16, 1));
    std::uint32_t next = 0;
    for (int i = 0; i < 1000; ++i)
      next = tiff.ifd({TiffField::of(3, 256, {1})}, next);
    tiff.setFirstIfd(tiff.ifd(tiffImageFields({s1}, {16}), next));
    add(tiffCarver(), tiff.out, doubtful(0));
  }

  const ZipArchive zip = sampleZip({{"a.txt"}, {"b.txt"}});
  const auto zipOf = [](std::uint64_t length, bool sure) {
    return CarveMatch{length, "zip", archives,
                      sure ? CarveConfidence::exact : CarveConfidence::heuristic};
  };
  // A size far past the end: the end record still bounds the archive;
  // without it the walk stops at the source's end.
  const Bytes farSize = le32At(zip.bytes, 18, 0xFFFFFFF0);
  add(zipCarver(), farSize, zipOf(farSize.size(), true));
  Bytes noEnd = le32At(withTail(farSize, 100), zip.bytes.size() - 22 - 4, 0);
  add(zipCarver(), noEnd, zipOf(noEnd.size(), false));
  // Damage between entries: the end record is found and agrees with its directory.
  const Bytes between = le32At(zip.bytes, zip.dataAt[1] - 35, 0xDEADBEEF);
  add(zipCarver(), withTail(between, 100), zipOf(between.size(), true));
  add(zipCarver(), le32At(between, between.size() - 4 - 10, 7), zipOf(0, false));
  // A ZIP64 end record claiming an enormous size is stepped over through the locator.
  const Bytes zip64 = sampleZip({{"a.txt"}}, "", true).bytes;
  const std::size_t record = zip64.size() - 22 - 20 - 56;
  add(zipCarver(), edited(zip64, record + 4, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
      zipOf(zip64.size(), true));
  // Descriptors that never agree: the search gives up at the source's end.
  Bytes descriptors = sampleZip({{"a.bin", filler(3000), 8, true}}).bytes;
  descriptors.resize(descriptors.size() - 60);
  for (std::size_t at = 100; at + 4 < descriptors.size(); at += 16)
    place(descriptors, at, text("PK\x07\x08"));
  add(zipCarver(), descriptors, zipOf(descriptors.size(), false));
  check(cases);
}

}  // namespace
}  // namespace vellum::testing
