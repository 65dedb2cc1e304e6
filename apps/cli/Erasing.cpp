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

// The folder the image goes into, with symlinks resolved, so its disk can be
// found (a link in another folder must not hide that the file is on the card).
std::filesystem::path folderOf(const std::string& destination) {
  std::error_code error;
  const std::filesystem::path resolved = std::filesystem::weakly_canonical(destination, error);
  return error ? std::filesystem::path(destination).parent_path() : resolved.parent_path();
}

}  // namespace

void checkImageDestination(const std::string& source, const std::optional<std::string>& sourceDisk,
                           const std::string& noun, const std::string& destination, bool erasing) {
  if (!sourceDisk && sameFile(source, destination)) {
    throw UsageError("the image can't replace its own source. Choose another file.");
  }
  if (sourceDisk) {
    const auto disk = DiskEnumerator::wholeDisk(folderOf(destination));
    if (disk && disk->identifier == *sourceDisk) {
      throw UsageError(destination + " is on the " + noun +
                       (erasing ? " that is about to be erased. Save the backup"
                                : " being copied. Save the image") +
                       " on another disk.");
    }
  }
}

std::string imageErrorText(const ImageError& error) {
  if (error.is<ImageError::AlreadyExists>()) {
    return error.description() + " Add --force to replace it.";
  }
  return error.description();
}

void saveBackup(const Target& target, const std::string& destination, bool replace) {
  checkImageDestination(
      target.argument,
      target.identity ? std::optional(target.identity->deviceIdentifier) : std::nullopt,
      target.noun(), destination, true);
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
    CardImage{.replaceExisting = replace}.save(*source, destination, cancel, line.callback());
  } catch (const CheckError&) {
    line.finish();
    throw;  // cancelled: CardImage has removed the partial file
  } catch (const ImageError& error) {
    line.finish();
    throw WriteError::refused("The backup failed: " + imageErrorText(error) +
                              " Nothing was erased.");
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
  if (const auto backup = options.value("--backup")) {
    stopNote() = "The backup was stopped before anything was written: nothing was erased.";
    saveBackup(target, *backup, options.has("--force"));
  }
  openForWriting(target);
  stopNote() = "The " + target.noun() +
               " is now partly overwritten. Run the test again, or format the " + target.noun() +
               ", before using it.";
  return target;
}

}  // namespace vellum::cli
