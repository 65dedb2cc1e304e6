#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "checks/CheckTypes.h"
#include "checks/UndoJournal.h"
#include "checks/Wipe.h"
#include "devices/SimulatedDevice.h"
#include "session/DiskPlatform.h"
#include "session/RunError.h"
#include "summary/Card.h"
#include "summary/CheckAction.h"

namespace vellum {

// What a run acts on: a card of the list (a disk or a demo card) or, from the
// command line, a disk-image file.
struct RunTarget {
  std::optional<Card> card;
  std::filesystem::path imageFile;  // when there is no card

  static RunTarget of(Card card) { return {std::move(card), {}}; }
  static RunTarget image(std::filesystem::path path) { return {std::nullopt, std::move(path)}; }

  // "card" or "drive".
  std::string noun() const { return std::string(nounFor(card)); }
  // The disk's name, "demo:fake" or the image's path, for messages.
  std::string name() const;
  // What the user types to allow erasing: the disk's name, else "erase".
  std::string confirmWord() const;
  const ExternalDisk* disk() const { return card ? card->disk() : nullptr; }
};

// The file system and volume name typed for a format; no file system means
// the one that suits the card's size.
struct FormatChoice {
  std::optional<FileSystem> fileSystem;
  std::string name;
};

struct RunRequest {
  CheckAction action = CheckAction::quick;
  RunTarget target;
  // A backup image of the whole card, saved before an erasing action.
  std::optional<std::filesystem::path> backupTo;
  bool replaceBackup = false;
  std::optional<FormatChoice> format;
  // The application always wipes with zeros; the command line may choose.
  Wipe::Method wipeMethod = Wipe::Method::zeros;
};

// Something the user should know after the fact. A warning asks the user to
// act (a volume that could not be mounted again, a backup with holes); the
// rest only informs ("Mounted its volume again.").
struct Notice {
  enum class Level { info, warning };
  Level level = Level::info;
  std::string text;
  bool operator==(const Notice&) const = default;
};

// What the status line shows, and why: front ends may show only some kinds.
enum class StatusKind { waitingForAccess, backingUp, running, formatting };

// How a run talks to its front end. Every callback is called on the thread
// that runs the session and may be empty.
struct RunHooks {
  std::function<void(StatusKind, const std::string&)> status;
  ProgressCallback progress;
  // Asked once for an erasing action, after the guard let the card through
  // and before anything (the backup included) happens: false stops the run
  // with RunError::NotConfirmed. Empty: the front end confirmed beforehand.
  std::function<bool(const RunTarget&)> confirm;
  std::function<void(const Notice&)> notice;
};

// A source opened for reading: owned for disks and files, borrowed from the
// session for demo cards.
class OpenedSource {
 public:
  explicit OpenedSource(std::unique_ptr<ByteSource> owned)
      : owned_(std::move(owned)), source_(owned_.get()) {}
  explicit OpenedSource(ByteSource& borrowed) : source_(&borrowed) {}
  ByteSource& operator*() const { return *source_; }
  ByteSource* operator->() const { return source_; }

 private:
  std::unique_ptr<ByteSource> owned_;
  ByteSource* source_;
};

// A device opened for writing: owned for disks and files, borrowed from the
// session for demo cards.
class OpenedDevice {
 public:
  explicit OpenedDevice(std::unique_ptr<BlockDevice> owned)
      : owned_(std::move(owned)), device_(owned_.get()) {}
  explicit OpenedDevice(BlockDevice& borrowed) : device_(&borrowed) {}
  BlockDevice& operator*() const { return *device_; }

