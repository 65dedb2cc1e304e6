#include "carve/formats/Mp3Carver.h"

#include <algorithm>
#include <array>

#include "carve/ReadContext.h"
#include "carve/formats/Carvers.h"

namespace vellum {
namespace {

// Kilobits per second by version group (0: MPEG-2 and 2.5, 1: MPEG-1), layer
// code (1: Layer III, 2: Layer II, 3: Layer I) and bitrate index.
constexpr std::array<std::array<std::array<std::uint32_t, 15>, 4>, 2> bitrates = {{
    {{
        {},
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
    }},
    {{
        {},
        {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
        {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
    }},
}};

// Hertz by version code (0: MPEG-2.5, 1: reserved, 2: MPEG-2, 3: MPEG-1) and
// sample-rate index.
constexpr std::array<std::array<std::uint32_t, 3>, 4> sampleRates = {{
    {11025, 12000, 8000},
    {0, 0, 0},
    {22050, 24000, 16000},
    {44100, 48000, 32000},
}};

constexpr std::uint64_t id3HeaderSize = 10;
constexpr std::uint64_t id3v1TagSize = 128;
// An MP3 has no end marker; the walk stops this far from the tag's start.
constexpr std::uint64_t maxWalk = 536'870'912;
constexpr int minFrames = 4;

class Mp3Carver final : public FormatCarver {
 public:
  std::string_view id() const override { return "mp3"; }
  FormatCategorySet categories() const override { return {FormatCategory::audio}; }
  std::vector<Bytes> signatures() const override { return {signatureBytes("ID3")}; }

  std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const override {
    const Bytes tag = context.bytes(start, id3HeaderSize);
    if (tag.size() < id3HeaderSize) return std::nullopt;
    if (tag[3] > 15) return std::nullopt;
    if (std::any_of(tag.begin() + 6, tag.end(), [](std::uint8_t b) { return (b & 0x80) != 0; }))
      return std::nullopt;

    // Sync-safe size: seven bits per byte, footer not included.
    const std::uint64_t tagSize = (std::uint64_t{tag[6]} << 21) | (std::uint64_t{tag[7]} << 14) |
                                  (std::uint64_t{tag[8]} << 7) | tag[9];
    std::uint64_t position = start + id3HeaderSize + tagSize;
    if ((tag[5] & 0x10) != 0) position += id3HeaderSize;

    const std::uint64_t limit = std::min(start + maxWalk, context.size());
    int frames = 0;
    std::array<std::uint8_t, 4> header{};
    while (position + header.size() <= limit) {
      const std::size_t got = context.bytesInto(position, header);
      const auto length = mp3FrameLength(std::span(header).first(got));
      // A frame that would run past the limit is not part of what we can keep.
      if (!length || *length > limit - position) break;
      position += *length;
      ++frames;
    }
    if (frames < minFrames) return std::nullopt;

    std::uint64_t end = position;
    const Bytes trailer = context.bytes(end, 3);
    if (trailer == signatureBytes("TAG")) end += id3v1TagSize;
    return CarveMatch{end - start, "mp3", FormatCategory::audio, CarveConfidence::heuristic};
  }
};

}  // namespace

std::optional<std::uint64_t> mp3FrameLength(std::span<const std::uint8_t> header) {
  if (header.size() < 3) return std::nullopt;
  const std::uint8_t b0 = header[0], b1 = header[1], b2 = header[2];
  if (b0 != 0xFF || b1 < 0xE0) return std::nullopt;
  const unsigned version = (b1 >> 3) & 3u;
  const unsigned layer = (b1 >> 1) & 3u;
  if (version == 1 || layer == 0) return std::nullopt;
  const unsigned bitrateIndex = b2 >> 4;
  const unsigned rateIndex = (b2 >> 2) & 3u;
  const std::uint64_t padding = (b2 >> 1) & 1u;
  if (bitrateIndex == 0 || bitrateIndex == 15 || rateIndex == 3) return std::nullopt;

  const std::uint64_t bitrate =
      std::uint64_t{bitrates[version == 3 ? 1 : 0][layer][bitrateIndex]} * 1000;
  const std::uint64_t sampleRate = sampleRates[version][rateIndex];
  if (bitrate == 0 || sampleRate == 0) return std::nullopt;

  if (layer == 3) return (12 * bitrate / sampleRate + padding) * 4;
  const std::uint64_t coefficient = (layer == 1 && version != 3) ? 72 : 144;
  return coefficient * bitrate / sampleRate + padding;
}

const FormatCarver& mp3Carver() {
  static const Mp3Carver carver;
  return carver;
}

}  // namespace vellum
