#include "carve/CarverProbe.h"

#include <algorithm>

#include "bytes/MemorySource.h"
#include "carve/CarverRegistry.h"
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

std::optional<Identification> identify(ByteSource& source, std::uint64_t start) {
  ReadContext context(source);
  for (const FormatCarver* carver : CarverRegistry::all()) {
    for (const Bytes& signature : carver->signatures()) {
      const Bytes here = context.bytes(start + carver->signatureOffset(),
                                       static_cast<std::int64_t>(signature.size()));
      if (here != signature) continue;
      std::optional<CarveMatch> match;
      try {
        match = carver->carve(start, context);
      } catch (const std::exception&) {
      }
      if (match && match->length > 0) {
        if (match->length > source.size() - start) {
          match->length = source.size() - start;
          match->confidence = CarveConfidence::heuristic;
        }
        return Identification{carver, *match};
      }
    }
  }
  return std::nullopt;
}

}  // namespace vellum
