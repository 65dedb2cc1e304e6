#include "bytes/AlignedBuffer.h"

#include <cstring>
#include <new>
#include <utility>

#include "bytes/Precondition.h"

namespace vellum {

AlignedBuffer::AlignedBuffer(std::size_t size, std::size_t alignment)
    : size_(size), alignment_(alignment) {
  VL_PRECONDITION(alignment > 0 && (alignment & (alignment - 1)) == 0);
  if (size > 0) {
    data_ = static_cast<std::uint8_t*>(::operator new (size, std::align_val_t{alignment}));
    std::memset(data_, 0, size);
  }
}

AlignedBuffer::AlignedBuffer(AlignedBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      alignment_(other.alignment_) {}

AlignedBuffer& AlignedBuffer::operator=(AlignedBuffer&& other) noexcept {
  if (this != &other) {
    AlignedBuffer old(std::move(*this));
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    alignment_ = other.alignment_;
  }
  return *this;
}

AlignedBuffer::~AlignedBuffer() {
  if (data_ != nullptr) ::operator delete (data_, std::align_val_t{alignment_});
}

}  // namespace vellum
