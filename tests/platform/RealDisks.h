#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "DiskFixtures.h"
#include "Machine.h"
#include "platform/DeviceGuard.h"
#include "platform/Process.h"
#include "support/TempDir.h"

namespace vellum::testing {

inline void run(const std::vector<std::string>& argv, const std::string& input = {}) {
  const ProcessResult result = runProcess(argv, input);
  ASSERT_TRUE(result.status.succeeded()) << argv.front() << ": " << result.standardError;
}

// A sparse image of `size` bytes attached as a loop device, which may be
// written as a disk image (VL_ALLOW_DISK_IMAGES=1).
struct ImageDisk {
  explicit ImageDisk(std::uint64_t size, int sectorSize = 0, const std::string& name = "disk.img")
      : image(dir.file(name)),
        created((createSparseFile(image, size), true)),
        loop(image, {.sectorSize = sectorSize}) {}

  DiskIdentity inspect() const { return DeviceGuard::inspect(loop.name(), Allowance::standard); }
  // Gives the disk one partition from sector 2048 on and waits for its node.
  // (sfdisk cannot make every kernel re-read a loop device's table; partx can.)
  std::string partition() const {
    runProcess({"sfdisk", "--quiet", loop.path()}, "label: dos\nstart=2048, type=83\n");
    loop.updatePartitions();
    const std::string node = loop.path() + "p1";
    for (int i = 0; i < 100 && !std::filesystem::is_block_file(node); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(std::filesystem::is_block_file(node)) << node;
    return node;
  }

  TempDir dir;
  std::string image;
  bool created;
  ScopedEnv allowImages{"VL_ALLOW_DISK_IMAGES", "1"};
  LoopDevice loop;
};

}  // namespace vellum::testing
