#include <algorithm>
#include <array>
#include <optional>

#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

constexpr std::uint64_t maxFile = 268'435'456;     // no JPEG exceeds 256 MiB
constexpr std::uint64_t headerLimit = 67'108'864;  // 64 MiB of markers
constexpr std::uint64_t searchStep = 1'048'576;
constexpr std::uint64_t unboundedLength = 16'777'216;
constexpr std::array<std::uint8_t, 2> endMarker = {0xFF, 0xD9};
constexpr std::array<std::uint8_t, 3> startMarker = {0xFF, 0xD8, 0xFF};

bool isFirstMarker(std::uint8_t m) {
  return (m >= 0xE0 && m <= 0xEF) || m == 0xDB || m == 0xC0 || m == 0xC2 || m == 0xC4 ||
         m == 0xDD || m == 0xFE;
}

// Walks the header markers to the start of scan, then searches the entropy-
// coded data for the end marker and for the start of another JPEG.
class JpegCarver final : public FormatCarver {
 public:
  std::string_view id() const override { return "jpeg"; }
  FormatCategorySet categories() const override { return {FormatCategory::photos}; }
  std::vector<Bytes> signatures() const override { return {{0xFF, 0xD8, 0xFF}}; }

  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    const auto fourth = context.byte(start + 3);
    if (!fourth || !isFirstMarker(*fourth)) return std::nullopt;

    const auto q = scanStart(start, context);
    if (!q) return std::nullopt;
    const std::uint64_t header = *q - start;
    const std::uint64_t searchLimit = maxFile - header;
    // The next JPEG's start bounds the search for this one's end marker, so
    // a run of headers without end markers is not searched to the limit once
    // per header.
    const auto next = context.find(startMarker, *q, searchLimit, searchStep);
    const auto end = context.find(endMarker, *q, next ? *next - *q : searchLimit, searchStep);

    if (end) return match(*end + 2 - start, CarveConfidence::exact);
    if (next) return match(*next - start, CarveConfidence::heuristic);
    return match(std::min(context.size() - start, unboundedLength), CarveConfidence::heuristic);
  }

 private:
  static CarveMatch match(std::uint64_t length, CarveConfidence confidence) {
    return CarveMatch{length, "jpg", FormatCategory::photos, confidence};
  }

  // The last 0xFF of the run of fill bytes from p on (erased flash reads as
  // 0xFF, so the run can be long: it is skipped a block at a time).
  static std::uint64_t lastFillByte(std::uint64_t p, std::uint64_t limit, ReadContext& context) {
    std::array<std::uint8_t, 65'536> block;  // filled by each read before use
    while (p < limit) {
      const std::size_t n = context.bytesInto(p, block);
      if (n == 0) return p;
      const auto* other =
          std::find_if(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(n),
                       [](std::uint8_t b) { return b != 0xFF; });
      const auto run = static_cast<std::uint64_t>(other - block.begin());
      if (run < n) return run == 0 ? p : p + run - 1;
      p += n;
    }
    return p;
  }

  // Where the entropy-coded data begins (after the SOS segment), or nothing.
  static std::optional<std::uint64_t> scanStart(std::uint64_t start, ReadContext& context) {
    std::uint64_t p = start + 2;
    while (p + 4 < start + headerLimit) {
      const auto ff = context.byte(p);
      const auto marker = context.byte(p + 1);
      if (!ff || *ff != 0xFF || !marker) return std::nullopt;
      const std::uint8_t m = *marker;
      if (m == 0x01 || (m >= 0xD0 && m <= 0xD7)) {
        p += 2;
      } else if (m == 0xFF) {
        p = lastFillByte(p + 1, start + headerLimit, context);  // a run of fill bytes
      } else if (m == 0xD8 || m == 0xD9) {
        return std::nullopt;
      } else {
        const auto length = context.u16(p + 2, true);
        if (!length || *length < 2) return std::nullopt;
        p += 2U + *length;
        if (m == 0xDA) return p;
      }
    }
    return std::nullopt;
  }
};

}  // namespace

const FormatCarver& jpegCarver() {
  static const JpegCarver carver;
  return carver;
}

}  // namespace vellum
