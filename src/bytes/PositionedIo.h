#pragma once

#include <cstdint>
#include <span>

namespace vellum {

struct TransferResult {
  std::size_t done = 0;  // bytes transferred before the loop stopped
  int errnum = 0;        // 0 when it stopped at the end or completed
};

// pread in a loop: continues after partial reads, retries EINTR, stops at end
// of file (errnum 0) or at the first other error (errnum set, done = bytes
// read before the failing call).
TransferResult preadFully(int fd, std::uint64_t offset, std::span<std::uint8_t> out) noexcept;

// pwrite in a loop: continues after partial writes and retries EINTR. A write
// that makes no progress is reported as EIO rather than retried forever.
TransferResult pwriteFully(int fd, std::uint64_t offset, std::span<const std::uint8_t> in) noexcept;

}  // namespace vellum
