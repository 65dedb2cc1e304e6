// Every carver on arbitrary bytes: the first byte picks a carver of the
// registry, the rest is the candidate file. A carver must return without
// crashing, hanging or reading without bound.
#include <cstddef>
#include <cstdint>
#include <span>

#include "carve/CarverProbe.h"
#include "carve/CarverRegistry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const auto& carvers = vellum::CarverRegistry::all();
  const vellum::FormatCarver& carver = *carvers[data[0] % carvers.size()];
  (void)vellum::carveBytes(carver, std::span(data + 1, size - 1));
  return 0;
}
