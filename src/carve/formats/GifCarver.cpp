#include <algorithm>
#include <optional>

#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

constexpr std::uint64_t walkLimit = 67'108'864;  // 64 MiB

std::uint64_t colourTableBytes(std::uint8_t flags) {
  return 3ULL << ((flags & 7U) + 1U);
}

// Position after a run of data sub-blocks, or nothing when it cannot be read
// or reaches the limit.
std::optional<std::uint64_t> skipSubBlocks(std::uint64_t from, ReadContext& context,
                                           std::uint64_t limit) {
  std::uint64_t p = from;
  while (p < limit) {
    const auto size = context.byte(p);
    if (!size) return std::nullopt;
    if (*size == 0) return p + 1;
    p += 1U + *size;
  }
  return std::nullopt;
}

// Walks the block stream to the trailer; a GIF is reported only when the
// trailer is reached.
class GifCarver final : public FormatCarver {
 public:
  std::string_view id() const override { return "gif"; }
  FormatCategorySet categories() const override { return {FormatCategory::photos}; }
  std::vector<Bytes> signatures() const override {
    return {signatureBytes("GIF87a"), signatureBytes("GIF89a")};
  }

  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    const auto width = context.u16(start + 6, false);
    const auto height = context.u16(start + 8, false);
    const auto flags = context.byte(start + 10);
    if (!width || !height || !flags || *width == 0 || *height == 0) return std::nullopt;
    const std::uint64_t limit = std::min(start + walkLimit, context.size());

    std::uint64_t p = start + 13;
    if ((*flags & 0x80) != 0) p += colourTableBytes(*flags);
    while (p < limit) {
      const auto introducer = context.byte(p);
      if (!introducer) return std::nullopt;
      std::optional<std::uint64_t> next;
      switch (*introducer) {
        case 0x21:
          next = skipSubBlocks(p + 2, context, limit);
          break;
        case 0x2C: {
          const Bytes descriptor =
              context.bytes(p, static_cast<std::int64_t>(std::min<std::uint64_t>(10, limit - p)));
          if (descriptor.empty()) return std::nullopt;
          std::uint64_t q = p + descriptor.size();
          if (descriptor.size() == 10 && (descriptor[9] & 0x80) != 0)
            q += colourTableBytes(descriptor[9]);
          next = skipSubBlocks(q + 1, context, limit);
          break;
        }
        case 0x3B:
          return CarveMatch{p + 1 - start, "gif", FormatCategory::photos, CarveConfidence::exact};
        default:
          return std::nullopt;
      }
      if (!next) return std::nullopt;
      p = *next;
    }
    return std::nullopt;
  }
};

}  // namespace

const FormatCarver& gifCarver() {
  static const GifCarver carver;
  return carver;
}

}  // namespace vellum
