#pragma once

#include <utility>

namespace vellum {

// Owns one file descriptor from the moment a system call returns it; closes it
// when destroyed. Move-only.
class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }
  explicit operator bool() const noexcept { return valid(); }

  // Gives up ownership without closing.
  int release() noexcept { return std::exchange(fd_, -1); }
  // Closes the current descriptor (if any) and takes fd.
  void reset(int fd = -1) noexcept;

 private:
  int fd_ = -1;
};

}  // namespace vellum
