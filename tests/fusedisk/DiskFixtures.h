#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "devices/SimulatedDevice.h"
#include "support/TempDir.h"

namespace vellum {
class ChildProcess;
}

namespace vellum::testing {

// Why tests on real block devices cannot run here, or nothing when they can:
// they need root and loop devices.
std::optional<std::string> loopDevicesUnavailable();
// The same for FUSE disks: also /dev/fuse and the vellum-fusedisk program.
std::optional<std::string> fuseDisksUnavailable();

#define VL_REQUIRE_LOOP_DEVICES()                                                     \
  do {                                                                                \
    if (auto why = ::vellum::testing::loopDevicesUnavailable()) GTEST_SKIP() << *why; \
  } while (false)
#define VL_REQUIRE_FUSE_DISKS()                                                     \
  do {                                                                              \
    if (auto why = ::vellum::testing::fuseDisksUnavailable()) GTEST_SKIP() << *why; \
  } while (false)

// A sparse file of exactly size bytes (replacing any file there).
void createSparseFile(const std::string& path, std::uint64_t size);

// A file attached as a loop device (found free with losetup --find, never a
// fixed number), detached when the object goes away. Throws
// std::runtime_error with losetup's message when attaching fails.
class LoopDevice {
 public:
  struct Options {
    int sectorSize = 0;     // 0: the default 512
    bool directIo = false;  // the loop device reads its file with O_DIRECT
    bool readOnly = false;
  };

  explicit LoopDevice(const std::string& file) : LoopDevice(file, Options{}) {}
  LoopDevice(const std::string& file, Options options);
  ~LoopDevice();
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;

  const std::string& path() const noexcept { return path_; }  // "/dev/loop3"
  std::string name() const;                                   // "loop3"
  // Makes the kernel re-read the partition table (partx --update).
  void updatePartitions() const;

 private:
  std::string path_;
};

// A file served by the vellum-fusedisk program that behaves like a bad card:
// it reports `size` bytes but only `realCapacity` exist (writes past them wrap
// or are dropped), and chosen sectors fail. Mounted in a temporary folder and
// unmounted when the object goes away; attach file() with a LoopDevice
// (directIo on, so every request reaches the program) to get a block device.
class FuseDisk {
 public:
  using Sectors = std::pair<std::uint64_t, std::uint64_t>;  // first, last (inclusive)

  struct Options {
    std::uint64_t size = 0;
    std::optional<std::uint64_t> realCapacity = std::nullopt;
    // How addresses past the real capacity behave, as in SimulatedDevice.
    SimulatedDevice::Overflow overflow = SimulatedDevice::Overflow::wrap;
    std::uint64_t sectorSize = 512;
    std::vector<Sectors> unreadable = {};
    std::vector<Sectors> unwritable = {};
    std::vector<Sectors> slow = {};
    int delayMs = 0;
    int writeMBps = 0;  // 0: as fast as it goes
    int readMBps = 0;
    // Reads of the last cacheBytes written come from memory (a fake's cache).
    std::uint64_t cacheBytes = 0;
    // Where the data lives; empty: a temporary file. A disk served again from
    // the same file holds what was written before.
    std::string backingFile = {};
  };

  explicit FuseDisk(const Options& options);
  ~FuseDisk();
  FuseDisk(const FuseDisk&) = delete;
  FuseDisk& operator=(const FuseDisk&) = delete;

  std::string file() const { return folder_.file("mount/disk"); }
  // Kills the server, as if the card were pulled out: every request to the
  // file fails from now on.
  void pull();

 private:
  TempDir folder_;
  std::unique_ptr<ChildProcess> server_;
};

}  // namespace vellum::testing
