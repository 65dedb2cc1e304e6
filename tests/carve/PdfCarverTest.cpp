#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

#include "CarveSamples.h"
#include "CarverTesting.h"
#include "carve/formats/Carvers.h"

namespace vellum::testing {
namespace {

const FormatCarver& carver() {
  return pdfCarver();
}

Bytes text(std::string_view s) {
  return Bytes(s.begin(), s.end());
}

// A small PDF body up to, not including, its end marker.
Bytes pdfBody(std::string_view version = "1.7") {
  Bytes pdf = text("%PDF-");
  append(pdf, version);
  append(pdf,
         "\n%\xE2\xE3\xCF\xD3\n1 0 obj\n<< /Type /Catalog /Pages 2 0 R >>\nendobj\n"
         "2 0 obj\n<< /Type /Pages /Kids [] /Count 0 >>\nendobj\n"
         "xref\n0 3\n0000000000 65535 f \ntrailer\n<< /Size 3 /Root 1 0 R >>\nstartxref\n9\n");
  return pdf;
}

// An appended update: new objects, a new xref and trailer.
Bytes update(std::size_t padding) {
  Bytes u = text("3 0 obj\n<< /Length 0 >>\nstream\n");
  append(u, filler(padding, 'x'));
  append(u, "\nendstream\nendobj\nxref\n3 1\ntrailer\n<< /Prev 9 >>\nstartxref\n200\n");
  return u;
}

// Zeros up to the next multiple of 512.
void padToSector(Bytes& out) {
  out.resize((out.size() + 511) / 512 * 512, 0);
}

TEST(PdfCarver, EndsAfterTheMarkerAndItsLineEnd) {
  for (const std::string_view lineEnd : {"\n", "\r\n", "\r", ""}) {
    SCOPED_TRACE(::testing::PrintToString(std::string(lineEnd)));
    Bytes pdf = pdfBody();
    append(pdf, "%%EOF");
    append(pdf, lineEnd);
    const std::size_t length = pdf.size();
    append(pdf, filler(3000, 0));
    EXPECT_EQ(carveBytes(carver(), pdf), exactMatch(length, "pdf", FormatCategory::documents));
  }
}

TEST(PdfCarver, KeepsIncrementalUpdatesUpToTheNextFile) {
  Bytes pdf = pdfBody();
  append(pdf, "%%EOF\n");
  const std::size_t firstEnd = pdf.size();
  append(pdf, update(3000));
  // Another file's magic inside the update, off the sector grid, is content.
  place(pdf, 1100, text("PK\x03\x04"));
  append(pdf, "%%EOF\r\n");
  const std::size_t updatedEnd = pdf.size();

  struct Case {
    const char* name;
    Bytes next;  // what starts at the next sector boundary
  };
  Bytes jpegWithMarker = sampleJpeg(200);
  place(jpegWithMarker, 100, text("%%EOF"));
  Bytes otherPdf = pdfBody("1.4");
  append(otherPdf, "%%EOF\n");
  Bytes zipWithMarker = text("PK\x03\x04");
  append(zipWithMarker, filler(40, 1));
  append(zipWithMarker, "%%EOF");
  const std::vector<Case> cases = {
      {"a JPEG holding the marker", jpegWithMarker},
      {"another PDF", otherPdf},
      {"a ZIP holding the marker", zipWithMarker},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes image = pdf;
    padToSector(image);
    append(image, c.next);
    append(image, filler(2000, 0));
    EXPECT_EQ(carveBytes(carver(), image),
              exactMatch(updatedEnd, "pdf", FormatCategory::documents));
  }

  // Cut in the middle of the update: the first revision is what is whole.
  EXPECT_EQ(carveBytes(carver(), cut(pdf, firstEnd + 500)),
            exactMatch(firstEnd, "pdf", FormatCategory::documents));
}

TEST(PdfCarver, AMarkerTooFarAfterTheLastIsAnotherFiles) {
  Bytes pdf = pdfBody();
  append(pdf, "%%EOF\n");
  const std::size_t length = pdf.size();
  // 2 MiB of zeros, then the tail of some other, headless PDF.
  append(pdf, filler(2 * 1024 * 1024, 0));
  append(pdf, "trailer\n<< >>\n%%EOF\n");
  EXPECT_EQ(carveBytes(carver(), pdf), exactMatch(length, "pdf", FormatCategory::documents));

  // Several updates, each within reach of the previous, are all kept.
  Bytes chained = pdfBody();
  for (int i = 0; i < 4; ++i) {
    append(chained, "%%EOF\n");
    append(chained, update(700'000));
  }
  append(chained, "%%EOF\n");
  EXPECT_EQ(carveBytes(carver(), chained),
            exactMatch(chained.size(), "pdf", FormatCategory::documents));
}

TEST(PdfCarver, AFileCutShortDoesNotRunIntoTheNext) {
  // A PDF without its end, then another whole one on the next sector.
  Bytes image = pdfBody();
  padToSector(image);
  Bytes second = pdfBody("1.5");
  append(second, "%%EOF\n");
  const std::size_t secondAt = image.size();
  append(image, second);
  image.resize(image.size() + 1000, 0);
  EXPECT_EQ(carveBytes(carver(), image), std::nullopt);
  EXPECT_EQ(carveBytes(carver(), image, secondAt),
            exactMatch(second.size(), "pdf", FormatCategory::documents));

  // A JPEG image stream that happens to start on a sector boundary inside
  // a PDF is part of it.
  Bytes withImage = pdfBody();
  padToSector(withImage);
  append(withImage, sampleJpeg(2000));
  append(withImage, "\nendstream\nendobj\n%%EOF\n");
  EXPECT_EQ(carveBytes(carver(), withImage),
            exactMatch(withImage.size(), "pdf", FormatCategory::documents));
}

TEST(PdfCarver, RejectsWhatIsNotAWholePdf) {
  const std::map<std::string, Bytes> cases = {
      {"version 0",
       [] {
         Bytes b = pdfBody("0.9");
         append(b, "%%EOF\n");
         return b;
       }()},
      {"no version digit",
       [] {
         Bytes b = pdfBody("x.1");
         append(b, "%%EOF\n");
         return b;
       }()},
      {"header at the end", text("%PDF-")},
      {"no end marker", pdfBody()},
      {"marker cut short",
       [] {
         Bytes b = pdfBody();
         append(b, "%%EO");
         return b;
       }()},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(carveBytes(carver(), bytes), std::nullopt);
  }
}

TEST(PdfCarver, LooksForTheMarkerWithin256MiB) {
  constexpr std::uint64_t bound = 268'435'456;
  struct Case {
    std::uint64_t markerAt;
    std::optional<CarveMatch> expected;
  };
  const std::vector<Case> cases = {
      {bound - 100, exactMatch(bound - 95, "pdf", FormatCategory::documents)},
      // A marker that begins inside the bound counts, even if it ends past it.
      {bound - 3, exactMatch(bound + 2, "pdf", FormatCategory::documents)},
      {bound + 10, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.markerAt);
    SparseSource source(bound + 4096, {{0, pdfBody()}, {c.markerAt, text("%%EOF")}});
    ReadContext context(source);
    EXPECT_EQ(carver().carve(0, context), c.expected);
  }
}

}  // namespace
}  // namespace vellum::testing

namespace vellum::testing {
namespace {

TEST(PdfCarver, InTheEngineTheNextFileIsFoundToo) {
  Bytes image = pdfBody();
  append(image, "%%EOF\n");
  append(image, update(900));
  append(image, "%%EOF\n");
  const std::size_t length = image.size();
  padToSector(image);
  const std::size_t jpegAt = image.size();
  Bytes jpeg = sampleJpeg(400);
  place(jpeg, 300, text("%%EOF"));
  append(image, jpeg);
  image.resize(8192, 0);
  EXPECT_EQ(carveImage(image),
            (std::vector<Found>{{0, length, "pdf", CarveConfidence::exact},
                                {jpegAt, jpeg.size(), "jpg", CarveConfidence::exact}}));
}

}  // namespace
}  // namespace vellum::testing
