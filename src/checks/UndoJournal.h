#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bytes/Error.h"
#include "bytes/UniqueFd.h"
#include "devices/BlockDevice.h"

namespace vellum {

// Which card a journal belongs to, as far as it can be told again after the
// card was pulled out and inserted anew (possibly under another kernel name).
struct JournalCard {
  std::string name;  // kernel name such as "sdb", or a disk image's path
  std::uint64_t sizeBytes = 0;
  std::string model;   // empty when unknown
  std::string serial;  // empty when unknown

  bool operator==(const JournalCard&) const = default;
  // Same size and model, and the same serial when both are known, else the
  // same name.
  bool isSameCard(const JournalCard& other) const;
  // Same size and model: the card reinserted under another name could be it.
  bool couldBe(const JournalCard& other) const;
};

namespace journal_error {
struct CannotWrite {
  std::string folder;
  int errnum;
  bool operator==(const CannotWrite&) const = default;
};
struct Unreadable {
  std::string path;
  bool operator==(const Unreadable&) const = default;
};
}  // namespace journal_error

class JournalError final : public ErrorOf<journal_error::CannotWrite, journal_error::Unreadable> {
 public:
  using CannotWrite = journal_error::CannotWrite;
  using Unreadable = journal_error::Unreadable;
  explicit JournalError(Case errorCase);
};

// The undo journal of one Quick Check on a real card: before a test block is
// written, the bytes it replaces are in this file and on stable storage, so a
// killed process, a power cut or a pulled card can always be undone with
// restoreFromJournal(). One round of test points at a time: once a round is
// put back, the journal starts over.
//
// File layout: "VLUNDO01", a 4-byte little-endian length and a JSON header
// (card, nonce, unit), then records of kind (P a test point's original, R an
// area's bytes, D the areas before the Nth rewritten, F all of them), offset, length,
// the bytes and a checksum. A record torn by a crash ends the journal there; that is safe
// because nothing it describes was written before the journal was synced.
class UndoJournal {
 public:
  // Creates a new journal file in folder (made if missing) and reserves room
  // for reserveBytes of records, so a full disk stops the check before the
  // card is touched. Throws JournalError::CannotWrite naming the folder.
  static std::unique_ptr<UndoJournal> create(const std::filesystem::path& folder,
                                             const JournalCard& card, std::uint64_t nonce,
                                             std::uint64_t unit, std::uint64_t reserveBytes);
  UndoJournal(const UndoJournal&) = delete;
  UndoJournal& operator=(const UndoJournal&) = delete;
  ~UndoJournal();

  // The original bytes of a test point.
  void saveOriginal(std::uint64_t offset, std::span<const std::uint8_t> bytes);
  // The bytes of an area that is about to be rewritten with those same bytes
  // (to push a card's write cache out); readRegion() gives them back.
  void saveRegion(std::uint64_t offset, std::span<const std::uint8_t> bytes);
  // Flushes the file and its folder: call before writing what was saved.
  void commit();
  // Saved areas are rewritten in groups of at least this many bytes (or to
  // the last one); after each, the card is synchronised and the group noted.
  static constexpr std::uint64_t kRewriteGroupBytes = 4'194'304;
  // Notes (durably) that saved areas 0 .. count - 1 are back on the card,
  // then that all of them are.
  void regionsRewritten(std::size_t count);
  void regionRewritten();
  std::size_t regionCount() const { return regions_.size(); }
  // Offset and bytes of saved area i; out must be its size.
  std::uint64_t readRegion(std::size_t i, std::span<std::uint8_t> out) const;
  std::uint64_t regionSize(std::size_t i) const { return regions_.at(i).length; }
  // Everything saved was put back and synchronised: empty the journal.
  void startOver();
  // True while some saved place may not hold its original bytes.
  bool holdsRecords() const { return end_ > headerEnd_; }
  // Deletes the journal file; the folder is flushed on a best-effort basis.
  void remove();
  const std::filesystem::path& path() const { return path_; }

 private:
  struct Region {
    std::uint64_t deviceOffset;
    std::uint64_t fileOffset;
    std::uint64_t length;
  };
  UndoJournal(std::filesystem::path path, UniqueFd fd, std::uint64_t headerEnd);
  void append(char kind, std::uint64_t offset, std::span<const std::uint8_t> bytes);
  [[noreturn]] void fail(int errnum) const;

  std::filesystem::path path_;
  UniqueFd fd_;
  std::uint64_t headerEnd_;
  std::uint64_t end_;
  std::vector<Region> regions_;
  std::uint32_t generation_ = 1;
  bool folderSynced_ = false;
  bool removed_ = false;
};

// An unfinished journal found in the state folder (its header only).
struct PendingJournal {
  std::filesystem::path path;
  JournalCard card;
  std::uint64_t nonce = 0;
  std::uint64_t unit = 0;
};

// The unfinished journals in folder, oldest first; files that are not
// journals are left out. A missing folder has none.
std::vector<PendingJournal> pendingJournals(const std::filesystem::path& folder);

struct RestoreReport {
  std::int64_t restored = 0;     // test points given their original bytes back
  std::int64_t alreadyBack = 0;  // points that held their original bytes already
  // Points that hold neither: written since the check, so left alone.
  std::vector<std::uint64_t> changedSince;
  std::int64_t areaBytesRestored = 0;  // bytes of an interrupted cache flush
  // Some place still held the check's own test block: this is its card.
  bool provenSameCard = false;
};

// Puts the card back as it was before the journal's check; the caller then
// deletes the journal (removeJournal) or keeps it. A test point is written only while it still
// holds that check's own test block (same nonce and index), so data written since is never
// overwritten. An area whose rewrite was interrupted is put back only where
// it differs, and only when a test block of that check proves this is the
// card; of those, only the group that was being written (the others are
// either done or untouched, so writes made since stay). Throws the device's errors (the journal
// stays) or JournalError.
RestoreReport restoreFromJournal(const PendingJournal& journal, BlockDevice& device);
// Deletes a journal file (and flushes its folder, best effort).
void removeJournal(const std::filesystem::path& path);

}  // namespace vellum
