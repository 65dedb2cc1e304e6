#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "bytes/MemorySource.h"
#include "checks/CardImage.h"
#include "checks/CheckTestSupport.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using namespace testing;

TEST(CardImage, CopiesEveryByteAndLeavesNoPartialImageOnCancelOrError) {
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
  CardImage{}.save(faulty, path, {}, [&log](const CheckProgress& p) { log.push_back(p); });
  EXPECT_EQ(reads, (std::vector<std::size_t>{8'388'608, 1}));
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(Bytes(std::istreambuf_iterator<char>(in), {}) == content);
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(
      std::tuple(log[1].phase, log[1].completed, log[1].total, log[1].bytesPerSecond.has_value()),
      std::tuple(CheckProgress::Phase::reading, size, size, true));

  MemorySource source(noise(3 * 4096, 3));
  CancellationFlag flag;
  CardImage image;
  image.chunkBytes = 4096;
  const auto stop = [&flag](const CheckProgress&) { flag.cancel(); };
  EXPECT_EQ(errorText([&] { image.save(source, path, flag, stop); }), kStopped);
  EXPECT_FALSE(std::filesystem::exists(path));

  SimulatedDevice small(3 * 4096, std::nullopt, Overflow::wrap, 512);
  FaultyDevice smallFaulty(small);
  const std::string missing = dir.file("missing") + "/card.img";
  EXPECT_EQ(errorText([&] { CardImage{}.save(smallFaulty, missing, CancellationFlag{}); }),
            "Couldn't create the backup image " + missing +
                ": No such file or directory. Choose a folder you can write to.");
  EXPECT_EQ(smallFaulty.reads, 0) << "fails before reading";
  // /dev/full accepts the open and refuses every write.
  EXPECT_EQ(errorText([&] { CardImage{}.save(smallFaulty, "/dev/full", CancellationFlag{}); }),
            "Couldn't write the backup image /dev/full: No space left on device. Check that the "
            "disk has enough free space.");
  // A read error passes through unchanged and leaves what was copied.
  small.unreadableBlocks().insert(8 * 2 + 1);
  EXPECT_EQ(errorText([&] { image.save(small, path, CancellationFlag{}); }),
            DeviceError::readFailed(2 * 4096 + 512, EIO).description());
  EXPECT_EQ(std::filesystem::file_size(path), 2u * 4096);

  if (::geteuid() == 0) return;  // root may write into a read-only folder
  namespace fs = std::filesystem;
  fs::permissions(dir.path(), fs::perms::owner_read | fs::perms::owner_exec);
  EXPECT_EQ(errorText([&] { image.save(source, dir.file("new.img"), CancellationFlag{}); }),
            ImageError::cannotCreate(dir.file("new.img"), EACCES).description());
  fs::permissions(dir.path(), fs::perms::owner_all);
}

}  // namespace
}  // namespace vellum
