#include "bytes/FileSource.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "bytes/DeviceError.h"
#include "bytes/PositionedIo.h"
#include "bytes/Precondition.h"

namespace vellum {

FileSource::FileSource(std::string path) : path_(std::move(path)) {
  fd_.reset(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd_) throw DeviceError::cannotOpen(path_, errno);
  struct stat status {};
  if (::fstat(fd_.get(), &status) != 0) throw DeviceError::cannotOpen(path_, errno);
  VL_PRECONDITION(status.st_size >= 0);
  size_ = static_cast<std::uint64_t>(status.st_size);
}

std::size_t FileSource::readInto(std::uint64_t offset, std::span<std::uint8_t> out) {
  if (offset >= size_) return 0;
  const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(out.size(), size_ - offset));
  const TransferResult result = preadFully(fd_.get(), offset, out.first(want));
  if (result.errnum != 0) throw DeviceError::readFailed(offset + result.done, result.errnum);
  return result.done;
}

void FileSource::dropCache(std::uint64_t offset, std::size_t length) {
  ::posix_fadvise(fd_.get(), static_cast<off_t>(offset), static_cast<off_t>(length),
                  POSIX_FADV_DONTNEED);
}

}  // namespace vellum
