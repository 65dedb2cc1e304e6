#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "devices/BlockDevice.h"

namespace vellum::testing {

// Wraps a device and lets a test damage it on purpose: each hook runs before
// the transfer reaches the inner device and may throw (a DeviceError,
// WriteError, or anything else), or set a cancellation flag at step K.
class FaultyDevice : public BlockDevice {
 public:
  using Hook = std::function<void(std::uint64_t offset, std::size_t length)>;

  explicit FaultyDevice(BlockDevice& inner) : inner_(inner) {}

  Hook beforeRead;
  Hook beforeWrite;
  // Runs once the inner device took the data (a write that lands, then fails).
  Hook afterWrite;
  std::function<void()> beforeSynchronize;
  // Applied to the bytes a read returned (flip a bit, zero a block, ...).
  std::function<void(std::uint64_t offset, std::span<std::uint8_t> bytes)> afterRead;
  // How many of the n bytes read to hand back (a read that comes back short).
  std::function<std::size_t(std::uint64_t offset, std::size_t n)> shortRead;

  int reads = 0;
  int writes = 0;
  int synchronizations = 0;

  std::uint64_t size() const override { return inner_.size(); }
  std::int64_t badReads() const override { return inner_.badReads(); }
  std::string descriptionForReport() const override { return inner_.descriptionForReport(); }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override;
  void dropCache(std::uint64_t offset, std::size_t length) override {
    inner_.dropCache(offset, length);
  }
  std::int64_t blockSize() const override { return inner_.blockSize(); }
  void write(std::uint64_t offset, std::span<const std::uint8_t> data) override;
  void synchronize() override;

 private:
  BlockDevice& inner_;
};

}  // namespace vellum::testing
