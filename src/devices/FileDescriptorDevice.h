#pragma once

#include <memory>
#include <string>

#include "bytes/AlignedBuffer.h"
#include "bytes/DeviceError.h"
#include "bytes/UniqueFd.h"
#include "devices/BlockDevice.h"

namespace vellum {

// A card or disk image written through a descriptor it owns.
//
// Transfers bypass the page cache (O_DIRECT) so that every read and write
// reaches the medium, never a cached copy. Requests that O_DIRECT cannot take
// as they are (offsets, lengths or memory not aligned) go through an aligned
// bounce buffer, so callers may pass any buffer. Where the file system refuses
// O_DIRECT, I/O is cached and synchronize() drops the cache afterwards.
class FileDescriptorDevice final : public BlockDevice {
 public:
  // Takes ownership of an open read-write descriptor.
  FileDescriptorDevice(UniqueFd fd, std::string path, std::uint64_t size, std::int64_t blockSize);

  // Opens a regular file as a device of whole blocks (a trailing partial block
  // is never used). Throws WriteError::cannotOpen or WriteError::refused.
  static std::unique_ptr<FileDescriptorDevice> openImage(const std::string& path,
                                                         std::int64_t blockSize);

  std::uint64_t size() const override { return size_; }
  std::int64_t badReads() const override { return badReads_; }
  std::string descriptionForReport() const override { return path_; }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override;
  void dropCache(std::uint64_t offset, std::size_t length) override;

  std::int64_t blockSize() const override { return blockSize_; }
  void write(std::uint64_t offset, std::span<const std::uint8_t> data) override;
  void synchronize() override;

  // True when transfers bypass the page cache with O_DIRECT.
  bool isDirect() const noexcept { return directAlignment_ != 0; }
  int fd() const noexcept { return fd_.get(); }

 private:
  void bypassCache();
  bool isAligned(std::uint64_t offset, std::size_t length, const void* memory) const noexcept;
  std::size_t readThroughBounce(std::uint64_t offset, std::span<std::uint8_t> out);
  void writeThroughBounce(std::uint64_t offset, std::span<const std::uint8_t> data);
  void writeCached(std::uint64_t offset, std::span<const std::uint8_t> data);
  AlignedBuffer& bounce();
  // Whether a failed transfer's errno means the device itself went away.
  bool isGone(int errnum) const;
  // The error for a read that failed at from, naming the first failing
  // sector before end (errno ENODEV when the device went away).
  DeviceError readFailure(std::uint64_t from, std::uint64_t end, int errnum) const;

  UniqueFd fd_;
  std::uint64_t size_;
  std::int64_t blockSize_;
  std::int64_t badReads_ = 0;
  std::string path_;
  std::size_t directAlignment_ = 0;  // 0 when I/O is cached
  AlignedBuffer bounce_;
};

}  // namespace vellum
