#pragma once

#include "bytes/ByteSource.h"

namespace vellum {

// A source over a buffer it owns; never fails.
class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(Bytes data) : data_(std::move(data)) {}

  std::uint64_t size() const override { return data_.size(); }
  std::int64_t badReads() const override { return 0; }
  std::string descriptionForReport() const override;
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override;

  const Bytes& data() const noexcept { return data_; }

 private:
  Bytes data_;
};

}  // namespace vellum
