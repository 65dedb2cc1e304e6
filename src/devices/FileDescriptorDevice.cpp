#include "devices/FileDescriptorDevice.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "bytes/Checked.h"
#include "bytes/DeviceError.h"
#include "bytes/PositionedIo.h"
#include "devices/WriteError.h"

namespace vellum {
namespace {

// Bounce transfers move at most this much at a time, so memory stays bounded
// whatever the caller asks for.
constexpr std::size_t kBounceBytes = std::size_t{1} << 20;

std::uint64_t roundDown(std::uint64_t value, std::uint64_t unit) {
  return value / unit * unit;
}
std::uint64_t roundUp(std::uint64_t value, std::uint64_t unit) {
  return checkedAdd(value, unit - 1) / unit * unit;
}

}  // namespace

FileDescriptorDevice::FileDescriptorDevice(UniqueFd fd, std::string path, std::uint64_t size,
                                           std::int64_t blockSize)
    : fd_(std::move(fd)), size_(size), blockSize_(blockSize), path_(std::move(path)) {
  VL_PRECONDITION(fd_.valid());
  VL_PRECONDITION(blockSize_ >= 1);
  bypassCache();
}

std::unique_ptr<FileDescriptorDevice> FileDescriptorDevice::openImage(const std::string& path,
                                                                      std::int64_t blockSize) {
  VL_PRECONDITION(blockSize >= 1);
  UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd) throw WriteError::cannotOpen(path, errno);
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    throw WriteError::refused(path + " is not a regular disk image file.");
  }
  const auto block = static_cast<std::uint64_t>(blockSize);
  const std::uint64_t size = static_cast<std::uint64_t>(status.st_size) / block * block;
  return std::make_unique<FileDescriptorDevice>(std::move(fd), path, size, blockSize);
}

void FileDescriptorDevice::bypassCache() {
  const int flags = ::fcntl(fd_.get(), F_GETFL);
  // Setting O_DIRECT fails with EINVAL on file systems without direct I/O
  // (tmpfs on older kernels); those stay cached and drop the cache on sync.
  if (flags < 0 || ::fcntl(fd_.get(), F_SETFL, flags | O_DIRECT) != 0) return;
  struct stat status {};
  unsigned int logicalBlock = 0;
  if (::fstat(fd_.get(), &status) == 0 && S_ISBLK(status.st_mode) &&
      ::ioctl(fd_.get(), BLKSSZGET, &logicalBlock) == 0 && logicalBlock > 0) {
    directAlignment_ = logicalBlock;
  } else {
    // Files: 4096 satisfies every local file system's direct-I/O alignment.
    directAlignment_ = AlignedBuffer::kPageAlignment;
  }
}

bool FileDescriptorDevice::isAligned(std::uint64_t offset, std::size_t length,
                                     const void* memory) const noexcept {
  return offset % directAlignment_ == 0 && length % directAlignment_ == 0 &&
         reinterpret_cast<std::uintptr_t>(memory) % AlignedBuffer::kPageAlignment == 0;
}

AlignedBuffer& FileDescriptorDevice::bounce() {
  if (bounce_.size() == 0) bounce_ = AlignedBuffer(kBounceBytes);
  return bounce_;
}

std::size_t FileDescriptorDevice::readInto(std::uint64_t offset, std::span<std::uint8_t> out) {
  if (offset >= size_) return 0;
  const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(out.size(), size_ - offset));
  out = out.first(want);
  if (isDirect() && !isAligned(offset, want, out.data())) return readThroughBounce(offset, out);
  const TransferResult result = preadFully(fd_.get(), offset, out);
  if (result.errnum != 0) throw readFailure(offset + result.done, offset + want, result.errnum);
  return result.done;
}

std::size_t FileDescriptorDevice::readThroughBounce(std::uint64_t offset,
                                                    std::span<std::uint8_t> out) {
  AlignedBuffer& buffer = bounce();
  std::size_t copied = 0;
  while (copied < out.size()) {
    const std::uint64_t position = offset + copied;
    const std::uint64_t start = roundDown(position, directAlignment_);
    const auto skip = static_cast<std::size_t>(position - start);
    const std::size_t length = std::min<std::size_t>(
        buffer.size(),
        static_cast<std::size_t>(roundUp(skip + out.size() - copied, directAlignment_)));
    const TransferResult result = preadFully(fd_.get(), start, buffer.span().first(length));
    if (result.errnum != 0) {
      throw readFailure(std::max(position, start + result.done), start + length, result.errnum);
    }
    if (result.done <= skip) break;  // end of file
    const std::size_t n = std::min(result.done - skip, out.size() - copied);
    std::memcpy(out.data() + copied, buffer.data() + skip, n);
    copied += n;
    if (result.done < length) break;
  }
  return copied;
}

