#pragma once

#include "bytes/ByteSource.h"
#include "bytes/UniqueFd.h"

namespace vellum {

// A regular file (or anything else open() and fstat() accept) read with
// positioned reads. Never zero-fills: a failing read throws
// DeviceError::readFailed at the offset of the failing call.
class FileSource final : public ByteSource {
 public:
  // Opens path read-only; throws DeviceError::cannotOpen.
  explicit FileSource(std::string path);

  std::uint64_t size() const override { return size_; }
  std::int64_t badReads() const override { return badReads_; }
  std::string descriptionForReport() const override { return path_; }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override;
  void dropCache(std::uint64_t offset, std::size_t length) override;

  const std::string& path() const noexcept { return path_; }
  int fd() const noexcept { return fd_.get(); }

 private:
  UniqueFd fd_;
  std::uint64_t size_ = 0;
  std::int64_t badReads_ = 0;
  std::string path_;
};

}  // namespace vellum
