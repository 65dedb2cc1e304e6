#include <optional>

#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

constexpr std::uint64_t walkLimit = 268'435'456;  // 256 MiB

bool isAsciiLetter(std::uint8_t b) {
  return (b >= 'A' && b <= 'Z') || (b >= 'a' && b <= 'z');
}

// Walks the chunks to IEND; a PNG is reported only when IEND is reached.
class PngCarver final : public FormatCarver {
 public:
  std::string_view id() const override { return "png"; }
  FormatCategorySet categories() const override { return {FormatCategory::photos}; }
  std::vector<Bytes> signatures() const override {
    return {{0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A}};
  }

  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    const std::uint64_t limit = start + walkLimit;
    std::uint64_t p = start + 8;
    bool first = true;
    while (true) {
      const auto length = context.u32(p, true);
      const Bytes type = context.bytes(p + 4, 4);
      if (!length || type.size() != 4 || (*length & 0x8000'0000U) != 0) return std::nullopt;
      for (std::uint8_t b : type)
        if (!isAsciiLetter(b)) return std::nullopt;
      const std::uint64_t next = p + 12 + *length;
      if (next > limit) return std::nullopt;
      const std::string_view name(reinterpret_cast<const char*>(type.data()), 4);
      if (first && (name != "IHDR" || *length != 13)) return std::nullopt;
      first = false;
      if (name == "IEND")
        return CarveMatch{next - start, "png", FormatCategory::photos, CarveConfidence::exact};
      p = next;
    }
  }
};

}  // namespace

const FormatCarver& pngCarver() {
  static const PngCarver carver;
  return carver;
}

}  // namespace vellum
