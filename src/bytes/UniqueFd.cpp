#include "bytes/UniqueFd.h"

#include <unistd.h>

namespace vellum {

void UniqueFd::reset(int fd) noexcept {
  if (fd_ >= 0 && fd_ != fd) {
    // On Linux the descriptor is released even when close() reports EINTR, so
    // retrying could close a descriptor another thread has just opened.
    ::close(fd_);
  }
  fd_ = fd;
}

}  // namespace vellum
