#include "summary/TextFormat.h"

#include <cmath>
#include <cstdio>

#include "bytes/ByteCountFormat.h"

namespace vellum {

std::string speedText(double mbps) {
  char text[64];
  std::snprintf(text, sizeof text, "%.1f MB/s", mbps);
  return text;
}

std::string durationText(double seconds) {
  // The negated test also sends NaN here.
  if (!(seconds >= 1.0)) return "Under a second";
  // Far beyond any run; keeps the conversion below defined.
  constexpr double kLongest = 1e15;
  if (seconds > kLongest) seconds = kLongest;

  const bool hours = seconds >= 3600.0;
  // Round to the smallest unit shown, then split into the larger one, so
  // 59.6 s reads "1m" rather than "60s".
  const double unitSeconds = hours ? 60.0 : 1.0;
  const auto smallUnits = static_cast<std::uint64_t>(std::llround(seconds / unitSeconds));
  const std::uint64_t large = smallUnits / 60;
  const std::uint64_t small = smallUnits % 60;

  std::string text;
  if (large > 0) text = std::to_string(large) + (hours ? "h" : "m");
  if (small > 0) {
    if (!text.empty()) text += ' ';
    text += std::to_string(small) + (hours ? "m" : "s");
  }
  if (text.empty()) text = std::to_string(static_cast<std::uint64_t>(seconds)) + "s";
  return text;
}

std::string sizeText(std::uint64_t bytes) {
  return formatByteCount(bytes);
}

}  // namespace vellum
