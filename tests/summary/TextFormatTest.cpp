#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "summary/CheckAction.h"
#include "summary/TextFormat.h"

namespace vellum {
namespace {

TEST(TextFormatTest, DurationsSpeedsAndSizes) {
  const struct {
    double seconds;
    const char* text;
  } rows[] = {
      // clang-format off
      {0.0, "Under a second"}, {0.999, "Under a second"}, {-3.0, "Under a second"},
      {std::nan(""), "Under a second"}, {1.0, "1s"}, {59.4, "59s"},
      // Rounds to the minute instead of showing "60s".
      {59.6, "1m"}, {60.0, "1m"}, {150.0, "2m 30s"}, {3599.0, "59m 59s"},
      // From an hour on only hours and minutes are shown.
      {3600.0, "1h"}, {3629.0, "1h"}, {3631.0, "1h 1m"}, {3900.0, "1h 5m"}, {7200.0, "2h"},
      {7260.0, "2h 1m"}, {90000.0, "25h"},
      // clang-format on
  };
  for (const auto& row : rows)
    EXPECT_EQ(durationText(row.seconds), row.text) << row.seconds;
  EXPECT_FALSE(durationText(std::numeric_limits<double>::infinity()).empty());

  EXPECT_EQ(speedText(0), "0.0 MB/s");
  EXPECT_EQ(speedText(23.45), "23.4 MB/s");  // 23.45 is stored just below
  EXPECT_EQ(speedText(23.46), "23.5 MB/s");
  EXPECT_EQ(sizeText(100'663'296), "100.7 MB");
  EXPECT_EQ(sizeText(512), "512 bytes");
}

}  // namespace
}  // namespace vellum
