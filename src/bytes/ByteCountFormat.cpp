#include "bytes/ByteCountFormat.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace vellum {

std::string formatByteCount(std::uint64_t bytes) {
  if (bytes == 1) return "1 byte";
  if (bytes < 1000) return std::to_string(bytes) + " bytes";
  static constexpr std::array<const char*, 6> kUnits{"KB", "MB", "GB", "TB", "PB", "EB"};
  double value = static_cast<double>(bytes) / 1000.0;
  std::size_t unit = 0;
  // Round first so that 999,950 bytes reads "1 MB", not "1000 KB".
  const auto rounded = [&](double v) {
    return unit == 0 ? std::round(v) : std::round(v * 10) / 10;
  };
  while (unit + 1 < kUnits.size() && rounded(value) >= 1000.0) {
    value /= 1000.0;
    ++unit;
  }
  const double shown = rounded(value);
  char text[32];
  if (shown == std::floor(shown)) {
    std::snprintf(text, sizeof text, "%.0f %s", shown, kUnits[unit]);
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", shown, kUnits[unit]);
  }
  return text;
}

}  // namespace vellum