 private:
  std::unique_ptr<BlockDevice> owned_;
  BlockDevice* device_;
};

// The rules of a run, shared by the application and the command line: the
// backup before erasing, which access each action needs, the guard's
// allowance, the status texts, the demo cards and the disks proven fake.
// run() blocks for the whole action; call it from a worker. One run at a time.
class Session {
 public:
  // replaceHint follows the sentence saying an image file already exists: how
  // this front end lets the user replace it. restoreHint says how the user
  // puts back the data of an interrupted Quick Check on a disk or image
  // ("choose Put Data Back").
  using RestoreHint = std::function<std::string(const std::string& name)>;
  explicit Session(DiskPlatform& platform,
                   std::string replaceHint = "Choose to replace it, or another name.",
                   RestoreHint restoreHint = {})
      : platform_(platform),
        replaceHint_(std::move(replaceHint)),
        restoreHint_(std::move(restoreHint)) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Runs the action and returns its outcome. A disk card without facts (size
  // 0) gets those the guard saw. Throws RunError for every way a run can end
  // without an outcome; cancel stops it at the action's next check.
  CheckOutcome run(RunRequest& request, const CancellationFlag& cancel, const RunHooks& hooks);

  // Copies the whole target into an image file (never a device, never on the
  // target itself). Returns how many sectors could not be read and hold
  // zeros. Throws RunError.
  std::int64_t saveImage(RunTarget& target, const std::filesystem::path& destination, bool replace,
                         const CancellationFlag& cancel, const RunHooks& hooks);

  // Opens the target for reading only (no guard: nothing is written).
  // Throws RunError.
  OpenedSource openForReading(RunTarget& target);

  // The demo card's in-memory device, made on first use and kept, so a demo
  // card holds what was written to it between runs.
  SimulatedDevice& simulatedDevice(SimulatedCard card);

  // Journals of interrupted Quick Checks that belong to this disk or image
  // (none for demo cards). Reads only the journals' headers.
  std::vector<PendingJournal> interruptedChecks(const RunTarget& target);
  // Every unfinished journal in the user's state folder.
  std::vector<PendingJournal> allInterruptedChecks();

  struct Restored {
    PendingJournal journal;
    RestoreReport report;
    bool kept = false;  // not proven to be this card: the journal stays
  };
  // Puts back the data of the interrupted Quick Checks on the target (a disk
  // reinserted under another name included), with the same access as a
  // Quick Check. A journal is deleted once its card is proven (a place held
  // the check's test block) or when the target is its card by name or
  // serial; otherwise it stays for the right card. Throws RunError.
  std::vector<Restored> restore(RunTarget& target, const RunHooks& hooks);
  // What a restore did, in sentences naming the disk; empty for a journal
  // that was kept for another card.
  static std::string describe(const std::string& name, const Restored& restored);

  // The bytes a Quick Check in this session verified on a disk it proved fake.
  std::optional<std::uint64_t> provenFake(const std::string& deviceIdentifier) const;

  DiskPlatform& platform() { return platform_; }

  // The status line of each action once its card is open.
  static std::string statusText(CheckAction action, const RunTarget& target,
                                std::optional<FileSystem> fileSystem = std::nullopt);

 private:
  CheckOutcome runAction(RunRequest& request, const std::optional<DiskIdentity>& identity,
                         const CancellationFlag& cancel, const RunHooks& hooks);
  OpenedDevice openForWriting(const RunTarget& target, const std::optional<DiskIdentity>& identity);
  void backUp(const RunRequest& request, const CancellationFlag& cancel, const RunHooks& hooks);
  void checkImageDestination(const RunTarget& source, const std::filesystem::path& destination,
                             bool erasing);
  void fillCardFacts(RunTarget& target, const DiskIdentity* identity);
  std::string restoreHint(const RunTarget& target) const;
  CheckOutcome runQuickCheck(const RunTarget& target, const std::optional<DiskIdentity>& identity,
                             const CancellationFlag& cancel, const RunHooks& hooks);

  DiskPlatform& platform_;
  const std::string replaceHint_;
  const RestoreHint restoreHint_;
  mutable std::mutex mutex_;  // guards the two maps below
  std::map<SimulatedCard, std::unique_ptr<SimulatedDevice>> demoDevices_;
  std::map<std::string, std::uint64_t> provenFake_;
};

}  // namespace vellum
