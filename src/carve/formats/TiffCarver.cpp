#include <algorithm>
#include <array>
#include <cctype>
#include <deque>
#include <set>
#include <string>

#include "bytes/Checked.h"
#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

// Classic TIFF addresses 4 GiB; the walk accepts nothing past this length, so
// a damaged offset cannot make the engine skip half a card.
constexpr std::uint64_t maxLength = 1'073'741'824;
constexpr std::size_t maxIfds = 256;
constexpr std::uint16_t maxEntries = 4096;
// Strip and tile tables longer than this are not read in full.
constexpr std::uint32_t maxArrayValues = 262'144;
constexpr std::uint64_t headerSize = 8;
constexpr std::uint64_t entrySize = 12;

namespace tag {
constexpr std::uint16_t imageWidth = 256;
constexpr std::uint16_t compression = 259;
constexpr std::uint16_t photometric = 262;
constexpr std::uint16_t make = 271;
constexpr std::uint16_t stripOffsets = 273;
constexpr std::uint16_t stripByteCounts = 279;
constexpr std::uint16_t tileOffsets = 324;
constexpr std::uint16_t tileByteCounts = 325;
constexpr std::uint16_t subIfds = 330;
constexpr std::uint16_t jpegOffset = 513;
constexpr std::uint16_t jpegLength = 514;
constexpr std::uint16_t exifIfd = 34665;
constexpr std::uint16_t gpsIfd = 34853;
constexpr std::uint16_t interopIfd = 40965;
constexpr std::uint16_t dngVersion = 50706;
}  // namespace tag

// Photometric interpretations that only sensor data uses: colour filter
// array and linear raw.
constexpr std::array<std::uint32_t, 2> rawPhotometrics = {32803, 34892};
// Compressions that only camera raw writers use (Sony, Nikon, Samsung,
// Kodak, Pentax).
constexpr std::array<std::uint32_t, 7> rawCompressions = {32767, 32769, 32770, 34713,
                                                          65000, 262,   65535};

struct RawMaker {
  std::string_view makePrefix;  // compared without regard to case
  std::string_view ext;
};
constexpr std::array<RawMaker, 14> rawMakers = {{
    {"canon", "cr2"},
    {"nikon", "nef"},
    {"sony", "arw"},
    {"pentax", "pef"},
    {"ricoh", "pef"},
    {"samsung", "srw"},
    {"olympus", "orf"},
    {"hasselblad", "3fr"},
    {"phase one", "iiq"},
    {"mamiya", "mef"},
    {"leaf", "mos"},
    {"kodak", "dcr"},
    {"eastman kodak", "dcr"},
    {"epson", "erf"},
}};

std::uint64_t typeSize(std::uint16_t type) {
  switch (type) {
    case 1:
    case 2:
    case 6:
    case 7:
      return 1;  // BYTE, ASCII, SBYTE, UNDEFINED
    case 3:
    case 8:
      return 2;  // SHORT, SSHORT
    case 4:
    case 9:
    case 11:
    case 13:
      return 4;  // LONG, SLONG, FLOAT, IFD
    case 5:
    case 10:
    case 12:
      return 8;  // RATIONAL, SRATIONAL, DOUBLE
    default:
      return 0;
  }
}

struct Entry {
  std::uint16_t tag = 0;
  std::uint16_t type = 0;
  std::uint32_t count = 0;
  std::uint64_t fieldAt = 0;  // absolute offset of the 4-byte value field
};

// One walk over a candidate file. Offsets inside the file are relative to
// start, as TIFF stores them.
class TiffWalk {
 public:
  TiffWalk(ReadContext& context, std::uint64_t start, bool bigEndian)
      : context_(context), start_(start), bigEndian_(bigEndian) {
    available_ = std::min(context.size() - start, maxLength);
  }

  std::optional<CarveMatch> run(std::uint32_t firstIfd) {
    chain_.push_back(firstIfd);
    bool first = true;
    while (!chain_.empty()) {
      const std::uint32_t ifd = chain_.front();
      chain_.pop_front();
      if (!visited_.insert(ifd).second) continue;
      if (visited_.size() > maxIfds) {
        doubtful_ = true;
        break;
      }
      if (!readIfd(ifd, first)) {
        if (first) return std::nullopt;
        doubtful_ = true;
      }
      first = false;
    }
    if (!sawImageData_) doubtful_ = true;
    // Writers keep every block on a word boundary and pad an odd-length last
    // block with a zero byte; that byte belongs to the file.
    if (end_ % 2 != 0 && end_ < available_ && context_.byte(start_ + end_) == 0) ++end_;
    return CarveMatch{end_, extension(), category(),
                      doubtful_ ? CarveConfidence::heuristic : CarveConfidence::exact};
  }

