#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "summary/CheckAction.h"
#include "summary/TextFormat.h"

namespace vellum {
namespace {

TEST(TextFormatTest, Durations) {
  const struct {
    double seconds;
    const char* text;
  } rows[] = {
      {0.0, "Under a second"},
      {0.4, "Under a second"},
      {0.999, "Under a second"},
      {-3.0, "Under a second"},
      {std::nan(""), "Under a second"},
      {1.0, "1s"},
      {45.0, "45s"},
      {59.4, "59s"},
      // Rounds to the minute instead of showing "60s".
      {59.6, "1m"},
      {60.0, "1m"},
      {150.0, "2m 30s"},
      {3599.0, "59m 59s"},
      // From an hour on only hours and minutes are shown.
      {3600.0, "1h"},
      {3629.0, "1h"},
      {3631.0, "1h 1m"},
      {3900.0, "1h 5m"},
      {7200.0, "2h"},
      {7260.0, "2h 1m"},
      {90000.0, "25h"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(durationText(row.seconds), row.text) << row.seconds;
  }
  EXPECT_FALSE(durationText(std::numeric_limits<double>::infinity()).empty());
}

TEST(TextFormatTest, SpeedsAndSizes) {
  EXPECT_EQ(speedText(0), "0.0 MB/s");
  EXPECT_EQ(speedText(23.45), "23.4 MB/s");  // 23.45 is stored just below
  EXPECT_EQ(speedText(23.46), "23.5 MB/s");
  EXPECT_EQ(speedText(1234.0), "1234.0 MB/s");
  EXPECT_EQ(sizeText(268'435'456), "268.4 MB");
  EXPECT_EQ(sizeText(536'870'912), "536.9 MB");
  EXPECT_EQ(sizeText(100'663'296), "100.7 MB");
  EXPECT_EQ(sizeText(512), "512 bytes");
}

TEST(CheckActionTest, RawValuesTitlesAndErasure) {
  const struct {
    CheckAction action;
    const char* raw;
    const char* title;
    bool erases;
  } rows[] = {
      {CheckAction::quick, "quick", "Quick Check", false},
      {CheckAction::full, "full", "Full Test", true},
      {CheckAction::health, "health", "Health Scan", false},
      {CheckAction::wipe, "wipe", "Wipe", true},
      {CheckAction::format, "format", "Format", true},
  };
  ASSERT_EQ(std::size(rows), kAllCheckActions.size());
  for (std::size_t i = 0; i < kAllCheckActions.size(); ++i) {
    const auto& row = rows[i];
    EXPECT_EQ(kAllCheckActions[i], row.action);
    EXPECT_EQ(rawValue(row.action), row.raw);
    EXPECT_EQ(title(row.action), row.title);
    EXPECT_EQ(erases(row.action), row.erases);
    EXPECT_EQ(checkActionFromRawValue(row.raw), row.action);
  }
  EXPECT_EQ(checkActionFromRawValue("Quick"), std::nullopt);
  EXPECT_EQ(checkActionFromRawValue(""), std::nullopt);
}

}  // namespace
}  // namespace vellum
