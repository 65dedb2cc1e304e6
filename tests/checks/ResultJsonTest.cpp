#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "checks/FullTest.h"
#include "checks/HealthScan.h"
#include "checks/QuickCheck.h"
#include "checks/Wipe.h"

namespace vellum {
namespace {

using nlohmann::json;

TEST(ResultJson, EachResultUsesItsFieldAndVerdictNames) {
  const auto speed = [](std::vector<double> curve) {
    const double mbps = curve.empty() ? 0.0 : curve[0];
    return json{
        {"averageMBps", mbps}, {"sustainedMBps", mbps}, {"minimumMBps", mbps}, {"curve", curve}};
  };
  // clang-format off
  const QuickCheck::Result quick{QuickCheck::Result::Verdict::unreliable, 64'000'000'000, 4096,
                                 1152, 1150, 0, 2, 88.5, 41.25};
  EXPECT_EQ(json(quick), json::parse(R"({"verdict": "unreliable", "claimedBytes": 64000000000,
    "verifiedBytes": 4096, "pointsTested": 1152, "pointsIntact": 1150, "pointsAliased": 0,
    "pointsCorrupt": 2, "readMBps": 88.5, "duration": 41.25})"));
  FullTest::Result full{FullTest::Result::Verdict::failing, 41'060, 8192, 36'864, 9, 0, 1, 0, 8192,
                        SpeedSummary({10.0}), {}, std::nullopt, 2};
  json expected = json::parse(R"({"verdict": "failing", "claimedBytes": 41060, "usableBytes": 8192,
    "holdsBytes": 36864, "goodBlocks": 9, "aliasedBlocks": 0, "corruptBlocks": 1, "writeErrors": 0,
    "firstBadOffset": 8192, "duration": 2.0})");
  expected.update({{"write", speed({10.0})}, {"read", speed({})}});
  EXPECT_EQ(json(full), expected);
  full.firstBadOffset.reset();
  full.speedClass = SpeedClass::v30;
  EXPECT_EQ(std::pair(json(full)["firstBadOffset"], json(full)["speedClass"]),
            std::pair(json(), json("U3 / V30")));
  const HealthScan::Result scan{HealthScan::Result::Verdict::slowAreas, 1'000'000, {},
                                {{1024, 2048}}, {}, 0};
  expected = json::parse(R"({"verdict": "slowAreas", "scannedBytes": 1000000, "unreadable": [],
    "slow": [{"offset": 1024, "length": 2048}], "duration": 0.0})");
  expected["read"] = speed({});
  EXPECT_EQ(json(scan), expected);
  EXPECT_EQ(toString(HealthScan::Result::Verdict::unreadableAreas), "unreadableAreas");
  const auto startedAt = std::chrono::sys_seconds(std::chrono::seconds(1'772'366'405));
  const Wipe::Result wipe{Wipe::Method::random, 268'435'456, 1, 16'384, 2, SpeedSummary({40.0}),
                          startedAt + std::chrono::milliseconds(750), 12.5};
  expected = json::parse(R"({"method": "random", "bytesOverwritten": 268435456, "writeErrors": 1,
    "blocksNotErased": 16384, "recoverableFilesFound": 2, "startedAt": "2026-03-01T12:00:05Z",
    "duration": 12.5})");
  expected["write"] = speed({40.0});
  EXPECT_EQ(json(wipe), expected);
  // clang-format on
  EXPECT_EQ(displayName(Wipe::Method::zeros), "One pass of zeros");
  EXPECT_EQ(displayName(Wipe::Method::random), "One pass of random data");
  EXPECT_EQ(wipeMethodFromRawValue("zeros"), Wipe::Method::zeros);
  EXPECT_EQ(wipeMethodFromRawValue("Zeros"), std::nullopt);
}

}  // namespace
}  // namespace vellum
