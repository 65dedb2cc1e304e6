#include "Erasing.h"

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>

#include "Commands.h"
#include "Terminal.h"
#include "bytes/FileSource.h"
#include "checks/CardImage.h"
#include "devices/WriteError.h"
#include "platform/DiskEnumerator.h"
#include "platform/RawDeviceAccess.h"

namespace vellum::cli {
namespace {

bool sameFile(const std::string& a, const std::string& b) {
  struct stat first {};
  struct stat second {};
  return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// The folder the backup goes into, made absolute so its disk can be found.
std::filesystem::path folderOf(const std::string& destination) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(destination, error);
  return error ? std::filesystem::path(destination).parent_path() : absolute.parent_path();
}

void checkDestination(const Target& target, const std::string& destination) {
  if (target.kind == Target::Kind::imageFile && sameFile(target.argument, destination)) {
    throw UsageError("the backup image can't replace the image it backs up. Choose another FILE.");
  }
  if (target.kind == Target::Kind::disk) {
    const auto disk = DiskEnumerator::wholeDisk(folderOf(destination));
    if (disk && disk->identifier == target.identity->deviceIdentifier) {
      throw UsageError(destination + " is on the " + target.noun() +
                       " that is about to be erased. Save the backup on another disk.");
    }
  }
}

}  // namespace

void saveBackup(const Target& target, const std::string& destination) {
  checkDestination(target, destination);
  std::unique_ptr<ByteSource> opened;
  ByteSource* source = target.device.get();
  if (!source) {
    opened = target.kind == Target::Kind::disk ? SourceOpener::open(target.identity->devicePath())
                                               : std::make_unique<FileSource>(target.argument);
    source = opened.get();
  }
  CancellationFlag cancel;
  SignalCancellation signals(cancel);
  std::fprintf(stderr, "Backing up the %s to %s\u2026\n", target.noun().c_str(),
               std::filesystem::path(destination).filename().c_str());
  ProgressLine line;
  try {
    CardImage{}.save(*source, destination, cancel, line.callback());
  } catch (const CheckError&) {
    line.finish();
    throw;  // cancelled: CardImage has removed the partial file
  } catch (const Error& error) {
    line.finish();
    std::string reason = error.description();
    if (!reason.empty() && reason.back() != '.') reason += '.';
    throw WriteError::refused("The backup failed: " + reason + " Nothing was erased.");
  }
  line.finish();
  // A disk reads its unreadable sectors as zeros; the backup holds zeros there.
  if (const std::int64_t lost = source->badReads(); lost > 0) {
    std::fprintf(stderr, "The backup holds zeros for %lld unreadable %s of the %s.\n",
                 static_cast<long long>(lost), lost == 1 ? "sector" : "sectors",
                 target.noun().c_str());
  }
}

std::optional<Target> prepareErase(const std::string& argument, CheckAction action,
                                   const Options& options) {
  Target target = inspectTarget(argument, action);
  if (!confirmErase(target.argument, target.confirmWord, options.value("--confirm"))) {
    return std::nullopt;
  }
  if (const auto backup = options.value("--backup")) saveBackup(target, *backup);
  openForWriting(target);
  return target;
}

}  // namespace vellum::cli