 private:
  // Extends the file to cover [offset, offset + length); false when that
  // range lies past the limit or past the source.
  bool reach(std::uint64_t offset, std::uint64_t length) {
    if (offset > available_ || length > available_ - offset) {
      doubtful_ = true;
      return false;
    }
    end_ = std::max(end_, offset + length);
    return true;
  }

  std::uint32_t fieldValue(const Entry& e) {
    if (e.type == 3 || e.type == 8) return context_.u16(e.fieldAt, bigEndian_).value_or(0);
    return context_.u32(e.fieldAt, bigEndian_).value_or(0);
  }

  // The values of a SHORT or LONG array, inline or at its offset; nothing
  // when they cannot be read.
  std::optional<std::vector<std::uint32_t>> values(const Entry& e) {
    const std::uint64_t width = typeSize(e.type);
    if (e.type != 3 && e.type != 4 && e.type != 13) return std::nullopt;
    std::uint32_t count = e.count;
    if (count > maxArrayValues) {
      doubtful_ = true;
      count = maxArrayValues;
    }
    const std::uint64_t bytes = width * count;
    std::uint64_t at = e.fieldAt;
    if (width * e.count > 4) {
      const std::uint32_t offset = context_.u32(e.fieldAt, bigEndian_).value_or(0);
      if (offset > available_ || bytes > available_ - offset) return std::nullopt;
      at = start_ + offset;
    }
    const Bytes raw = context_.bytes(at, toSigned(bytes));
    if (raw.size() < bytes) return std::nullopt;
    std::vector<std::uint32_t> out(count);
    for (std::size_t i = 0; i < count; ++i)
      out[i] = load(raw, i * width, width);
    return out;
  }

  // Data blocks given as an offset table and a length table.
  void reachBlocks(const std::optional<Entry>& offsets, const std::optional<Entry>& lengths) {
    if (!offsets && !lengths) return;
    if (!offsets || !lengths) {
      doubtful_ = true;
      return;
    }
    const auto starts = values(*offsets);
    const auto sizes = values(*lengths);
    if (!starts || !sizes || starts->size() != sizes->size()) {
      doubtful_ = true;
      return;
    }
    for (std::size_t i = 0; i < starts->size(); ++i)
      if (reach((*starts)[i], (*sizes)[i])) sawImageData_ = true;
  }

  void follow(const Entry& e) {
    if (const auto offsets = values(e)) {
      for (std::uint32_t offset : *offsets)
        chain_.push_back(offset);
    } else {
      doubtful_ = true;
    }
  }

  bool readIfd(std::uint32_t ifd, bool first) {
    if (ifd < headerSize) return false;
    const auto count = context_.u16(start_ + ifd, bigEndian_);
    if (!count || *count == 0 || *count > maxEntries) return false;
    const std::uint64_t length = 2 + entrySize * *count + 4;
    if (!reach(ifd, length)) return false;
    const Bytes table = context_.bytes(start_ + ifd, static_cast<std::int64_t>(length));
    if (table.size() < length) return false;

    std::optional<Entry> strips, stripLengths, tiles, tileLengths, jpeg, jpegLength;
    bool sawWidth = false;
    const std::uint64_t entriesAt = start_ + ifd + 2;
    for (std::uint16_t i = 0; i < *count; ++i) {
      const std::size_t at = 2 + static_cast<std::size_t>(entrySize) * i;
      Entry e;
      e.tag = static_cast<std::uint16_t>(load(table, at, 2));
      e.type = static_cast<std::uint16_t>(load(table, at + 2, 2));
      e.count = load(table, at + 4, 4);
      e.fieldAt = entriesAt + entrySize * i + 8;
      const std::uint64_t width = typeSize(e.type);
      if (width == 0) continue;  // unknown types are skipped, as readers do
      const std::uint64_t valueBytes = width * e.count;
      if (valueBytes > 4) reach(load(table, at + 8, 4), valueBytes);

      switch (e.tag) {
        case tag::imageWidth:
          sawWidth = true;
          break;
        case tag::compression:
          if (std::ranges::find(rawCompressions, fieldValue(e)) != rawCompressions.end())
            rawEvidence_ = true;
          break;
        case tag::photometric:
          if (std::ranges::find(rawPhotometrics, fieldValue(e)) != rawPhotometrics.end())
            rawEvidence_ = true;
          break;
        case tag::make:
          if (make_.empty() && e.type == 2) readMake(e);
          break;
        case tag::stripOffsets:
          strips = e;
          break;
        case tag::stripByteCounts:
          stripLengths = e;
          break;
        case tag::tileOffsets:
          tiles = e;
          break;
        case tag::tileByteCounts:
          tileLengths = e;
          break;
        case tag::jpegOffset:
          jpeg = e;
          break;
        case tag::jpegLength:
          jpegLength = e;
          break;
        case tag::subIfds:
        case tag::exifIfd:
        case tag::gpsIfd:
        case tag::interopIfd:
          follow(e);
          break;
        case tag::dngVersion:
          dng_ = true;
          break;
        default:
          break;
      }
    }
    if (first && !sawWidth) return false;

    reachBlocks(strips, stripLengths);
    reachBlocks(tiles, tileLengths);
    if (jpeg || jpegLength) {
      if (jpeg && jpegLength) {
        if (reach(fieldValue(*jpeg), fieldValue(*jpegLength))) sawImageData_ = true;
      } else {
        doubtful_ = true;
      }
    }

    const std::uint32_t next = load(table, length - 4, 4);
    if (next != 0) {
      // A chain that comes back to an IFD already read is damaged.
      if (visited_.contains(next)) doubtful_ = true;
      chain_.push_back(next);
    }
    return true;
  }

