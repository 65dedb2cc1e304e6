// Placeholders for carvers whose own file has not landed yet, so the registry
// links. CMakeLists.txt defines VELLUM_PENDING_<NAME> only while
// formats/<Name>Carver.cpp is missing; this file goes away once all exist.
#include <optional>

#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

class PendingCarver final : public FormatCarver {
 public:
  PendingCarver(std::string_view id, FormatCategorySet categories, std::vector<Bytes> signatures)
      : id_(id), categories_(std::move(categories)), signatures_(std::move(signatures)) {}
  std::string_view id() const override { return id_; }
  FormatCategorySet categories() const override { return categories_; }
  std::vector<Bytes> signatures() const override { return signatures_; }
  std::optional<CarveMatch> carve(std::uint64_t, ReadContext&) const override {
    return std::nullopt;
  }

 private:
  std::string_view id_;
  FormatCategorySet categories_;
  std::vector<Bytes> signatures_;
};

}  // namespace

#ifdef VELLUM_PENDING_TIFF
const FormatCarver& tiffCarver() {
  static const PendingCarver carver("tiff", {FormatCategory::photos, FormatCategory::rawPhotos},
                                    {{0x49, 0x49, 0x2A, 0x00}, {0x4D, 0x4D, 0x00, 0x2A}});
  return carver;
}
#endif
#ifdef VELLUM_PENDING_PDF
const FormatCarver& pdfCarver() {
  static const PendingCarver carver("pdf", {FormatCategory::documents}, {signatureBytes("%PDF-")});
  return carver;
}
#endif
#ifdef VELLUM_PENDING_ZIP
const FormatCarver& zipCarver() {
  static const PendingCarver carver("zip", {FormatCategory::documents, FormatCategory::archives},
                                    {{0x50, 0x4B, 0x03, 0x04}});
  return carver;
}
#endif
#ifdef VELLUM_PENDING_OLE2
const FormatCarver& ole2Carver() {
  static const PendingCarver carver("ole2", {FormatCategory::documents},
                                    {{0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1}});
  return carver;
}
#endif
#ifdef VELLUM_PENDING_MP3
const FormatCarver& mp3Carver() {
  static const PendingCarver carver("mp3", {FormatCategory::audio}, {signatureBytes("ID3")});
  return carver;
}
#endif

}  // namespace vellum
