#include "Run.h"

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <regex>

#include "Options.h"
#include "Terminal.h"
#include "session/LinuxPlatform.h"

namespace vellum::cli {
namespace {

std::optional<SimulatedCard> demoCard(const std::string& argument) {
  if (argument.rfind("demo:", 0) != 0) return std::nullopt;
  const std::optional<SimulatedCard> card = simulatedCardFromRawValue(argument.substr(5));
  if (!card) {
    throw UsageError("unknown demo card " + argument +
                     ". Give a disk name (like sdb), demo:genuine, demo:fake, demo:failing or the "
                     "path of a disk image file.");
  }
  return card;
}

bool looksLikeDisk(const std::string& argument) {
  static const std::regex disk(
      "^(sd[a-z]+|mmcblk[0-9]+|nvme[0-9]+n[0-9]+|loop[0-9]+|vd[a-z]+|hd[a-z]+|xvd[a-z]+)"
      "(p?[0-9]+)?$");
  return std::regex_match(argument, disk);
}

}  // namespace

Session& session() {
  static LinuxPlatform platform;
  static Session shared(platform, "Add --force to replace it.",
                        [](const std::string& name) { return "run vellum-check restore " + name; });
  return shared;
}

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

RunTarget resolveTarget(const std::string& argument) {
  if (const auto demo = demoCard(argument)) return RunTarget::of(Card{*demo});
  if (const auto name = diskName(argument)) {
    return RunTarget::of(Card{ExternalDisk{*name, "", 0, {}, "", 0}});
  }
  return RunTarget::image(argument);
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

CheckOutcome runRequest(RunRequest& request, const std::optional<std::string>& confirm, bool json) {
  CancellationFlag cancel;
  const SignalCancellation signals(cancel);
  ProgressLine line;
  RunHooks hooks;
  hooks.progress = line.callback();
  hooks.status = [&](StatusKind kind, const std::string& text) {
    switch (kind) {
      case StatusKind::waitingForAccess:
        // Said only when a password prompt is coming.
        if (const ExternalDisk* disk = request.target.disk();
            disk && session().platform().needsPassword(disk->deviceIdentifier,
                                                       request.action != CheckAction::health)) {
          std::fprintf(stderr, "%s\n", text.c_str());
        }
        break;
      case StatusKind::backingUp:
        line.finish();
        std::fprintf(stderr, "%s\n", text.c_str());
        break;
      case StatusKind::formatting:
        if (json) break;
        std::fprintf(stderr, "Formatting %s as %s named %s\u2026\n", request.target.name().c_str(),
                     std::string(displayName(*request.format->fileSystem)).c_str(),
                     request.format->name.c_str());
        break;
      case StatusKind::running:
        line.finish();
        break;
    }
  };
  hooks.notice = [&](const Notice& notice) {
    line.finish();
    std::fprintf(stderr, "%s\n", notice.text.c_str());
  };
  hooks.confirm = [&](const RunTarget& target) {
    return confirmErase(target.name(), target.confirmWord(), confirm);
  };
  try {
    CheckOutcome outcome = session().run(request, cancel, hooks);
    line.finish();
    return outcome;
  } catch (...) {
    line.finish();
    throw;
  }
}

}  // namespace vellum::cli
