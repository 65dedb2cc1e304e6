#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "bytes/ByteCountFormat.h"
#include "bytes/DeviceError.h"
#include "bytes/FileSource.h"
#include "bytes/MemorySource.h"
#include "bytes/UniqueFd.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using testing::TempDir;
using testing::writeFile;

std::string digits(std::size_t n) {
  std::string s(n, '\0');
  for (std::size_t i = 0; i < n; ++i)
    s[i] = static_cast<char>('0' + i % 10);
  return s;
}

// The read contract holds for every source: empty at or past the end, short
// only at the end.
TEST(ByteSource, ReadContractAtTheEnd) {
  TempDir dir;
  writeFile(dir.file("ten"), digits(10));
  std::vector<std::unique_ptr<ByteSource>> sources;
  sources.push_back(
      std::make_unique<MemorySource>(Bytes{'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'}));
  sources.push_back(std::make_unique<FileSource>(dir.file("ten")));
  for (auto& source : sources) {
    SCOPED_TRACE(source->descriptionForReport());
    EXPECT_EQ(source->size(), 10u);
    EXPECT_TRUE(source->read(10, 10).empty());
    EXPECT_TRUE(source->read(1000, 10).empty());
    EXPECT_EQ(source->read(7, 10), (Bytes{'7', '8', '9'}));
    EXPECT_EQ(source->read(2, 3), (Bytes{'2', '3', '4'}));
    EXPECT_TRUE(source->read(3, 0).empty());
    EXPECT_EQ(source->badReads(), 0);
  }
}

TEST(UniqueFd, ClosesOnDestructionAndMove) {
  int raw = -1;
  {
    UniqueFd fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(fd.valid());
    raw = fd.get();
    UniqueFd moved(std::move(fd));
    EXPECT_FALSE(fd.valid());
    EXPECT_EQ(moved.get(), raw);
  }
  errno = 0;
  EXPECT_EQ(::fcntl(raw, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(ByteCountFormat, DecimalUnitsWithOneDecimal) {
  const std::pair<std::uint64_t, const char*> cases[] = {
      {0, "0 bytes"},
      {1, "1 byte"},
      {999, "999 bytes"},
      {999'499, "999 KB"},
      {999'950, "1 MB"},
      {100'663'296, "100.7 MB"},
      {31'914'983'424, "31.9 GB"},
  };
  for (const auto& [bytes, text] : cases)
    EXPECT_EQ(formatByteCount(bytes), text) << bytes;
}

TEST(PreconditionDeathTest, NegativeCountAborts) {
  MemorySource source(Bytes(4));
  EXPECT_DEATH((void)source.read(0, -1), "precondition failed");
}

}  // namespace
}  // namespace vellum
