#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "DiskFixtures.h"
#include "bytes/FileSource.h"
#include "platform/Process.h"
#include "support/Subprocess.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

constexpr std::uint64_t kMiB = 1 << 20;

testing::ProcessResult cli(std::vector<std::string> arguments, bool allowImages = true) {
  arguments.insert(arguments.begin(), VELLUM_CHECK_BINARY);
  return testing::runProcess(arguments, {},
                             allowImages ? std::vector<std::string>{"VL_ALLOW_DISK_IMAGES=1"}
                                         : std::vector<std::string>{});
}

std::string probe(const std::string& device) {
  return testing::runProcess({findProgram("blkid").value_or("blkid"), "-p", "-o", "export", device})
      .out;
}

TEST(CliFormat, AsksForTheDisksNameAndRefusesWhatTheGuardRefuses) {
  VL_REQUIRE_LOOP_DEVICES();
  testing::TempDir dir;
  const std::string image = dir.file("card.img");
  testing::writeFile(image, std::string(8 * kMiB, 'K'));
  testing::LoopDevice loop(image);
  const std::string name = loop.name();

  struct Case {
    std::vector<std::string> arguments;
    bool allowImages;
    int exitCode;
    std::string error;
  };
  const Case cases[] = {
      {{"format", name},
       true,
       2,
       "vellum-check: this erases everything on " + name + ". To confirm, add --confirm " + name +
           ".\n"},
      {{"format", loop.path(), "--confirm", "erase"},
       true,
       2,
       "vellum-check: --confirm erase doesn't match; type --confirm " + name + " to erase " + name +
           ".\n"},
      {{"format", name, "--confirm", name},
       false,
       3,
       "vellum-check: " + name + " is a virtual disk, not a card.\n"},
      {{"format", name + "p1", "--confirm", name},
       true,
       3,
       "vellum-check: Only whole disks (like sdb or mmcblk0) can be tested, not " + name + "p1.\n"},
      {{"format", name, "--fs", "ntfs", "--confirm", name},
       true,
       2,
       "vellum-check format: --fs takes exfat or fat32, not ntfs.\n"
       "Usage: vellum-check format DISK [--fs exfat|fat32] [--name NAME] [--confirm DISK] "
       "[--json]\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments.back());
    const testing::ProcessResult result = cli(c.arguments, c.allowImages);
    EXPECT_EQ(result.exitCode, c.exitCode);
    EXPECT_EQ(result.err, c.error);
  }
  EXPECT_EQ(FileSource(image).read(0, 8 * kMiB), Bytes(8 * kMiB, 'K'));
}

TEST(CliFormat, FormatsALoopDiskAndReportsToolFailures) {
  VL_REQUIRE_LOOP_DEVICES();
  for (const char* tool : {"sfdisk", "partx", "mkfs.exfat", "mkfs.fat", "blkid"}) {
    if (!findProgram(tool)) GTEST_SKIP() << "needs " << tool;
  }
  testing::TempDir dir;
  const std::string image = dir.file("card.img");
  testing::createSparseFile(image, 256 * kMiB);
  testing::LoopDevice loop(image);

  struct Case {
    std::string fileSystem;
    std::string name;
    std::string label;
    std::string type;
  };
  for (const Case& c : {Case{"exfat", "my card", "MYCARD", "exfat"},
                        Case{"fat32", "Holiday-Photos-2024", "HOLIDAYPHOT", "vfat"}}) {
    SCOPED_TRACE(c.fileSystem);
    const testing::ProcessResult result =
        cli({"format", loop.path(), "--fs", c.fileSystem, "--name", c.name, "--confirm",
             loop.name(), "--json"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(nlohmann::json::parse(result.out),
              (nlohmann::json{{"fileSystem", c.fileSystem}, {"name", c.label}}));
    const std::string found = probe(loop.path() + "p1");
    EXPECT_NE(found.find("TYPE=" + c.type + "\n"), std::string::npos) << found;
    EXPECT_NE(found.find("LABEL=" + c.label + "\n"), std::string::npos) << found;
  }

  // Without --json the summary the application shows, with the disk's row.
  const testing::ProcessResult text =
      cli({"format", loop.name(), "--name", "cam", "--confirm", loop.name()});
  ASSERT_EQ(text.exitCode, 0) << text.err;
  EXPECT_EQ(text.err, "Formatting " + loop.name() + " as FAT32 named CAM\u2026\n");
  EXPECT_NE(text.out.find("Formatted as FAT32 with the name CAM"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("Disk Image card.img"), std::string::npos) << text.out;

  // Too small for a partition at 4 MiB: sfdisk's own words.
  const std::string tiny = dir.file("tiny.img");
  testing::createSparseFile(tiny, 3 * kMiB);
  testing::LoopDevice tinyLoop(tiny);
  const testing::ProcessResult failed =
      cli({"format", tinyLoop.name(), "--confirm", tinyLoop.name()});
  EXPECT_EQ(failed.exitCode, 3);
  EXPECT_EQ(failed.err, "Formatting " + tinyLoop.name() +
                            " as FAT32 named UNTITLED\u2026\n"
                            "vellum-check: Formatting failed: Start sector 8192 out of range.\n"
                            "Failed to add #1 partition: Numerical result out of range\n");
}

}  // namespace
}  // namespace vellum
