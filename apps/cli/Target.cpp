#include "Target.h"

#include <sys/stat.h>

#include <cerrno>
#include <regex>

#include "Options.h"
#include "bytes/FileSource.h"
#include "devices/FileDescriptorDevice.h"
#include "devices/WriteError.h"

namespace vellum::cli {
namespace {

constexpr const char* kTargetHelp =
    "Give demo:genuine, demo:fake, demo:failing or the path of a disk image file.";

std::optional<SimulatedCard> demoCard(const std::string& argument) {
  if (argument.rfind("demo:", 0) != 0) return std::nullopt;
  const std::optional<SimulatedCard> card = simulatedCardFromRawValue(argument.substr(5));
  if (!card) throw UsageError("unknown demo card " + argument + ". " + kTargetHelp);
  return card;
}

// Real disks are named like sdb, mmcblk0 or /dev/sdb.
bool looksLikeDisk(const std::string& argument) {
  static const std::regex disk(
      "^(/dev/)?(sd[a-z]+|mmcblk[0-9]+|nvme[0-9]+n[0-9]+|loop[0-9]+|vd[a-z]+)"
      "(p?[0-9]+)?$");
  return std::regex_match(argument, disk);
}

// Refuses what cannot be an image file, with a message that names it.
void checkImagePath(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    const int error = errno;
    if (error == ENOENT && looksLikeDisk(path)) {
      throw WriteError::refused(path + " is a disk name. Testing real disks isn't available yet; " +
                                "test a disk image file or a demo card instead.");
    }
    if (error == ENOENT) {
      throw WriteError::refused("There is no file at " + path + ". " + kTargetHelp);
    }
    throw WriteError::cannotOpen(path, error);
  }
  if (S_ISDIR(status.st_mode)) {
    throw WriteError::refused(path + " is a folder, not a disk image file. " + kTargetHelp);
  }
  if (S_ISBLK(status.st_mode)) {
    throw WriteError::refused(path + " is a disk. Testing real disks isn't available yet; " +
                              "test a disk image file or a demo card instead.");
  }
  if (!S_ISREG(status.st_mode)) {
    throw WriteError::refused(path + " is not a regular disk image file. " + kTargetHelp);
  }
}

}  // namespace

Target openTarget(const std::string& argument) {
  Target target;
  target.argument = argument;
  target.confirmWord = "erase";
  if (const auto demo = demoCard(argument)) {
    target.card = Card{*demo};
    target.device = makeDevice(*demo);
    return target;
  }
  checkImagePath(argument);
  target.device = FileDescriptorDevice::openImage(argument, 512);
  return target;
}

std::unique_ptr<ByteSource> openSource(const std::string& argument, std::optional<Card>& card) {
  if (const auto demo = demoCard(argument)) {
    card = Card{*demo};
    return makeDevice(*demo);
  }
  checkImagePath(argument);
  return std::make_unique<FileSource>(argument);
}

}  // namespace vellum::cli
