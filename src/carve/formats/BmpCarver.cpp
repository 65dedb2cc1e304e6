#include <algorithm>
#include <array>
#include <optional>

#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

constexpr std::uint32_t minFile = 58;
constexpr std::uint32_t maxFile = 268'435'456;  // 256 MiB
// The known versions of the information header.
constexpr std::array<std::uint32_t, 7> headerSizes = {12, 40, 52, 56, 64, 108, 124};

// Trusts the stated file size once the header fields are plausible.
class BmpCarver final : public FormatCarver {
 public:
  std::string_view id() const override { return "bmp"; }
  FormatCategorySet categories() const override { return {FormatCategory::photos}; }
  std::vector<Bytes> signatures() const override { return {signatureBytes("BM")}; }

  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    const auto fileSize = context.u32(start + 2, false);
    if (!fileSize || *fileSize < minFile || *fileSize > maxFile) return std::nullopt;
    const auto dataOffset = context.u32(start + 10, false);
    if (!dataOffset || *dataOffset < 26 || *dataOffset >= *fileSize) return std::nullopt;
    const auto headerSize = context.u32(start + 14, false);
    if (!headerSize || std::ranges::find(headerSizes, *headerSize) == headerSizes.end())
      return std::nullopt;
    if (start + *fileSize > context.size()) return std::nullopt;
    return CarveMatch{*fileSize, "bmp", FormatCategory::photos, CarveConfidence::exact};
  }
};

}  // namespace

const FormatCarver& bmpCarver() {
  static const BmpCarver carver;
  return carver;
}

}  // namespace vellum
