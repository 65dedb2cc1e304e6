#include <gtest/gtest.h>

#include <sstream>

#include "summary/ResultSummary.h"
#include "summary/SummaryText.h"

namespace vellum {
namespace {

using QV = QuickCheck::Result::Verdict;
using FV = FullTest::Result::Verdict;
using HV = HealthScan::Result::Verdict;

constexpr std::uint64_t k256MiB = 268'435'456;
constexpr std::uint64_t k512MiB = 536'870'912;
constexpr std::uint64_t k96MiB = 100'663'296;

const Card kDemoGenuine{SimulatedCard::genuine};
const Card kDemoFake{SimulatedCard::fake};
const Card kFlashDrive{
    ExternalDisk{"sdb", "Generic Flash Disk", 32'000'000'000, {"KINGSTON"}, "", 0}};
const Card kSdReader{ExternalDisk{"sdc", "Built In SDXC Reader", 63'864'569'856, {}, "", 0}};
const std::optional<Card> kNoCard;

SpeedSummary speeds(double average, double sustained, double minimum, std::vector<double> curve) {
  SpeedSummary speeds;
  speeds.averageMBps = average;
  speeds.sustainedMBps = sustained;
  speeds.minimumMBps = minimum;
  speeds.curve = std::move(curve);
  return speeds;
}

// clang-format off
QuickCheck::Result quick(QV verdict, std::uint64_t claimed = k512MiB,
                         std::uint64_t verified = k96MiB) {
  return {.verdict = verdict, .claimedBytes = claimed, .verifiedBytes = verified,
          .pointsTested = 1024, .pointsIntact = 190, .pointsAliased = 830, .pointsCorrupt = 4,
          .readMBps = 23.46, .duration = 150};
}

// A Quick Check whose read sample hit pieces it could not read.
QuickCheck::Result unreadableSample(QuickCheck::Result r) {
  r.unreadableSamples = 2;
  return r;
}

FullTest::Result full(FV verdict, std::optional<SpeedClass> speedClass = SpeedClass::class10,
                      std::uint64_t claimed = k512MiB, std::uint64_t holds = k96MiB) {
  return {.verdict = verdict, .claimedBytes = claimed, .usableBytes = holds, .holdsBytes = holds,
          .goodBlocks = 24576, .aliasedBlocks = 3, .corruptBlocks = 4, .firstBadOffset = {},
          .write = speeds(14.04, 12.26, 0, {14.0, 13.5, 12.0}),
          .read = speeds(88.8, 0, 0, {90.0, 87.0}), .speedClass = speedClass, .duration = 3900};
}

// Unreadable areas of the given length 100 MB apart; slow areas of 8 MiB.
HealthScan::Result health(HV verdict, std::size_t unreadable, std::size_t slow,
                          std::int64_t length = 1024) {
  HealthScan::Result r{.verdict = verdict, .scannedBytes = k256MiB, .unreadable = {}, .slow = {},
                       .read = speeds(90.04, 0, 3.15, {91.0, 3.2, 90.0}), .duration = 0.4};
  for (std::size_t i = 0; i < unreadable; ++i)
    r.unreadable.push_back({i * 100'000'000, length});
  for (std::size_t i = 0; i < slow; ++i)
    r.slow.push_back({i * 8'388'608, 8'388'608});
  return r;
}

Wipe::Result wipe(std::int64_t writeErrors, std::uint64_t notErased, std::int64_t files,
                  Wipe::Method method = Wipe::Method::zeros, double duration = 12.6) {
  return {.method = method, .bytesOverwritten = k256MiB, .writeErrors = writeErrors,
          .blocksNotErased = notErased, .recoverableFilesFound = files,
          .write = speeds(0, 0, 0, {48.0, 47.5}), .startedAt = {}, .duration = duration};
}
// clang-format on

// "tone symbol | headline | explanation | advice | advice..."
std::string verdictLine(const ResultSummary& s) {
  std::string line =
      std::string(rawValue(s.tone)) + " " + s.symbol + " | " + s.headline + " | " + s.explanation;
  for (const std::string& advice : s.advice)
    line += " | " + advice;
  return line;
}

// "Label: value; ... | chart title | format offered | curve"
std::string detailLine(const ResultSummary& s) {
  std::ostringstream line;
  for (std::size_t i = 0; i < s.facts.size(); ++i)
    line << (i ? "; " : "") << s.facts[i].label << ": " << s.facts[i].value;
  line << " | " << s.speedCurveTitle << " | " << (s.suggestsFormat ? "format" : "no format")
       << " |";
  for (const double mbps : s.speedCurve)
    line << " " << mbps;
  return line.str();
}

struct Row {
  CheckOutcome outcome;
  std::optional<Card> card;
  std::string expected;
};

const std::string kCardTail =
    " | The card now holds test data. Format it before putting it back in your camera.";
const std::string kDriveTail = " | The drive now holds test data. Format it before use.";

// clang-format off
TEST(ResultSummaryTest, VerdictTexts) {
  const Row rows[] = {
      {quick(QV::genuine, k256MiB, k256MiB), kDemoGenuine, "good checkmark.seal.fill | Capacity looks genuine | All 1024 test points across the full 268.4 MB stored and returned data correctly. Your files were left as they were. | For complete certainty and a speed rating, run the Full Test (it erases the card)."},
      {quick(QV::counterfeit), kDemoFake, "bad xmark.octagon.fill | Fake capacity | This card claims 536.9 MB but only about 100.7 MB actually stores data. Anything saved beyond that is lost or overwrites earlier files. | Stop using it for anything important. | Ask the seller for a refund. Save this report as evidence. | Copy off anything already on it now: files past 100.7 MB may already be damaged."},
      {quick(QV::unreliable), kNoCard, "warning exclamationmark.triangle.fill | Unreliable storage | 834 of 1024 test points didn't store data correctly, scattered across the card. It's likely failing. | Copy your files off now and replace the card. | Run a Health Scan to see which areas are affected."},
      // Unreadable pieces of the read sample send the user to a Health Scan, once.
      {unreadableSample(quick(QV::genuine, k256MiB, k256MiB)), kFlashDrive, "good checkmark.seal.fill | Capacity looks genuine | All 1024 test points across the full 268.4 MB stored and returned data correctly. Your files were left as they were. | For complete certainty and a speed rating, run the Full Test (it erases the drive). | Parts of the drive couldn't be read. Run a Health Scan to see which areas are affected."},
      {unreadableSample(quick(QV::unreliable)), kNoCard, "warning exclamationmark.triangle.fill | Unreliable storage | 834 of 1024 test points didn't store data correctly, scattered across the card. It's likely failing. | Copy your files off now and replace the card. | Run a Health Scan to see which areas are affected."},
      // A drive gets no speed rating, however fast it is.
      {full(FV::genuine, SpeedClass::v30, 32'000'000'000, 32'000'000'000), kFlashDrive, "good checkmark.seal.fill | Genuine capacity | Every block of the 32 GB drive stored data correctly. It sustains 12.3 MB/s writing." + kDriveTail},
      {full(FV::genuine, std::nullopt), kSdReader, "good checkmark.seal.fill | Genuine, but slow | Every block stored data correctly, but it writes slower than 2 MB/s, below any SD speed class." + kCardTail},
      {full(FV::genuine, SpeedClass::v30, 32'000'000'000, 32'000'000'000), kDemoGenuine, "good checkmark.seal.fill | Genuine, rated U3 / V30 | Every block of the 32 GB card stored data correctly. It sustains 12.3 MB/s writing, good for 4K video at typical bitrates." + kCardTail},
      {full(FV::counterfeit, std::nullopt), kDemoFake, "bad xmark.octagon.fill | Fake capacity | This card claims 536.9 MB but really holds 100.7 MB. Anything written beyond that is lost or overwrites earlier files. | Ask the seller for a refund. Save this report as evidence. | Don't use it in a camera: you'd lose photos without warning." + kCardTail},
      {full(FV::failing), kFlashDrive, "warning exclamationmark.triangle.fill | Failing drive | 7 blocks didn't store data correctly. The drive is wearing out or damaged. | Replace this drive. Bad areas tend to grow." + kDriveTail},
      {health(HV::slowAreas, 0, 2), kFlashDrive, "warning tortoise.fill | Some slow areas | Everything could be read, but 2 areas were much slower than the rest, an early sign of wear. | Back up what's on it, and keep an eye on this drive."},
      {health(HV::unreadableAreas, 1, 0, 8'388'608), kNoCard, "bad bandage.fill | Unreadable areas | 8.4 MB in 1 area couldn't be read. Files stored there are damaged. | Use Vellum Recover to rescue what you can, then replace the card."},
      // Unreadable areas win over slow ones; lengths add up: 3 × 1024 bytes.
      {health(HV::unreadableAreas, 3, 2), kFlashDrive, "bad bandage.fill | Unreadable areas | 3 KB in 3 areas couldn't be read. Files stored there are damaged. | Use Vellum Recover to rescue what you can, then replace the drive."},
      {wipe(0, 0, 0), kDemoGenuine, "good checkmark.seal.fill | Wiped and verified | The whole card was overwritten and read back, and the Vellum Recover engine found no recoverable files. | Format the card to use it in a camera again."},
      // Anything left over (a failed write, a block not erased, a file found) makes it incomplete.
      {wipe(1, 0, 0), kNoCard, "bad xmark.octagon.fill | Wipe incomplete | Some of the card couldn't be overwritten. Don't rely on it being erased. | The card may be failing. For sensitive data, physically destroy it. | Format the card to use it in a camera again."},
  };
  for (std::size_t i = 0; i < std::size(rows); ++i)
    EXPECT_EQ(verdictLine(ResultSummary(rows[i].outcome, rows[i].card)), rows[i].expected) << "row " << i;
}

// The card row comes first; "Speed class" only for cards, just before "Took".
TEST(ResultSummaryTest, FactsChartAndFormatOffer) {
  const std::string fullFacts = "Claimed capacity: 536.9 MB; Really holds: 100.7 MB; Bad blocks: 7; Write speed: 14.0 MB/s average, 12.3 MB/s sustained; Read speed: 88.8 MB/s average; ";
  const std::string healthFacts = "Card: Demo card (genuine) (268.4 MB); Scanned: 268.4 MB; Unreadable: ";
  const std::string healthTail = "; Read speed: 90.0 MB/s average, 3.1 MB/s slowest; Took: Under a second | Read speed across the card | no format | 91 3.2 90";
  const Row rows[] = {
      {quick(QV::counterfeit), kNoCard, "Claimed capacity: 536.9 MB; Verified capacity: 100.7 MB; Test points: 190 good, 830 wrapped, 4 failed; Read speed (sample): 23.5 MB/s; Took: 2m 30s | Write speed across the card | no format |"},
      {full(FV::failing), kNoCard, fullFacts + "Speed class: Class 10 / U1 / V10; Took: 1h 5m | Write speed across the card | format | 14 13.5 12"},
      {full(FV::counterfeit, std::nullopt), kDemoFake, "Card: Demo card (fake) (536.9 MB); " + fullFacts + "Speed class: None; Took: 1h 5m | Write speed across the card | format | 14 13.5 12"},
      {full(FV::genuine, SpeedClass::v90), kFlashDrive, "Drive: KINGSTON (32 GB); " + fullFacts + "Took: 1h 5m | Write speed across the drive | format | 14 13.5 12"},
      {health(HV::healthy, 0, 0), kDemoGenuine, healthFacts + "None; Slow areas: None" + healthTail},
      {Formatted{FileSystem::exfat, "CAMERA"}, kFlashDrive, "Drive: KINGSTON (32 GB); File system: exFAT; Name: CAMERA | Write speed across the drive | no format |"},
      {wipe(2, 16'384, 3, Wipe::Method::random, 3600), kDemoGenuine, "Card: Demo card (genuine) (268.4 MB); Overwritten: 268.4 MB; Method: One pass of random data; Blocks not erased: 16384; Recoverable files afterwards: 3; Took: 1h | Write speed across the card | format | 48 47.5"},
  };
  for (std::size_t i = 0; i < std::size(rows); ++i)
    EXPECT_EQ(detailLine(ResultSummary(rows[i].outcome, rows[i].card)), rows[i].expected) << "row " << i;
}
// clang-format on

TEST(SummaryTextTest, LaysOutHeadlineFactsAndAdvice) {
  EXPECT_EQ(renderText(ResultSummary(quick(QV::counterfeit), kDemoFake)), R"(Fake capacity

This card claims 536.9 MB but only about 100.7 MB actually stores data. Anything saved beyond that is lost or overwrites earlier files.

Card:                Demo card (fake) (536.9 MB)
Claimed capacity:    536.9 MB
Verified capacity:   100.7 MB
Test points:         190 good, 830 wrapped, 4 failed
Read speed (sample): 23.5 MB/s
Took:                2m 30s

- Stop using it for anything important.
- Ask the seller for a refund. Save this report as evidence.
- Copy off anything already on it now: files past 100.7 MB may already be damaged.
)");
  // Without advice the text ends after the facts.
  EXPECT_TRUE(renderText(ResultSummary(Formatted{FileSystem::fat32, "CAM"}, kNoCard))
                  .ends_with("itself.\n\nFile system: FAT32\nName:        CAM\n"));
}

}  // namespace
}  // namespace vellum
