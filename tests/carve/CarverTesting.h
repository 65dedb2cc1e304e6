#pragma once

#include <ostream>

#include "bytes/MemorySource.h"
#include "bytes/Precondition.h"
#include "carve/CarveEngine.h"
#include "carve/CarverProbe.h"
#include "carve/FormatCarver.h"
#include "carve/ReadContext.h"
#include "support/TempDir.h"

namespace vellum::testing {

// The first count bytes of data.
inline Bytes cut(const Bytes& data, std::size_t count) {
  VL_PRECONDITION(count <= data.size());
  return Bytes(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(count));
}

inline Bytes readBytes(const std::filesystem::path& path) {
  const std::string text = readFile(path);
  return Bytes(text.begin(), text.end());
}

inline CarveEngine::Config carveConfig(
    std::filesystem::path dir, CarveEngine::OutputMode mode = CarveEngine::OutputMode::catalog,
    std::uint64_t chunk = 65536, std::uint64_t stride = 512,
    FormatCategorySet categories = {allFormatCategories.begin(), allFormatCategories.end()}) {
  return {std::move(categories), std::move(dir), mode, chunk, stride, 0.0};
}

// What a run found, as (start, length, ext, confidence).
struct Found {
  std::uint64_t start;
  std::uint64_t length;
  std::string ext;
  CarveConfidence confidence;
  bool operator==(const Found&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Found& f) {
    return out << f.ext << "@" << f.start << "+" << f.length << " " << toString(f.confidence);
  }
};
inline std::vector<Found> found(const CarveReport& report) {
  std::vector<Found> out;
  for (const CarvedFile& f : report.files)
    out.push_back({f.start, f.length, f.ext, f.confidence});
  return out;
}
// The whole engine over image in catalog mode (64 KiB chunks, 512-byte stride).
inline std::vector<Found> carveImage(const Bytes& image) {
  TempDir dir;
  MemorySource source(image);
  return found(CarveEngine(source, carveConfig(dir.path())).run());
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
