#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "DiskFixtures.h"
#include "bytes/FileSource.h"
#include "platform/Process.h"
#include "support/Subprocess.h"
#include "support/TempDir.h"

// The command line on real block devices: loop devices over image files, and
// loop devices over the FUSE disk that behaves like a counterfeit or failing
// card.

namespace vellum {
namespace {

using testing::FuseDisk;
using testing::LoopDevice;
using testing::ProcessResult;

constexpr std::uint64_t kMiB = 1 << 20;

ProcessResult cli(std::vector<std::string> arguments, bool allowImages = true) {
  arguments.insert(arguments.begin(), VELLUM_CHECK_BINARY);
  return testing::runProcess(arguments, {},
                             allowImages ? std::vector<std::string>{"VL_ALLOW_DISK_IMAGES=1"}
                                         : std::vector<std::string>{});
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Reproducible random bytes, so a disk's content can be compared afterwards.
std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937_64 random(seed);
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i + 8 <= size; i += 8) {
    const std::uint64_t word = random();
    std::memcpy(bytes.data() + i, &word, 8);
  }
  return bytes;
}

std::string readAll(const std::string& path) {
  FileSource source(path);
  const Bytes bytes = source.read(0, static_cast<std::int64_t>(source.size()));
  return {bytes.begin(), bytes.end()};
}

std::vector<nlohmann::json> jsonLines(const std::string& text) {
  std::vector<nlohmann::json> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) lines.push_back(nlohmann::json::parse(line));
  }
  return lines;
}

TEST(CliDisk, QuickFullAndHealthOfALoopDisk) {
  VL_REQUIRE_LOOP_DEVICES();
  testing::TempDir dir;
  const std::string image = dir.file("card.img");
  const std::string content = randomBytes(32 * kMiB, 3);
  testing::writeFile(image, content);
  LoopDevice loop(image);
  const std::string name = loop.name();

  // The Quick Check puts every byte back; the summary names the disk.
  const ProcessResult quick = cli({"quick", name});
  EXPECT_EQ(quick.exitCode, 0) << quick.err;
  EXPECT_TRUE(contains(quick.out, "Capacity looks genuine")) << quick.out;
  EXPECT_TRUE(contains(quick.out, "Disk Image card.img")) << quick.out;
  EXPECT_TRUE(readAll(image) == content);

  const ProcessResult health = cli({"health", loop.path(), "--json"});
  ASSERT_NE(health.exitCode, 3) << health.err;
  // Nothing unreadable; whether a chunk counts as slow depends on the page
  // cache, so the verdict may be healthy or slowAreas.
  EXPECT_EQ(nlohmann::json::parse(health.out).at("unreadable"), nlohmann::json::array());

  // Not fake: the erasing action after --then is not run.
  const ProcessResult notFake = cli({"quick", name, "--then", "format", "--confirm", name});
  EXPECT_EQ(notFake.exitCode, 0) << notFake.err;
  EXPECT_EQ(notFake.err, "The Quick Check found no fake capacity, so the Format was not run.\n");
  EXPECT_TRUE(contains(notFake.out, "Capacity looks genuine")) << notFake.out;
  EXPECT_TRUE(readAll(image) == content);

  // The word that allows erasing is the disk's name, not "erase".
  const ProcessResult unconfirmed = cli({"full", name, "--confirm", "erase"});
  EXPECT_EQ(unconfirmed.exitCode, 2);
  EXPECT_EQ(unconfirmed.err, "vellum-check: --confirm erase doesn't match; type --confirm " + name +
                                 " to erase " + name + ".\n");
  EXPECT_TRUE(readAll(image) == content);

  // On a terminal the name is asked for.
  bool typed = false;
  const ProcessResult full = testing::runOnTerminal(
      {"/usr/bin/env", "VL_ALLOW_DISK_IMAGES=1", VELLUM_CHECK_BINARY, "full", loop.path()},
      [&](const std::string& output, int, int terminal) {
        const std::string prompt = "Type " + name + " to continue";
        if (!typed && contains(output, prompt)) {
          const std::string answer = name + "\n";
          typed =
              write(terminal, answer.data(), answer.size()) == static_cast<ssize_t>(answer.size());
        }
      });
  EXPECT_TRUE(typed) << full.out;
  EXPECT_EQ(full.exitCode, 0) << full.out;
  EXPECT_TRUE(contains(full.out, "Genuine")) << full.out;
  EXPECT_FALSE(readAll(image) == content) << "the Full Test did not write the disk";
}

