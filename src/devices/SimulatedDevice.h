#pragma once

#include <cstdint>
#include <optional>
#include <set>

#include "devices/BlockDevice.h"

namespace vellum {

// An in-memory card. It reports `size` bytes but really stores only
// `realCapacity`; addresses at or past the real capacity wrap onto the start
// (`wrap`), are lost and read as zeros (`discard`), or (`combined`) wrap at the
// smallest power of two holding the real capacity and are lost where they land
// between the real capacity and that power of two, as counterfeit cards do.
// Blocks in unreadableBlocks() fail every read with EIO.
class SimulatedDevice final : public BlockDevice {
 public:
  enum class Overflow { wrap, discard, combined };

  // realCapacity defaults to size. Storage is one dense zero-filled buffer.
  SimulatedDevice(std::uint64_t size, std::optional<std::uint64_t> realCapacity, Overflow overflow,
                  std::int64_t blockSize);

  std::uint64_t size() const override { return size_; }
  std::int64_t badReads() const override { return badReads_; }
  std::string descriptionForReport() const override;
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override;

  std::int64_t blockSize() const override { return blockSize_; }
  void write(std::uint64_t offset, std::span<const std::uint8_t> data) override;
  void synchronize() override {}

  Overflow overflow() const noexcept { return overflow_; }
  std::uint64_t realCapacity() const noexcept { return realCapacity_; }
  // Block numbers (in blockSize() units) whose reads fail; may be changed
  // between operations.
  std::set<std::uint64_t>& unreadableBlocks() noexcept { return unreadableBlocks_; }
  const std::set<std::uint64_t>& unreadableBlocks() const noexcept { return unreadableBlocks_; }
  const Bytes& storage() const noexcept { return storage_; }

  // Where a card of this geometry stores reported position pos (none: lost),
  // and how many bytes from there on map the same way. The test disk served
  // over FUSE decodes its addresses with this too. REQUIRES: pos < size,
  // realCapacity > 0 unless overflow is discard.
  struct Location {
    std::optional<std::uint64_t> physical;
    std::uint64_t length;
  };
  static Location locate(std::uint64_t pos, std::uint64_t size, std::uint64_t realCapacity,
                         Overflow overflow);

 private:
  Location locate(std::uint64_t pos) const { return locate(pos, size_, realCapacity_, overflow_); }

  std::uint64_t size_;
  Overflow overflow_;
  std::int64_t blockSize_;
  std::uint64_t realCapacity_;
  std::int64_t badReads_ = 0;
  std::set<std::uint64_t> unreadableBlocks_;
  Bytes storage_;
};

}  // namespace vellum
