#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

#include "RealDisks.h"
#include "bytes/FileSource.h"
#include "devices/WriteError.h"
#include "platform/DiskEnumerator.h"
#include "platform/DiskFormatter.h"
#include "platform/FormatHelper.h"

namespace vellum {
namespace {

using ::testing::ThrowsMessage;

constexpr std::uint64_t kMiB = 1 << 20;
constexpr std::uint64_t kGiB = 1 << 30;

TEST(DiskFormatter, RecommendsExfatAbove32GigabytesAndSanitizesNamesForEveryCamera) {
  for (const auto& [bytes, expected] : {std::pair{0ull, FileSystem::fat32},
                                        {32'000'000'000ull, FileSystem::fat32},
                                        {32'000'000'001ull, FileSystem::exfat},
                                        {2'000'000'000'000ull, FileSystem::exfat}}) {
    EXPECT_EQ(DiskFormatter::recommended(bytes), expected) << bytes;
  }
  const std::pair<std::string, std::string> names[] = {
      {"my card 2024", "MYCARD2024"},
      {"Holiday-Photos-2024", "HOLIDAYPHOT"},
      {"---", "UNTITLED"},
      {"stra\xC3\x9F"
       "e",
       "STRASSE"},               // ß upper-cases to SS
      {"\xFF\xFEok\xC3", "OK"},  // malformed UTF-8 is skipped
  };
  for (const auto& [name, expected] : names)
    EXPECT_EQ(DiskFormatter::sanitizedName(name), expected) << name;
}

Bytes fatBootSector(std::uint16_t bytesPerSector, std::uint16_t reserved, std::uint8_t fats,
                    std::uint32_t sectorsPerFat) {
  Bytes sector(512, 0);
  for (const auto& [at, value, width] : {std::tuple{11u, std::uint32_t{bytesPerSector}, 2u},
                                         {14u, reserved, 2u},
                                         {16u, fats, 1u},
                                         {36u, sectorsPerFat, 4u},
                                         {510u, 0xAA55u, 2u}}) {
    for (unsigned i = 0; i < width; ++i)
      sector[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
  return sector;
}

TEST(DiskFormatter, ReadsFatBootSectorsAndAlignsTheDataArea) {
  const Bytes good = fatBootSector(512, 64, 2, 1024);
  const std::optional<FatGeometry> geometry = DiskFormatter::parseFatBootSector(good);
  ASSERT_TRUE(geometry);
  EXPECT_EQ(*geometry, (FatGeometry{512, 64, 2, 1024}));
  EXPECT_EQ(geometry->dataAreaOffset(), (64u + 2 * 1024) * 512);

  Bytes unsigned_ = good, fat16 = good;
  unsigned_[511] = 0;
  fat16[18] = 0x02;  // 512 root entries: a FAT12/16 volume
  for (const Bytes& bad : {unsigned_, fat16, fatBootSector(500, 64, 2, 1024),
                           fatBootSector(512, 64, 0, 1024), Bytes(100, 0)}) {
    EXPECT_FALSE(DiskFormatter::parseFatBootSector(bad));
  }

  const std::tuple<FatGeometry, std::uint64_t, std::uint32_t, std::uint64_t> cases[] = {
      // geometry, boundary: reserved sectors, boundary reached
      {{512, 64, 2, 1024}, 4 * kMiB, 8192 - 2048, 4 * kMiB},
      // Exactly on the boundary would leave no reserved sectors: take the next.
      {{512, 32, 2, 4096}, 4 * kMiB, 8192, 4 * kMiB},
      // 8192 - 8180 would leave 12 reserved sectors, too few for FAT32.
      {{512, 32, 2, 4090}, 4 * kMiB, 16384 - 8180, 4 * kMiB},
      // One FAT of 8161 sectors: 31 reserved sectors would reach 8192; 32 are needed.
      {{512, 32, 1, 8161}, 4 * kMiB, 16384 - 8161, 4 * kMiB},
      // 131,072 - 200 reserved sectors don't fit 16 bits: the next smaller boundary.
      {{512, 32, 2, 100}, 64 * kMiB, 65536 - 200, 32 * kMiB},
      {{512, 32, 2, 32760}, 32 * kMiB, 98304 - 65520, 16 * kMiB},
  };
  for (const auto& [start, alignment, expected, reached] : cases) {
    FatGeometry aligned = start;
    aligned.reservedSectors = DiskFormatter::alignedReservedSectors(start, alignment);
    EXPECT_EQ(aligned.reservedSectors, expected) << start.sectorsPerFat;
    EXPECT_EQ(aligned.dataAreaOffset() % reached, 0u) << start.sectorsPerFat;
  }

  // The boot sectors mkfs.fat writes for large FAT32 disks; none may stop the
  // program, and the data area lands on at least a 16 MiB boundary.
  if (!findProgram("mkfs.fat")) GTEST_SKIP() << "needs mkfs.fat";
  testing::TempDir dir;
  for (const std::uint64_t size : {128 * kGiB, std::uint64_t{2'000'398'934'016}}) {
    const std::string image = dir.file("fat.img");
    testing::createSparseFile(image, size);
    ASSERT_TRUE(runProcess({"mkfs.fat", "-F", "32", "-s", "64", image}).status.succeeded());
    const auto written = DiskFormatter::parseFatBootSector(FileSource(image).read(0, 512));
    ASSERT_TRUE(written) << size;
    FatGeometry aligned = *written;
    aligned.reservedSectors = DiskFormatter::alignedReservedSectors(
        aligned, DiskFormatter::layout(FileSystem::fat32, size).alignmentBytes);
    EXPECT_EQ(aligned.dataAreaOffset() % (16 * kMiB), 0u) << size;
    std::filesystem::remove(image);
  }
}

// blkid's NAME=value report on path.
std::map<std::string, std::string> blkid(const std::string& path) {
  std::map<std::string, std::string> values;
  std::istringstream lines(runProcess({"blkid", "-p", "-o", "export", path}).standardOutput);
  for (std::string line; std::getline(lines, line);) {
    if (const auto equals = line.find('='); equals != std::string::npos)
      values[line.substr(0, equals)] = line.substr(equals + 1);
  }
  return values;
}

// The number captured by pattern in a fsck or dump report.
std::uint64_t reportNumber(const std::string& text, const std::string& pattern) {
  std::smatch match;
  if (std::regex_search(text, match, std::regex(pattern))) return std::stoull(match[1].str());
  ADD_FAILURE() << "no match for " << pattern << " in\n" << text;
  return 0;
}

struct FormatCase {
  std::uint64_t diskBytes;
  FileSystem fileSystem;
  std::uint64_t partitionStart;  // bytes, also the data area's alignment
  std::uint64_t cluster;         // bytes; 0: whatever mkfs.fat chose
  int sectorSize = 512;
};

class FormatOnLoopDevice : public ::testing::TestWithParam<FormatCase> {};

TEST_P(FormatOnLoopDevice, LeavesOneAlignedPartitionWithTheLabel) {
  VL_REQUIRE_LOOP_DEVICES();
  const FormatCase& c = GetParam();
  const bool fat = c.fileSystem == FileSystem::fat32;
  for (const char* tool : {"sfdisk", "partx", "blkid", fat ? "fsck.fat" : "fsck.exfat",
                           fat ? "mkfs.fat" : "dump.exfat"}) {
    if (!findProgram(tool)) GTEST_SKIP() << "needs " << tool;
  }
  const testing::ImageDisk disk(c.diskBytes, c.sectorSize);
  const testing::LoopDevice& loop = disk.loop;
  DiskFormatter::format(disk.inspect(), c.fileSystem, "My Card!");

  const std::string partition = loop.path() + "p1";
  EXPECT_EQ(blkid(loop.path())["PTTYPE"], "dos");
  std::map<std::string, std::string> probe = blkid(partition);
  EXPECT_EQ(probe["TYPE"], fat ? "vfat" : "exfat");
  EXPECT_EQ(probe["LABEL"], "MYCARD");
  EXPECT_EQ(probe["PART_ENTRY_TYPE"], fat ? "0xc" : "0x7");
  EXPECT_EQ(probe["PART_ENTRY_NUMBER"], "1");
  // blkid counts partition entries in 512-byte units whatever the sector size.
  EXPECT_EQ(probe["PART_ENTRY_OFFSET"], std::to_string(c.partitionStart / 512));
  EXPECT_EQ(probe["PART_ENTRY_SIZE"], std::to_string((c.diskBytes - c.partitionStart) / 512));

  if (fat) {
    const ProcessResult check = runProcess({"fsck.fat", "-n", "-v", partition});
    EXPECT_TRUE(check.status.succeeded()) << check.standardOutput << check.standardError;
    const std::uint64_t dataStart =
        reportNumber(check.standardOutput, R"(Data area starts at byte (\d+))");
    EXPECT_EQ(dataStart % c.partitionStart, 0u) << dataStart;
    if (c.cluster != 0) {
      EXPECT_EQ(reportNumber(check.standardOutput, R"((\d+) bytes per cluster)"), c.cluster);
    }
  } else {
    const ProcessResult check = runProcess({"fsck.exfat", "-n", partition});
    EXPECT_TRUE(check.status.succeeded()) << check.standardOutput << check.standardError;
    const ProcessResult dump = runProcess({"dump.exfat", partition});
    ASSERT_TRUE(dump.status.succeeded()) << dump.standardError;
    EXPECT_EQ(reportNumber(dump.standardOutput, R"(Cluster size:\s+(\d+))"), c.cluster);
    const std::uint64_t heap =
        reportNumber(dump.standardOutput, R"(Cluster Heap Offset \(sector offset\):\s+(\d+))")
        << reportNumber(dump.standardOutput, R"(Sector Size Bits:\s+(\d+))");
    EXPECT_EQ(heap % c.partitionStart, 0u) << heap;
    EXPECT_NE(dump.standardOutput.find("Volume label: \t\t\t\tMYCARD"), std::string::npos);
  }
}

INSTANTIATE_TEST_SUITE_P(
    SdCardSizes, FormatOnLoopDevice,
    ::testing::Values(FormatCase{256 * kMiB, FileSystem::fat32, 4 * kMiB, 0},
                      FormatCase{64 * kGiB, FileSystem::fat32, 16 * kMiB, 32768},
                      FormatCase{64 * kGiB, FileSystem::exfat, 16 * kMiB, 131072},
                      FormatCase{4 * kGiB, FileSystem::fat32, 4 * kMiB, 32768, 4096},
                      FormatCase{4 * kGiB, FileSystem::exfat, 4 * kMiB, 32768, 4096}),
    [](const ::testing::TestParamInfo<FormatCase>& param) {
      return std::to_string(param.param.diskBytes / kMiB) + "MiB_" +
             std::string(displayName(param.param.fileSystem)) +
             (param.param.sectorSize == 512 ? "" : "_4Kn");
    });

TEST(DiskFormatter, ReportsTheFailingToolsOwnTextAndRunsNothingOnAChangedDisk) {
  VL_REQUIRE_LOOP_DEVICES();
  if (!findProgram("sfdisk")) GTEST_SKIP() << "needs sfdisk";
  // 3 MiB cannot hold a partition starting at 4 MiB: sfdisk says why.
  const testing::ImageDisk tiny(3 * kMiB);
  EXPECT_THAT(
      [&] { DiskFormatter::format(tiny.inspect(), FileSystem::fat32, "x"); },
      ThrowsMessage<WriteError>("Formatting failed: Start sector 8192 out of range.\n"
                                "Failed to add #1 partition: Numerical result out of range"));

  // A card swapped after selection: the guard's message, and the disk keeps
  // what it had (no tool ran).
  const testing::ImageDisk card(8 * kMiB);
  testing::writeFile(card.image, std::string(8 * kMiB, 'K'));
  DiskIdentity identity = card.inspect();
  identity.mediaName = "Another Card";
  EXPECT_THAT([&] { DiskFormatter::format(identity, FileSystem::exfat, "x"); },
              ThrowsMessage<WriteError>(
                  "The disk at " + card.loop.name() +
                  " changed since you selected it. Nothing was written. Select the card again."));
  EXPECT_EQ(FileSource(card.image).read(0, 8 * kMiB), Bytes(8 * kMiB, 'K'));
}

// The path a user who is not root takes: pkexec (a stand-in here, which
// clears the environment as pkexec does) starting vellum-format.
TEST(FormatHelper, FormatsOnlyTheMediumTheUserChoseAndSaysWhyNot) {
  VL_REQUIRE_LOOP_DEVICES();
  for (const char* tool : {"sfdisk", "partx", "blkid", "mkfs.fat", "mkfs.ext4"}) {
    if (!findProgram(tool)) GTEST_SKIP() << "needs " << tool;
  }
  const FormatHelperCommand allowed{
      {VELLUM_PKEXEC_STANDIN_PATH, "allow", VELLUM_FORMAT_HELPER_PATH}};
  const testing::ImageDisk disk(64 * kMiB);
  const std::string name = disk.loop.name();
  const auto format = [&](const FormatHelperCommand& command, FormatRequest request) {
    return testing::errorText<WriteError>([&] { formatThroughHelper(command, request); });
  };
  const auto request = [&](FileSystem fileSystem) {
    return FormatRequest::of(disk.inspect(), fileSystem, "Holiday", std::nullopt, true);
  };

  // A mounted volume is unmounted first; while a file on it is open, it
  // cannot be, and nothing is written.
  const std::string partition = disk.partition();
  testing::run({"mkfs.ext4", "-q", "-L", "OLD", partition});
  const std::string mountPoint = disk.dir.file("mnt");
  std::filesystem::create_directory(mountPoint);
  ASSERT_EQ(::mount(partition.c_str(), mountPoint.c_str(), "ext4", 0, nullptr), 0);
  {
    const UniqueFd open(::open((mountPoint + "/busy").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    EXPECT_EQ(format(allowed, request(FileSystem::fat32)),
              "Couldn't unmount " + mountPoint + ". Close any apps using the card and try again.");
    EXPECT_EQ(blkid(partition)["LABEL"], "OLD");
  }
  EXPECT_EQ(format(allowed, request(FileSystem::fat32)), "");
  EXPECT_EQ(blkid(disk.loop.path() + "p1")["LABEL"], "HOLIDAY");
  EXPECT_EQ(blkid(disk.loop.path() + "p1")["TYPE"], "vfat");

  // Another program holding the disk exclusively.
  {
    const UniqueFd holder(::open(disk.loop.path().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
    ASSERT_TRUE(holder.valid());
    EXPECT_EQ(format(allowed, request(FileSystem::exfat)),
              name + " is still in use. Close any apps using the card and try again.");
  }
  // Another medium in the same slot: the guard runs in the helper too (its
  // other rules are the guard's own tests).
  FormatRequest swapped = request(FileSystem::exfat);
  ++swapped.diskSequence;
  EXPECT_EQ(format(allowed, swapped), DeviceGuard::changed(name).description());
  EXPECT_EQ(blkid(disk.loop.path() + "p1")["TYPE"], "vfat");

  // The user closed the password prompt; the helper is not installed.
  EXPECT_EQ(format(FormatHelperCommand{{VELLUM_PKEXEC_STANDIN_PATH, "dismiss",
                                        VELLUM_FORMAT_HELPER_PATH}},
                   request(FileSystem::exfat)),
            "Permission to write to " + disk.loop.path() + " was denied.");
  EXPECT_NE(format(FormatHelperCommand{{VELLUM_PKEXEC_STANDIN_PATH, "allow",
                                        disk.dir.file("no-such-helper")}},
                   request(FileSystem::exfat))
                .find("the helper vellum-format that asks for them isn't installed"),
            std::string::npos);

  // Anything but the arguments it documents is refused before any rule runs.
  for (const std::vector<std::string_view>& bad :
       {std::vector<std::string_view>{"--disk", "../sda", "--disk-sequence", "1", "--file-system",
                                      "exfat", "--name", "x"},
        {"--disk", name, "--disk-sequence", "-1", "--file-system", "exfat", "--name", "x"},
        {"--disk", name, "--disk", "sda", "--disk-sequence", "1", "--file-system", "exfat",
         "--name", "x"}}) {
    EXPECT_FALSE(FormatRequest::parse(bad));
  }
  const ProcessResult usage = runProcess({VELLUM_FORMAT_HELPER_PATH, "--disk", name});
  EXPECT_EQ(usage.status.code, FormatHelperExit::usage);
}

}  // namespace
}  // namespace vellum
