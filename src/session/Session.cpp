#include "session/Session.h"

#include <sys/stat.h>

#include <algorithm>
#include <exception>

#include "bytes/DeviceError.h"
#include "bytes/FileSource.h"
#include "bytes/Precondition.h"
#include "carve/CarveTypes.h"
#include "checks/CardImage.h"
#include "checks/FullTest.h"
#include "checks/HealthScan.h"
#include "checks/QuickCheck.h"
#include "devices/FileDescriptorDevice.h"
#include "devices/WriteError.h"
#include "platform/DeviceGuard.h"
#include "platform/DiskFormatter.h"
#include "platform/FormatHelper.h"

namespace vellum {
namespace {

constexpr std::int64_t kChunkBytes = 8'388'608;
constexpr const char* kTargetHelp =
    "Give a disk name (like sdb), demo:genuine, demo:fake, demo:failing or the path of a disk "
    "image file.";

void say(const RunHooks& hooks, StatusKind kind, const std::string& text) {
  if (hooks.status) hooks.status(kind, text);
}

void tell(const RunHooks& hooks, const std::string& text,
          Notice::Level level = Notice::Level::info) {
  if (hooks.notice) hooks.notice(Notice{level, text});
}

// The disk the guard sees now is the medium the user chose from the list:
// the same size and media name, and the same disk sequence number and serial
// where both sides know them (the kernel reuses names like sdb).
bool isChosenMedium(const ExternalDisk& chosen, const DiskIdentity& now) {
  if (chosen.sizeBytes != now.sizeBytes || chosen.mediaName != now.mediaName) return false;
  const std::uint64_t sequence = diskSequence(now);
  if (chosen.diskSequence != 0 && sequence != 0 && chosen.diskSequence != sequence) return false;
  return chosen.serial.empty() || now.serial.empty() || chosen.serial == now.serial;
}

[[noreturn]] void refuse(std::string message) {
  throw RunError(RunError::Refused{std::move(message)});
}

// Refuses what cannot be an image file, with a message that names it.
void checkImageFile(const std::filesystem::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    const int error = errno;
    if (error == ENOENT) refuse("There is no file at " + path.string() + ". " + kTargetHelp);
    refuse(WriteError::cannotOpen(path, error).description());
  }
  if (S_ISDIR(status.st_mode)) {
    refuse(path.string() + " is a folder, not a disk image file. " + kTargetHelp);
  }
  if (S_ISBLK(status.st_mode)) {
    refuse(path.string() + " is a disk outside /dev. Give its name instead, like sdb.");
  }
  if (!S_ISREG(status.st_mode)) {
    refuse(path.string() + " is not a regular disk image file. " + kTargetHelp);
  }
}

bool sameFile(const std::filesystem::path& a, const std::filesystem::path& b) {
  struct stat first {};
  struct stat second {};
  return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// The folder a new file goes into, symlinks resolved, so that a link in
// another folder cannot hide that the file lands on the card.
std::filesystem::path folderOf(const std::filesystem::path& destination) {
  std::error_code error;
  const std::filesystem::path resolved = std::filesystem::weakly_canonical(destination, error);
  return error ? destination.parent_path() : resolved.parent_path();
}

// Ends a lower layer's text with a full stop, so another sentence can follow.
std::string asSentence(std::string text) {
  if (!text.empty() && text.back() != '.') text += '.';
  return text;
}

// What a stop leaves behind, by action.
std::string whatAStopLeaves(CheckAction action, const RunTarget& target) {
  switch (action) {
    case CheckAction::quick:
      return "Everything the Quick Check wrote was put back; the " + target.noun() +
             " holds your data as before.";
    case CheckAction::full:
    case CheckAction::wipe:
      return "The " + target.noun() +
             " is now partly overwritten. Run the test again, or format the " + target.noun() +
             ", before using it.";
    case CheckAction::health:
    case CheckAction::format:
      return "Nothing was written.";
  }
  ::vellum::detail::preconditionFailed("unreachable", __FILE__, __LINE__);
}

// Turns whatever ended the action into a RunError that keeps its kind and
// names the card, with what to do next.
[[noreturn]] void rethrowAsRunError(CheckAction action, const RunTarget& target) {
  const std::string name = target.name();
  const std::string noun = target.noun();
  try {
    throw;
  } catch (const RunError&) {
    throw;
  } catch (const CheckError& error) {
    if (error.is<CheckError::Cancelled>()) {
      throw RunError(RunError::Cancelled{whatAStopLeaves(action, target)});
    }
    throw RunError(RunError::Failed{name + ": " + error.description()});
  } catch (const DeviceError& error) {
    if (error.is<DeviceError::ReadFailed>()) {
      throw RunError(RunError::DeviceFailing{name + ": " + error.description() + ". The " + noun +
                                             " may be failing; a Health Scan shows which areas."});
    }
    refuse(error.description());
  } catch (const WriteError& error) {
    if (error.is<WriteError::NeedsQuickCheck>()) {
      throw RunError(RunError::NeedsQuickCheck{name, error.description()});
    }
    if (error.is<WriteError::Refused>() || error.is<WriteError::CannotOpen>() ||
        error.is<WriteError::AuthorizationDenied>()) {
      refuse(error.description());
    }
    if (error.is<WriteError::Removed>()) {
      throw RunError(RunError::DeviceFailing{error.description()});
    }
    throw RunError(RunError::DeviceFailing{name + ": " + error.description() + ". The " + noun +
                                           " may be failing or write-protected."});
  } catch (const JournalError& error) {
    if (error.is<JournalError::CannotWrite>()) refuse(error.description());
    throw RunError(RunError::Failed{error.description()});
  } catch (const CarveError& error) {
    throw RunError(RunError::Failed{
        name + " was overwritten, but the search for recoverable files couldn't run: " +
        error.description()});
  } catch (const std::filesystem::filesystem_error& error) {
    // The wipe's search writes what it finds into the temporary folder.
    throw RunError(RunError::Failed{
        name + " was overwritten, but the search for recoverable files couldn't write to " +
        error.path1().string() + " (" + error.code().message() +
        "). Make room in the temporary folder, or point TMPDIR at another one, and wipe again."});
  } catch (const Error& error) {
    throw RunError(RunError::Failed{asSentence(error.description())});
  }
}

// Who the target is for the undo journal; none for a demo card, which lives
// in memory and goes with the process anyway.
std::optional<JournalCard> journalCardOf(const RunTarget& target, const DiskIdentity* identity) {
  if (identity) {
    return JournalCard{identity->deviceIdentifier, identity->sizeBytes, identity->mediaName,
                       identity->serial};
  }
  if (const ExternalDisk* disk = target.disk()) {
    return JournalCard{disk->deviceIdentifier, disk->sizeBytes, disk->mediaName, ""};
  }
  if (target.card) return std::nullopt;
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(target.imageFile, error);
  return JournalCard{std::filesystem::weakly_canonical(target.imageFile, error).string(),
                     error ? 0 : size / 512 * 512, "Disk Image", ""};
}

std::vector<PendingJournal> journalsOf(const std::vector<PendingJournal>& all,
                                       const JournalCard& card, bool sameNameOnly) {
  std::vector<PendingJournal> found;
  for (const PendingJournal& journal : all) {
    if (sameNameOnly ? journal.card.isSameCard(card) : journal.card.couldBe(card)) {
      found.push_back(journal);
    }
  }
  return found;
}

}  // namespace

std::string RunTarget::name() const {
  if (!card) return imageFile.string();
  if (const ExternalDisk* disk = card->disk()) return disk->deviceIdentifier;
  return "demo:" + std::string(rawValue(*card->simulated()));
}

std::string RunTarget::confirmWord() const {
  // Typing the disk's own name keeps a slip of the finger from erasing
  // another disk.
  if (const ExternalDisk* disk = this->disk()) return disk->deviceIdentifier;
  return "erase";
}

std::string Session::statusText(CheckAction action, const RunTarget& target,
                                std::optional<FileSystem> fileSystem) {
  const std::string noun = target.noun();
  switch (action) {
    case CheckAction::quick:
      return "Writing test blocks across the " + noun + ", then putting your data back.";
    case CheckAction::full:
      return "Filling the " + noun + " with test data and checking every block.";
    case CheckAction::wipe:
      return "Overwriting the whole " + noun + ", then proving nothing is left.";
    case CheckAction::health:
      return "Reading every block of the " + noun + ". Nothing is written.";
    case CheckAction::format:
      return "Formatting as " + std::string(displayName(fileSystem.value_or(FileSystem::exfat))) +
             "\u2026";
  }
  ::vellum::detail::preconditionFailed("unreachable", __FILE__, __LINE__);
}

SimulatedDevice& Session::simulatedDevice(SimulatedCard card) {
  const std::lock_guard lock(mutex_);
  std::unique_ptr<SimulatedDevice>& device = demoDevices_[card];
  if (!device) device = makeDevice(card);
  return *device;
}

std::optional<std::uint64_t> Session::provenFake(const std::string& deviceIdentifier) const {
  const std::lock_guard lock(mutex_);
  const auto found = provenFake_.find(deviceIdentifier);
  if (found == provenFake_.end()) return std::nullopt;
  return found->second;
}

void Session::fillCardFacts(RunTarget& target, const DiskIdentity* identity) {
  ExternalDisk* disk = target.card ? std::get_if<ExternalDisk>(&target.card->kind) : nullptr;
  if (!disk || disk->sizeBytes != 0) return;
  // A disk named on the command line: take it as the list shows it (volume
  // names, media name), else as the guard saw it.
  for (ExternalDisk& listed : platform_.externalDisks(true)) {
    if (listed.deviceIdentifier == disk->deviceIdentifier) {
      *disk = std::move(listed);
      return;
    }
  }
  if (identity) {
    disk->mediaName = identity->mediaName;
    disk->sizeBytes = identity->sizeBytes;
  }
}

void Session::checkImageDestination(const RunTarget& source,
                                    const std::filesystem::path& destination, bool erasing) {
  if (!source.card && sameFile(source.imageFile, destination)) {
    refuse("The image can't replace its own source. Choose another file.");
  }
  const ExternalDisk* disk = source.disk();
  if (!disk) return;
  const auto holder = platform_.diskHolding(folderOf(destination));
  if (holder && *holder == disk->deviceIdentifier) {
    refuse(destination.string() + " is on the " + source.noun() +
           (erasing ? " that is about to be erased. Save the backup"
                    : " being copied. Save the image") +
           " on another disk.");
  }
}

OpenedSource Session::openForReading(RunTarget& target) {
  try {
    if (const ExternalDisk* disk = target.disk()) {
      std::unique_ptr<ByteSource> source = platform_.openForReading(disk->deviceIdentifier);
      fillCardFacts(target, nullptr);
      ExternalDisk& filled = std::get<ExternalDisk>(target.card->kind);
      if (filled.sizeBytes == 0) filled.sizeBytes = source->size();
      return OpenedSource(std::move(source));
    }
    // A reader of a demo card sees its device as it is now.
    if (target.card) return OpenedSource(simulatedDevice(*target.card->simulated()));
    checkImageFile(target.imageFile);
    return OpenedSource(std::make_unique<FileSource>(target.imageFile.string()));
  } catch (...) {
    rethrowAsRunError(CheckAction::health, target);
  }
}

OpenedDevice Session::openForWriting(const RunTarget& target,
                                     const std::optional<DiskIdentity>& identity) {
  if (identity) return OpenedDevice(platform_.openForWriting(*identity));
  if (target.card) return OpenedDevice(simulatedDevice(*target.card->simulated()));
  return OpenedDevice(FileDescriptorDevice::openImage(target.imageFile.string(), 512));
}

void Session::backUp(const RunRequest& request, const CancellationFlag& cancel,
                     const RunHooks& hooks) {
  const RunTarget& target = request.target;
  const std::filesystem::path& destination = *request.backupTo;
  checkImageDestination(target, destination, true);
  say(hooks, StatusKind::backingUp,
      "Backing up the " + target.noun() + " to " + destination.filename().string() + "\u2026");
  try {
    std::unique_ptr<ByteSource> opened;
    ByteSource* source = nullptr;
    if (const ExternalDisk* disk = target.disk()) {
      opened = platform_.openForReading(disk->deviceIdentifier);
      source = opened.get();
    } else if (target.card) {
      source = &simulatedDevice(*target.card->simulated());
    } else {
      opened = std::make_unique<FileSource>(target.imageFile.string());
      source = opened.get();
    }
    CardImage{.chunkBytes = kChunkBytes, .replaceExisting = request.replaceBackup}.save(
        *source, destination.string(), cancel, hooks.progress);
    // A disk reads its unreadable sectors as zeros: the backup holds zeros there.
    if (const std::int64_t lost = source->badReads(); lost > 0) {
      tell(hooks,
           "The backup holds zeros for " + std::to_string(lost) +
               (lost == 1 ? " unreadable sector" : " unreadable sectors") + " of the " +
               target.noun() + ".",
           Notice::Level::warning);
    }
  } catch (const CheckError& error) {
    if (error.is<CheckError::Cancelled>()) {
      throw RunError(RunError::Cancelled{
          "The backup was stopped before anything was written: nothing was erased."});
    }
    throw RunError(RunError::BackupFailed{asSentence(error.description())});
  } catch (const ImageError& error) {
    std::string reason = asSentence(error.description());
    if (error.is<ImageError::AlreadyExists>()) reason += " " + replaceHint_;
    throw RunError(RunError::BackupFailed{reason});
  } catch (const Error& error) {
    throw RunError(RunError::BackupFailed{asSentence(error.description())});
  }
}

CheckOutcome Session::run(RunRequest& request, const CancellationFlag& cancel,
                          const RunHooks& hooks) {
  RunTarget& target = request.target;
  const CheckAction action = request.action;
  std::optional<DiskIdentity> identity;
  try {
    if (action == CheckAction::format) {
      if (target.card && target.card->simulated()) refuse("Simulated cards can't be formatted.");
      if (!target.card) {
        refuse(target.name() +
               " is not a disk. Only disks (like sdb) can be formatted; a disk image file can be "
               "attached with losetup first.");
      }
    }
    if (const ExternalDisk* disk = target.disk()) {
      const std::string name = disk->deviceIdentifier;
      say(hooks, StatusKind::waitingForAccess,
          "Waiting for access to the " + target.noun() +
              ". You may be asked for an administrator password.");
      if (action != CheckAction::health) {
        // A Quick Check may write past 4 TB: it is how a fake is proven, and
        // it puts back what it touches. Erasing such a disk waits for that.
        const Allowance allowance = action == CheckAction::quick || provenFake(name)
                                        ? Allowance::claimedCapacity
                                        : Allowance::standard;
        identity = platform_.inspect(name, allowance);
        // The list is older than the guard's look: a card swapped for another
        // since it was chosen must not be written.
        if (disk->sizeBytes != 0 && !isChosenMedium(*disk, *identity)) {
          throw DeviceGuard::changed(name);
        }
        fillCardFacts(target, &*identity);
      } else if (disk->diskSequence != 0) {
        // Nothing is written, but a card swapped since it was chosen is not
        // read either.
        const std::vector<ExternalDisk> listed = platform_.externalDisks(true);
        if (std::none_of(listed.begin(), listed.end(),
                         [&](const ExternalDisk& now) { return now.isSameMedium(*disk); })) {
          throw DeviceGuard::changed(name);
        }
      }
    } else if (!target.card) {
      checkImageFile(target.imageFile);
    } else {
      say(hooks, StatusKind::waitingForAccess, "Starting\u2026");
    }
    if (action != CheckAction::health) {
      const auto card = journalCardOf(target, identity ? &*identity : nullptr);
      if (card && !journalsOf(allInterruptedChecks(), *card, true).empty()) {
        refuse(target.name() + " still holds test data from a Quick Check that was interrupted. " +
               "To put its data back, " + restoreHint(target) + " first.");
      }
    }
    if (erases(action) && hooks.confirm && !hooks.confirm(target)) {
      throw RunError(RunError::NotConfirmed{});
    }
    if (request.backupTo && erases(action)) backUp(request, cancel, hooks);
    return runAction(request, identity, cancel, hooks);
  } catch (...) {
    rethrowAsRunError(action, target);
  }
}

CheckOutcome Session::runAction(RunRequest& request, const std::optional<DiskIdentity>& identity,
                                const CancellationFlag& cancel, const RunHooks& hooks) {
  const RunTarget& target = request.target;
  switch (request.action) {
    case CheckAction::quick:
      return runQuickCheck(target, identity, cancel, hooks);
    case CheckAction::full: {
      const OpenedDevice device = openForWriting(target, identity);
      say(hooks, StatusKind::running, statusText(CheckAction::full, target));
      FullTest test;
      test.chunkBytes = kChunkBytes;
      return test.run(*device, cancel, hooks.progress);
    }
    case CheckAction::wipe: {
      const OpenedDevice device = openForWriting(target, identity);
      say(hooks, StatusKind::running, statusText(CheckAction::wipe, target));
      Wipe wipe;
      wipe.method = request.wipeMethod;
      wipe.chunkBytes = kChunkBytes;
      return wipe.run(*device, cancel, hooks.progress);
    }
    case CheckAction::health: {
      OpenedSource source = openForReading(request.target);
      say(hooks, StatusKind::running, statusText(CheckAction::health, target));
      HealthScan scan;
      scan.chunkBytes = kChunkBytes;
      scan.slowThreshold = 0.2;
      return scan.run(*source, 512, cancel, hooks.progress);
    }
    case CheckAction::format: {
      VL_PRECONDITION(identity.has_value());
      // A card proven fake gets a file system only where it really stores data.
      const std::optional<std::uint64_t> usable = provenFake(identity->deviceIdentifier);
      const FormatChoice choice = request.format.value_or(FormatChoice{});
      const FileSystem fileSystem = choice.fileSystem.value_or(
          DiskFormatter::recommended(usable.value_or(identity->sizeBytes)));
      const std::string label = DiskFormatter::sanitizedName(choice.name);
      // What is applied, for the front end's status line.
      request.format = FormatChoice{fileSystem, label};
      cancel.throwIfCancelled();
      say(hooks, StatusKind::formatting, statusText(CheckAction::format, target, fileSystem));
      // Once started, a format runs to its end: stopped between the partition
      // table and the file system, the card would be unusable.
      platform_.format(*identity, fileSystem, label, usable);
      if (cancel.isCancelled()) {
        tell(hooks,
             "Formatting was finished before stopping, so the " + target.noun() + " is usable.");
      }
      return Formatted{fileSystem, label, usable};
    }
  }
  ::vellum::detail::preconditionFailed("unreachable", __FILE__, __LINE__);
}

CheckOutcome Session::runQuickCheck(const RunTarget& target,
                                    const std::optional<DiskIdentity>& identity,
                                    const CancellationFlag& cancel, const RunHooks& hooks) {
  // The Quick Check keeps the user's files, so their volumes are mounted
  // again afterwards, once the device (held exclusively) is closed.
  std::vector<MountedVolume> mounted;
  if (identity) mounted = platform_.mountedVolumes(identity->deviceIdentifier);
  const std::optional<JournalCard> card = journalCardOf(target, identity ? &*identity : nullptr);
  std::optional<QuickCheck::JournalPlace> journal;
  if (card) journal = QuickCheck::JournalPlace{platform_.stateFolder(), *card};
  std::optional<QuickCheck::Result> result;
  std::exception_ptr failure;
  try {
    const OpenedDevice device = openForWriting(target, identity);
    say(hooks, StatusKind::running, statusText(CheckAction::quick, target));
    result = QuickCheck{}.run(*device, cancel, hooks.progress, journal);
  } catch (...) {
    failure = std::current_exception();
  }
  // Test data still on the card stays unmounted: the system must not read
  // or change those places before the data is put back.
  const bool dataToPutBack =
      failure && card && !journalsOf(allInterruptedChecks(), *card, true).empty();
  if (!mounted.empty() && !dataToPutBack) {
    const std::vector<std::string> failures = platform_.remount(mounted);
    for (const std::string& sentence : failures)
      tell(hooks, sentence, Notice::Level::warning);
    if (failures.empty()) {
      tell(hooks, mounted.size() == 1 ? "Mounted its volume again." : "Mounted its volumes again.");
    }
  }
  if (dataToPutBack) {
    // Not everything was put back: the journal has it, and says how.
    try {
      std::rethrow_exception(failure);
    } catch (const WriteError& error) {
      if (!error.is<WriteError::Removed>()) throw;
      throw RunError(RunError::DeviceFailing{
          target.name() + " was removed before the Quick Check had put back everything it " +
          "wrote. Your data is kept in the undo journal: insert the " + target.noun() +
          " again, then " + restoreHint(target) + "."});
    } catch (const CheckError& error) {
      throw RunError(
          RunError::Failed{target.name() + ": " + error.description() +
                           " The original data is kept in the undo journal; to try again, " +
                           restoreHint(target) + "."});
    }
  }
  if (failure) std::rethrow_exception(failure);
  if (result->verdict == QuickCheck::Result::Verdict::counterfeit && identity) {
    const std::lock_guard lock(mutex_);
    provenFake_.insert_or_assign(identity->deviceIdentifier, result->verifiedBytes);
  }
  return *result;
}

std::string Session::describe(const std::string& name, const Restored& restored) {
  const RestoreReport& report = restored.report;
  if (restored.kept) {
    return name + " doesn't hold the test data of the interrupted Quick Check of " +
           restored.journal.card.name + ", so nothing was written: it seems to be another " +
           "card. Insert the card that was being checked and put its data back; if that card " +
           "was formatted since, delete " + restored.journal.path.string() + ".";
  }
  const auto places = [](std::size_t count) {
    return std::to_string(count) + (count == 1 ? " place" : " places");
  };
  std::string text;
  if (report.restored > 0 || report.areaBytesRestored > 0) {
    text = name + ": put back the data at " +
           places(static_cast<std::size_t>(report.restored + (report.areaBytesRestored > 0))) +
           " that an interrupted Quick Check had overwritten.";
  } else {
    text = name +
           ": nothing of the interrupted Quick Check was left to put back; its journal was "
           "removed.";
  }
  if (const std::size_t changed = report.changedSince.size(); changed > 0) {
    std::string offsets;
    for (std::size_t i = 0; i < changed && i < 5; ++i) {
      if (i > 0) offsets += ", ";
      offsets += std::to_string(report.changedSince[i]);
    }
    if (changed > 5) offsets += ", \u2026";
    text += ' ';
    text += places(changed);
    text += changed == 1 ? " written since the check was" : " written since the check were";
    text += " left alone, so what was written there stays (byte offsets " + offsets + ").";
  }
  return text;
}

std::string Session::restoreHint(const RunTarget& target) const {
  if (restoreHint_) return restoreHint_(target.name());
  return "choose Put Data Back";
}

std::vector<PendingJournal> Session::allInterruptedChecks() {
  return pendingJournals(platform_.stateFolder());
}

std::vector<PendingJournal> Session::interruptedChecks(const RunTarget& target) {
  const std::optional<JournalCard> card = journalCardOf(target, nullptr);
  if (!card) return {};
  return journalsOf(allInterruptedChecks(), *card, true);
}

std::vector<Session::Restored> Session::restore(RunTarget& target, const RunHooks& hooks) {
  try {
    std::optional<DiskIdentity> identity;
    if (const ExternalDisk* disk = target.disk()) {
      say(hooks, StatusKind::waitingForAccess,
          "Waiting for access to the " + target.noun() +
              ". You may be asked for an administrator password.");
      identity = platform_.inspect(disk->deviceIdentifier, Allowance::claimedCapacity);
      fillCardFacts(target, &*identity);
    } else if (!target.card) {
      checkImageFile(target.imageFile);
    } else {
      return {};
    }
    const std::optional<JournalCard> card = journalCardOf(target, identity ? &*identity : nullptr);
    const std::vector<PendingJournal> journals = journalsOf(allInterruptedChecks(), *card, false);
    if (journals.empty()) return {};
    std::vector<MountedVolume> mounted;
    if (identity) mounted = platform_.mountedVolumes(identity->deviceIdentifier);
    std::vector<Restored> restored;
    {
      const OpenedDevice device = openForWriting(target, identity);
      say(hooks, StatusKind::running,
          "Putting back the data of an interrupted Quick Check on the " + target.noun() + "…");
      for (const PendingJournal& journal : journals) {
        Restored one{journal, restoreFromJournal(journal, *device)};
        // Without a test block to prove it, a journal is done with only on
        // its own card (by name or serial) where more places hold their
        // original bytes than not: an identical card in the same reader
        // must not make the real card's journal go away.
        const RestoreReport& report = one.report;
        one.kept = !report.provenSameCard &&
                   !(journal.card.isSameCard(*card) &&
                     report.alreadyBack >= static_cast<std::int64_t>(report.changedSince.size()));
        if (!one.kept) removeJournal(journal.path);
        restored.push_back(std::move(one));
      }
    }
    for (const std::string& sentence : platform_.remount(mounted))
      tell(hooks, sentence, Notice::Level::warning);
    return restored;
  } catch (...) {
    rethrowAsRunError(CheckAction::quick, target);
  }
}

std::int64_t Session::saveImage(RunTarget& target, const std::filesystem::path& destination,
                                bool replace, const CancellationFlag& cancel,
                                const RunHooks& hooks) {
  OpenedSource source = openForReading(target);
  checkImageDestination(target, destination, false);
  try {
    CardImage{.chunkBytes = kChunkBytes, .replaceExisting = replace}.save(
        *source, destination.string(), cancel, hooks.progress);
  } catch (const ImageError& error) {
    std::string reason = asSentence(error.description());
    if (error.is<ImageError::AlreadyExists>()) reason += " " + replaceHint_;
    refuse(reason);
  } catch (...) {
    rethrowAsRunError(CheckAction::health, target);
  }
  return source->badReads();
}

}  // namespace vellum