TEST(CliDisk, GuardRefusalsAreTheErrorWithExitCode3) {
  VL_REQUIRE_LOOP_DEVICES();
  testing::TempDir dir;
  const std::string image = dir.file("card.img");
  const std::string content = randomBytes(8 * kMiB, 5);
  testing::writeFile(image, content);
  LoopDevice loop(image);
  const std::string name = loop.name();

  struct Case {
    std::vector<std::string> arguments;
    bool allowImages;
    int exitCode;
    std::string error;
  };
  const Case cases[] = {
      {{"quick", name}, false, 3, "vellum-check: " + name + " is a virtual disk, not a card.\n"},
      {{"full", name, "--confirm", name},
       false,
       3,
       "vellum-check: " + name + " is a virtual disk, not a card.\n"},
      {{"quick", name + "p1"},
       true,
       3,
       "vellum-check: Only whole disks (like sdb or mmcblk0) can be tested, not " + name + "p1.\n"},
      {{"full", "/dev/sdzz", "--confirm", "sdzz"},
       true,
       3,
       "vellum-check: sdzz wasn't found. Was the card removed?\n"},
      {{"format", "demo:fake", "--confirm", "erase"},
       true,
       3,
       "vellum-check: Simulated cards can't be formatted.\n"},
      {{"format", image, "--confirm", "erase"},
       true,
       3,
       "vellum-check: " + image +
           " is not a disk. Only disks (like sdb) can be formatted; a disk image file can be "
           "attached with losetup first.\n"},
      {{"quick", "demo:fake", "--then", "full"},
       true,
       2,
       "vellum-check quick: --then is for disks (like sdb): demo cards and image files need no "
       "Quick Check first. Run vellum-check full demo:fake directly.\n"
       "Usage: vellum-check quick TARGET [--json] [--then full|wipe|format [ITS OPTIONS]]\n"},
      {{"quick", name, "--then", "health"},
       true,
       2,
       "vellum-check quick: --then takes full, wipe or format, not health.\n"
       "Usage: vellum-check quick TARGET [--json] [--then full|wipe|format [ITS OPTIONS]]\n"},
      {{"quick", name, "--then", "full", "--fs", "exfat"},
       true,
       2,
       "vellum-check quick: unknown option --fs.\n"
       "Usage: vellum-check quick TARGET [--json] [--then full|wipe|format [ITS OPTIONS]]\n"},
      {{"quick", name, "--then", "wipe", "--method", "shred", "--confirm", name},
       true,
       2,
       "vellum-check quick: --method takes zeros or random, not shred.\n"
       "Usage: vellum-check quick TARGET [--json] [--then full|wipe|format [ITS OPTIONS]]\n"},
      {{"quick", name, "--then", "format", "--fs", "ntfs", "--confirm", name},
       true,
       2,
       "vellum-check quick: --fs takes exfat or fat32, not ntfs.\n"
       "Usage: vellum-check quick TARGET [--json] [--then full|wipe|format [ITS OPTIONS]]\n"},
      {{"quick", name, "--then", "full", "--confirm", "erase"},
       true,
       2,
       "vellum-check: --confirm erase doesn't match; type --confirm " + name + " to erase " + name +
           ".\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments[0] + " " + c.arguments[1]);
    const ProcessResult result = cli(c.arguments, c.allowImages);
    EXPECT_EQ(result.exitCode, c.exitCode);
    EXPECT_EQ(result.err, c.error);
    EXPECT_EQ(result.out, "");
  }
  EXPECT_TRUE(readAll(image) == content) << "a refused command wrote to the disk";
}

TEST(CliDisk, BackupIsSavedBeforeTheFullTestAndAFailedOneStopsIt) {
  VL_REQUIRE_LOOP_DEVICES();
  testing::TempDir dir;
  const std::string image = dir.file("card.img");
  const std::string content = randomBytes(16 * kMiB, 9);
  testing::writeFile(image, content);
  LoopDevice loop(image);
  const std::string name = loop.name();

  // A backup that cannot be created: nothing is written.
  const std::string nowhere = dir.file("no/such/folder/backup.img");
  const ProcessResult failed = cli({"full", name, "--backup", nowhere, "--confirm", name});
  EXPECT_EQ(failed.exitCode, 3);
  EXPECT_TRUE(contains(failed.err, "Backing up the card to backup.img\u2026\n")) << failed.err;
  EXPECT_TRUE(contains(failed.err, "vellum-check: The backup failed: ")) << failed.err;
  EXPECT_TRUE(contains(failed.err, " Nothing was erased.\n")) << failed.err;
  EXPECT_EQ(failed.out, "");
  EXPECT_TRUE(readAll(image) == content);

  const std::string backup = dir.file("backup.img");
  const ProcessResult full = cli({"full", name, "--backup", backup, "--confirm", name, "--json"});
  ASSERT_EQ(full.exitCode, 0) << full.err;
  EXPECT_EQ(full.err, "Backing up the card to backup.img\u2026\n");
  EXPECT_EQ(nlohmann::json::parse(full.out).at("verdict"), "genuine");
  EXPECT_TRUE(readAll(backup) == content) << "the backup differs from the disk before the test";
  EXPECT_FALSE(readAll(image) == content);
}

bool isMounted(const std::string& point) {
  std::ifstream table("/proc/self/mountinfo");
  std::string line;
  while (std::getline(table, line)) {
    if (contains(line, " " + point + " ")) return true;
  }
  return false;
}

// An ext4 volume on the loop disk's first partition, mounted for one scope.
class MountedVolume {
 public:
  MountedVolume(const LoopDevice& loop, const std::string& point) : point_(point) {
    testing::runProcess({*findProgram("sfdisk"), "--quiet", loop.path()}, "start=2048, type=83\n");
    loop.updatePartitions();
    const std::string partition = loop.path() + "p1";
    testing::runProcess({*findProgram("mkfs.ext4"), "-q", partition});
    std::filesystem::create_directories(point);
    mounted_ = ::mount(partition.c_str(), point.c_str(), "ext4", 0, nullptr) == 0;
  }
  ~MountedVolume() {
    // Only if the command under test left it mounted.
    if (mounted_ && isMounted(point_)) ::umount2(point_.c_str(), MNT_DETACH);
  }
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;
  bool mounted() const { return mounted_; }

 private:
  std::string point_;
  bool mounted_ = false;
};

TEST(CliDisk, ErasingUnmountsTheDiskButNeverBacksUpOntoIt) {
  VL_REQUIRE_LOOP_DEVICES();
  for (const char* tool : {"sfdisk", "partx", "mkfs.ext4"}) {
    if (!findProgram(tool)) GTEST_SKIP() << "needs " << tool;
  }
  testing::TempDir dir;
  testing::createSparseFile(dir.file("card.img"), 64 * kMiB);
  LoopDevice loop(dir.file("card.img"));
  const std::string name = loop.name();
  const std::string point = dir.file("mnt");
  MountedVolume volume(loop, point);
  ASSERT_TRUE(volume.mounted());

  const std::string onCard = point + "/backup.img";
  const ProcessResult refused = cli({"full", name, "--backup", onCard, "--confirm", name});
  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_TRUE(contains(refused.err, "vellum-check full: " + onCard +
                                        " is on the card that is about to be erased. Save the "
                                        "backup on another disk.\n"))
      << refused.err;
  EXPECT_TRUE(isMounted(point));

  const ProcessResult full = cli({"full", name, "--confirm", name, "--json"});
  EXPECT_EQ(full.exitCode, 0) << full.err;
  EXPECT_EQ(nlohmann::json::parse(full.out).at("verdict"), "genuine");
  EXPECT_FALSE(isMounted(point)) << "the disk was written while mounted";
}

// Ctrl-C during the backup stops everything before the first write.
TEST(CliDisk, StoppedBackupWritesNothing) {
  VL_REQUIRE_FUSE_DISKS();
  // Every request answers after 20 ms, so the backup takes seconds.
  FuseDisk disk({.size = 16 * kMiB, .slow = {{0, 32767}}, .delayMs = 20});
  LoopDevice loop(disk.file(), {.directIo = true});
  const std::string name = loop.name();
  testing::TempDir dir;
  const std::string backup = dir.file("backup.img");

  bool stopped = false;
  const ProcessResult run = testing::runOnTerminal(
      {"/usr/bin/env", "VL_ALLOW_DISK_IMAGES=1", VELLUM_CHECK_BINARY, "full", name, "--backup",
       backup, "--confirm", name},
      [&](const std::string& output, int pid, int) {
        if (!stopped && contains(output, "Backing up the drive to backup.img")) {
          stopped = ::kill(pid, SIGINT) == 0;
        }
      });
  EXPECT_TRUE(stopped) << run.out;
  EXPECT_EQ(run.exitCode, 130) << run.out;
  EXPECT_TRUE(contains(run.out, "The test was stopped.")) << run.out;  // not killed outright
  EXPECT_FALSE(contains(run.out, "Writing")) << run.out;
  EXPECT_FALSE(std::filesystem::exists(backup)) << "the stopped backup was left behind";
  // The disk still reads as it started: all zeros.
  EXPECT_TRUE(FileSource(disk.file()).read(0, 16 * kMiB) == Bytes(16 * kMiB, 0));
}

TEST(CliDisk, CounterfeitFuseDiskIsCaughtByQuickCheckAndFullTest) {
  VL_REQUIRE_FUSE_DISKS();
  constexpr std::uint64_t kClaimed = 256 * kMiB;
  constexpr std::uint64_t kReal = 40 * kMiB;
  FuseDisk disk({.size = kClaimed, .realCapacity = kReal});
  LoopDevice loop(disk.file(), {.directIo = true});
  const std::string name = loop.name();

  // --then full runs the Full Test because the Quick Check proved it fake;
  // with --json each action prints its own line.
  const ProcessResult run =
      cli({"quick", loop.path(), "--then", "full", "--confirm", name, "--json"});
  EXPECT_EQ(run.exitCode, 1) << run.err;
  const std::vector<nlohmann::json> results = jsonLines(run.out);
  ASSERT_EQ(results.size(), 2u) << run.out;
  const nlohmann::json& quick = results[0];
  EXPECT_EQ(quick.at("verdict"), "counterfeit");
  EXPECT_EQ(quick.at("claimedBytes"), kClaimed);
  // The boundary is refined to one step of the second pass: a 1/1024 gap
  // split by 128 more points.
  const auto verified = quick.at("verifiedBytes").get<std::uint64_t>();
  EXPECT_LE(verified, kReal);
  EXPECT_GE(verified, kReal - kClaimed / 1024 / 128 - 4096);
  const nlohmann::json& full = results[1];
  EXPECT_EQ(full.at("verdict"), "counterfeit");
  EXPECT_GT(full.at("aliasedBlocks").get<std::int64_t>(), 0);
}

// A drive that claims more than 4 TB is erased only after a Quick Check in the
// same run proved the claim fake.
TEST(CliDisk, DrivesOver4TBAreErasedOnlyAfterAQuickCheckProvesThemFake) {
  VL_REQUIRE_FUSE_DISKS();
  // 8 TiB: every first-pass point lands on the same 64 MiB of real flash.
  constexpr std::uint64_t kClaimed = 8ull << 40;
  FuseDisk disk({.size = kClaimed, .realCapacity = 64 * kMiB});
  LoopDevice loop(disk.file(), {.directIo = true});
  const std::string name = loop.name();

  const std::string refusal = "vellum-check: " + name +
                              " reports more than 4 TB. Vellum only erases drives that size "
                              "after a Quick Check shows the capacity is fake. Run a Quick Check "
                              "first.\n";
  for (const std::string command : {"full", "wipe", "format"}) {
    const ProcessResult refused = cli({command, name, "--confirm", name});
    EXPECT_EQ(refused.exitCode, 3) << command;
    EXPECT_EQ(refused.err, refusal) << command;
  }

  // With --then the Wipe starts on the proven fake; stopping it once it
  // writes keeps the test short.
  bool stopped = false;
  const ProcessResult run =
      testing::runOnTerminal({"/usr/bin/env", "VL_ALLOW_DISK_IMAGES=1", VELLUM_CHECK_BINARY,
                              "quick", name, "--then", "wipe", "--confirm", name},
                             [&](const std::string& output, int pid, int) {
                               if (!stopped && contains(output, "Wiping"))
                                 stopped = ::kill(pid, SIGINT) == 0;
                             });
  EXPECT_TRUE(contains(run.out, "Fake capacity")) << run.out;
  EXPECT_TRUE(stopped) << run.out;
  EXPECT_FALSE(contains(run.out, "reports more than 4 TB")) << run.out;
  EXPECT_EQ(run.exitCode, 130) << run.out;
}

TEST(CliDisk, FailingFuseDiskHealthScanAndBackup) {
  VL_REQUIRE_FUSE_DISKS();
  FuseDisk disk({.size = 32 * kMiB, .unreadable = {{1000, 1001}, {50000, 50000}}});
  LoopDevice loop(disk.file(), {.directIo = true});

  // Read-only: no guard, so no VL_ALLOW_DISK_IMAGES needed.
  const ProcessResult health = cli({"health", loop.name(), "--json"}, false);
  EXPECT_EQ(health.exitCode, 1) << health.err;
  const nlohmann::json result = nlohmann::json::parse(health.out);
  EXPECT_EQ(result.at("verdict"), "unreadableAreas");
  EXPECT_EQ(result.at("unreadable"),
            nlohmann::json::parse(
                R"([{"offset":512000,"length":1024},{"offset":25600000,"length":512}])"));

  // A backup before erasing keeps going past the bad sectors and says so.
  FuseDisk small({.size = 4 * kMiB, .unreadable = {{100, 101}, {5000, 5000}}});
  LoopDevice smallLoop(small.file(), {.directIo = true});
  testing::TempDir dir;
  const ProcessResult full = cli({"full", smallLoop.name(), "--backup", dir.file("backup.img"),
                                  "--confirm", smallLoop.name()});
  EXPECT_EQ(full.exitCode, 1) << full.err;
  EXPECT_TRUE(contains(full.err, "The backup holds zeros for 3 unreadable sectors of the drive.\n"))
      << full.err;
  EXPECT_EQ(std::filesystem::file_size(dir.file("backup.img")), 4 * kMiB);
}

}  // namespace
}  // namespace vellum
