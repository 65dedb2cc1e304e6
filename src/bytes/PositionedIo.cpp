#include "bytes/PositionedIo.h"

#include <unistd.h>

#include <cerrno>

namespace vellum {

TransferResult preadFully(int fd, std::uint64_t offset, std::span<std::uint8_t> out) noexcept {
  TransferResult result;
  while (result.done < out.size()) {
    const ssize_t n = ::pread(fd, out.data() + result.done, out.size() - result.done,
                              static_cast<off_t>(offset + result.done));
    if (n > 0) {
      result.done += static_cast<std::size_t>(n);
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      result.errnum = errno;
      break;
    }
  }
  return result;
}

TransferResult pwriteFully(int fd, std::uint64_t offset,
                           std::span<const std::uint8_t> in) noexcept {
  TransferResult result;
  while (result.done < in.size()) {
    const ssize_t n = ::pwrite(fd, in.data() + result.done, in.size() - result.done,
                               static_cast<off_t>(offset + result.done));
    if (n > 0) {
      result.done += static_cast<std::size_t>(n);
    } else if (n == 0) {
      result.errnum = EIO;
      break;
    } else if (errno != EINTR) {
      result.errnum = errno;
      break;
    }
  }
  return result;
}

}  // namespace vellum
