#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vellum {

// A heap buffer whose start is aligned for uncached (O_DIRECT) transfers.
// Contents start zeroed: every page is touched up front, so the first timed
// transfer into the buffer does not also pay for faulting its pages in.
// Move-only.
class AlignedBuffer {
 public:
  static constexpr std::size_t kPageAlignment = 4096;

  AlignedBuffer() noexcept = default;
  explicit AlignedBuffer(std::size_t size, std::size_t alignment = kPageAlignment);
  AlignedBuffer(AlignedBuffer&& other) noexcept;
  AlignedBuffer& operator=(AlignedBuffer&& other) noexcept;
  AlignedBuffer(const AlignedBuffer&) = delete;
  AlignedBuffer& operator=(const AlignedBuffer&) = delete;
  ~AlignedBuffer();

  std::uint8_t* data() noexcept { return data_; }
  const std::uint8_t* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return size_; }
  std::span<std::uint8_t> span() noexcept { return {data_, size_}; }
  std::span<const std::uint8_t> span() const noexcept { return {data_, size_}; }

 private:
  std::uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t alignment_ = kPageAlignment;
};

}  // namespace vellum
