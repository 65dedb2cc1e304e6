#include "platform/BlockDeviceSource.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "bytes/AlignedBuffer.h"
#include "bytes/Checked.h"
#include "bytes/DeviceError.h"
#include "bytes/PositionedIo.h"

namespace vellum {
namespace {

std::uint64_t roundDown(std::uint64_t value, std::uint64_t unit) {
  return value / unit * unit;
}
std::uint64_t roundUp(std::uint64_t value, std::uint64_t unit) {
  return checkedAdd(value, unit - 1) / unit * unit;
}

// Turns O_DIRECT on for as long as it lives, where the descriptor allows it.
class DirectMode {
 public:
  explicit DirectMode(int fd) : fd_(fd), flags_(::fcntl(fd, F_GETFL)) {
    if (flags_ >= 0 && (flags_ & O_DIRECT) == 0) {
      active_ = ::fcntl(fd_, F_SETFL, flags_ | O_DIRECT) == 0;
    }
  }
  ~DirectMode() {
    if (active_) ::fcntl(fd_, F_SETFL, flags_);
  }
  DirectMode(const DirectMode&) = delete;
  DirectMode& operator=(const DirectMode&) = delete;

  bool active() const noexcept { return active_; }

 private:
  int fd_;
  int flags_;
  bool active_ = false;
};

// One pread of exactly piece.size() bytes (retrying only EINTR). Returns 0,
// the error number, or EIO for a short read.
int readExactly(int fd, std::uint64_t offset, std::span<std::uint8_t> piece) {
  ssize_t n = 0;
  do {
    n = ::pread(fd, piece.data(), piece.size(), static_cast<off_t>(offset));
  } while (n < 0 && errno == EINTR);
  if (n < 0) return errno;
  return static_cast<std::size_t>(n) == piece.size() ? 0 : EIO;
}

}  // namespace

BlockDeviceSource::BlockDeviceSource(UniqueFd fd, std::string path)
    : fd_(std::move(fd)), path_(std::move(path)) {
  int sectorSize = 0;
  std::uint64_t bytes = 0;
  if (::ioctl(fd_.get(), BLKSSZGET, &sectorSize) == 0 &&
      ::ioctl(fd_.get(), BLKGETSIZE64, &bytes) == 0 && sectorSize > 0 && bytes > 0) {
    blockSize_ = sectorSize;
    // Whole sectors only, as sector size times sector count.
    size_ = roundDown(bytes, static_cast<std::uint64_t>(sectorSize));
    return;
  }
  struct stat status {};
  if (::fstat(fd_.get(), &status) == 0 && status.st_size >= 1) {
    blockSize_ = 512;
    size_ = static_cast<std::uint64_t>(status.st_size);
    return;
  }
  throw DeviceError::notAFileOrDevice(path_);
}

std::size_t BlockDeviceSource::readInto(std::uint64_t offset, std::span<std::uint8_t> out) {
  if (offset >= size_) return 0;
  const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(out.size(), size_ - offset));
  const auto sector = static_cast<std::uint64_t>(blockSize_);
  const std::uint64_t start = roundDown(offset, sector);
  const std::uint64_t end = std::min(roundUp(offset + want, sector), size_);
  if (start == offset && end == offset + want) {
    readSectors(start, out.first(want));
    return want;
  }
  // An unaligned request reads the sectors that cover it.
  std::vector<std::uint8_t> covering(static_cast<std::size_t>(end - start));
  readSectors(start, covering);
  std::memcpy(out.data(), covering.data() + (offset - start), want);
  return want;
}

void BlockDeviceSource::readSectors(std::uint64_t start, std::span<std::uint8_t> buffer) {
  const TransferResult fast = preadFully(fd_.get(), start, buffer);
  if (fast.done == buffer.size()) return;

  // Something in the range failed (or the device ended early): go sector by
  // sector from the sector the fast path stopped in. Each sector is read
  // uncached, because the page cache reads whole pages and would fail every
  // sector that shares a page with a bad one.
  const auto sector = static_cast<std::size_t>(blockSize_);
  DirectMode direct(fd_.get());
  // O_DIRECT needs aligned memory; the caller's buffer may be anywhere.
  AlignedBuffer aligned(direct.active() ? sector : 0);
  for (std::size_t position = fast.done / sector * sector; position < buffer.size();) {
    const std::size_t length = std::min(sector, buffer.size() - position);
    const std::span<std::uint8_t> piece = buffer.subspan(position, length);
    int error = EINVAL;
    if (direct.active() && length == sector) {
      error = readExactly(fd_.get(), start + position, aligned.span());
      if (error == 0) std::memcpy(piece.data(), aligned.data(), length);
    }
    // EINVAL: this descriptor cannot do direct I/O here after all.
    if (error == EINVAL) error = readExactly(fd_.get(), start + position, piece);
    if (error != 0) {
      std::fill(piece.begin(), piece.end(), std::uint8_t{0});
      ++badReads_;
    }
    position += length;
  }
}

void BlockDeviceSource::dropCache(std::uint64_t offset, std::size_t length) {
  ::posix_fadvise(fd_.get(), static_cast<off_t>(offset), static_cast<off_t>(length),
                  POSIX_FADV_DONTNEED);
}

}  // namespace vellum
