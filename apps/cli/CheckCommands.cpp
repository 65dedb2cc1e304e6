#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>

#include "Cli.h"
#include "Commands.h"
#include "Erasing.h"
#include "Options.h"
#include "Target.h"
#include "Terminal.h"
#include "bytes/DeviceError.h"
#include "checks/CardImage.h"
#include "checks/FullTest.h"
#include "checks/HealthScan.h"
#include "checks/QuickCheck.h"
#include "checks/Wipe.h"
#include "devices/WriteError.h"
#include "platform/Unmount.h"
#include "summary/ResultSummary.h"
#include "summary/SummaryText.h"

namespace vellum::cli {
namespace {

// Runs a check with Ctrl-C wired to its cancellation flag and a live progress
// line on a terminal.
template <class Run>
auto runWithProgress(Run&& check) {
  CancellationFlag cancel;
  SignalCancellation signals(cancel);
  ProgressLine line;
  auto result = check(cancel, line.callback());
  line.finish();
  return result;
}

// Prints the outcome as the application shows it, or as JSON.
template <class Result>
void printOutcome(const Result& result, const std::optional<Card>& card, bool json,
                  const std::string& argument) {
  if (json) {
    printJson(nlohmann::json(result));
    return;
  }
  printSummary(ResultSummary(CheckOutcome(result), card), card.has_value(), argument);
}

// Failures during a check name the target, and a failing medium gets a hint
// on what to do next.
[[noreturn]] void rethrowNamingTarget(const std::string& target, std::string_view noun) {
  try {
    throw;
  } catch (const CheckError& error) {
    if (error.is<CheckError::Cancelled>()) throw;
    throw WriteError::refused(target + ": " + error.description());
  } catch (const DeviceError& error) {
    throw WriteError::refused(target + ": " + error.description() + ". The " + std::string(noun) +
                              " may be failing; a Health Scan shows which areas.");
  } catch (const WriteError& error) {
    if (error.is<WriteError::Refused>() || error.is<WriteError::Removed>()) throw;
    throw WriteError::refused(target + ": " + error.description() + ". The " + std::string(noun) +
                              " may be failing or write-protected.");
  }
}

}  // namespace

void printSummary(ResultSummary summary, bool hasCard, const std::string& argument) {
  // An image file has no card row: name the file that was tested instead.
  if (!hasCard) summary.facts.insert(summary.facts.begin(), {"Image file", argument});
  std::fputs(renderText(summary).c_str(), stdout);
}

void printJson(const nlohmann::json& value) {
  // Names from disks and files need not be UTF-8: invalid bytes become
  // U+FFFD rather than an exception.
  std::printf("%s\n", value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

bool confirmErase(const std::string& what, const std::string& word,
                  const std::optional<std::string>& given) {
  if (given) {
    if (*given == word) return true;
    std::fprintf(stderr,
                 "vellum-check: --confirm %s doesn't match; type --confirm %s to erase %s.\n",
                 given->c_str(), word.c_str(), what.c_str());
    return false;
  }
  if (!stdinIsTerminal()) {
    std::fprintf(stderr,
                 "vellum-check: this erases everything on %s. To confirm, add --confirm %s.\n",
                 what.c_str(), word.c_str());
    return false;
  }
  std::fprintf(stderr, "This erases everything on %s. Type %s to continue: ", what.c_str(),
               word.c_str());
  std::fflush(stderr);
  std::string answer;
  if (!std::getline(std::cin, answer) || answer != word) {
    std::fprintf(stderr, "Not confirmed. Nothing was written.\n");
    return false;
  }
  return true;
}

namespace {

// What may follow a Quick Check with --then: the erasing actions, with the
// options each takes (checked before the Quick Check starts).
struct FollowUp {
  std::string_view name;
  CheckAction action;
  std::set<std::string> flags;
  std::set<std::string> valued;
  int (*run)(const std::vector<std::string>& words);
};

const FollowUp& followUp(const std::string& name) {
  static const FollowUp kFollowUps[] = {
      {"full", CheckAction::full, {"--json", "--force"}, {"--confirm", "--backup"}, runFull},
      {"wipe",
       CheckAction::wipe,
       {"--json", "--force"},
       {"--confirm", "--method", "--backup"},
       runWipe},
      {"format", CheckAction::format, {"--json"}, {"--fs", "--name", "--confirm"}, runFormat},
  };
  for (const FollowUp& next : kFollowUps) {
    if (next.name == name) return next;
  }
  throw UsageError("--then takes full, wipe or format, not " + name + ".");
}

// Runs the Quick Check and prints its outcome; a fake capacity on a disk is
// remembered for the rest of the process.
// Remembers the volumes of a disk that are mounted now and mounts them again
// when it goes away: the Quick Check keeps the user's files, so their card
// should look as it did. Declared before the Target, so that the device (held
// exclusively, which keeps anything from mounting) is closed first.
class Remount {
 public:
  explicit Remount(const std::string& argument) {
    if (const auto disk = diskName(argument)) volumes_ = mountedVolumes(*disk, SystemPaths{});
  }
  ~Remount() {
    if (volumes_.empty()) return;
    const auto failures =
        remountVolumes(volumes_, ::geteuid() == 0 ? UnmountMethod::direct : UnmountMethod::udisks);
    for (const std::string& failure : failures)
      std::fprintf(stderr, "%s\n", failure.c_str());
    if (failures.empty()) {
      std::fprintf(stderr, "Mounted %s again.\n",
                   volumes_.size() == 1 ? "its volume" : "its volumes");
    }
  }
  Remount(const Remount&) = delete;
  Remount& operator=(const Remount&) = delete;

 private:
  std::vector<MountedVolume> volumes_;
};

QuickCheck::Result quickCheck(const std::string& argument, bool json) {
  const Remount remount(argument);
  Target target = openTarget(argument, CheckAction::quick);
  // A stopped Quick Check has put every point back before the stop reaches us.
  stopNote() = "Everything the Quick Check wrote was put back; the " + target.noun() +
               " holds your data as before.";
  try {
    const QuickCheck::Result result = runWithProgress([&](auto& cancel, auto progress) {
      return QuickCheck{}.run(*target.device, cancel, progress);
    });
    if (result.verdict == QuickCheck::Result::Verdict::counterfeit && target.identity) {
      markProvenFake(target.identity->deviceIdentifier, result.verifiedBytes);
    }
    printOutcome(result, target.card, json, target.argument);
    return result;
  } catch (const Error&) {
    rethrowNamingTarget(target.argument, target.noun());
  }
}

int exitCodeOf(const QuickCheck::Result& result) {
  return result.verdict == QuickCheck::Result::Verdict::genuine ? kGoodVerdict : kBadVerdict;
}

// quick TARGET --then ACTION [its options]: the erasing action runs only when
// the Quick Check proved the capacity fake, and then under the guard's
// claimed-capacity allowance, so a fake that claims more than 4 TB can be
// erased.
int runQuickThen(const std::string& then, const std::vector<std::string>& rest) {
  const FollowUp& next = followUp(then);
  const Options options(rest, next.flags, next.valued, 1, 1);
  const std::string& argument = options.positional()[0];
  const std::optional<std::string> disk = diskName(argument);
  if (!disk) {
    throw UsageError("--then is for disks (like sdb): demo cards and image files need no Quick " +
                     std::string("Check first. Run vellum-check ") + std::string(next.name) + " " +
                     argument + " directly.");
  }
  if (const auto given = options.value("--confirm"); given && *given != *disk) {
    confirmErase(*disk, *disk, given);  // says what to type instead
    return kUsage;
  }
  // Values the second action would refuse are refused before the first runs.
  if (const auto method = options.value("--method"); method && !wipeMethodFromRawValue(*method)) {
    throw UsageError("--method takes zeros or random, not " + *method + ".");
  }
  if (const auto fs = options.value("--fs"); fs && *fs != "exfat" && *fs != "fat32") {
    throw UsageError("--fs takes exfat or fat32, not " + *fs + ".");
  }
  const QuickCheck::Result result = quickCheck(argument, options.has("--json"));
  if (result.verdict != QuickCheck::Result::Verdict::counterfeit) {
    std::fprintf(stderr, "The Quick Check found no fake capacity, so the %.*s was not run.\n",
                 static_cast<int>(title(next.action).size()), title(next.action).data());
    return exitCodeOf(result);
  }
  if (!options.has("--json")) std::printf("\n");
  std::fflush(stdout);
  const int code = next.run(rest);
  // The card is fake whatever the second action found.
  return code == kGoodVerdict ? kBadVerdict : code;
}

}  // namespace

int runQuick(const std::vector<std::string>& words) {
  std::vector<std::string> rest;
  std::optional<std::string> then;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "--then") {
      if (i + 1 == words.size()) throw UsageError("--then needs a value.");
      then = words[++i];
    } else if (words[i].rfind("--then=", 0) == 0) {
      then = words[i].substr(7);
    } else {
      rest.push_back(words[i]);
    }
  }
  if (then) return runQuickThen(*then, rest);
  const Options options(rest, {"--json"}, {}, 1, 1);
  return exitCodeOf(quickCheck(options.positional()[0], options.has("--json")));
}

int runFull(const std::vector<std::string>& words) {
  const Options options(words, {"--json", "--force"}, {"--confirm", "--backup"}, 1, 1);
  std::optional<Target> target = prepareErase(options.positional()[0], CheckAction::full, options);
  if (!target) return kUsage;
  try {
    const FullTest::Result result = runWithProgress([&](auto& cancel, auto progress) {
      return FullTest{}.run(*target->device, cancel, progress);
    });
    printOutcome(result, target->card, options.has("--json"), target->argument);
    return result.verdict == FullTest::Result::Verdict::genuine ? kGoodVerdict : kBadVerdict;
  } catch (const Error&) {
    rethrowNamingTarget(target->argument, target->noun());
  }
}

int runHealth(const std::vector<std::string>& words) {
  const Options options(words, {"--json"}, {}, 1, 1);
  std::optional<Card> card;
  const std::unique_ptr<ByteSource> source = openSource(options.positional()[0], card);
  HealthScan::Result result;
  try {
    result = runWithProgress([&](auto& cancel, auto progress) {
      return HealthScan{}.run(*source, 512, cancel, progress);
    });
  } catch (const Error&) {
    rethrowNamingTarget(options.positional()[0], nounFor(card));
  }
  printOutcome(result, card, options.has("--json"), options.positional()[0]);
  return result.verdict == HealthScan::Result::Verdict::healthy ? kGoodVerdict : kBadVerdict;
}

int runImage(const std::vector<std::string>& words) {
  const Options options(words, {"--force"}, {}, 2, 2);
  const std::string& argument = options.positional()[0];
  const std::string& destination = options.positional()[1];
  std::optional<Card> card;
  const std::unique_ptr<ByteSource> source = openSource(argument, card);
  checkImageDestination(argument, diskName(argument), std::string(nounFor(card)), destination,
                        false);
  try {
    runWithProgress([&](auto& cancel, auto progress) {
      CardImage{.replaceExisting = options.has("--force")}.save(*source, destination, cancel,
                                                                progress);
      return 0;
    });
  } catch (const ImageError& error) {
    throw WriteError::refused(imageErrorText(error));
  } catch (const DeviceError&) {
    rethrowNamingTarget(argument, nounFor(card));
  }
  // A disk reads its unreadable sectors as zeros: the image holds zeros there.
  if (const std::int64_t lost = source->badReads(); lost > 0) {
    std::printf(
        "Saved %s to %s, with zeros for %lld unreadable %s. The %s is failing; keep "
        "this image and copy your files from it.\n",
        argument.c_str(), destination.c_str(), static_cast<long long>(lost),
        lost == 1 ? "sector" : "sectors", std::string(nounFor(card)).c_str());
    return kBadVerdict;
  }
  std::printf("Saved %s to %s.\n", argument.c_str(), destination.c_str());
  return kGoodVerdict;
}

}  // namespace vellum::cli
