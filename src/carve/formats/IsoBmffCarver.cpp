#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <optional>
#include <string>

#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"
#include "carve/formats/IsoBmff.h"

namespace vellum {
namespace {

constexpr std::uint64_t walkLimit = 34'359'738'368;  // 32 GiB
constexpr std::uint64_t piece = 1'048'576;
constexpr std::uint32_t minTypeBox = 12;
constexpr std::uint32_t maxTypeBox = 4096;

// The only box types accepted at the top level of a carved file.
constexpr std::array<std::string_view, 20> knownBoxes = {
    "ftyp", "styp", "moov", "mdat", "free", "skip", "wide", "pnot", "udta", "meta",
    "moof", "mfra", "sidx", "ssix", "prft", "pdin", "emsg", "uuid", "jP  ", "mfro"};
// Boxes that carry the file's content; a run of boxes without one is no file.
constexpr std::array<std::string_view, 4> contentBoxes = {"moov", "mdat", "meta", "moof"};

bool contains(std::span<const std::string_view> set, std::string_view name) {
  return std::ranges::find(set, name) != set.end();
}

bool isAscii(std::span<const std::uint8_t> bytes) {
  return std::ranges::all_of(bytes, [](std::uint8_t b) { return b < 0x80; });
}

bool plausibleTypeBoxSize(std::uint32_t size) {
  return size >= minTypeBox && size <= maxTypeBox;
}

CarveMatch matchFor(std::uint64_t length, const std::string& brand, CarveConfidence confidence) {
  const IsoBmffKind kind = isoBmffKind(brand);
  return CarveMatch{length, std::string(kind.ext), kind.category, confidence};
}

// The next file start inside what the walk has covered. Each call searches
// only what earlier calls have not, which gives the same answer as searching
// again from the file's start after every box, at a cost linear in the file
// (a fragmented video has thousands of boxes).
class CoveredSearch {
 public:
  explicit CoveredSearch(std::uint64_t start) : after_(start) {}

  std::optional<std::uint64_t> upTo(std::uint64_t before, ReadContext& context) {
    const auto found = isoBmffNextFileStart(after_, before, context);
    // A search that ran (after_ + 16 < before) has looked at every "ftyp"
    // from after_ + 8 that ends by `before`; the next one starts after those.
    if (!found && after_ + 16 < before) after_ = before - 11;
    return found;
  }

 private:
  std::uint64_t after_;
};

// Walks the top-level boxes, trusting their sizes, and watches for the start
// of another file inside what they cover.
class IsoBmffCarver final : public FormatCarver {
 public:
  std::string_view id() const override { return "isobmff"; }
  FormatCategorySet categories() const override {
    return {FormatCategory::photos, FormatCategory::rawPhotos, FormatCategory::video,
            FormatCategory::audio};
  }
  std::vector<Bytes> signatures() const override { return {signatureBytes("ftyp")}; }
  std::uint64_t signatureOffset() const override { return 4; }

  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    const auto typeSize = context.u32(start, true);
    if (!typeSize || !plausibleTypeBoxSize(*typeSize)) return std::nullopt;
    const Bytes brandBytes = context.bytes(start + 8, 4);
    if (brandBytes.size() != 4) return std::nullopt;
    for (std::uint8_t b : brandBytes)
      if (b < 32 || b > 126) return std::nullopt;
    const std::string brand = decodeBrand(brandBytes);

    const std::uint64_t limit = std::min(start + walkLimit, context.size());
    std::uint64_t pos = start;
    CoveredSearch covered(start);
    int boxes = 0;
    bool content = false;
    while (pos + 8 <= limit) {
      const auto size32 = context.u32(pos, true);
      const Bytes typeBytes = context.bytes(pos + 4, 4);
      if (!size32 || typeBytes.size() != 4 || !isAscii(typeBytes)) break;
      const std::string_view type(reinterpret_cast<const char*>(typeBytes.data()), 4);
      if (!contains(knownBoxes, type)) break;
      std::uint64_t size = *size32;
      if (size == 1) {
        const auto size64 = context.u64(pos + 8, true);
        if (!size64 || *size64 <= 15) break;
        size = *size64;
      } else if (size < 8) {
        break;  // includes size 0, a box running to the end: not followed
      }
      if (contains(contentBoxes, type)) content = true;
      const bool isMdat = type == "mdat";
      if (limit - pos < size) {
        if (!content && !isMdat) return std::nullopt;
        const auto next = covered.upTo(limit, context);
        return matchFor(next.value_or(limit) - start, brand, CarveConfidence::heuristic);
      }
      pos += size;
      if (const auto next = covered.upTo(pos, context)) {
        if (!content && !isMdat) return std::nullopt;
        return matchFor(*next - start, brand, CarveConfidence::heuristic);
      }
      ++boxes;
    }
    if (boxes < 2 || !content) return std::nullopt;
    // The source ends inside the next box's header: the file may go on.
    const bool cutShort = pos < limit && pos + 8 > limit && limit == context.size();
    return matchFor(pos - start, brand,
                    cutShort ? CarveConfidence::heuristic : CarveConfidence::exact);
  }
};

}  // namespace

std::string decodeBrand(std::span<const std::uint8_t> bytes) {
  if (!isAscii(bytes)) return {};
  std::string text(bytes.begin(), bytes.end());
  const auto notSpace = [](unsigned char c) { return std::isspace(c) == 0; };
  text.erase(text.begin(), std::find_if(text.begin(), text.end(), notSpace));
  text.erase(std::find_if(text.rbegin(), text.rend(), notSpace).base(), text.end());
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

IsoBmffKind isoBmffKind(std::string_view brand) {
  if (brand == "qt") return {"mov", FormatCategory::video};
  if (brand == "m4a" || brand == "m4b") return {"m4a", FormatCategory::audio};
  if (brand == "heic" || brand == "heix" || brand == "hevc" || brand == "hevx" || brand == "mif1" ||
      brand == "msf1")
    return {"heic", FormatCategory::photos};
  if (brand == "avif" || brand == "avis") return {"avif", FormatCategory::photos};
  if (brand == "crx") return {"cr3", FormatCategory::rawPhotos};
  if (brand == "m4v") return {"m4v", FormatCategory::video};
  if (brand.starts_with("3g")) return {"3gp", FormatCategory::video};
  return {"mp4", FormatCategory::video};
}

std::optional<std::uint64_t> isoBmffNextFileStart(std::uint64_t after, std::uint64_t before,
                                                  ReadContext& context) {
  static constexpr std::array<std::uint8_t, 4> ftyp = {'f', 't', 'y', 'p'};
  std::uint64_t p = after + 8;
  Bytes buffer;
  while (p + 8 < before && p < context.size()) {
    buffer.resize(static_cast<std::size_t>(std::min<std::uint64_t>(piece + 3, before - p)));
    buffer.resize(context.bytesInto(p, buffer));
    if (buffer.size() < 4) return std::nullopt;
    std::size_t from = 0;
    while (from + 4 <= buffer.size()) {
      const void* hit = memmem(buffer.data() + from, buffer.size() - from, ftyp.data(), 4);
      if (hit == nullptr) break;
      const auto index =
          static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - buffer.data());
      const std::uint64_t q = p + index;
      const auto size = q >= 4 ? context.u32(q - 4, true) : std::nullopt;
      if (size && plausibleTypeBoxSize(*size)) return q - 4;
      from = index + 4;
    }
    p += piece;
  }
  return std::nullopt;
}

const FormatCarver& isoBmffCarver() {
  static const IsoBmffCarver carver;
  return carver;
}

}  // namespace vellum
