#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

// Headers are read up to this far from the first one.
constexpr std::uint64_t maxLength = 17'179'869'184;
// Bytes of entry data the carver may search through in all, for entries whose
// size comes only in a data descriptor and for a lost end record.
constexpr std::uint64_t maxSearched = 268'435'456;
constexpr std::uint64_t searchBlock = 1'048'576;
constexpr std::size_t maxRecords = 1'000'000;
constexpr std::uint32_t unknown32 = 0xFFFFFFFF;
constexpr std::uint64_t maxVersionNeeded = 100;

namespace sig {
constexpr std::uint32_t localFile = 0x04034B50;
constexpr std::uint32_t dataDescriptor = 0x08074B50;
constexpr std::uint32_t centralFile = 0x02014B50;
constexpr std::uint32_t digitalSignature = 0x05054B50;
constexpr std::uint32_t archiveExtra = 0x08064B50;
constexpr std::uint32_t zip64End = 0x06064B50;
constexpr std::uint32_t zip64Locator = 0x07064B50;
constexpr std::uint32_t end = 0x06054B50;
}  // namespace sig

constexpr std::uint64_t localHeaderSize = 30;
constexpr std::uint64_t centralHeaderSize = 46;
constexpr std::uint64_t endRecordSize = 22;
constexpr std::uint16_t zip64ExtraId = 0x0001;

std::uint64_t le(const Bytes& data, std::size_t at, std::size_t width) {
  std::uint64_t v = 0;
  for (std::size_t k = width; k > 0; --k)
    v = (v << 8) | data[at + k - 1];
  return v;
}

bool knownMethod(std::uint64_t method) {
  // Stored, the PKWARE methods, and the later LZMA, Zstandard, MP3, XZ, JPEG,
  // WavPack, PPMd and AES markers.
  return method <= 20 || (method >= 93 && method <= 99);
}

struct Kind {
  std::string_view ext;
  FormatCategory category;
};

// What the entry names and a stored "mimetype" say the archive is.
class Classifier {
 public:
  void name(std::string_view n) {
    if (n == "[Content_Types].xml") contentTypes_ = true;
    if (n.starts_with("word/")) word_ = true;
    if (n.starts_with("xl/")) excel_ = true;
    if (n.starts_with("ppt/")) powerPoint_ = true;
    if (n == "AndroidManifest.xml") android_ = true;
    if (n == "META-INF/MANIFEST.MF" || n.ends_with(".class")) java_ = true;
  }
  void mimetype(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
      text.remove_suffix(1);
    mimetype_ = text;
  }

  Kind kind() const {
    if (mimetype_ == "application/vnd.oasis.opendocument.text") return document("odt");
    if (mimetype_ == "application/vnd.oasis.opendocument.spreadsheet") return document("ods");
    if (mimetype_ == "application/vnd.oasis.opendocument.presentation") return document("odp");
    if (mimetype_ == "application/epub+zip") return document("epub");
    if (contentTypes_ && word_) return document("docx");
    if (contentTypes_ && excel_) return document("xlsx");
    if (contentTypes_ && powerPoint_) return document("pptx");
    if (android_) return {"apk", FormatCategory::archives};
    if (java_) return {"jar", FormatCategory::archives};
    return {"zip", FormatCategory::archives};
  }

 private:
  static Kind document(std::string_view ext) { return {ext, FormatCategory::documents}; }

  std::string mimetype_;
  bool contentTypes_ = false, word_ = false, excel_ = false, powerPoint_ = false;
  bool android_ = false, java_ = false;
};

class ZipWalk {
 public:
  ZipWalk(ReadContext& context, std::uint64_t start)
      : context_(context),
        start_(start),
        limit_(start + std::min(maxLength, context.size() - start)) {}

