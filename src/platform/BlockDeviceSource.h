#pragma once

#include <cstdint>
#include <string>

#include "bytes/ByteSource.h"
#include "bytes/UniqueFd.h"

namespace vellum {

// A raw disk read in whole sectors. An unreadable sector never fails a read:
// it comes back as zeros and badReads() rises by one, so callers that care
// (the Health Scan) compare badReads() before and after a read.
//
// Reads go through the page cache; only the per-sector retry of a failed
// range is uncached (see readInto).
class BlockDeviceSource final : public ByteSource {
 public:
  // Takes ownership of a readable descriptor. A block device reports its own
  // sector size and size; anything else with a non-zero size counts as a
  // device of 512-byte sectors. Throws DeviceError::notAFileOrDevice (the
  // descriptor is closed) when neither works.
  BlockDeviceSource(UniqueFd fd, std::string path);

  std::uint64_t size() const override { return size_; }
  std::int64_t badReads() const override { return badReads_; }
  std::string descriptionForReport() const override { return path_; }
  // Never throws for I/O errors.
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override;
  void dropCache(std::uint64_t offset, std::size_t length) override;

  std::int64_t blockSize() const noexcept { return blockSize_; }
  const std::string& path() const noexcept { return path_; }
  int fd() const noexcept { return fd_.get(); }

 private:
  void readSectors(std::uint64_t start, std::span<std::uint8_t> buffer);

  UniqueFd fd_;
  std::uint64_t size_ = 0;
  std::int64_t blockSize_ = 512;
  std::int64_t badReads_ = 0;
  std::string path_;
};

}  // namespace vellum
