#pragma once

#include <cstdint>
#include <span>

#include "bytes/ByteSource.h"

namespace vellum {

// A byte source that can also be written in whole blocks and flushed. Every
// test that writes to a card works on one of these, never on a descriptor.
// Write failures throw WriteError; read failures throw DeviceError.
class BlockDevice : public ByteSource {
 public:
  // At least 1.
  virtual std::int64_t blockSize() const = 0;
  // Writes all of data at offset; checkWrite() runs first.
  virtual void write(std::uint64_t offset, std::span<const std::uint8_t> data) = 0;
  // Forces written data to the medium.
  virtual void synchronize() = 0;

  // Throws WriteError::unaligned when offset or count is not a multiple of the
  // block size (checked first), WriteError::outOfRange when the write would
  // end past size(). A block size below 1, a negative count or an overflowing
  // end are programming faults.
  void checkWrite(std::uint64_t offset, std::int64_t count) const;
};

}  // namespace vellum
