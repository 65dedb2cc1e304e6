#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "checks/FullTest.h"
#include "checks/HealthScan.h"
#include "checks/QuickCheck.h"

namespace vellum {
namespace {

using nlohmann::json;

TEST(ResultJson, QuickCheckUsesFieldNamesAndVerdictNames) {
  QuickCheck::Result result;
  result.verdict = QuickCheck::Result::Verdict::unreliable;
  result.claimedBytes = 64'000'000'000;
  result.verifiedBytes = 4096;
  result.pointsTested = 1152;
  result.pointsIntact = 1150;
  result.pointsAliased = 0;
  result.pointsCorrupt = 2;
  result.readMBps = 88.5;
  result.duration = 41.25;
  EXPECT_EQ(json(result), json::parse(R"({
    "verdict": "unreliable", "claimedBytes": 64000000000, "verifiedBytes": 4096,
    "pointsTested": 1152, "pointsIntact": 1150, "pointsAliased": 0, "pointsCorrupt": 2,
    "readMBps": 88.5, "duration": 41.25})"));
  EXPECT_EQ(toString(QuickCheck::Result::Verdict::genuine), "genuine");
  EXPECT_EQ(toString(QuickCheck::Result::Verdict::counterfeit), "counterfeit");
}

TEST(ResultJson, FullTestWritesAbsentOptionalsAsNull) {
  FullTest::Result result;
  result.verdict = FullTest::Result::Verdict::failing;
  result.claimedBytes = 41'060;
  result.usableBytes = 8192;
  result.holdsBytes = 36'864;
  result.goodBlocks = 9;
  result.corruptBlocks = 1;
  result.firstBadOffset = 8192;
  result.write = SpeedSummary({10.0});
  result.duration = 2;
  EXPECT_EQ(json(result), json::parse(R"({
    "verdict": "failing", "claimedBytes": 41060, "usableBytes": 8192, "holdsBytes": 36864,
    "goodBlocks": 9, "aliasedBlocks": 0, "corruptBlocks": 1, "writeErrors": 0,
    "firstBadOffset": 8192, "speedClass": null, "duration": 2.0,
    "write": {"averageMBps": 10.0, "sustainedMBps": 10.0, "minimumMBps": 10.0, "curve": [10.0]},
    "read": {"averageMBps": 0.0, "sustainedMBps": 0.0, "minimumMBps": 0.0, "curve": []}})"));

  result.verdict = FullTest::Result::Verdict::genuine;
  result.firstBadOffset.reset();
  result.speedClass = SpeedClass::v30;
  const json genuine = result;
  EXPECT_EQ(genuine["verdict"], "genuine");
  EXPECT_TRUE(genuine["firstBadOffset"].is_null());
  EXPECT_EQ(genuine["speedClass"], "U3 / V30");
}

TEST(ResultJson, HealthScanListsRegions) {
  HealthScan::Result result;
  result.verdict = HealthScan::Result::Verdict::slowAreas;
  result.scannedBytes = 1'000'000;
  result.slow = {{1024, 2048}};
  const json encoded = result;
  EXPECT_EQ(encoded["verdict"], "slowAreas");
  EXPECT_EQ(encoded["slow"], json::parse(R"([{"offset": 1024, "length": 2048}])"));
  EXPECT_EQ(encoded["unreadable"], json::array());
  EXPECT_EQ(encoded["read"]["averageMBps"], 0.0);
  EXPECT_EQ(encoded["scannedBytes"], 1'000'000);
  EXPECT_TRUE(encoded.contains("duration"));
  EXPECT_EQ(toString(HealthScan::Result::Verdict::unreadableAreas), "unreadableAreas");
  EXPECT_EQ(toString(HealthScan::Result::Verdict::healthy), "healthy");
}

}  // namespace
}  // namespace vellum
