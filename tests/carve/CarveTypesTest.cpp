#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "bytes/ByteSource.h"
#include "carve/CarveTypes.h"

namespace vellum {
namespace {

TEST(CarveTypesTest, HeadDigestIsFnv1aInUpperCaseHexWithoutLeadingZeros) {
  EXPECT_EQ(CarvedFile::digestHead({}), "CBF29CE484222325");
  const Bytes a{'a'};
  EXPECT_EQ(CarvedFile::digestHead(a), "AF63DC4C8601EC8C");
  const std::string foobar = "foobar";
  const Bytes fb(foobar.begin(), foobar.end());
  EXPECT_EQ(CarvedFile::digestHead(fb), "85944171F73967E8");
  // Same 4096 bytes, same text, every time.
  Bytes head(4096);
  for (std::size_t i = 0; i < head.size(); ++i)
    head[i] = static_cast<std::uint8_t>(i * 7);
  EXPECT_EQ(CarvedFile::digestHead(head), CarvedFile::digestHead(Bytes(head)));
  // A value with leading zero nibbles prints without them.
  bool sawShort = false;
  for (std::uint8_t b = 0; b < 255 && !sawShort; ++b) {
    const Bytes one{b, b, b};
    const std::string text = CarvedFile::digestHead(one);
    EXPECT_NE(text.front(), '0');
    sawShort = text.size() < 16;
  }
}

TEST(CarveTypesTest, NamesOfCategoriesAndConfidences) {
  std::vector<std::string_view> raw, display, symbols;
  for (FormatCategory c : allFormatCategories) {
    raw.push_back(toString(c));
    display.push_back(displayName(c));
    symbols.push_back(symbolName(c));
    EXPECT_EQ(formatCategoryFromString(toString(c)), c);
  }
  EXPECT_EQ(raw, (std::vector<std::string_view>{"photos", "rawPhotos", "video", "audio",
                                                "documents", "archives"}));
  EXPECT_EQ(display, (std::vector<std::string_view>{"Photos", "Camera RAW", "Video", "Audio",
                                                    "Documents", "Archives"}));
  EXPECT_EQ(symbols, (std::vector<std::string_view>{"photo", "camera.aperture", "film", "waveform",
                                                    "doc.text", "shippingbox"}));
  EXPECT_EQ(formatCategoryFromString("Photos"), std::nullopt);
  EXPECT_EQ(carveConfidenceFromString("heuristic"), CarveConfidence::heuristic);
  EXPECT_EQ(carveConfidenceFromString("exact"), CarveConfidence::exact);
  EXPECT_EQ(carveConfidenceFromString("close"), std::nullopt);
}

TEST(CarveTypesTest, ErrorTexts) {
  EXPECT_EQ(CarveError::outputNotWritable("/tmp/out").description(),
            "Cannot write to output folder /tmp/out.");
  EXPECT_EQ(CarveError::emptySource().description(),
            "The selected source reports a size of zero bytes.");
  EXPECT_EQ(CarveError::outputNotWritable("/a"), CarveError::outputNotWritable("/a"));
  EXPECT_FALSE(CarveError::outputNotWritable("/a") == CarveError::outputNotWritable("/b"));
}

CarveReport sampleReport() {
  CarveReport report;
  report.sourceDescription = "/tmp/card.img";
  report.totalBytes = 1'048'576;
  report.scannedBytes = 524'288;
  report.duration = 1.5;
  report.badReads = 2;
  report.cancelled = true;
  report.files.push_back(
      {1024, 300, "jpg", FormatCategory::photos, CarveConfidence::exact, "/out/JPG/f2.jpg", "ABC"});
  report.files.push_back({4096, 77, "cr3", FormatCategory::rawPhotos, CarveConfidence::heuristic,
                          std::nullopt, std::nullopt});
  report.files.push_back(
      {8192, 10, "jpg", FormatCategory::photos, CarveConfidence::exact, std::nullopt, "1"});
  return report;
}

TEST(CarveTypesTest, ReportJsonHasSortedKeysAndLeavesOutAbsentValues) {
  const CarveReport report = sampleReport();
  const std::string text = encodeReportJson(report);
  EXPECT_EQ(text, R"({
  "badReads": 2,
  "cancelled": true,
  "duration": 1.5,
  "files": [
    {
      "category": "photos",
      "confidence": "exact",
      "ext": "jpg",
      "headDigest": "ABC",
      "length": 300,
      "outputPath": "/out/JPG/f2.jpg",
      "start": 1024
    },
    {
      "category": "rawPhotos",
      "confidence": "heuristic",
      "ext": "cr3",
      "length": 77,
      "start": 4096
    },
    {
      "category": "photos",
      "confidence": "exact",
      "ext": "jpg",
      "headDigest": "1",
      "length": 10,
      "start": 8192
    }
  ],
  "scannedBytes": 524288,
  "sourceDescription": "/tmp/card.img",
  "totalBytes": 1048576
}
)");
  EXPECT_EQ(decodeReportJson(text), report);
  EXPECT_EQ(report.countsByExt(), (std::map<std::string, std::int64_t>{{"cr3", 1}, {"jpg", 2}}));
  EXPECT_EQ(decodeFilesJson(encodeFilesJson(report.files)), report.files);
}

TEST(CarveTypesTest, DecodingRejectsUnknownValues) {
  nlohmann::json good = nlohmann::json::parse(encodeReportJson(sampleReport()));
  const std::pair<std::string, nlohmann::json> damages[] = {
      {"category", "pictures"}, {"confidence", "maybe"}, {"start", "zero"}, {"length", -1}};
  for (const auto& [key, value] : damages) {
    nlohmann::json bad = good;
    bad["files"][0][key] = value;
    EXPECT_THROW(decodeReportJson(bad.dump()), nlohmann::json::exception) << key;
  }
  nlohmann::json missing = good;
  missing.erase("cancelled");
  EXPECT_THROW(decodeReportJson(missing.dump()), nlohmann::json::exception);
  EXPECT_THROW(decodeReportJson("{"), nlohmann::json::exception);
}

}  // namespace
}  // namespace vellum
