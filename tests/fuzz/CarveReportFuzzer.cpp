// The report reader behind `export`: any text either decodes or is refused
// with a JSON error, and a decoded report survives a round trip unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

#include "carve/CarveTypes.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  vellum::CarveReport report;
  try {
    report = vellum::decodeReportJson(text);
  } catch (const nlohmann::json::exception&) {
    return 0;
  }
  if (vellum::decodeReportJson(vellum::encodeReportJson(report)) != report) std::abort();
  return 0;
}
