#include <gtest/gtest.h>

#include "CarveSamples.h"
#include "CarverTesting.h"
#include "carve/CarverRegistry.h"
#include "carve/formats/Carvers.h"
#include "carve/formats/IsoBmff.h"
#include "carve/formats/Mp3Carver.h"

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

TEST(Carvers, GoodFiles) {
  std::vector<Case> cases;
  const auto add = [&](const FormatCarver& carver, Bytes bytes, CarveMatch want,
                       std::size_t tail = 0) {
    cases.push_back({&carver, withTail(std::move(bytes), tail), want});
  };
  const Bytes png = samplePng();
  add(pngCarver(), png, sure(png.size(), "png", photos), 1000);
  const Bytes jpeg = sampleJpeg(300, true);  // ends at its own end, not the thumbnail's
  add(jpegCarver(), jpeg, sure(jpeg.size(), "jpg", photos), 500);
  const Bytes gif = sampleGif();
  add(gifCarver(), gif, sure(gif.size(), "gif", photos), 100);
  const Bytes bmp = sampleBmp(4, 4);
  add(bmpCarver(), le32At(bmp, 14, 124), sure(bmp.size(), "bmp", photos), 10);

  const std::vector<std::tuple<std::string, std::string, FormatCategory>> brands = {
      {"M4B ", "m4a", audio}, {"crx ", "cr3", raw}, {"    ", "mp4", video}};
  for (const auto& [brand, ext, category] : brands) {
    const Bytes file = sampleIsoBmff(brand, {{"free", 8}, {"moov", 40}, {"mdat", 100}});
    add(isoBmffCarver(), file, sure(file.size(), ext, category), 100);
  }
  Bytes large = sampleIsoBmff("isom", {{"moov", 10}});
  be(large, 4, {1});
  append(large, "mdat");
  be(large, 8, {16 + 200});
  large.resize(large.size() + 200, 0x44);
  add(isoBmffCarver(), large, sure(large.size(), "mp4", video));

  Bytes wav = sampleRiff("RIFF", "WAVE", 32);
  add(riffCarver(), wav, sure(44, "wav", audio), 60);
  add(riffCarver(), le32At(wav, 4, 37), sure(46, "wav", audio), 60);
  add(riffCarver(), sampleRiff("FORM", "AIFC", 100), sure(112, "aiff", audio));

  for (const bool big : {false, true}) {
    for (const Bytes& tiff : {stripTiff(big).out, ifdFirstTiff(big).out})
      add(tiffCarver(), tiff, sure(tiff.size(), "tif", photos), 1000);
    // Strips of 300 and 201 bytes: data ends at an odd offset, and a writer
    // that pads adds one zero byte. No pad byte is invented otherwise.
    const Bytes odd = ifdFirstTiff(big, 201).out;
    ASSERT_EQ(odd.size() % 2, 1U);
    Bytes padded = withTail(odd, 1);
    append(padded, filler(100, 0x33));
    add(tiffCarver(), padded, sure(odd.size() + 1, "tif", photos));
    add(tiffCarver(), withTail(odd, 100, 0x33), sure(odd.size(), "tif", photos));
    add(tiffCarver(), odd, sure(odd.size(), "tif", photos));
  }

  const std::vector<std::tuple<std::string, std::vector<TiffField>, std::string>> cameras = {
      {"DNG", {TiffField::of(4, 50706, {0x01040000})}, "dng"},
      {"camera, ordinary image", {TiffField{271, 2, {}, "SONY"}}, "tif"},
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
    add(tiffCarver(), tiff.out, sure(tiff.out.size(), ext, ext == "tif" ? photos : raw));
  }

  for (const std::string_view lineEnd : {"\r\n", ""}) {
    Bytes pdf = pdfBody();
    append(pdf, "%%EOF");
    append(pdf, lineEnd);
    add(pdfCarver(), pdf, sure(pdf.size(), "pdf", docs), 3000);
  }

  const auto mime = [](std::string_view type) { return ZipEntry{"mimetype", text(type), 0}; };
  const std::vector<std::tuple<std::vector<ZipEntry>, std::string, FormatCategory>> zips = {
      {{{"a.txt"}, {"b/c.txt"}}, "zip", archives},
      {{{"[Content_Types].xml"}, {"_rels/.rels"}, {"word/document.xml"}}, "docx", docs},
      {{mime("application/epub+zip"), {"META-INF/container.xml"}}, "epub", docs},
      {{{"word/document.xml"}}, "zip", archives},                           // no content types part
      {{{"mimetype", text("application/epub+zip"), 8}}, "zip", archives}};  // compressed
  for (const auto& [entries, ext, category] : zips) {
    const Bytes zip = sampleZip(entries).bytes;
    add(zipCarver(), zip, sure(zip.size(), ext, category), 1000);
  }
  // Signatures inside entry data must not end an entry found by its descriptor.
  Bytes tricky = filler(300, 0x33);
  place(tricky, 40, text("PK\x03\x04"));
  place(tricky, 90, text("PK\x07\x08"));
  place(tricky, 120, text("PK\x01\x02"));
  using D = ZipDescriptor;
  for (const auto& [descriptor, zip64] : std::vector<std::pair<D, bool>>{
           {D::withoutSignature, false}, {D::withSizesInHeader, false}, {D::withSignature, true}}) {
    const Bytes zip = sampleZip({{"a.bin", tricky, 8, descriptor, zip64}, {"b.txt"}}).bytes;
    add(zipCarver(), zip, sure(zip.size(), "zip", archives), 600);
  }
  const Bytes zip64End = sampleZip({{"a.txt"}, {"b.txt"}}, "a longer comment", true).bytes;
  add(zipCarver(), zip64End, sure(zip64End.size(), "zip", archives), 512);

  Bytes both = utf16("Workbook");
  append(both, filler(50));
  append(both, utf16("WordDocument"));
  const std::vector<std::pair<Bytes, std::string>> streams = {
      {utf16("WordDocument"), "doc"},
      {utf16("Workbook"), "xls"},
      {both, "doc"},                                        // the first known name decides
      {withTail(filler(8'388'608 - 512 - 10), 0), "ole"}};  // name past the 8 MiB looked at
  for (const auto& [body, ext] : streams) {
    Bytes file = sampleOle2(9, 1000, body);
    if (body.size() > 1000) append(file, utf16("WordDocument"));
    add(ole2Carver(), withTail(file, 9'000'000 - file.size()),
        doubt(9'000'000, ext, docs));  // the table addresses more
  }
  add(ole2Carver(), sampleOle2(9, 1), doubt(66'048, "ole", docs), 100'000);

  const Bytes mp3 = sampleMp3(4);
  add(mp3Carver(), mp3, doubt(mp3.size(), "mp3", audio), 1000);
  Bytes tagged = sampleMp3(6);
  append(tagged, withTail(text("TAG"), 125, ' '));
  add(mp3Carver(), tagged, doubt(tagged.size(), "mp3", audio), 500);
  Bytes freeFormat = sampleMp3(5);
  append(freeFormat, withTail(Bytes{0xFF, 0xFB, 0x00, 0x00}, 496, 0x55));
  append(freeFormat, withTail(Bytes{0xFF, 0xFB, 0x90, 0x00}, 413, 0x55));
  add(mp3Carver(), freeFormat, doubt(mp3.size() + 417, "mp3", audio));
  check(cases);
}

TEST(Carvers, TruncatedFiles) {
  std::vector<Case> cases;
  const auto add = [&](const FormatCarver& carver, Bytes bytes, std::optional<CarveMatch> want) {
    cases.push_back({&carver, std::move(bytes), want});
  };
  const Bytes png = samplePng();
  for (std::size_t at : {std::size_t{20}, png.size() - 5})
    add(pngCarver(), cut(png, at), std::nullopt);
  // Cut inside IEND's CRC: the stated end (the engine clamps it).
  add(pngCarver(), cut(png, png.size() - 1), sure(png.size(), "png", photos));
  const Bytes open = sampleJpeg(300, false, false);
  Bytes next = open;
  append(next, sampleJpeg(100));
  // A JPEG without its end runs to the next one's start, or at most 16 MiB.
  add(jpegCarver(), next, doubt(open.size(), "jpg", photos));
  add(jpegCarver(), withTail(open, 17'000'000), doubt(16'777'216, "jpg", photos));
  const Bytes gif = sampleGif();
  for (std::size_t at = 6; at < gif.size(); ++at)
    add(gifCarver(), cut(gif, at), std::nullopt);
  // A BMP whose stated size is past the source.
  add(bmpCarver(), le32At(sampleBmp(4, 4), 2, 103), std::nullopt);

  Bytes mdat = sampleIsoBmff("isom", {{"moov", 30}});  // mdat claims 1 MB, 500 bytes are there
  be(mdat, 4, {1'000'000});
  append(mdat, "mdat");
  mdat.resize(mdat.size() + 500, 0x55);
  add(isoBmffCarver(), mdat, doubt(mdat.size(), "mp4", video));
  const Bytes second = sampleIsoBmff("qt  ", {{"moov", 30}, {"mdat", 40}});
  Bytes overlapping = mdat;  // ... and another begins inside it
  place(overlapping, mdat.size() - 200, second);
  add(isoBmffCarver(), overlapping, doubt(mdat.size() - 200, "mp4", video));
  add(riffCarver(), cut(sampleRiff("RIFF", "WAVE", 32), 20), doubt(20, "wav", audio));

  // IFD0 (508..610) and its tables (610..626) lie at the end: without IFD0
  // whole nothing is known; with it, the walk keeps what it could read.
  const Bytes tiff = stripTiff(false).out;
  add(tiffCarver(), cut(tiff, 600), std::nullopt);
  add(tiffCarver(), cut(tiff, 616), doubt(610, "tif", photos));
  const std::size_t stripsAt = 8 + 2 + 12 * 8 + 4 + 16;
  add(tiffCarver(), cut(ifdFirstTiff(false).out, stripsAt + 350),
      doubt(stripsAt + 300, "tif", photos));

  // No end marker; cut in an update (the first revision is whole).
  add(pdfCarver(), pdfBody(), std::nullopt);
  Bytes revised = pdfBody();
  append(revised, "%%EOF\n");
  const std::size_t firstEnd = revised.size();
  append(revised, pdfUpdate(3000));
  add(pdfCarver(), revised, sure(firstEnd, "pdf", docs));
  // A PDF cut short must not take the next PDF's end marker.
  Bytes shortPdf = pdfBody();
  padToSector(shortPdf);
  const std::size_t nextAt = shortPdf.size();
  Bytes whole = pdfBody("1.5");
  append(whole, "%%EOF\n");
  append(shortPdf, withTail(whole, 1000));
  add(pdfCarver(), shortPdf, std::nullopt);
  cases.push_back({&pdfCarver(), shortPdf, sure(whole.size(), "pdf", docs), nextAt});

  // Cut in entry data, in the directory, in the comment; a descriptor that never comes.
  const ZipArchive zip = sampleZip({{"a.txt", filler(400, 1)}, {"b.txt", filler(400, 2)}});
  for (std::size_t at : {zip.dataAt[1] + 100, zip.directoryAt + 20, zip.bytes.size() - 3})
    add(zipCarver(), cut(zip.bytes, at), doubt(at, "zip", archives));
  const ZipArchive streamed =
      sampleZip({{"a.txt"}, {"b.bin", filler(500, 1), 8, ZipDescriptor::withSignature}});
  add(zipCarver(), cut(streamed.bytes, streamed.dataAt[1] + 400),
      doubt(streamed.dataAt[1] + 400, "zip", archives));

  // OLE2 cut by the source's end; 3 MP3 frames are too few; a frame cut short.
  add(ole2Carver(), withTail(sampleOle2(9, 1), 30'000 - 512), doubt(30'000, "ole", docs));
  add(mp3Carver(), sampleMp3(3), std::nullopt);
  add(mp3Carver(), cut(sampleMp3(8), 310 + 6 * 417 + 100), doubt(310 + 6 * 417, "mp3", audio));
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
  // PNG: a chunk claiming 2 GiB.
  add(pngCarver(), edited(withTail(samplePng(), 100), 33, {0x7F, 0xFF, 0xFF, 0xF0}));
  // JPEG: an end marker in the header (FFDB at 20).
  add(jpegCarver(), edited(sampleJpeg(), 21, {0xD9}));
  const Bytes gif = sampleGif();
  // GIF: a sub-block chain that never ends.
  Bytes endless = cut(gif, 19);
  append(endless, {0x21, 0xFE});
  for (int i = 0; i < 1000; ++i)
    append(endless, {1, 0x41});
  add(gifCarver(), endless);
  // BMP: file size over 256 MiB.
  add(bmpCarver(), le32At(sampleBmp(4, 4), 2, 268'435'457));
  Bytes onlyOpen = sampleIsoBmff("isom", {{"free", 8}});
  append(onlyOpen, {0, 0, 0, 0, 'm', 'd', 'a', 't'});
  // The only content box runs to the end (size 0): no file.
  add(isoBmffCarver(), withTail(onlyOpen, 100));
  // RIFF: a form type of the other container.
  add(riffCarver(), sampleRiff("RIFF", "AIFF", 20));

  const auto doubtful = [](std::uint64_t length) { return doubt(length, "tif", photos); };
  {  // a chain that loops back to IFD0
    TiffBuilder tiff(false);
    const auto ifd0 = tiff.ifd(tiffImageFields({tiff.data(filler(100, 1))}, {100}));
    tiff.patch(ifd0 + 2 + 12 * 8, tiff.ifd({TiffField::of(3, 256, {1})}, ifd0));
    tiff.setFirstIfd(ifd0);
    add(tiffCarver(), tiff.out, doubtful(tiff.out.size()));
  }
  {  // an IFD that is its own SubIFD
    TiffBuilder tiff(true);
    std::vector<TiffField> fields = tiffImageFields({tiff.data(filler(100, 1))}, {100});
    fields.push_back(TiffField::of(4, 330, {0}));
    const auto ifd0 = tiff.ifd(fields);
    tiff.setFirstIfd(ifd0);
    tiff.patch(ifd0 + 2 + 12 * 8 + 8, ifd0);
    add(tiffCarver(), tiff.out, sure(tiff.out.size(), "tif", photos));
  }
  // 65,535 entries in IFD0; 1,000 chained IFDs (the walk's bound); BigTIFF.
  TiffBuilder hugeCount = stripTiff(false);
  hugeCount.patch(508, 0xFFFF, 2);
  add(tiffCarver(), hugeCount.out);
  {
    TiffBuilder tiff(false);
    const auto s1 = tiff.data(filler(16, 1));
    std::uint32_t next = 0;
    for (int i = 0; i < 1000; ++i)
      next = tiff.ifd({TiffField::of(3, 256, {1})}, next);
    tiff.setFirstIfd(tiff.ifd(tiffImageFields({s1}, {16}), next));
    add(tiffCarver(), tiff.out, doubtful(0));
  }
  add(tiffCarver(), edited(stripTiff(false).out, 2, {43}));

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
  // A ZIP64 end record claiming an enormous size is stepped over through the
  // locator; one whose directory offset disagrees is not trusted.
  const Bytes zip64 = sampleZip({{"a.txt"}}, "", true).bytes;
  const std::size_t record = zip64.size() - 22 - 20 - 56;
  const Bytes hugeRecord =
      edited(zip64, record + 4, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  add(zipCarver(), hugeRecord, zipOf(zip64.size(), true));
  add(zipCarver(),
      edited(hugeRecord, record + 48, {static_cast<std::uint8_t>(hugeRecord[record + 48] ^ 1)}),
      zipOf(0, false));
  // Descriptors that never agree: the search gives up at the source's end.
  Bytes descriptors = sampleZip({{"a.bin", filler(3000), 8, ZipDescriptor::withSignature}}).bytes;
  descriptors.resize(descriptors.size() - 60);
  for (std::size_t at = 100; at + 4 < descriptors.size(); at += 16)
    place(descriptors, at, text("PK\x07\x08"));
  add(zipCarver(), descriptors, zipOf(descriptors.size(), false));

  // OLE2: too many table sectors; MP3: a tag past the source's end.
  add(ole2Carver(), withTail(sampleOle2(9, 65'537), 100'000));
  add(mp3Carver(), edited(sampleMp3(6), 6, {0x7F}));
  check(cases);
}

TEST(Carvers, PdfKeepsUpdatesUpToTheNextFileWithinReach) {
  Bytes pdf = pdfBody();
  append(pdf, "%%EOF\n");
  append(pdf, pdfUpdate(3000));
  place(pdf, 1100, text("PK\x03\x04"));  // off the sector grid: content
  append(pdf, "%%EOF\r\n");
  Bytes jpeg = sampleJpeg(200);
  place(jpeg, 100, text("%%EOF"));
  Bytes other = pdfBody("1.4");
  append(other, "%%EOF\n");
  Bytes zip = withTail(text("PK\x03\x04"), 40, 1);
  append(zip, "%%EOF");
  for (const Bytes& next : {jpeg, other, zip}) {
    Bytes image = pdf;
    padToSector(image);
    append(image, withTail(next, 2000));
    EXPECT_EQ(carveBytes(pdfCarver(), image), sure(pdf.size(), "pdf", docs));
  }
  // A marker 2 MiB after the last is another file's; updates within reach are kept.
  Bytes far = pdfBody();
  append(far, "%%EOF\n");
  const std::size_t length = far.size();
  append(far, filler(2 * 1024 * 1024));
  append(far, "trailer\n<< >>\n%%EOF\n");
  EXPECT_EQ(carveBytes(pdfCarver(), far), sure(length, "pdf", docs));
  Bytes chained = pdfBody();
  for (int i = 0; i < 4; ++i) {
    append(chained, "%%EOF\n");
    append(chained, pdfUpdate(700'000));
  }
  append(chained, "%%EOF\n");
  EXPECT_EQ(carveBytes(pdfCarver(), chained), sure(chained.size(), "pdf", docs));
  // A JPEG stream on a sector boundary inside a PDF is part of it.
  Bytes withImage = pdfBody();
  padToSector(withImage);
  append(withImage, sampleJpeg(2000));
  append(withImage, "\nendstream\nendobj\n%%EOF\n");
  EXPECT_EQ(carveBytes(pdfCarver(), withImage), sure(withImage.size(), "pdf", docs));
}

TEST(Carvers, SearchesAreBoundedInLargeSources) {
  constexpr std::uint64_t bound = 268'435'456;
  // The PDF end marker is looked for within 256 MiB (it may end past it).
  for (const auto& [markerAt, want] :
       std::vector<std::pair<std::uint64_t, std::optional<CarveMatch>>>{
           {bound - 100, sure(bound - 95, "pdf", docs)},
           {bound - 3, sure(bound + 2, "pdf", docs)},
           {bound + 10, std::nullopt}}) {
    SparseSource source(bound + 4096, {{0, pdfBody()}, {markerAt, text("%%EOF")}});
    ReadContext context(source);
    EXPECT_EQ(pdfCarver().carve(0, context), want) << markerAt;
  }
  // 4096-byte sectors and 65,536 table sectors could address 256 GiB.
  const Bytes header = sampleOle2(12, 65'536, filler(1000));
  SparseSource ole(300'000'000, {{1000, header}, {300'000'000 - 1000, cut(header, 1000)}});
  ReadContext context(ole);
  EXPECT_EQ(ole2Carver().carve(1000, context), doubt(bound, "ole", docs));
  EXPECT_EQ(ole2Carver().carve(300'000'000 - 1000, context), doubt(1000, "ole", docs));

  // A fragmented video of 300 moof/mdat pairs with another file's start in
  // the last mdat: each stretch is searched once.
  Bytes file = sampleIsoBmff("isom", {{"moov", 100}});
  for (int i = 0; i < 300; ++i) {
    appendBox(file, "moof", Bytes(100, 0x01));
    appendBox(file, "mdat", Bytes(16'384, 0x02));
  }
  const Bytes clean = file;
  place(file, file.size() - 1000, sampleIsoBmff("isom", {{"moov", 10}, {"mdat", 10}}));
  ScriptedSource source(file);
  std::uint64_t bytesRead = 0;
  source.beforeRead = [&](std::uint64_t, std::size_t count) { bytesRead += count; };
  ReadContext fragmented(source);
  EXPECT_EQ(isoBmffCarver().carve(0, fragmented), doubt(file.size() - 1000, "mp4", video));
  EXPECT_LT(bytesRead, 2 * file.size());
  EXPECT_EQ(carveBytes(isoBmffCarver(), clean), sure(clean.size(), "mp4", video));
}

TEST(Carvers, TiffFollowsSubIfdsTilesAndThumbnails) {
  // IFD0 (one strip) -> IFD1 (thumbnail); IFD0's SubIFD has tiles written last.
  TiffBuilder tiff(true);
  const auto strip = tiff.data(filler(100, 1));
  const auto thumb = tiff.data(filler(50, 2));
  const auto sub = tiff.ifd({TiffField::of(3, 256, {32}), TiffField::of(4, 324, {0, 0}),
                             TiffField::of(4, 325, {256, 400})});
  const auto ifd1 = tiff.ifd({TiffField::of(4, 513, {thumb}), TiffField::of(4, 514, {50})});
  std::vector<TiffField> fields = tiffImageFields({strip}, {100});
  fields.push_back(TiffField::of(4, 330, {sub}));
  const auto ifd0 = tiff.ifd(fields, ifd1);
  tiff.setFirstIfd(ifd0);
  tiff.patch(sub + 2 + 12 * 3 + 4, tiff.data(filler(256, 3)));
  tiff.patch(sub + 2 + 12 * 3 + 8, tiff.data(filler(400, 4)));
  EXPECT_EQ(carveBytes(tiffCarver(), withTail(tiff.out, 700, 5)),
            sure(tiff.out.size(), "tif", photos));
  tiff.patch(ifd0 + 2 + 12 * 8 + 8, 0);  // without the SubIFD the tiles are unknown
  const auto match = carveBytes(tiffCarver(), tiff.out);
  ASSERT_TRUE(match);
  EXPECT_LT(match->length, tiff.out.size());
}

TEST(Carvers, Mp3FrameLengths) {
  const std::vector<std::pair<Bytes, std::optional<std::uint64_t>>> cases = {
      {{0xFF, 0xFB, 0x92}, 418},          {{0xFF, 0xFD, 0xE8}, 1728},  // padded; L2 384k 32k
      {{0xFF, 0xFF, 0xE0}, 484},          {{0xFF, 0xE3, 0x18}, 72},    // L1 448k 44.1k, MPEG-2.5 L3
      {{0xFF, 0xFB, 0x00}, std::nullopt}, {{0xFF, 0xFB, 0xF0}, std::nullopt},  // free, bad rate
      {{0xFF, 0xFB, 0x9C}, std::nullopt}, {{0xFF, 0xEB, 0x90}, std::nullopt},
      {{0xFF, 0xFB}, std::nullopt}};
  for (const auto& [header, length] : cases)
    EXPECT_EQ(mp3FrameLength(header), length) << int{header[1]} << " " << int{header.back()};
}

}  // namespace
}  // namespace vellum::testing
