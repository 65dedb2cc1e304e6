#pragma once

#include <optional>
#include <ostream>

#include "bytes/MemorySource.h"
#include "carve/FormatCarver.h"
#include "carve/ReadContext.h"

namespace vellum::testing {

// Runs one carver on data with a fresh context (no window), as the engine
// would at start.
inline std::optional<CarveMatch> carveBytes(const FormatCarver& carver, const Bytes& data,
                                            std::uint64_t start = 0) {
  MemorySource source(data);
  ReadContext context(source);
  return carver.carve(start, context);
}

// The first count bytes of data (a truncated copy).
inline Bytes cut(const Bytes& data, std::size_t count) {
  return Bytes(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(count));
}

inline CarveMatch exactMatch(std::uint64_t length, std::string ext, FormatCategory category) {
  return CarveMatch{length, std::move(ext), category, CarveConfidence::exact};
}
inline CarveMatch heuristicMatch(std::uint64_t length, std::string ext, FormatCategory category) {
  return CarveMatch{length, std::move(ext), category, CarveConfidence::heuristic};
}

}  // namespace vellum::testing

namespace vellum {
// Lets gtest print matches in failure messages.
inline void PrintTo(const CarveMatch& m, std::ostream* os) {
  *os << "{length " << m.length << ", " << m.ext << ", " << toString(m.category) << ", "
      << toString(m.confidence) << "}";
}
}  // namespace vellum
