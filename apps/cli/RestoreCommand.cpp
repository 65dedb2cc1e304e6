#include <cstdio>
#include <filesystem>
#include <set>
#include <string>

#include "Cli.h"
#include "Commands.h"
#include "Options.h"
#include "Run.h"
#include "bytes/ByteCountFormat.h"
#include "platform/DiskEnumerator.h"

namespace vellum::cli {
namespace {

void printRestored(const std::string& name, const Session::Restored& restored) {
  const std::string text = Session::describe(name, restored);
  if (!text.empty()) std::printf("%s\n", text.c_str());
}

// Where a journal's card may be now: the name it had, then every other disk
// (or image) of the same size, since a card inserted again may get another
// name.
std::vector<RunTarget> placesFor(const PendingJournal& journal, bool imagesAllowed) {
  std::vector<RunTarget> targets;
  if (journal.card.name.starts_with("/")) {
    if (std::filesystem::exists(journal.card.name)) {
      targets.push_back(RunTarget::image(journal.card.name));
    }
    return targets;
  }
  std::set<std::string> names;
  if (std::filesystem::exists("/sys/class/block/" + journal.card.name)) {
    names.insert(journal.card.name);
    targets.push_back(resolveTarget(journal.card.name));
  }
  for (const ExternalDisk& disk : DiskEnumerator::externalDisks(imagesAllowed)) {
    if (disk.sizeBytes == journal.card.sizeBytes && names.insert(disk.deviceIdentifier).second) {
      targets.push_back(resolveTarget(disk.deviceIdentifier));
    }
  }
  return targets;
}

}  // namespace

int runRestore(const std::vector<std::string>& words) {
  const Options options(words, {}, {}, 0, 1);
  RunHooks hooks;
  hooks.notice = [](const Notice& notice) { std::fprintf(stderr, "%s\n", notice.text.c_str()); };
  if (!options.positional().empty()) {
    const std::string& argument = options.positional().front();
    RunTarget target = resolveTarget(argument);
    if (target.card && target.card->simulated()) {
      throw UsageError("demo cards keep no journal; give a disk (like sdb) or an image file.");
    }
    const std::vector<Session::Restored> restored = session().restore(target, hooks);
    bool kept = false;
    for (const Session::Restored& one : restored) {
      printRestored(target.name(), one);
      kept = kept || one.kept;
    }
    if (restored.empty()) {
      std::printf("%s: no interrupted Quick Check to undo.\n", target.name().c_str());
    }
    return kept ? kBadVerdict : kGoodVerdict;
  }

  const bool imagesAllowed = SystemPaths::environmentAllowsDiskImages();
  std::vector<PendingJournal> pending = session().allInterruptedChecks();
  if (pending.empty()) {
    std::printf("No interrupted Quick Check to undo.\n");
    return kGoodVerdict;
  }
  int kept = 0;
  for (const PendingJournal& journal : pending) {
    if (!std::filesystem::exists(journal.path)) continue;  // restored with another one
    bool done = false;
    for (RunTarget& target : placesFor(journal, imagesAllowed)) {
      // Only the disk that proves to be this card is written; any other
      // is just looked at.
      std::vector<Session::Restored> restored;
      try {
        restored = session().restore(target, hooks);
      } catch (const RunError& error) {
        if (error.is<RunError::Refused>()) continue;  // not a disk that can be written now
        throw;
      }
      // Another card that only looks alike is not worth a line here; a
      // journal left over is listed below.
      for (const Session::Restored& one : restored)
        if (!one.kept) printRestored(target.name(), one);
      if (!std::filesystem::exists(journal.path)) {
        done = true;
        break;
      }
    }
    if (!done) {
      ++kept;
      std::printf(
          "Kept the journal of %s (%s%s%s): that %s isn't here. Insert it, then run "
          "vellum-check restore again.\n",
          journal.card.name.c_str(), journal.card.model.empty() ? "" : journal.card.model.c_str(),
          journal.card.model.empty() ? "" : ", ", formatByteCount(journal.card.sizeBytes).c_str(),
          journal.card.name.starts_with("/") ? "file" : "card");
    }
  }
  return kept > 0 ? kBadVerdict : kGoodVerdict;
}

}  // namespace vellum::cli
