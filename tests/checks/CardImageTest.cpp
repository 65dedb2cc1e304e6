#include <gmock/gmock.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "bytes/MemorySource.h"
#include "checks/CardImage.h"
#include "checks/CheckTestSupport.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using ::testing::ThrowsMessage;

using namespace testing;

TEST(CardImage, CopiesEveryByteInChunks) {
  TempDir dir;
  const std::string path = dir.file("card.img");
  constexpr std::uint64_t size = 8'388'608 + 1;
  SimulatedDevice device(size, std::nullopt, Overflow::wrap, 1);
  const Bytes content = fillWithNoise(device, 7);
  FaultyDevice faulty(device);
  std::vector<std::size_t> reads;
  faulty.beforeRead = [&](std::uint64_t, std::size_t length) { reads.push_back(length); };
  std::vector<CheckProgress> log;
  writeFile(path, std::string(size + 5000, 'x'));
  CardImage{.replaceExisting = true}.save(faulty, path, {},
                                          [&log](const CheckProgress& p) { log.push_back(p); });
  EXPECT_EQ(reads, (std::vector<std::size_t>{8'388'608, 1}));
  EXPECT_TRUE(readFile(path) == std::string(content.begin(), content.end()));
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(
      std::tuple(log[1].phase, log[1].completed, log[1].total, log[1].bytesPerSecond.has_value()),
      std::tuple(CheckProgress::Phase::reading, size, size, true));

  EXPECT_EQ(std::filesystem::directory_iterator(dir.path())->path(), path) << "no partial left";
}

// A backup never destroys what is already there unless told to, never writes
// to a device, and leaves no partial file behind.
TEST(CardImage, RefusesDevicesAndExistingFilesAndNeverLeavesAPartialImage) {
  namespace fs = std::filesystem;
  TempDir dir;
  const std::string path = dir.file("card.img");
  MemorySource source(noise(3 * 4096, 3));
  CardImage image;
  image.chunkBytes = 4096;
  writeFile(path, "earlier backup");
  EXPECT_THAT([&] { image.save(source, path, CancellationFlag{}); },
              ThrowsMessage<std::exception>(
                  path + " already exists. Choose another name; nothing was replaced."));
  // Stopped or failing, even a replacing backup leaves the earlier one alone.
  image.replaceExisting = true;
  CancellationFlag flag;
  const auto stop = [&flag](const CheckProgress&) { flag.cancel(); };
  EXPECT_THAT([&] { image.save(source, path, flag, stop); },
              ThrowsMessage<std::exception>(kStopped));
  SimulatedDevice failing(3 * 4096, std::nullopt, Overflow::wrap, 512);
  failing.unreadableBlocks().insert(8 * 2 + 1);
  EXPECT_THAT(
      [&] { image.save(failing, path, CancellationFlag{}); },
      ThrowsMessage<std::exception>(DeviceError::readFailed(2 * 4096 + 512, EIO).description()));
  EXPECT_EQ(readFile(path), "earlier backup");
  image.save(source, path, CancellationFlag{});
  EXPECT_EQ(readFile(path).size(), 3u * 4096);

  fs::create_symlink("/dev/null", dir.file("to-null"));
  fs::create_symlink(dir.file("nowhere/x"), dir.file("dangling"));
  for (const std::string& refused :
       {std::string("/dev/full"), std::string("/dev/shm/card.img"), dir.file("to-null"),
        dir.file("dangling"), dir.path().string()}) {
    EXPECT_THAT([&] { image.save(source, refused, CancellationFlag{}); },
                ThrowsMessage<std::exception>(ImageError::notARegularFile(refused).description()));
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 3) << "no partial left";

  SimulatedDevice small(3 * 4096, std::nullopt, Overflow::wrap, 512);
  FaultyDevice smallFaulty(small);
  const std::string missing = dir.file("missing") + "/card.img";
  EXPECT_THAT([&] { CardImage{}.save(smallFaulty, missing, CancellationFlag{}); },
              ThrowsMessage<std::exception>(
                  "Couldn't create the backup image " + missing +
                  ": No such file or directory. Choose a folder you can write to."));
  EXPECT_EQ(smallFaulty.reads, 0) << "fails before reading";

  // A disk that fills up keeps no partial image, and the message says so.
  if (::geteuid() != 0) return;  // mounting a small tmpfs needs root
  const std::string full = dir.file("full");
  fs::create_directory(full);
  ASSERT_EQ(::mount("tmpfs", full.c_str(), "tmpfs", 0, "size=64k"), 0);
  MemorySource big(noise(1 << 20, 4));
  EXPECT_THAT([&] { image.save(big, full + "/card.img", CancellationFlag{}); },
              ThrowsMessage<std::exception>(
                  ::testing::HasSubstr("No space left on device. The partial image was removed.")));
  EXPECT_TRUE(fs::is_empty(full));
  ::umount2(full.c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace vellum
