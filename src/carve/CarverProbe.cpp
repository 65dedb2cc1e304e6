#include "carve/CarverProbe.h"

#include "bytes/MemorySource.h"
#include "carve/ReadContext.h"

namespace vellum {

std::optional<CarveMatch> carveBytes(const FormatCarver& carver,
                                     std::span<const std::uint8_t> data) {
  MemorySource source(Bytes(data.begin(), data.end()));
  ReadContext context(source);
  try {
    auto match = carver.carve(0, context);
    if (match && match->length == 0) return std::nullopt;  // as the engine counts it
    return match;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace vellum
