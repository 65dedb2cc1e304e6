#include <algorithm>
#include <array>
#include <cstring>

#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

// The end marker must lie this far from the header at most.
constexpr std::uint64_t maxLength = 268'435'456;
constexpr std::uint64_t searchStep = 1'048'576;
// An incremental update appends objects and another end marker; a later
// marker belongs to the same file when it lies within this many bytes of the
// previous one and no other file starts in between.
constexpr std::uint64_t updateSlack = 1'048'576;
// Other files begin on sector boundaries.
constexpr std::uint64_t sectorSize = 512;

const Bytes& endMarker() {
  static const Bytes marker = signatureBytes("%%EOF");
  return marker;
}

struct Magic {
  std::uint64_t offset;
  std::string_view bytes;
};

// Starts of files the engine knows. "BM" alone is too weak to end a PDF on.
constexpr std::array<Magic, 13> otherFileMagics = {{
    {0, "%PDF-"},
    {0, "\x89PNG\r\n\x1a\n"},
    {0, "\xFF\xD8\xFF"},
    {0, "GIF87a"},
    {0, "GIF89a"},
    {4, "ftyp"},
    {0, "RIFF"},
    {0, "FORM"},
    {0, std::string_view("II*\0", 4)},
    {0, std::string_view("MM\0*", 4)},
    {0, std::string_view("PK\x03\x04", 4)},
    {0, "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1"},
    {0, "ID3"},
}};
constexpr std::size_t longestMagicEnd = 8;

// Inside a PDF, before its first end marker, images are often stored as
// plain JPEG streams; one may start on a sector boundary by chance.
enum class Jpeg { counts, ignored };

bool otherFileStartsAt(const Bytes& block, std::size_t at, Jpeg jpeg) {
  for (const Magic& magic : otherFileMagics) {
    if (jpeg == Jpeg::ignored && magic.bytes.starts_with("\xFF\xD8")) continue;
    const std::size_t begin = at + magic.offset;
    if (begin + magic.bytes.size() > block.size()) continue;
    if (std::memcmp(block.data() + begin, magic.bytes.data(), magic.bytes.size()) == 0) return true;
  }
  return false;
}

// The first sector boundary in [from, to) where another file starts, or to.
std::uint64_t nextOtherFile(ReadContext& context, std::uint64_t from, std::uint64_t to, Jpeg jpeg) {
  std::uint64_t sector = (from + sectorSize - 1) / sectorSize * sectorSize;
  while (sector < to) {
    const std::uint64_t span = std::min(to - sector, searchStep);
    const Bytes block = context.bytes(sector, static_cast<std::int64_t>(span + longestMagicEnd));
    for (std::size_t at = 0; at < span && at < block.size(); at += sectorSize)
      if (otherFileStartsAt(block, at, jpeg)) return sector + at;
    if (block.size() < span) return to;
    sector += span;
  }
  return to;
}

// PDF files end with "%%EOF" and, almost always, a line end.
std::uint64_t afterLineEnd(ReadContext& context, std::uint64_t at) {
  const Bytes tail = context.bytes(at, 2);
  if (tail.size() >= 2 && tail[0] == '\r' && tail[1] == '\n') return at + 2;
  if (!tail.empty() && (tail[0] == '\r' || tail[0] == '\n')) return at + 1;
  return at;
}

class PdfCarver final : public FormatCarver {
 public:
  std::string_view id() const override { return "pdf"; }
  FormatCategorySet categories() const override { return {FormatCategory::documents}; }
  std::vector<Bytes> signatures() const override { return {signatureBytes("%PDF-")}; }

  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    const auto version = context.byte(start + 5);
    if (!version || *version < '1' || *version > '9') return std::nullopt;

    const Bytes& marker = endMarker();
    const std::uint64_t limitEnd = std::min(start + maxLength, context.size());

    // The first end marker, unless another file begins before it (a PDF cut
    // short must not run into the next file's end marker).
    std::optional<std::uint64_t> last;
    for (std::uint64_t position = start; position < limitEnd;) {
      const std::uint64_t stepEnd = std::min(limitEnd, position + searchStep);
      const std::uint64_t stop =
          nextOtherFile(context, std::max(position, start + 1), stepEnd, Jpeg::ignored);
      last = context.find(marker, position, stop - position, searchStep);
      if (last || stop < stepEnd) break;
      position = stepEnd;
    }
    if (!last) return std::nullopt;

    // Later markers from incremental updates, up to the next file's start.
    while (true) {
      const std::uint64_t from = *last + marker.size();
      const std::uint64_t reach = std::min(limitEnd, from + updateSlack);
      if (from >= reach) break;
      const std::uint64_t stop = nextOtherFile(context, from, reach, Jpeg::counts);
      const auto later = context.findLast(marker, from, stop - from, updateSlack);
      if (!later) break;
      last = later;
    }

    const std::uint64_t end = afterLineEnd(context, *last + marker.size());
    return CarveMatch{end - start, "pdf", FormatCategory::documents, CarveConfidence::exact};
  }
};

}  // namespace

const FormatCarver& pdfCarver() {
  static const PdfCarver carver;
  return carver;
}

}  // namespace vellum
