#include <array>
#include <optional>

#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

struct FormType {
  bool riff;  // little-endian RIFF, else big-endian IFF
  std::string_view form;
  std::string_view ext;
  FormatCategory category;
};

constexpr std::array<FormType, 5> formTypes = {{
    {true, "WAVE", "wav", FormatCategory::audio},
    {true, "AVI ", "avi", FormatCategory::video},
    {true, "WEBP", "webp", FormatCategory::photos},
    {false, "AIFF", "aiff", FormatCategory::audio},
    {false, "AIFC", "aiff", FormatCategory::audio},
}};

// Measures the file from its outer chunk's size; nothing inside is read.
class RiffCarver final : public FormatCarver {
 public:
  std::string_view id() const override { return "riff"; }
  FormatCategorySet categories() const override {
    return {FormatCategory::audio, FormatCategory::video, FormatCategory::photos};
  }
  std::vector<Bytes> signatures() const override {
    return {signatureBytes("RIFF"), signatureBytes("FORM")};
  }

  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    const Bytes magic = context.bytes(start, 4);
    const bool riff = magic == signatureBytes("RIFF");
    const auto size = context.u32(start + 4, !riff);
    if (!size || *size < 4) return std::nullopt;
    const Bytes formBytes = context.bytes(start + 8, 4);
    if (formBytes.size() != 4) return std::nullopt;
    const std::string_view form(reinterpret_cast<const char*>(formBytes.data()), 4);
    for (const FormType& type : formTypes) {
      if (type.riff != riff || type.form != form) continue;
      std::uint64_t length = std::uint64_t{*size} + (*size % 2) + 8;
      CarveConfidence confidence = CarveConfidence::exact;
      if (length > context.size() - start) {
        length = context.size() - start;
        confidence = CarveConfidence::heuristic;
      }
      return CarveMatch{length, std::string(type.ext), type.category, confidence};
    }
    return std::nullopt;
  }
};

}  // namespace

const FormatCarver& riffCarver() {
  static const RiffCarver carver;
  return carver;
}

}  // namespace vellum
