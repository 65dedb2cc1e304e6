#pragma once

#include <memory>
#include <optional>
#include <string>

#include "devices/BlockDevice.h"
#include "platform/DiskIdentity.h"
#include "summary/Card.h"
#include "summary/CheckAction.h"

namespace vellum::cli {

// What a TARGET argument names: a demo card, a disk-image file or a disk.
struct Target {
  enum class Kind { demo, imageFile, disk };

  std::string argument;  // as the user typed it
  Kind kind = Kind::imageFile;
  std::optional<Card> card;  // for summaries; absent for image files
  std::string confirmWord;   // what the user types to allow erasing
  // Disks only: what the guard saw when the target was inspected. Writing
  // checks it again, so a card swapped meanwhile is refused.
  std::optional<DiskIdentity> identity;
  // Set from the start for a demo card, by openForWriting otherwise.
  std::unique_ptr<BlockDevice> device;

  // "card" or "drive".
  std::string noun() const { return std::string(nounFor(card)); }
};

// The whole-disk name TARGET stands for ("sdb" for sdb, /dev/sdb or a
// /dev/disk/by-id link to it), or none when it is a demo card or a file.
// Bare words count as disk names when they look like one (sdb, mmcblk0,
// nvme0n1, loop3, with or without a partition number) or when the kernel
// knows a block device of that name; anything else is a file path.
std::optional<std::string> diskName(const std::string& argument);

// Resolves TARGET without writing anything. A disk passes through the guard
// with the allowance the action gets (see allowanceFor); its refusal texts are
// the error (WriteError). A file is checked to be a regular file. Throws
// UsageError for an unknown demo card.
Target inspectTarget(const std::string& argument, CheckAction action);

// Opens an inspected target for writing: a disk through DeviceWriteAccess
// (checked again, unmounted, opened exclusively, the administrator password
// asked for when needed), an image file with 512-byte blocks.
void openForWriting(Target& target);

// inspectTarget and openForWriting in one, for actions that ask nothing first.
Target openTarget(const std::string& argument, CheckAction action = CheckAction::quick);

// Opens TARGET for reading only (Health Scan, image, backups): a disk through
// the source opener on /dev/NAME, never through the guard.
std::unique_ptr<ByteSource> openSource(const std::string& argument, std::optional<Card>& card);

// Records that a Quick Check in this process found the disk's capacity fake,
// and how many bytes from the start it verified.
void markProvenFake(const std::string& deviceIdentifier, std::uint64_t verifiedBytes);
// The bytes a Quick Check in this process verified on a disk it proved fake.
std::optional<std::uint64_t> verifiedCapacity(const std::string& deviceIdentifier);
// The guard's allowance for an action on a disk: claimedCapacity for a Quick
// Check always (it proves a fake and puts the data back), and for the erasing
// actions only once the disk was proven fake in this process.
Allowance allowanceFor(CheckAction action, const std::string& deviceIdentifier);

}  // namespace vellum::cli