  std::optional<CarveMatch> run() {
    if (!firstHeaderLooksRight()) return std::nullopt;
    std::uint64_t position = start_;
    std::optional<std::uint64_t> end;
    for (std::size_t records = 0; records < maxRecords && !end; ++records) {
      const auto next = step(position, end);
      if (!next) break;
      position = *next;
    }
    if (!end) end = lostEndRecord(position);
    const Kind kind = classifier_.kind();
    // An end record whose comment runs past the source was cut short.
    if (end && *end <= context_.size())
      return CarveMatch{*end - start_, std::string(kind.ext), kind.category,
                        CarveConfidence::exact};
    if (end) furthest_ = context_.size();
    const std::uint64_t reached = std::max(furthest_, position);
    return CarveMatch{std::min(reached, limit_) - start_, std::string(kind.ext), kind.category,
                      CarveConfidence::heuristic};
  }

 private:
  bool firstHeaderLooksRight() {
    const Bytes h = context_.bytes(start_, localHeaderSize);
    // Versions needed to extract run to 6.3 (63) today; random bytes rarely
    // pass this together with a known method and a name.
    return h.size() == localHeaderSize && le(h, 0, 4) == sig::localFile &&
           le(h, 4, 2) <= maxVersionNeeded && le(h, 26, 2) > 0 && knownMethod(le(h, 8, 2));
  }

  // Reads the record at position and returns where the next one starts, or
  // nothing when the walk cannot go on. Sets end on the end record.
  std::optional<std::uint64_t> step(std::uint64_t position, std::optional<std::uint64_t>& end) {
    if (position >= limit_) return std::nullopt;
    furthest_ = std::max(furthest_, position);
    const auto signature = context_.u32(position, false);
    if (!signature) return cutShort();
    switch (*signature) {
      case sig::localFile:
        return localFile(position);
      case sig::centralFile: {
        const Bytes h = context_.bytes(position, centralHeaderSize);
        if (h.size() < centralHeaderSize) return cutShort();
        noteName(position + centralHeaderSize, le(h, 28, 2));
        return within(position, centralHeaderSize + le(h, 28, 2) + le(h, 30, 2) + le(h, 32, 2));
      }
      case sig::end: {
        const auto comment = context_.u16(position + 20, false);
        if (!comment) return cutShort();
        end = position + endRecordSize + *comment;
        return end;
      }
      case sig::zip64End: {
        const auto size = context_.u64(position + 4, false);
        if (!size || *size > maxLength) return std::nullopt;
        return within(position, 12 + *size);
      }
      case sig::zip64Locator:
        return within(position, 20);
      case sig::digitalSignature: {
        const auto size = context_.u16(position + 4, false);
        if (!size) return cutShort();
        return within(position, 6 + std::uint64_t{*size});
      }
      case sig::archiveExtra: {
        const auto size = context_.u32(position + 4, false);
        if (!size) return cutShort();
        return within(position, 8 + std::uint64_t{*size});
      }
      default:
        return std::nullopt;
    }
  }

  // A record that the source's end cuts short: the file runs to that end.
  std::optional<std::uint64_t> cutShort() {
    furthest_ = std::max(furthest_, limit_);
    return std::nullopt;
  }

  // position + length when that stays inside the limit.
  std::optional<std::uint64_t> within(std::uint64_t position, std::uint64_t length) {
    if (length > limit_ - position) {
      furthest_ = std::max(furthest_, limit_);
      return std::nullopt;
    }
    return position + length;
  }

