#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "bytes/ByteSource.h"

namespace vellum {

// Buffered random access to the source of a run, shared by the engine and
// all carvers (one per run, one thread). The engine installs each chunk it
// reads as the window; reads that fall wholly inside the window are served
// from it, all others go to the source. All offsets are absolute. Reads past
// the end are not errors: they come back short or empty, and the integer
// readers return nothing. The source's DeviceError propagates.
class ReadContext {
 public:
  // REQUIRES: source outlives the context.
  explicit ReadContext(ByteSource& source) : source_(source) {}

  ByteSource& source() const noexcept { return source_; }
  std::uint64_t size() const noexcept { return size_; }

  std::uint64_t windowStart() const noexcept { return windowStart_; }
  std::span<const std::uint8_t> window() const noexcept { return window_; }
  // The window is not owned: REQUIRES the bytes stay valid until the next
  // setWindow() or clearWindow().
  void setWindow(std::uint64_t start, std::span<const std::uint8_t> window) noexcept {
    windowStart_ = start;
    window_ = window;
  }
  // A temporary buffer would be gone before the window is read.
  void setWindow(std::uint64_t start, Bytes&& window) = delete;
  void clearWindow() noexcept { setWindow(0, std::span<const std::uint8_t>{}); }

  // Up to count bytes at offset (empty for count < 1 or offset >= size()).
  // Served from the window when the whole clamped range lies inside it;
  // small reads outside it go through a read-ahead buffer, so a carver
  // walking a file byte by byte costs one source read per buffer, not one
  // per byte; larger reads are one read of the source.
  Bytes bytes(std::uint64_t offset, std::int64_t count);
  // Copies into out as bytes() would; returns how many bytes were stored.
  std::size_t bytesInto(std::uint64_t offset, std::span<std::uint8_t> out);

  std::optional<std::uint8_t> byte(std::uint64_t offset);
  std::optional<std::uint16_t> u16(std::uint64_t offset, bool bigEndian);
  std::optional<std::uint32_t> u32(std::uint64_t offset, bool bigEndian);
  std::optional<std::uint64_t> u64(std::uint64_t offset, bool bigEndian);

  // First occurrence of pattern starting in [from, min(from + limit, size())),
  // searched in steps of chunk bytes that overlap by the pattern's length less
  // one, so a pattern straddling two steps is still seen. What a search
  // found (or covered without a hit) is remembered per pattern, so the next
  // candidate searching from inside that stretch does not read it again:
  // the whole scan stays linear in the source's size however many
  // candidates search for an end marker that isn't there.
  // REQUIRES: chunk > 0.
  std::optional<std::uint64_t> find(std::span<const std::uint8_t> pattern, std::uint64_t from,
                                    std::uint64_t limit, std::uint64_t chunk);

  // Without slack: the last occurrence starting in [from, min(from + limit,
  // size())). With slack: walks forward from the first hit, and after each hit
  // keeps looking for a hit that begins at most slack bytes past that hit's
  // end; the last hit reached
  // this way is returned. Callers use it to find a format's final end marker
  // when a file holds several, without running into the next file.
  std::optional<std::uint64_t> findLast(std::span<const std::uint8_t> pattern, std::uint64_t from,
                                        std::uint64_t limit,
                                        std::optional<std::uint64_t> slack = std::nullopt);

 private:
  // No occurrence of pattern starts in [from, scannedTo), except hit, which
  // then equals scannedTo.
  struct Searched {
    Bytes pattern;
    std::uint64_t from = 0;
    std::uint64_t scannedTo = 0;
    std::optional<std::uint64_t> hit;
  };
  std::optional<std::uint64_t> scan(std::span<const std::uint8_t> pattern, std::uint64_t from,
                                    std::uint64_t end, std::uint64_t chunk,
                                    std::uint64_t& scannedTo);

  ByteSource& source_;
  std::uint64_t size_ = source_.size();
  std::uint64_t windowStart_ = 0;
  std::span<const std::uint8_t> window_;
  Bytes readAhead_;
  std::uint64_t readAheadStart_ = 0;
  std::vector<Searched> searched_;
};

}  // namespace vellum
