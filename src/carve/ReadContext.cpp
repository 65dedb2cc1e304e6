#include "carve/ReadContext.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "bytes/Precondition.h"

namespace vellum {
namespace {

// Each findLast block holds this many bytes plus the pattern's length.
constexpr std::uint64_t findLastBlock = 1'048'575;
// Reads up to this size outside the window go through the read-ahead buffer,
// which holds this much.
constexpr std::size_t smallRead = 65'536;
constexpr std::size_t readAheadBytes = 1'048'576;

std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
  return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

// Index of the first occurrence of pattern in data at or after from.
std::optional<std::size_t> searchForward(std::span<const std::uint8_t> data,
                                         std::span<const std::uint8_t> pattern, std::size_t from) {
  if (data.size() < pattern.size() || from > data.size() - pattern.size()) return std::nullopt;
  const void* hit = memmem(data.data() + from, data.size() - from, pattern.data(), pattern.size());
  if (hit == nullptr) return std::nullopt;
  return static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - data.data());
}

// Index of the last occurrence of pattern in data that begins before endIndex.
std::optional<std::size_t> searchBackward(std::span<const std::uint8_t> data,
                                          std::span<const std::uint8_t> pattern,
                                          std::size_t endIndex) {
  if (data.size() < pattern.size()) return std::nullopt;
  std::size_t i = std::min(endIndex, data.size() - pattern.size() + 1);
  while (i > 0) {
    const void* first = memrchr(data.data(), pattern[0], i);
    if (first == nullptr) return std::nullopt;
    const auto at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(first) - data.data());
    if (std::memcmp(data.data() + at, pattern.data(), pattern.size()) == 0) return at;
    i = at;
  }
  return std::nullopt;
}

}  // namespace

std::size_t ReadContext::bytesInto(std::uint64_t offset, std::span<std::uint8_t> out) {
  if (out.empty() || offset >= size_) return 0;
  const std::size_t n =
      static_cast<std::size_t>(std::min<std::uint64_t>(out.size(), size_ - offset));
  if (offset >= windowStart_ && offset - windowStart_ <= window_.size() &&
      n <= window_.size() - (offset - windowStart_)) {
    std::memcpy(out.data(), window_.data() + (offset - windowStart_), n);
    return n;
  }
  if (n > smallRead) return source_.readInto(offset, out.first(n));
  const bool buffered = offset >= readAheadStart_ &&
                        offset - readAheadStart_ <= readAhead_.size() &&
                        n <= readAhead_.size() - (offset - readAheadStart_);
  if (!buffered) {
    readAhead_.resize(
        static_cast<std::size_t>(std::min<std::uint64_t>(readAheadBytes, size_ - offset)));
    readAheadStart_ = offset;
    try {
      readAhead_.resize(source_.readInto(offset, readAhead_));
    } catch (...) {
      readAhead_.clear();
      throw;
    }
  }
  const std::size_t available = static_cast<std::size_t>(
      std::min<std::uint64_t>(n, readAhead_.size() - (offset - readAheadStart_)));
  std::memcpy(out.data(), readAhead_.data() + (offset - readAheadStart_), available);
  return available;
}

Bytes ReadContext::bytes(std::uint64_t offset, std::int64_t count) {
  if (count < 1 || offset >= size_) return {};
  const auto n = std::min<std::uint64_t>(static_cast<std::uint64_t>(count), size_ - offset);
  if (offset >= windowStart_ && offset - windowStart_ <= window_.size() &&
      n <= window_.size() - (offset - windowStart_)) {
    const auto* begin = window_.data() + (offset - windowStart_);
    return Bytes(begin, begin + n);
  }
  return source_.read(offset, static_cast<std::int64_t>(n));
}

std::optional<std::uint8_t> ReadContext::byte(std::uint64_t offset) {
  std::uint8_t b = 0;
  if (bytesInto(offset, {&b, 1}) != 1) return std::nullopt;
  return b;
}

namespace {
template <class T>
std::optional<T> readInteger(ReadContext& context, std::uint64_t offset, bool bigEndian) {
  std::array<std::uint8_t, sizeof(T)> raw{};
  if (context.bytesInto(offset, raw) != raw.size()) return std::nullopt;
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < raw.size(); ++i) {
    const std::uint8_t b = bigEndian ? raw[i] : raw[raw.size() - 1 - i];
    value = (value << 8) | b;
  }
  return static_cast<T>(value);
}
}  // namespace

std::optional<std::uint16_t> ReadContext::u16(std::uint64_t offset, bool bigEndian) {
  return readInteger<std::uint16_t>(*this, offset, bigEndian);
}
std::optional<std::uint32_t> ReadContext::u32(std::uint64_t offset, bool bigEndian) {
  return readInteger<std::uint32_t>(*this, offset, bigEndian);
}
std::optional<std::uint64_t> ReadContext::u64(std::uint64_t offset, bool bigEndian) {
  return readInteger<std::uint64_t>(*this, offset, bigEndian);
}

