#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>

#include "Cli.h"
#include "Commands.h"
#include "Options.h"
#include "Report.h"
#include "Run.h"
#include "Terminal.h"
#include "summary/ResultSummary.h"
#include "summary/SummaryText.h"

namespace vellum::cli {

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

namespace {

template <class Result>
nlohmann::json outcomeJson(const Result& result) {
  return nlohmann::json(result);
}

nlohmann::json outcomeJson(const Formatted& formatted) {
  return {{"fileSystem", formatted.fileSystem == FileSystem::exfat ? "exfat" : "fat32"},
          {"name", formatted.name}};
}

}  // namespace

void printOutcome(const CheckOutcome& outcome, const RunTarget& target, bool json) {
  if (json) {
    std::visit([](const auto& result) { printJson(outcomeJson(result)); }, outcome);
    return;
  }
  printSummary(ResultSummary(outcome, target.card), target.card.has_value(), target.name());
}

int exitCodeOf(const CheckOutcome& outcome) {
  return std::visit(
      [](const auto& result) {
        using R = std::decay_t<decltype(result)>;
        bool good = true;
        if constexpr (std::is_same_v<R, QuickCheck::Result>) {
          good = result.verdict == QuickCheck::Result::Verdict::genuine;
        } else if constexpr (std::is_same_v<R, FullTest::Result>) {
          good = result.verdict == FullTest::Result::Verdict::genuine;
        } else if constexpr (std::is_same_v<R, HealthScan::Result>) {
          good = result.verdict == HealthScan::Result::Verdict::healthy;
        } else if constexpr (std::is_same_v<R, Wipe::Result>) {
          good = result.isComplete();
        }
        return good ? kGoodVerdict : kBadVerdict;
      },
      outcome);
}

int runAction(CheckAction action, const std::string& argument, const Options& options,
              const std::function<void(RunRequest&)>& configure) {
  RunRequest request;
  request.action = action;
  request.target = resolveTarget(argument);
  if (const auto backup = options.value("--backup")) request.backupTo = *backup;
  request.replaceBackup = options.has("--force");
  if (configure) configure(request);
  // A report that could not be saved is found out before the card is touched.
  if (const auto report = options.value("--report");
      report && std::filesystem::exists(*report) && !std::filesystem::is_directory(*report)) {
    throw UsageError(*report + " already exists. Give --report a new file name or a folder.");
  }
  const bool json = options.has("--json");
  const CheckOutcome outcome = runRequest(request, options.value("--confirm"), json);
  printOutcome(outcome, request.target, json);
  if (const auto report = options.value("--report")) {
    saveReport(*report, outcome, request.action, request.target);
  }
  return exitCodeOf(outcome);
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
      {"full",
       CheckAction::full,
       {"--json", "--force"},
       {"--confirm", "--backup", "--report"},
       runFull},
      {"wipe",
       CheckAction::wipe,
       {"--json", "--force"},
       {"--confirm", "--method", "--backup", "--report"},
       runWipe},
      {"format",
       CheckAction::format,
       {"--json"},
       {"--fs", "--name", "--confirm", "--report"},
       runFormat},
  };
  for (const FollowUp& next : kFollowUps) {
    if (next.name == name) return next;
  }
  throw UsageError("--then takes full, wipe or format, not " + name + ".");
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
  const Options quickOptions(options.has("--json") ? std::vector<std::string>{argument, "--json"}
                                                   : std::vector<std::string>{argument},
                             {"--json"}, {}, 1, 1);
  const int code = runAction(CheckAction::quick, argument, quickOptions, {});
  if (!session().provenFake(*disk)) {
    std::fprintf(stderr, "The Quick Check found no fake capacity, so the %.*s was not run.\n",
                 static_cast<int>(title(next.action).size()), title(next.action).data());
    return code;
  }
  if (!options.has("--json")) std::printf("\n");
  std::fflush(stdout);
  const int nextCode = next.run(rest);
  // The card is fake whatever the second action found.
  return nextCode == kGoodVerdict ? kBadVerdict : nextCode;
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
  const Options options(rest, {"--json"}, {"--report"}, 1, 1);
  return runAction(CheckAction::quick, options.positional()[0], options, {});
}

int runFull(const std::vector<std::string>& words) {
  const Options options(words, {"--json", "--force"}, {"--confirm", "--backup", "--report"}, 1, 1);
  return runAction(CheckAction::full, options.positional()[0], options, {});
}

int runHealth(const std::vector<std::string>& words) {
  const Options options(words, {"--json"}, {"--report"}, 1, 1);
  return runAction(CheckAction::health, options.positional()[0], options, {});
}

int runImage(const std::vector<std::string>& words) {
  const Options options(words, {"--force"}, {}, 2, 2);
  const std::string& argument = options.positional()[0];
  const std::string& destination = options.positional()[1];
  RunTarget target = resolveTarget(argument);
  CancellationFlag cancel;
  const SignalCancellation signals(cancel);
  ProgressLine line;
  RunHooks hooks;
  hooks.progress = line.callback();
  std::int64_t lost = 0;
  try {
    lost = session().saveImage(target, destination, options.has("--force"), cancel, hooks);
  } catch (...) {
    line.finish();
    throw;
  }
  line.finish();
  // A disk reads its unreadable sectors as zeros: the image holds zeros there.
  if (lost > 0) {
    std::printf(
        "Saved %s to %s, with zeros for %lld unreadable %s. The %s is failing; keep "
        "this image and copy your files from it.\n",
        argument.c_str(), destination.c_str(), static_cast<long long>(lost),
        lost == 1 ? "sector" : "sectors", target.noun().c_str());
    return kBadVerdict;
  }
  std::printf("Saved %s to %s.\n", argument.c_str(), destination.c_str());
  return kGoodVerdict;
}

}  // namespace vellum::cli