  std::optional<std::uint64_t> localFile(std::uint64_t position) {
    const Bytes h = context_.bytes(position, localHeaderSize);
    if (h.size() < localHeaderSize) return cutShort();
    const std::uint64_t flags = le(h, 6, 2);
    const std::uint64_t method = le(h, 8, 2);
    std::uint64_t packed = le(h, 18, 4);
    std::uint64_t unpacked = le(h, 22, 4);
    const std::uint64_t nameLength = le(h, 26, 2);
    const std::uint64_t extraLength = le(h, 28, 2);
    const std::uint64_t dataStart = position + localHeaderSize + nameLength + extraLength;
    if (dataStart > limit_) {
      furthest_ = limit_;
      return std::nullopt;
    }
    const std::string name = noteName(position + localHeaderSize, nameLength);

    bool zip64 = false;
    const Bytes extra = context_.bytes(position + localHeaderSize + nameLength,
                                       static_cast<std::int64_t>(extraLength));
    for (std::size_t at = 0; at + 4 <= extra.size();) {
      const std::uint64_t id = le(extra, at, 2);
      const std::size_t size = static_cast<std::size_t>(le(extra, at + 2, 2));
      if (at + 4 + size > extra.size()) break;
      if (id == zip64ExtraId) {
        zip64 = true;
        std::size_t field = at + 4;
        if (unpacked == unknown32 && field + 8 <= at + 4 + size) {
          unpacked = le(extra, field, 8);
          field += 8;
        }
        if (packed == unknown32 && field + 8 <= at + 4 + size) packed = le(extra, field, 8);
      }
      at += 4 + size;
    }

    if (name == "mimetype" && method == 0 && packed > 0 && packed < 256) {
      const Bytes text = context_.bytes(dataStart, static_cast<std::int64_t>(packed));
      classifier_.mimetype(
          std::string_view(reinterpret_cast<const char*>(text.data()), text.size()));
    }

    const bool descriptor = (flags & 0x08) != 0;
    if (!descriptor) return within(dataStart, packed);
    // Some writers fill in the sizes even though a descriptor follows.
    if (packed != 0 && packed != unknown32) {
      if (const auto dataEnd = within(dataStart, packed)) {
        if (const auto after = afterDescriptorAt(*dataEnd, packed, zip64)) return after;
      }
    }
    return searchDescriptor(dataStart, zip64);
  }

  // Where the record after a data descriptor starts, if the data of packed
  // bytes ends at dataEnd and a descriptor of the right size follows it.
  std::optional<std::uint64_t> afterDescriptorAt(std::uint64_t dataEnd, std::uint64_t packed,
                                                 bool zip64) {
    const std::uint64_t sizeWidth = zip64 ? 8 : 4;
    std::uint64_t at = dataEnd;
    if (context_.u32(at, false) == sig::dataDescriptor) at += 4;
    const std::uint64_t after = at + 4 + 2 * sizeWidth;
    const std::optional<std::uint64_t> stored =
        zip64 ? context_.u64(at + 4, false)
              : std::optional<std::uint64_t>(context_.u32(at + 4, false));
    if (!stored || *stored != packed || after > limit_) return std::nullopt;
    if (!recordStartsAt(after)) return std::nullopt;
    return after;
  }

  bool recordStartsAt(std::uint64_t position) {
    const auto signature = context_.u32(position, false);
    return signature == sig::localFile || signature == sig::centralFile ||
           signature == sig::digitalSignature || signature == sig::zip64End ||
           signature == sig::end || signature == sig::archiveExtra;
  }

  // Data of unknown size: look for a descriptor whose size field matches the
  // distance from the data's start, with or without its signature.
  std::optional<std::uint64_t> searchDescriptor(std::uint64_t dataStart, bool zip64) {
    const auto found = searchFor(dataStart, [&](std::uint64_t at) -> std::optional<std::uint64_t> {
      for (const bool wide : {zip64, !zip64}) {
        if (context_.u32(at, false) == sig::dataDescriptor) {
          if (const auto after = afterDescriptorAt(at, at - dataStart, wide)) return after;
        } else if (recordStartsAt(at)) {
          const std::uint64_t descriptorSize = wide ? 20 : 12;
          if (at - dataStart < descriptorSize) continue;
          const std::uint64_t dataEnd = at - descriptorSize;
          if (afterDescriptorAt(dataEnd, dataEnd - dataStart, wide) == at) return at;
        }
      }
      return std::nullopt;
    });
    if (!found) furthest_ = std::max(furthest_, searchedTo_);
    return found;
  }

