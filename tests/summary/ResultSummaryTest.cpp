#include <gtest/gtest.h>

#include <limits>

#include "summary/ResultSummary.h"
#include "summary/SummaryText.h"

namespace vellum {
namespace {

using Tone = ResultSummary::Tone;
using Fact = ResultSummary::Fact;
using Facts = std::vector<Fact>;
using Lines = std::vector<std::string>;

constexpr std::uint64_t k256MiB = 268'435'456;
constexpr std::uint64_t k512MiB = 536'870'912;
constexpr std::uint64_t k96MiB = 100'663'296;

const Card kDemoGenuine{SimulatedCard::genuine};
const Card kDemoFake{SimulatedCard::fake};
const Card kFlashDrive{ExternalDisk{"sdb", "Generic Flash Disk", 32'000'000'000, {"KINGSTON"}}};
const Card kSdReader{ExternalDisk{"sdc", "Built In SDXC Reader", 63'864'569'856, {}}};

QuickCheck::Result quickResult(QuickCheck::Result::Verdict verdict) {
  QuickCheck::Result r;
  r.verdict = verdict;
  r.claimedBytes = k512MiB;
  r.verifiedBytes = k96MiB;
  r.pointsTested = 1024;
  r.pointsIntact = 190;
  r.pointsAliased = 830;
  r.pointsCorrupt = 4;
  r.readMBps = 23.46;
  r.duration = 150;
  return r;
}

FullTest::Result fullResult(FullTest::Result::Verdict verdict,
                            std::optional<SpeedClass> speedClass = SpeedClass::class10) {
  FullTest::Result r;
  r.verdict = verdict;
  r.claimedBytes = k512MiB;
  r.usableBytes = k96MiB;
  r.holdsBytes = k96MiB;
  r.goodBlocks = 24576;
  r.aliasedBlocks = 3;
  r.corruptBlocks = 4;
  r.write.averageMBps = 14.04;
  r.write.sustainedMBps = 12.26;
  r.write.curve = {14.0, 13.5, 12.0};
  r.read.averageMBps = 88.8;
  r.read.curve = {90.0, 87.0};
  r.speedClass = speedClass;
  r.duration = 3900;
  return r;
}

HealthScan::Result healthResult(HealthScan::Result::Verdict verdict, std::size_t unreadable,
                                std::size_t slow) {
  HealthScan::Result r;
  r.verdict = verdict;
  r.scannedBytes = k256MiB;
  for (std::size_t i = 0; i < unreadable; ++i) {
    r.unreadable.push_back({i * 100'000'000, 1024});
  }
  for (std::size_t i = 0; i < slow; ++i)
    r.slow.push_back({i * 8'388'608, 8'388'608});
  r.read.averageMBps = 90.04;
  r.read.minimumMBps = 3.15;
  r.read.curve = {91.0, 3.2, 90.0};
  r.duration = 0.4;
  return r;
}

Wipe::Result wipeResult(std::int64_t writeErrors, std::uint64_t blocksNotErased,
                        std::int64_t filesFound) {
  Wipe::Result r;
  r.method = Wipe::Method::zeros;
  r.bytesOverwritten = k256MiB;
  r.writeErrors = writeErrors;
  r.blocksNotErased = blocksNotErased;
  r.recoverableFilesFound = filesFound;
  r.write.curve = {48.0, 47.5};
  r.duration = 12.6;
  return r;
}

struct VerdictRow {
  const char* name;
  CheckOutcome outcome;
  std::optional<Card> card;
  Tone tone;
  const char* symbol;
  std::string headline;
  std::string explanation;
  Lines advice;
};

void expectVerdict(const VerdictRow& row) {
  SCOPED_TRACE(row.name);
  const ResultSummary s(row.outcome, row.card);
  EXPECT_EQ(s.tone, row.tone);
  EXPECT_EQ(s.symbol, row.symbol);
  EXPECT_EQ(s.headline, row.headline);
  EXPECT_EQ(s.explanation, row.explanation);
  EXPECT_EQ(s.advice, row.advice);
}

TEST(ResultSummaryTest, QuickCheckVerdicts) {
  using V = QuickCheck::Result::Verdict;
  QuickCheck::Result genuine = quickResult(V::genuine);
  genuine.claimedBytes = genuine.verifiedBytes = k256MiB;
  const VerdictRow rows[] = {
      {"genuine",
       genuine,
       kDemoGenuine,
       Tone::good,
       "checkmark.seal.fill",
       "Capacity looks genuine",
       "All 1024 test points across the full 268.4 MB stored and returned data correctly. Your "
       "files were left as they were.",
       {"For complete certainty and a speed rating, run the Full Test (it erases the card)."}},
      {"counterfeit",
       quickResult(V::counterfeit),
       kDemoFake,
       Tone::bad,
       "xmark.octagon.fill",
       "Fake capacity",
       "This card claims 536.9 MB but only about 100.7 MB actually stores data. Anything saved "
       "beyond that is lost or overwrites earlier files.",
       {"Stop using it for anything important.",
        "Ask the seller for a refund. Save this report as evidence.",
        "Copy off anything already on it now: files past 100.7 MB may already be damaged."}},
      {"counterfeit drive",
       quickResult(V::counterfeit),
       kFlashDrive,
       Tone::bad,
       "xmark.octagon.fill",
       "Fake capacity",
       "This drive claims 536.9 MB but only about 100.7 MB actually stores data. Anything saved "
       "beyond that is lost or overwrites earlier files.",
       {"Stop using it for anything important.",
        "Ask the seller for a refund. Save this report as evidence.",
        "Copy off anything already on it now: files past 100.7 MB may already be damaged."}},
      {"unreliable",
       quickResult(V::unreliable),
       std::nullopt,
       Tone::warning,
       "exclamationmark.triangle.fill",
       "Unreliable storage",
       "834 of 1024 test points didn't store data correctly, scattered across the card. It's "
       "likely failing.",
       {"Copy your files off now and replace the card.",
        "Run a Health Scan to see which areas are affected."}},
      {"unreliable drive",
       quickResult(V::unreliable),
       kFlashDrive,
       Tone::warning,
       "exclamationmark.triangle.fill",
       "Unreliable storage",
       "834 of 1024 test points didn't store data correctly, scattered across the drive. It's "
       "likely failing.",
       {"Copy your files off now and replace the drive.",
        "Run a Health Scan to see which areas are affected."}},
  };
  for (const VerdictRow& row : rows)
    expectVerdict(row);
}

TEST(ResultSummaryTest, QuickCheckFactsAndDefaults) {
  const ResultSummary s(quickResult(QuickCheck::Result::Verdict::counterfeit), std::nullopt);
  EXPECT_EQ(s.facts, (Facts{{"Claimed capacity", "536.9 MB"},
                            {"Verified capacity", "100.7 MB"},
                            {"Test points", "190 good, 830 wrapped, 4 failed"},
                            {"Read speed (sample)", "23.5 MB/s"},
                            {"Took", "2m 30s"}}));
  EXPECT_TRUE(s.speedCurve.empty());
  EXPECT_EQ(s.speedCurveTitle, "Write speed across the card");
  EXPECT_FALSE(s.suggestsFormat);

  const ResultSummary onDrive(quickResult(QuickCheck::Result::Verdict::genuine), kFlashDrive);
  EXPECT_EQ(onDrive.speedCurveTitle, "Write speed across the drive");
}

TEST(ResultSummaryTest, FullTestVerdicts) {
  using V = FullTest::Result::Verdict;
  FullTest::Result genuineV30 = fullResult(V::genuine, SpeedClass::v30);
  genuineV30.claimedBytes = genuineV30.holdsBytes = 32'000'000'000;
  const Lines cardTail{
      "The card now holds test data. Format it before putting it back in your camera."};
  const Lines driveTail{"The drive now holds test data. Format it before use."};
  const VerdictRow rows[] = {
      // A drive gets no speed rating, however fast it is.
      {"genuine drive", genuineV30, kFlashDrive, Tone::good, "checkmark.seal.fill",
       "Genuine capacity",
       "Every block of the 32 GB drive stored data correctly. It sustains 12.3 MB/s writing.",
       driveTail},
      {"genuine card without class", fullResult(V::genuine, std::nullopt), kSdReader, Tone::good,
       "checkmark.seal.fill", "Genuine, but slow",
       "Every block stored data correctly, but it writes slower than 2 MB/s, below any SD speed "
       "class.",
       cardTail},
      {"genuine card class 10", fullResult(V::genuine, SpeedClass::class10), kSdReader, Tone::good,
       "checkmark.seal.fill", "Genuine, rated Class 10 / U1 / V10",
       "Every block of the 536.9 MB card stored data correctly. It sustains 12.3 MB/s writing, "
       "good for Full HD video.",
       cardTail},
      {"genuine demo card V30", genuineV30, kDemoGenuine, Tone::good, "checkmark.seal.fill",
       "Genuine, rated U3 / V30",
       "Every block of the 32 GB card stored data correctly. It sustains 12.3 MB/s writing, good "
       "for 4K video at typical bitrates.",
       cardTail},
      {"counterfeit card",
       fullResult(V::counterfeit, std::nullopt),
       kDemoFake,
       Tone::bad,
       "xmark.octagon.fill",
       "Fake capacity",
       "This card claims 536.9 MB but really holds 100.7 MB. Anything written beyond that is lost "
       "or overwrites earlier files.",
       {"Ask the seller for a refund. Save this report as evidence.",
        "Don't use it in a camera: you'd lose photos without warning.", cardTail[0]}},
      {"counterfeit drive",
       fullResult(V::counterfeit, std::nullopt),
       kFlashDrive,
       Tone::bad,
       "xmark.octagon.fill",
       "Fake capacity",
       "This drive claims 536.9 MB but really holds 100.7 MB. Anything written beyond that is "
       "lost or overwrites earlier files.",
       {"Ask the seller for a refund. Save this report as evidence.",
        "Don't store anything on it: files past the real size are lost without warning.",
        driveTail[0]}},
      {"failing card",
       fullResult(V::failing),
       kSdReader,
       Tone::warning,
       "exclamationmark.triangle.fill",
       "Failing card",
       "7 blocks didn't store data correctly. The card is wearing out or damaged.",
       {"Replace this card. Bad areas tend to grow.", cardTail[0]}},
      {"failing drive",
       fullResult(V::failing),
       kFlashDrive,
       Tone::warning,
       "exclamationmark.triangle.fill",
       "Failing drive",
       "7 blocks didn't store data correctly. The drive is wearing out or damaged.",
       {"Replace this drive. Bad areas tend to grow.", driveTail[0]}},
  };
  for (const VerdictRow& row : rows)
    expectVerdict(row);
}

TEST(ResultSummaryTest, EveryFullTestRateLabelsTheClassAndItsUse) {
  const struct {
    SpeedClass speedClass;
    const char* label;
    const char* use;
  } rows[] = {
      {SpeedClass::class2, "Class 2", "standard-definition video and photos"},
      {SpeedClass::class4, "Class 4", "standard-definition video and photos"},
      {SpeedClass::class6, "Class 6", "standard-definition video and photos"},
      {SpeedClass::class10, "Class 10 / U1 / V10", "Full HD video"},
      {SpeedClass::v30, "U3 / V30", "4K video at typical bitrates"},
      {SpeedClass::v60, "V60", "high-bitrate 4K and burst photography"},
      {SpeedClass::v90, "V90", "8K and high-bitrate professional video"},
  };
  for (const auto& row : rows) {
    const ResultSummary s(fullResult(FullTest::Result::Verdict::genuine, row.speedClass),
                          kDemoGenuine);
    EXPECT_EQ(s.headline, std::string("Genuine, rated ") + row.label);
    EXPECT_TRUE(s.explanation.ends_with(std::string("good for ") + row.use + ".")) << s.explanation;
    EXPECT_EQ(s.facts.at(s.facts.size() - 2), (Fact{"Speed class", row.label}));
  }
}

TEST(ResultSummaryTest, FullTestFactsPlaceSpeedClassBeforeTookOnlyForCards) {
  using V = FullTest::Result::Verdict;
  const Facts common{{"Claimed capacity", "536.9 MB"},
                     {"Really holds", "100.7 MB"},
                     {"Bad blocks", "7"},
                     {"Write speed", "14.0 MB/s average, 12.3 MB/s sustained"},
                     {"Read speed", "88.8 MB/s average"}};
  const auto with = [&](Facts head, Facts tail) {
    head.insert(head.end(), common.begin(), common.end());
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
  };

  const ResultSummary noCard(fullResult(V::failing), std::nullopt);
  EXPECT_EQ(noCard.facts, with({}, {{"Speed class", "Class 10 / U1 / V10"}, {"Took", "1h 5m"}}));

  const ResultSummary slowCard(fullResult(V::genuine, std::nullopt), kSdReader);
  EXPECT_EQ(slowCard.facts, with({{"Card", "Built In SDXC Reader (63.9 GB)"}},
                                 {{"Speed class", "None"}, {"Took", "1h 5m"}}));

  const ResultSummary demo(fullResult(V::counterfeit, std::nullopt), kDemoFake);
  EXPECT_EQ(demo.facts, with({{"Card", "Demo card (fake) (536.9 MB)"}},
                             {{"Speed class", "None"}, {"Took", "1h 5m"}}));

  const ResultSummary drive(fullResult(V::genuine, SpeedClass::v90), kFlashDrive);
  EXPECT_EQ(drive.facts, with({{"Drive", "KINGSTON (32 GB)"}}, {{"Took", "1h 5m"}}));

  EXPECT_EQ(drive.speedCurve, (std::vector<double>{14.0, 13.5, 12.0}));
  EXPECT_EQ(drive.speedCurveTitle, "Write speed across the drive");
  EXPECT_TRUE(drive.suggestsFormat);
  EXPECT_EQ(demo.speedCurveTitle, "Write speed across the card");
  EXPECT_TRUE(demo.suggestsFormat);
}

TEST(ResultSummaryTest, HealthScanVerdictsCountAreas) {
  using V = HealthScan::Result::Verdict;
  HealthScan::Result oneBig = healthResult(V::unreadableAreas, 1, 0);
  oneBig.unreadable[0].length = 8'388'608;
  const VerdictRow rows[] = {
      {"healthy",
       healthResult(V::healthy, 0, 0),
       kDemoGenuine,
       Tone::good,
       "checkmark.seal.fill",
       "Healthy",
       "Every block of the card could be read, at a steady speed.",
       {}},
      {"one slow area",
       healthResult(V::slowAreas, 0, 1),
       kSdReader,
       Tone::warning,
       "tortoise.fill",
       "Some slow areas",
       "Everything could be read, but 1 area was much slower than the rest, an early sign of wear.",
       {"Back up what's on it, and keep an eye on this card."}},
      {"two slow areas",
       healthResult(V::slowAreas, 0, 2),
       kFlashDrive,
       Tone::warning,
       "tortoise.fill",
       "Some slow areas",
       "Everything could be read, but 2 areas were much slower than the rest, an early sign of "
       "wear.",
       {"Back up what's on it, and keep an eye on this drive."}},
      {"one unreadable area",
       oneBig,
       std::nullopt,
       Tone::bad,
       "bandage.fill",
       "Unreadable areas",
       "8.4 MB in 1 area couldn't be read. Files stored there are damaged.",
       {"Use Vellum Recover to rescue what you can, then replace the card."}},
      // Unreadable areas win over slow ones; lengths add up: 3 × 1024 bytes.
      {"three unreadable areas",
       healthResult(V::unreadableAreas, 3, 2),
       kFlashDrive,
       Tone::bad,
       "bandage.fill",
       "Unreadable areas",
       "3 KB in 3 areas couldn't be read. Files stored there are damaged.",
       {"Use Vellum Recover to rescue what you can, then replace the drive."}},
  };
  for (const VerdictRow& row : rows)
    expectVerdict(row);
}

TEST(ResultSummaryTest, HealthScanFacts) {
  using V = HealthScan::Result::Verdict;
  const struct {
    HealthScan::Result result;
    const char* unreadable;
    const char* slow;
  } rows[] = {
      {healthResult(V::healthy, 0, 0), "None", "None"},
      {healthResult(V::slowAreas, 0, 1), "None", "1"},
      {healthResult(V::unreadableAreas, 1, 0), "1 area(s)", "None"},
      {healthResult(V::unreadableAreas, 2, 3), "2 area(s)", "3"},
  };
  for (const auto& row : rows) {
    const ResultSummary s(row.result, kDemoGenuine);
    EXPECT_EQ(s.facts, (Facts{{"Card", "Demo card (genuine) (268.4 MB)"},
                              {"Scanned", "268.4 MB"},
                              {"Unreadable", row.unreadable},
                              {"Slow areas", row.slow},
                              {"Read speed", "90.0 MB/s average, 3.1 MB/s slowest"},
                              {"Took", "Under a second"}}));
    EXPECT_EQ(s.speedCurve, (std::vector<double>{91.0, 3.2, 90.0}));
    EXPECT_EQ(s.speedCurveTitle, "Read speed across the card");
    EXPECT_FALSE(s.suggestsFormat);
  }
  const ResultSummary drive(healthResult(V::healthy, 0, 0), kFlashDrive);
  EXPECT_EQ(drive.speedCurveTitle, "Read speed across the drive");
  EXPECT_EQ(drive.explanation, "Every block of the drive could be read, at a steady speed.");
}

TEST(ResultSummaryTest, FormatOutcome) {
  const ResultSummary exfat(Formatted{FileSystem::exfat, "CAMERA"}, kFlashDrive);
  EXPECT_EQ(exfat.tone, Tone::good);
  EXPECT_EQ(exfat.symbol, "checkmark.seal.fill");
  EXPECT_EQ(exfat.headline, "Ready for your camera");
  EXPECT_EQ(exfat.explanation,
            "Formatted as exFAT with the name CAMERA. For best results, also format it once in "
            "the camera itself.");
  EXPECT_EQ(exfat.facts,
            (Facts{{"Drive", "KINGSTON (32 GB)"}, {"File system", "exFAT"}, {"Name", "CAMERA"}}));
  EXPECT_TRUE(exfat.advice.empty());
  EXPECT_TRUE(exfat.speedCurve.empty());
  EXPECT_FALSE(exfat.suggestsFormat);

  const ResultSummary fat(Formatted{FileSystem::fat32, "NO NAME"}, std::nullopt);
  EXPECT_EQ(fat.explanation,
            "Formatted as FAT32 with the name NO NAME. For best results, also format it once in "
            "the camera itself.");
  EXPECT_EQ(fat.facts, (Facts{{"File system", "FAT32"}, {"Name", "NO NAME"}}));
}

TEST(ResultSummaryTest, WipeIsIncompleteWhenAnythingIsLeft) {
  const std::string complete =
      "The whole card was overwritten and read back, and the Vellum Recover engine found no "
      "recoverable files.";
  const std::string incomplete =
      "Some of the card couldn't be overwritten. Don't rely on it being erased.";
  const VerdictRow rows[] = {
      {"complete card",
       wipeResult(0, 0, 0),
       kDemoGenuine,
       Tone::good,
       "checkmark.seal.fill",
       "Wiped and verified",
       complete,
       {"Format the card to use it in a camera again."}},
      {"complete memory card in a reader",
       wipeResult(0, 0, 0),
       kSdReader,
       Tone::good,
       "checkmark.seal.fill",
       "Wiped and verified",
       complete,
       {"Format the card to use it in a camera again."}},
      {"complete drive",
       wipeResult(0, 0, 0),
       kFlashDrive,
       Tone::good,
       "checkmark.seal.fill",
       "Wiped and verified",
       "The whole drive was overwritten and read back, and the Vellum Recover engine found no "
       "recoverable files.",
       {"Format the drive before using it again."}},
      {"a write failed",
       wipeResult(1, 0, 0),
       std::nullopt,
       Tone::bad,
       "xmark.octagon.fill",
       "Wipe incomplete",
       incomplete,
       {"The card may be failing. For sensitive data, physically destroy it.",
        "Format the card to use it in a camera again."}},
      {"blocks not erased on a drive",
       wipeResult(0, 16'384, 0),
       kFlashDrive,
       Tone::bad,
       "xmark.octagon.fill",
       "Wipe incomplete",
       "Some of the drive couldn't be overwritten. Don't rely on it being erased.",
       {"The drive may be failing. For sensitive data, physically destroy it.",
        "Format the drive before using it again."}},
      {"only a recoverable file",
       wipeResult(0, 0, 1),
       kDemoGenuine,
       Tone::bad,
       "xmark.octagon.fill",
       "Wipe incomplete",
       incomplete,
       {"The card may be failing. For sensitive data, physically destroy it.",
        "Format the card to use it in a camera again."}},
  };
  for (const VerdictRow& row : rows)
    expectVerdict(row);
}

TEST(ResultSummaryTest, WipeFactsCurveAndFormatOffer) {
  Wipe::Result random = wipeResult(2, 16'384, 3);
  random.method = Wipe::Method::random;
  random.duration = 3600;
  const ResultSummary onCard(random, kDemoGenuine);
  EXPECT_EQ(onCard.facts, (Facts{{"Card", "Demo card (genuine) (268.4 MB)"},
                                 {"Overwritten", "268.4 MB"},
                                 {"Method", "One pass of random data"},
                                 {"Blocks not erased", "16384"},
                                 {"Recoverable files afterwards", "3"},
                                 {"Took", "1h"}}));
  EXPECT_EQ(onCard.speedCurve, (std::vector<double>{48.0, 47.5}));
  EXPECT_EQ(onCard.speedCurveTitle, "Write speed across the card");
  EXPECT_TRUE(onCard.suggestsFormat);

  const ResultSummary onDrive(wipeResult(0, 0, 0), kFlashDrive);
  EXPECT_EQ(onDrive.facts, (Facts{{"Drive", "KINGSTON (32 GB)"},
                                  {"Overwritten", "268.4 MB"},
                                  {"Method", "One pass of zeros"},
                                  {"Blocks not erased", "0"},
                                  {"Recoverable files afterwards", "0"},
                                  {"Took", "13s"}}));
  EXPECT_EQ(onDrive.speedCurveTitle, "Write speed across the drive");
  EXPECT_TRUE(onDrive.suggestsFormat);
}

TEST(ResultSummaryDeathTest, OverflowingSumsStopTheProgram) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  QuickCheck::Result points = quickResult(QuickCheck::Result::Verdict::unreliable);
  points.pointsCorrupt = kMax;
  points.pointsAliased = 1;
  EXPECT_DEATH(ResultSummary(points, std::nullopt), "precondition failed");

  FullTest::Result blocks = fullResult(FullTest::Result::Verdict::genuine);
  blocks.aliasedBlocks = kMax;
  blocks.corruptBlocks = 1;
  EXPECT_DEATH(ResultSummary(blocks, std::nullopt), "precondition failed");

  HealthScan::Result areas = healthResult(HealthScan::Result::Verdict::unreadableAreas, 2, 0);
  areas.unreadable[0].length = kMax;
  EXPECT_DEATH(ResultSummary(areas, std::nullopt), "precondition failed");
}

TEST(SummaryTextTest, LaysOutHeadlineFactsAndAdvice) {
  const ResultSummary s(quickResult(QuickCheck::Result::Verdict::counterfeit), kDemoFake);
  EXPECT_EQ(renderText(s),
            "Fake capacity\n"
            "\n"
            "This card claims 536.9 MB but only about 100.7 MB actually stores data. Anything "
            "saved beyond that is lost or overwrites earlier files.\n"
            "\n"
            "Card:                Demo card (fake) (536.9 MB)\n"
            "Claimed capacity:    536.9 MB\n"
            "Verified capacity:   100.7 MB\n"
            "Test points:         190 good, 830 wrapped, 4 failed\n"
            "Read speed (sample): 23.5 MB/s\n"
            "Took:                2m 30s\n"
            "\n"
            "- Stop using it for anything important.\n"
            "- Ask the seller for a refund. Save this report as evidence.\n"
            "- Copy off anything already on it now: files past 100.7 MB may already be damaged.\n");

  // Without advice the text ends after the facts.
  const ResultSummary formatted(Formatted{FileSystem::fat32, "CAM"}, std::nullopt);
  EXPECT_EQ(renderText(formatted),
            "Ready for your camera\n"
            "\n"
            "Formatted as FAT32 with the name CAM. For best results, also format it once in the "
            "camera itself.\n"
            "\n"
            "File system: FAT32\n"
            "Name:        CAM\n");
}

}  // namespace
}  // namespace vellum
