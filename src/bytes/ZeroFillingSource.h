#pragma once

#include <cstdint>
#include <functional>

#include "bytes/ByteSource.h"

namespace vellum {

// Reads another source and never fails on the medium: when a read fails, it
// is read again one sector at a time, and each sector that still fails reads
// as zeros and is counted in badReads() (and reported to onUnreadable, if
// set). Errors that say the device is gone (ENODEV, ENXIO, ENOMEDIUM) and
// errors other than read failures still throw.
class ZeroFillingSource final : public ByteSource {
 public:
  // REQUIRES: sectorSize >= 1. inner outlives this object.
  ZeroFillingSource(ByteSource& inner, std::uint64_t sectorSize);

  std::uint64_t size() const override { return inner_.size(); }
  std::int64_t badReads() const override { return inner_.badReads() + badReads_; }
  std::string descriptionForReport() const override { return inner_.descriptionForReport(); }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override;
  void dropCache(std::uint64_t offset, std::size_t length) override {
    inner_.dropCache(offset, length);
  }

  std::function<void(std::uint64_t sectorOffset)> onUnreadable;

 private:
  ByteSource& inner_;
  std::uint64_t sectorSize_;
  std::int64_t badReads_ = 0;
};

}  // namespace vellum
