#include "Target.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <regex>
#include <set>

#include "Options.h"
#include "bytes/FileSource.h"
#include "devices/FileDescriptorDevice.h"
#include "devices/WriteError.h"
#include "platform/DeviceGuard.h"
#include "platform/DeviceWriteAccess.h"
#include "platform/DiskEnumerator.h"
#include "platform/RawDeviceAccess.h"

namespace vellum::cli {
namespace {

constexpr const char* kTargetHelp =
    "Give a disk name (like sdb), demo:genuine, demo:fake, demo:failing or the path of a disk "
    "image file.";

// Disks a Quick Check proved fake in this process, with the bytes it verified.
std::map<std::string, std::uint64_t>& provenFake() {
  static std::map<std::string, std::uint64_t> disks;
  return disks;
}

std::optional<SimulatedCard> demoCard(const std::string& argument) {
  if (argument.rfind("demo:", 0) != 0) return std::nullopt;
  const std::optional<SimulatedCard> card = simulatedCardFromRawValue(argument.substr(5));
  if (!card) throw UsageError("unknown demo card " + argument + ". " + kTargetHelp);
  return card;
}

bool looksLikeDisk(const std::string& argument) {
  static const std::regex disk(
      "^(sd[a-z]+|mmcblk[0-9]+|nvme[0-9]+n[0-9]+|loop[0-9]+|vd[a-z]+|hd[a-z]+|xvd[a-z]+)"
      "(p?[0-9]+)?$");
  return std::regex_match(argument, disk);
}

// Refuses what cannot be an image file, with a message that names it.
void checkImagePath(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    const int error = errno;
    if (error == ENOENT) {
      throw WriteError::refused("There is no file at " + path + ". " + kTargetHelp);
    }
    throw WriteError::cannotOpen(path, error);
  }
  if (S_ISDIR(status.st_mode)) {
    throw WriteError::refused(path + " is a folder, not a disk image file. " + kTargetHelp);
  }
  if (S_ISBLK(status.st_mode)) {
    throw WriteError::refused(path + " is a disk outside /dev. Give its name instead, like sdb.");
  }
  if (!S_ISREG(status.st_mode)) {
    throw WriteError::refused(path + " is not a regular disk image file. " + kTargetHelp);
  }
}

// Opening a disk the user may not open asks for an administrator password
// through pkexec; say so before the prompt appears.
void announceAccess(const std::string& path, int mode, const std::string& noun) {
  if (::access(path.c_str(), mode) == 0 || errno == ENOENT) return;
  std::fprintf(stderr,
               "Waiting for access to the %s. You may be asked for an administrator password.\n",
               noun.c_str());
}

// The card row of the summaries: the disk as the picker lists it (volume
// names, media name), else what the guard or the open device told.
Card diskCard(const std::string& name, const std::string& mediaName, std::uint64_t size) {
  for (ExternalDisk& disk : DiskEnumerator::externalDisks(true)) {
    if (disk.deviceIdentifier == name) return Card{std::move(disk)};
  }
  return Card{ExternalDisk{name, mediaName, size, {}}};
}

}  // namespace

std::optional<std::string> diskName(const std::string& argument) {
  if (argument.rfind("/dev/", 0) == 0) {
    // Follow /dev/disk/by-id and similar links to the kernel's node.
    std::error_code error;
    const std::string resolved = std::filesystem::canonical(argument, error).string();
    // A file under /dev (an image in /dev/shm) is an image file, not a disk.
    if (!error && std::filesystem::is_regular_file(resolved, error)) return std::nullopt;
    if (!error && resolved.rfind("/dev/", 0) == 0) return resolved.substr(5);
    return argument.substr(5);
  }
  if (argument.empty() || argument.find('/') != std::string::npos) return std::nullopt;
  if (looksLikeDisk(argument)) return argument;
  std::error_code error;
  if (argument != "." && argument != ".." &&
      std::filesystem::exists(std::filesystem::path("/sys/class/block") / argument, error)) {
    return argument;
  }
  return std::nullopt;
}

void markProvenFake(const std::string& deviceIdentifier, std::uint64_t verifiedBytes) {
  provenFake().insert_or_assign(deviceIdentifier, verifiedBytes);
}

std::optional<std::uint64_t> verifiedCapacity(const std::string& deviceIdentifier) {
  const auto found = provenFake().find(deviceIdentifier);
  if (found == provenFake().end()) return std::nullopt;
  return found->second;
}

Allowance allowanceFor(CheckAction action, const std::string& deviceIdentifier) {
  if (action == CheckAction::quick || provenFake().contains(deviceIdentifier)) {
    return Allowance::claimedCapacity;
  }
  return Allowance::standard;
}

Target inspectTarget(const std::string& argument, CheckAction action) {
  Target target;
  target.argument = argument;
  target.confirmWord = "erase";
  if (const auto demo = demoCard(argument)) {
    target.kind = Target::Kind::demo;
    target.card = Card{*demo};
    target.device = makeDevice(*demo);
    return target;
  }
  if (const auto name = diskName(argument)) {
    target.kind = Target::Kind::disk;
    // Typing the disk's own name keeps a slip of the finger from erasing
    // another disk.
    target.confirmWord = *name;
    try {
      target.identity = DeviceGuard::inspect(*name, allowanceFor(action, *name));
    } catch (const WriteError& error) {
      // The guard's advice, in the form that lifts the limit on the command line.
      if (action != CheckAction::quick &&
          error.description().ends_with("Run a Quick Check first.")) {
        throw WriteError::refused(error.description() +
                                  " On the command line: vellum-check quick " + *name + " --then " +
                                  std::string(rawValue(action)) + " --confirm " + *name + ".");
      }
      throw;
    }
    target.card = diskCard(*name, target.identity->mediaName, target.identity->sizeBytes);
    return target;
  }
  checkImagePath(argument);
  target.kind = Target::Kind::imageFile;
  return target;
}

void openForWriting(Target& target) {
  if (target.device) return;
  if (target.kind == Target::Kind::disk) {
    announceAccess(target.identity->devicePath(), R_OK | W_OK, target.noun());
    target.device = DeviceWriteAccess::open(*target.identity);
    return;
  }
  target.device = FileDescriptorDevice::openImage(target.argument, 512);
}

Target openTarget(const std::string& argument, CheckAction action) {
  Target target = inspectTarget(argument, action);
  openForWriting(target);
  return target;
}

std::unique_ptr<ByteSource> openSource(const std::string& argument, std::optional<Card>& card) {
  if (const auto demo = demoCard(argument)) {
    card = Card{*demo};
    return makeDevice(*demo);
  }
  if (const auto name = diskName(argument)) {
    Card found = diskCard(*name, "", 0);
    announceAccess("/dev/" + *name, R_OK, std::string(found.noun()));
    std::unique_ptr<ByteSource> source = SourceOpener::open("/dev/" + *name);
    ExternalDisk* disk = std::get_if<ExternalDisk>(&found.kind);
    if (disk && disk->sizeBytes == 0) disk->sizeBytes = source->size();
    card = std::move(found);
    return source;
  }
  checkImagePath(argument);
  return std::make_unique<FileSource>(argument);
}

}  // namespace vellum::cli