  // The end record, found by search when the walk broke off: it must agree
  // with where the central directory it describes ends.
  std::optional<std::uint64_t> lostEndRecord(std::uint64_t from) {
    return searchFor(from, [&](std::uint64_t at) -> std::optional<std::uint64_t> {
      const Bytes r = context_.bytes(at, endRecordSize);
      if (r.size() < endRecordSize || le(r, 0, 4) != sig::end) return std::nullopt;
      const std::uint64_t directorySize = le(r, 12, 4);
      const std::uint64_t directoryOffset = le(r, 16, 4);
      if (directoryOffset == unknown32 || directorySize == unknown32) {
        // ZIP64: the locator right before names the ZIP64 end record, which
        // must follow the directory it describes.
        if (at < start_ + 20 || context_.u32(at - 20, false) != sig::zip64Locator)
          return std::nullopt;
        const auto record = context_.u64(at - 12, false);
        if (!record || *record > at - start_ - 20) return std::nullopt;
        const Bytes z = context_.bytes(start_ + *record, 56);
        if (z.size() < 56 || le(z, 0, 4) != sig::zip64End) return std::nullopt;
        if (le(z, 48, 8) > *record || le(z, 40, 8) != *record - le(z, 48, 8)) return std::nullopt;
      } else if (start_ + directoryOffset + directorySize != at) {
        return std::nullopt;
      }
      const std::uint64_t end = at + endRecordSize + le(r, 20, 2);
      return end;
    });
  }

  // Scans forward from from for "PK" and asks accept at each hit, charging
  // the bytes read to the carver's search budget.
  template <class Accept>
  std::optional<std::uint64_t> searchFor(std::uint64_t from, Accept accept) {
    std::uint64_t position = from;
    while (position < limit_ && searched_ < maxSearched) {
      const std::uint64_t span =
          std::min({searchBlock, limit_ - position, maxSearched - searched_});
      // One byte more, so that a "PK" across the block's end is seen.
      const Bytes block = context_.bytes(position, static_cast<std::int64_t>(span + 1));
      for (std::size_t index = 0; index + 1 < block.size() && index < span;) {
        const void* hit = memmem(block.data() + index, block.size() - index, "PK", 2);
        if (hit == nullptr) break;
        const auto offset =
            static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - block.data());
        if (offset >= span) break;
        if (const auto result = accept(position + offset)) {
          searchedTo_ = position + offset;
          return result;
        }
        index = offset + 1;
      }
      searched_ += span;
      position += std::min<std::uint64_t>(span, block.size());
      if (block.size() < span) break;
    }
    searchedTo_ = position;
    return std::nullopt;
  }

  std::string noteName(std::uint64_t at, std::uint64_t length) {
    const Bytes raw = context_.bytes(at, static_cast<std::int64_t>(length));
    std::string name(raw.begin(), raw.end());
    classifier_.name(name);
    return name;
  }

  ReadContext& context_;
  std::uint64_t start_;
  std::uint64_t limit_;
  std::uint64_t furthest_ = 0;
  std::uint64_t searched_ = 0;
  std::uint64_t searchedTo_ = 0;  // where the last search stopped
  Classifier classifier_;
};

class ZipCarver final : public FormatCarver {
 public:
  std::string_view id() const override { return "zip"; }
  FormatCategorySet categories() const override {
    return {FormatCategory::documents, FormatCategory::archives};
  }
  std::vector<Bytes> signatures() const override { return {{0x50, 0x4B, 0x03, 0x04}}; }

  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    if (start >= context.size()) return std::nullopt;
    return ZipWalk(context, start).run();
  }
};

}  // namespace

const FormatCarver& zipCarver() {
  static const ZipCarver carver;
  return carver;
}

}  // namespace vellum