void FileDescriptorDevice::write(std::uint64_t offset, std::span<const std::uint8_t> data) {
  checkWrite(offset, toSigned(data.size()));
  if (data.empty()) return;
  if (!isDirect() || isAligned(offset, data.size(), data.data())) {
    const TransferResult result = pwriteFully(fd_.get(), offset, data);
    if (result.errnum != 0) {
      if (isGone(result.errnum)) throw WriteError::removed(path_);
      throw WriteError::writeFailed(offset + result.done, result.errnum);
    }
  } else if (offset % directAlignment_ == 0 && data.size() % directAlignment_ == 0) {
    writeThroughBounce(offset, data);
  } else {
    writeCached(offset, data);
  }
}

void FileDescriptorDevice::writeThroughBounce(std::uint64_t offset,
                                              std::span<const std::uint8_t> data) {
  AlignedBuffer& buffer = bounce();
  for (std::size_t done = 0; done < data.size();) {
    const std::size_t n = std::min(buffer.size(), data.size() - done);
    std::memcpy(buffer.data(), data.data() + done, n);
    const TransferResult result = pwriteFully(fd_.get(), offset + done, buffer.span().first(n));
    if (result.errnum != 0) {
      throw WriteError::writeFailed(offset + done + result.done, result.errnum);
    }
    done += n;
  }
}

void FileDescriptorDevice::writeCached(std::uint64_t offset, std::span<const std::uint8_t> data) {
  // A block-aligned write that is smaller than the direct-I/O alignment (a
  // 512-byte block on a file system that wants 4096) goes through the page
  // cache for this one call. Direct reads and writes flush and invalidate the
  // cached range first, so later transfers still see this data.
  const int flags = ::fcntl(fd_.get(), F_GETFL);
  if (flags < 0 || ::fcntl(fd_.get(), F_SETFL, flags & ~O_DIRECT) != 0) {
    throw WriteError::writeFailed(offset, errno);
  }
  const TransferResult result = pwriteFully(fd_.get(), offset, data);
  const int restoreError = ::fcntl(fd_.get(), F_SETFL, flags) == 0 ? 0 : errno;
  if (result.errnum != 0) throw WriteError::writeFailed(offset + result.done, result.errnum);
  if (restoreError != 0) throw WriteError::writeFailed(offset, restoreError);
}

bool FileDescriptorDevice::isGone(int errnum) const {
  if (deviceIsGone(errnum)) return true;
  // A pulled USB card mostly fails with EIO; its sysfs entry is gone by then.
  struct stat status {};
  if (::fstat(fd_.get(), &status) != 0 || !S_ISBLK(status.st_mode)) return false;
  const std::string entry = "/sys/dev/block/" + std::to_string(major(status.st_rdev)) + ":" +
                            std::to_string(minor(status.st_rdev));
  return ::access(entry.c_str(), F_OK) != 0 && errno == ENOENT;
}

DeviceError FileDescriptorDevice::readFailure(std::uint64_t from, std::uint64_t end,
                                              int errnum) const {
  if (isGone(errnum)) return DeviceError::readFailed(from, ENODEV);
  // A failed multi-sector read names the first sector that fails on its own,
  // not the start of the request.
  const std::uint64_t sector =
      std::max<std::uint64_t>(static_cast<std::uint64_t>(blockSize_), directAlignment_);
  AlignedBuffer one(static_cast<std::size_t>(sector));
  for (std::uint64_t position = roundDown(from, sector); position < std::min(end, size_);
       position += sector) {
    const auto length = static_cast<std::size_t>(std::min(sector, size_ - position));
    const TransferResult piece = preadFully(fd_.get(), position, one.span().first(length));
    if (piece.errnum != 0) return DeviceError::readFailed(std::max(position, from), piece.errnum);
  }
  return DeviceError::readFailed(from, errnum);
}

void FileDescriptorDevice::synchronize() {
  // On a block device fsync also sends a cache flush to the device itself.
  if (::fsync(fd_.get()) != 0 && ::fdatasync(fd_.get()) != 0) {
    const int errnum = errno;
    if (isGone(errnum)) throw WriteError::removed(path_);
    throw WriteError::writeFailed(0, errnum);
  }
  // Cached descriptors drop what they cached so the next read reaches the medium.
  if (!isDirect()) ::posix_fadvise(fd_.get(), 0, 0, POSIX_FADV_DONTNEED);
}

void FileDescriptorDevice::dropCache(std::uint64_t offset, std::size_t length) {
  ::posix_fadvise(fd_.get(), static_cast<off_t>(offset), static_cast<off_t>(length),
                  POSIX_FADV_DONTNEED);
}

}  // namespace vellum
