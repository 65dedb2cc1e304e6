#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "bytes/DeviceError.h"
#include "bytes/MemorySource.h"
#include "checks/CardImage.h"
#include "checks/CheckTestSupport.h"
#include "support/FaultyDevice.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using testing::FaultyDevice;
using testing::TempDir;

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(CardImage, CopiesEveryByteInChunksReplacingTheFile) {
  TempDir dir;
  const std::string path = dir.file("card.img");
  constexpr std::uint64_t size = 8'388'608 + 1;
  SimulatedDevice device(size, std::nullopt, SimulatedDevice::Overflow::wrap, 1);
  const Bytes content = testing::fillWithNoise(device, 7);
  FaultyDevice faulty(device);
  std::vector<std::size_t> reads;
  faulty.beforeRead = [&](std::uint64_t, std::size_t length) { reads.push_back(length); };
  testing::ProgressLog log;
  testing::writeFile(path, std::string(size + 5000, 'x'));

  CardImage{}.save(faulty, path, CancellationFlag{}, log.callback());
  EXPECT_EQ(reads, (std::vector<std::size_t>{8'388'608, 1}));
  EXPECT_TRUE(readFile(path) == content);
  ASSERT_EQ(log.reports.size(), 2u);
  EXPECT_EQ(log.reports[0].completed, 8'388'608u);
  EXPECT_EQ(log.reports[1].completed, size);
  EXPECT_EQ(log.reports[1].total, size);
  EXPECT_EQ(log.reports[1].phase, CheckProgress::Phase::reading);
  EXPECT_TRUE(log.reports[1].bytesPerSecond.has_value());

  MemorySource empty(Bytes{});
  testing::ProgressLog none;
  CardImage{}.save(empty, path, CancellationFlag{}, none.callback());
  EXPECT_EQ(std::filesystem::file_size(path), 0u);
  EXPECT_TRUE(none.reports.empty());
}

TEST(CardImage, CancellingRemovesThePartialImage) {
  TempDir dir;
  const std::string path = dir.file("card.img");
  MemorySource source(testing::noise(3 * 4096, 3));
  CancellationFlag flag;
  CardImage image;
  image.chunkBytes = 4096;
  EXPECT_EQ(testing::errorText([&] {
              image.save(source, path, flag, [&](const CheckProgress&) { flag.cancel(); });
            }),
            "The test was stopped.");
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(CardImage, ErrorsNameThePathAndReachTheCaller) {
  TempDir dir;
  SimulatedDevice device(3 * 4096, std::nullopt, SimulatedDevice::Overflow::wrap, 512);
  FaultyDevice faulty(device);
  const std::string missing = dir.file("missing") + "/card.img";
  EXPECT_EQ(testing::errorText([&] { CardImage{}.save(faulty, missing, CancellationFlag{}); }),
            "Couldn't create the backup image " + missing +
                ": No such file or directory. Choose a folder you can write to.");
  EXPECT_EQ(faulty.reads, 0) << "fails before reading";

  // /dev/full accepts the open and refuses every write.
  EXPECT_EQ(testing::errorText([&] { CardImage{}.save(faulty, "/dev/full", CancellationFlag{}); }),
            "Couldn't write the backup image /dev/full: No space left on device. Check that the "
            "disk has enough free space.");

  // A read error passes through unchanged and leaves what was copied.
  const std::string path = dir.file("card.img");
  device.unreadableBlocks().insert(8 * 2 + 1);
  CardImage image;
  image.chunkBytes = 4096;
  try {
    image.save(device, path, CancellationFlag{});
    ADD_FAILURE() << "no error";
  } catch (const DeviceError& error) {
    EXPECT_EQ(error, DeviceError::readFailed(2 * 4096 + 512, EIO));
  }
  EXPECT_EQ(std::filesystem::file_size(path), 2u * 4096);
}

TEST(CardImage, ReadOnlyFolderFailsBeforeReading) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may write into a read-only folder";
  TempDir dir;
  MemorySource source(Bytes(4096));
  std::filesystem::permissions(
      dir.path(), std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
  try {
    CardImage{}.save(source, dir.file("card.img"), CancellationFlag{});
    ADD_FAILURE() << "no error";
  } catch (const ImageError& error) {
    EXPECT_EQ(error, ImageError::cannotCreate(dir.file("card.img"), EACCES));
  }
  std::filesystem::permissions(dir.path(), std::filesystem::perms::owner_all);
}

}  // namespace
}  // namespace vellum