  // An unsigned integer of width bytes at index in the file's byte order.
  std::uint32_t load(const Bytes& data, std::size_t index, std::size_t width) const {
    std::uint32_t v = 0;
    for (std::size_t k = 0; k < width; ++k)
      v = (v << 8) | data[bigEndian_ ? index + k : index + width - 1 - k];
    return v;
  }

  void readMake(const Entry& e) {
    const std::uint64_t length = std::min<std::uint64_t>(e.count, 64);
    std::uint64_t at = e.fieldAt;
    if (e.count > 4) at = start_ + context_.u32(e.fieldAt, bigEndian_).value_or(0);
    for (std::uint8_t c : context_.bytes(at, toSigned(length))) {
      if (c == 0) break;
      make_.push_back(static_cast<char>(std::tolower(c)));
    }
  }

  std::string_view rawExtension() const {
    if (dng_) return "dng";
    if (canonMarker()) return "cr2";
    if (!rawEvidence_) return {};
    for (const RawMaker& maker : rawMakers)
      if (make_.starts_with(maker.makePrefix)) return maker.ext;
    return {};
  }

  // Canon's raw files carry "CR" and major version 2 right after the header.
  bool canonMarker() const {
    const Bytes marker = context_.bytes(start_ + headerSize, 3);
    return marker == Bytes{'C', 'R', 2};
  }

  std::string extension() const {
    const std::string_view raw = rawExtension();
    return std::string(raw.empty() ? "tif" : raw);
  }
  FormatCategory category() const {
    return rawExtension().empty() ? FormatCategory::photos : FormatCategory::rawPhotos;
  }

  ReadContext& context_;
  std::uint64_t start_;
  bool bigEndian_;
  std::uint64_t available_ = 0;
  std::uint64_t end_ = headerSize;
  std::deque<std::uint32_t> chain_;
  std::set<std::uint32_t> visited_;
  bool doubtful_ = false;
  bool sawImageData_ = false;
  bool dng_ = false;
  bool rawEvidence_ = false;
  std::string make_;
};

class TiffCarver final : public FormatCarver {
 public:
  std::string_view id() const override { return "tiff"; }
  FormatCategorySet categories() const override {
    return {FormatCategory::photos, FormatCategory::rawPhotos};
  }
  std::vector<Bytes> signatures() const override {
    return {{0x49, 0x49, 0x2A, 0x00}, {0x4D, 0x4D, 0x00, 0x2A}};
  }

  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    const Bytes header = context.bytes(start, headerSize);
    if (header.size() < headerSize) return std::nullopt;
    bool bigEndian = false;
    if (header[0] == 'M' && header[1] == 'M') {
      bigEndian = true;
    } else if (header[0] != 'I' || header[1] != 'I') {
      return std::nullopt;
    }
    if (context.u16(start + 2, bigEndian) != 42) return std::nullopt;
    const auto firstIfd = context.u32(start + 4, bigEndian);
    if (!firstIfd) return std::nullopt;
    return TiffWalk(context, start, bigEndian).run(*firstIfd);
  }
};

}  // namespace

const FormatCarver& tiffCarver() {
  static const TiffCarver carver;
  return carver;
}

}  // namespace vellum
