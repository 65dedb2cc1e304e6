#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "CarveSamples.h"
#include "CarverTesting.h"
#include "bytes/DeviceError.h"
#include "carve/CarverProbe.h"
#include "carve/CarverRegistry.h"
#include "carve/formats/Carvers.h"

namespace vellum::testing {
namespace {

TEST(ReadContextTest, ReadsAreClampedAndWindowsServeOnlyWholeRanges) {
  Bytes counting(100);
  for (std::size_t i = 0; i < counting.size(); ++i)
    counting[i] = static_cast<std::uint8_t>(i);
  ScriptedSource source(counting);
  ReadContext context(source);
  EXPECT_EQ(context.bytes(98, 10), (Bytes{98, 99}));
  EXPECT_TRUE(context.bytes(100, 1).empty() && context.bytes(0, -5).empty());
  EXPECT_EQ(context.byte(100), std::nullopt);
  EXPECT_EQ(context.u32(97, true), std::nullopt);  // only 3 bytes left
  EXPECT_EQ(context.u32(96, false), 0x63626160U);
  EXPECT_EQ(context.u64(0, true), 0x0001020304050607ULL);

  const Bytes window(20, 0xEE);  // differs from the source; must outlive its use
  context.setWindow(40, window);
  source.reads = 0;
  EXPECT_EQ(context.bytes(40, 20), Bytes(20, 0xEE));
  EXPECT_EQ(context.u32(56, true), 0xEEEEEEEEU);
  EXPECT_EQ(source.reads, 0);
  EXPECT_EQ(context.bytes(58, 3), (Bytes{58, 59, 60}));  // straddling: all from the source
  EXPECT_EQ(context.bytes(39, 2), (Bytes{39, 40}));
  EXPECT_EQ(source.reads, 2);

  // Small reads outside the window are read ahead: a byte-by-byte walk costs
  // one source read, not one per byte.
  ReadContext walking(source);
  source.reads = 0;
  for (std::uint64_t at = 0; at < 100; ++at)
    EXPECT_EQ(walking.byte(at), at);
  EXPECT_EQ(source.reads, 1);

  ReadContext failing(source);
  source.beforeRead = [](std::uint64_t, std::size_t) { throw DeviceError::readFailed(7, 5); };
  EXPECT_THROW(failing.u16(0, true), DeviceError);
  EXPECT_THROW(failing.find(text("x"), 0, 10, 4), DeviceError);
}

TEST(ReadContextTest, FindAndFindLast) {
  Bytes data(2'100'000, '.');
  place(data, 14, text("ABCD"));  // straddles the step boundary at 16
  place(data, 60, text("ABCD"));
  place(data, 2'099'997, text("XYZ"));                           // ends at the source's end
  for (std::size_t at : {1000U, 1030U, 1'048'578U, 2'098'000U})  // one straddles 1 MiB
    place(data, at, text("%%EOF"));
  ScriptedSource source(data);
  ReadContext context(source);
  const std::vector<std::tuple<std::string, std::uint64_t, std::uint64_t, std::uint64_t,
                               std::optional<std::uint64_t>>>
      finds = {{"ABCD", 0, 100, 16, 14},
               {"ABCD", 15, 100, 16, 60},
               {"ABCD", 0, 14, 16, std::nullopt},  // the hit begins at the range's end
               {"ABCD", 0, 15, 16, 14},            // begins inside, ends outside
               {"XYZ", 0, UINT64_MAX, 7, 2'099'997},
               {"", 0, 100, 16, std::nullopt},
               {"QQ", 0, 100, 16, std::nullopt}};
  for (const auto& [pattern, from, limit, chunk, want] : finds)
    EXPECT_EQ(context.find(text(pattern), from, limit, chunk), want) << pattern << " " << from;
  // Candidates 512 bytes apart searching for a marker that isn't there read
  // the source once in all, not once each; a hit found once is found again.
  source.reads = 0;
  for (std::uint64_t from = 100; from < 200'000; from += 512) {
    EXPECT_EQ(context.find(text("NOPE"), from, UINT64_MAX, 65'536), std::nullopt);
    EXPECT_EQ(context.find(text("XYZ"), from, UINT64_MAX, 65'536), 2'099'997u);
    EXPECT_EQ(context.find(text("XYZ"), from, 2'099'997 - from, 65'536), std::nullopt);
  }
  EXPECT_LT(source.reads, 2 * (2'100'000 / 65'536 + 2));

  const Bytes eof = text("%%EOF");
  EXPECT_EQ(context.findLast(eof, 0, UINT64_MAX), 2'098'000U);
  EXPECT_EQ(context.findLast(text("XYZ"), 0, UINT64_MAX), 2'099'997U);  // ends at the end
  EXPECT_EQ(context.findLast(eof, 0, 2'098'000), 1'048'578U);           // must begin before the end
  EXPECT_EQ(context.findLast(eof, 1011, 1100), 1030U);
  // With slack the walk goes on only while the next hit is near the last one.
  EXPECT_EQ(context.findLast(eof, 0, UINT64_MAX, 1'048'578 - 1035 - 1), 1030U);
  EXPECT_EQ(context.findLast(eof, 0, UINT64_MAX, 1'048'578 - 1035), 1'048'578U);
  EXPECT_EQ(context.findLast(eof, 0, UINT64_MAX, 2'098'000 - 1'048'583), 2'098'000U);
  EXPECT_EQ(context.findLast(eof, 0, 1020, 1000), 1000U);  // the range still bounds it
}

TEST(CarveTypesTest, ReportJsonRoundTripsAndRefusesWhatCouldEscapeTheOutputFolder) {
  CarveReport report{"/tmp/card.img", 1'048'576, 524'288, 1.5, 2, true, {}};
  report.files.push_back(
      {1024, 300, "jpg", FormatCategory::photos, CarveConfidence::exact, "/out/JPG/f2.jpg", "ABC"});
  report.files.push_back({4096, 77, "cr3", FormatCategory::rawPhotos, CarveConfidence::heuristic,
                          std::nullopt, std::nullopt});
  const std::string text = encodeReportJson(report);
  // Absent values are left out rather than written as null.
  EXPECT_EQ(text.find("null"), std::string::npos) << text;
  EXPECT_LT(text.find("\"badReads\""), text.find("\"totalBytes\"")) << "keys are sorted";
  EXPECT_EQ(decodeReportJson(text), report);

  const nlohmann::json good = nlohmann::json::parse(text);
  for (const auto& [key, value] :
       std::vector<std::pair<std::string, nlohmann::json>>{{"category", "pictures"},
                                                           {"length", 0},
                                                           {"start", 18446744073709551615u},
                                                           {"ext", "../X"},
                                                           {"ext", "/etc"},
                                                           {"ext", "verylongextension"}}) {
    nlohmann::json bad = good;
    bad["files"][0][key] = value;
    EXPECT_THROW(decodeReportJson(bad.dump()), nlohmann::json::exception) << key << value;
  }
  // Floating-point numbers are refused, not converted (6.7e19 overflows int64).
  nlohmann::json floating = good;
  floating["badReads"] = 6.7e19;
  EXPECT_THROW(decodeReportJson(floating.dump()), nlohmann::json::exception);
  // Names need not be UTF-8 (a file called "\xFF.img"): they are written, not thrown.
  CarveReport latin1 = report;
  latin1.sourceDescription = "/tmp/caf\xE9.img";
  EXPECT_NE(encodeReportJson(latin1).find("caf\uFFFD.img"), std::string::npos);
  // Names built from whatever a carver reports stay inside the output folder.
  EXPECT_EQ(carvedFileName(512, "../x"), "f1.bin");
  EXPECT_EQ(carvedFolderName("/etc"), "BIN");
  nlohmann::json missing = good;
  missing.erase("cancelled");
  EXPECT_THROW(decodeReportJson(missing.dump()), nlohmann::json::exception);
}

}  // namespace
}  // namespace vellum::testing