std::optional<std::uint64_t> ReadContext::find(std::span<const std::uint8_t> pattern,
                                               std::uint64_t from, std::uint64_t limit,
                                               std::uint64_t chunk) {
  VL_PRECONDITION(chunk > 0);
  if (pattern.empty() || from >= size_) return std::nullopt;
  const std::uint64_t end = std::min(saturatingAdd(from, limit), size_);
  auto memo = std::find_if(searched_.begin(), searched_.end(), [&](const Searched& s) {
    return std::equal(s.pattern.begin(), s.pattern.end(), pattern.begin(), pattern.end());
  });
  if (memo == searched_.end()) {
    memo = searched_.insert(searched_.end(),
                            Searched{Bytes(pattern.begin(), pattern.end()), 0, 0, std::nullopt});
  }
  std::uint64_t start = from;
  std::uint64_t knownFrom = from;
  if (memo->from <= from && from <= memo->scannedTo) {
    if (memo->hit) return *memo->hit < end ? memo->hit : std::nullopt;
    start = memo->scannedTo;  // nothing starts in [from, scannedTo)
    knownFrom = memo->from;
    if (start >= end) return std::nullopt;
  }
  std::uint64_t scannedTo = start;
  const std::optional<std::uint64_t> hit = scan(pattern, start, end, chunk, scannedTo);
  memo->from = knownFrom;
  memo->scannedTo = hit.value_or(scannedTo);
  memo->hit = hit;
  return hit;
}

std::optional<std::uint64_t> ReadContext::scan(std::span<const std::uint8_t> pattern,
                                               std::uint64_t from, std::uint64_t end,
                                               std::uint64_t chunk, std::uint64_t& scannedTo) {
  Bytes piece;
  // Steps start small and double up to chunk, so a hit close by (the next
  // header 512 bytes on) costs about as much as the distance to it.
  std::uint64_t step = std::min<std::uint64_t>(chunk, 4096);
  for (std::uint64_t position = from; position < end;
       position += step, step = std::min(chunk, saturatingAdd(step, step))) {
    // Never more than the range needs: a short search must not read a chunk.
    const std::uint64_t want = std::min(
        size_ - position, saturatingAdd(std::min(step, end - position), pattern.size() - 1));
    piece.resize(static_cast<std::size_t>(want));
    piece.resize(bytesInto(position, piece));
    if (const auto hit = searchForward(piece, pattern, 0)) {
      const std::uint64_t absolute = position + *hit;
      if (absolute >= end) break;
      return absolute;
    }
    // Every start up to here was looked at (a short piece is the source's end).
    scannedTo = piece.size() < want ? size_ : std::min(end, saturatingAdd(position, step));
    if (piece.size() < want) return std::nullopt;
  }
  scannedTo = std::max(scannedTo, end);
  return std::nullopt;
}

std::optional<std::uint64_t> ReadContext::findLast(std::span<const std::uint8_t> pattern,
                                                   std::uint64_t from, std::uint64_t limit,
                                                   std::optional<std::uint64_t> slack) {
  if (pattern.empty() || from >= size_) return std::nullopt;
  const std::uint64_t end = std::min(saturatingAdd(from, limit), size_);
  const std::uint64_t blockSize = findLastBlock + pattern.size();
  const std::uint64_t stepSize = blockSize - (pattern.size() - 1);
  Bytes block;

  if (!slack) {
    // From the back: the first hit seen is the last one.
    std::uint64_t blockEnd = std::min(saturatingAdd(end, pattern.size() - 1), size_);
    while (true) {
      const std::uint64_t blockStart = blockEnd - std::min(blockEnd - from, blockSize);
      block.resize(static_cast<std::size_t>(blockEnd - blockStart));
      block.resize(bytesInto(blockStart, block));
      if (const auto hit =
              searchBackward(block, pattern, static_cast<std::size_t>(end - blockStart)))
        return blockStart + *hit;
      if (blockStart == from) return std::nullopt;
      blockEnd = blockStart + pattern.size() - 1;
    }
  }

  std::optional<std::uint64_t> last;
  std::uint64_t searchEnd = end;  // hits must begin before this
  for (std::uint64_t position = from; position < searchEnd; position += stepSize) {
    block.resize(static_cast<std::size_t>(std::min(size_ - position, blockSize)));
    block.resize(bytesInto(position, block));
    std::size_t index = 0;
    while (const auto hit = searchForward(block, pattern, index)) {
      const std::uint64_t absolute = position + *hit;
      if (absolute >= searchEnd) break;
      last = absolute;
      searchEnd = std::min(end, saturatingAdd(absolute + pattern.size(), saturatingAdd(*slack, 1)));
      index = *hit + 1;
    }
    if (block.size() < blockSize) break;
  }
  return last;
}

}  // namespace vellum
