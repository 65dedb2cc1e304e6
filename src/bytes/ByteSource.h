#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace vellum {

using Bytes = std::vector<std::uint8_t>;

// Read-only positioned access to a device, a file or memory.
//
// Contract of every read: an offset at or past size() yields nothing (not an
// error); otherwise at most min(count, size() - offset) bytes come back, short
// only at the end of the source. Failures throw DeviceError. Sources keep no
// position and take no locks: one worker reads a source at a time.
class ByteSource {
 public:
  virtual ~ByteSource() = default;

  virtual std::uint64_t size() const = 0;
  // Read failures the source absorbed by returning zeros (0 for most sources).
  virtual std::int64_t badReads() const = 0;
  virtual std::string descriptionForReport() const = 0;

  // Reads into out; returns how many bytes were stored (short only at the end).
  // The hot paths use this to read into buffers they reuse.
  virtual std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) = 0;

  // Makes the next read of the range reach the medium rather than a cache
  // (for timing a read again). Sources without a cache do nothing.
  virtual void dropCache(std::uint64_t /*offset*/, std::size_t /*length*/) {}

  // Reads into a new buffer. A negative count is a programming fault.
  Bytes read(std::uint64_t offset, std::int64_t count);

 protected:
  ByteSource() = default;
  ByteSource(const ByteSource&) = default;
  ByteSource& operator=(const ByteSource&) = default;
};

}  // namespace vellum
