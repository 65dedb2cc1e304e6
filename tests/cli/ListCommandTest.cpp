#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/Subprocess.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

using testing::ProcessResult;
using testing::runProcess;

// The support runner takes a path, not a name to look up.
std::string losetup() {
  for (const char* path : {"/usr/sbin/losetup", "/sbin/losetup", "/usr/bin/losetup"}) {
    if (::access(path, X_OK) == 0) return path;
  }
  return {};
}

ProcessResult cli(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), VELLUM_CHECK_BINARY);
  return runProcess(arguments);
}

TEST(CliList, RejectsArgumentsAndPrintsJsonArrays) {
  const ProcessResult bad = cli({"list", "sdb"});
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_NE(bad.err.find("Usage: vellum-check list [--json] [--include-images]"), std::string::npos)
      << bad.err;
  const ProcessResult json = cli({"list", "--json"});
  ASSERT_EQ(json.exitCode, 0) << json.err;
  EXPECT_TRUE(nlohmann::json::parse(json.out).is_array()) << json.out;
}

TEST(CliList, ListsALoopDeviceOnlyWithIncludeImages) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to attach a loop device";
  if (losetup().empty()) GTEST_SKIP() << "needs losetup";
  testing::TempDir dir;
  const std::string image = dir.file("reader sd.img");
  testing::writeFile(image, "");
  std::filesystem::resize_file(image, 8 << 20);
  const ProcessResult attached = runProcess({losetup(), "--find", "--show", image});
  if (attached.exitCode != 0) GTEST_SKIP() << "losetup failed: " << attached.err;
  const std::string device = attached.out.substr(0, attached.out.find('\n'));
  const std::string name = std::filesystem::path(device).filename().string();
  struct Detach {
    std::string device;
    ~Detach() { runProcess({losetup(), "-d", device}); }
  } detach{device};

  const auto entryFor = [&](const ProcessResult& result) {
    EXPECT_EQ(result.exitCode, 0) << result.err;
    for (const nlohmann::json& disk : nlohmann::json::parse(result.out)) {
      if (disk.at("deviceIdentifier") == name) return disk;
    }
    return nlohmann::json();
  };
  EXPECT_TRUE(entryFor(cli({"list", "--json"})).is_null());
  const nlohmann::json disk = entryFor(cli({"list", "--json", "--include-images"}));
  ASSERT_FALSE(disk.is_null());
  EXPECT_EQ(disk.at("devicePath"), device);
  EXPECT_EQ(disk.at("mediaName"), "Disk Image reader sd.img");
  EXPECT_EQ(disk.at("sizeBytes"), 8 << 20);
  EXPECT_EQ(disk.at("sizeDescription"), "8.4 MB");
  EXPECT_EQ(disk.at("isMemoryCard"), true);  // "reader" and "sd" are card words

  const ProcessResult text = cli({"list", "--include-images"});
  EXPECT_NE(text.out.find(name), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("8.4 MB"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("card   Disk Image reader sd.img"), std::string::npos) << text.out;
}

}  // namespace
}  // namespace vellum
