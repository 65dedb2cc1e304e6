#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "bytes/Checked.h"
#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

constexpr std::uint64_t sectorShiftOffset = 30;
constexpr std::uint64_t fatSectorCountOffset = 44;
constexpr std::uint32_t maxFatSectors = 65'536;
// A compound file has no end marker: its length is what the allocation table
// can address, capped here.
constexpr std::uint64_t maxLength = 268'435'456;
// Stream names are looked for only this far into the file.
constexpr std::uint64_t maxNameSearch = 8'388'608;
constexpr std::uint64_t nameSearchStep = 1'048'576;

struct StreamName {
  std::string_view name;
  std::string_view ext;
};
// Tried in this order: the first one present names the file.
constexpr std::array<StreamName, 3> streamNames = {{
    {"WordDocument", "doc"},
    {"Workbook", "xls"},
    {"PowerPoint Document", "ppt"},
}};

// Directory entries hold names in UTF-16 little-endian.
Bytes utf16le(std::string_view text) {
  Bytes out;
  for (char c : text) {
    out.push_back(static_cast<std::uint8_t>(c));
    out.push_back(0);
  }
  return out;
}

class Ole2Carver final : public FormatCarver {
 public:
  std::string_view id() const override { return "ole2"; }
  FormatCategorySet categories() const override { return {FormatCategory::documents}; }
  std::vector<Bytes> signatures() const override {
    return {{0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1}};
  }

  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    const auto shift = context.u16(start + sectorShiftOffset, false);
    if (!shift || (*shift != 9 && *shift != 12)) return std::nullopt;
    const auto fatSectors = context.u32(start + fatSectorCountOffset, false);
    if (!fatSectors || *fatSectors < 1 || *fatSectors > maxFatSectors) return std::nullopt;

    const std::uint64_t sectorSize = std::uint64_t{1} << *shift;
    const std::uint64_t addressable = checkedMul(*fatSectors, sectorSize / 4);
    const std::uint64_t largest = checkedAdd(sectorSize, checkedMul(addressable, sectorSize));
    const std::uint64_t available = context.size() - start;
    const std::uint64_t length = std::min({largest, available, maxLength});

    // Searched through the context, which remembers what it covered: a run of
    // headers 512 bytes apart does not read 8 MiB once per header.
    const std::uint64_t nameSearch = std::min({largest, available, maxNameSearch});
    std::string_view ext = "ole";
    for (const StreamName& stream : streamNames) {
      const Bytes name = utf16le(stream.name);
      if (nameSearch < name.size()) continue;
      if (context.find(name, start, nameSearch - name.size() + 1, nameSearchStep)) {
        ext = stream.ext;
        break;
      }
    }
    return CarveMatch{length, std::string(ext), FormatCategory::documents,
                      CarveConfidence::heuristic};
  }
};

}  // namespace

const FormatCarver& ole2Carver() {
  static const Ole2Carver carver;
  return carver;
}

}  // namespace vellum
