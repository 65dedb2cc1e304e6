#include "platform/FormatHelper.h"

#include <unistd.h>

#include <charconv>
#include <map>

#include "devices/WriteError.h"
#include "platform/AuthOpen.h"
#include "platform/DeviceGuard.h"
#include "platform/DiskFormatter.h"
#include "platform/Process.h"

namespace vellum {
namespace {

constexpr std::string_view kSequenceMark = "#diskseq=";

std::optional<std::uint64_t> parseNumber(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

bool isKernelName(std::string_view name) {
  if (name.empty() || name.size() > 64 || name.front() == '.') return false;
  for (const char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '_' || c == '-' || c == '.';
    if (!ok) return false;
  }
  return true;
}

// What the helper printed, as one sentence.
std::string trimmedLine(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
    text.pop_back();
  return text;
}

}  // namespace

std::uint64_t diskSequence(const DiskIdentity& identity) {
  const std::size_t mark = identity.ioRegistryPath.rfind(kSequenceMark);
  if (mark == std::string::npos) return 0;
  return parseNumber(std::string_view(identity.ioRegistryPath).substr(mark + kSequenceMark.size()))
      .value_or(0);
}

FormatRequest FormatRequest::of(const DiskIdentity& identity, FileSystem fileSystem,
                                std::string_view name, std::optional<std::uint64_t> usableBytes,
                                bool allowDiskImages) {
  return FormatRequest{identity.deviceIdentifier,
                       vellum::diskSequence(identity),
                       fileSystem,
                       std::string(name),
                       usableBytes,
                       identity.allowance,
                       allowDiskImages};
}

std::vector<std::string> FormatRequest::arguments() const {
  std::vector<std::string> words{
      "--disk",          disk,
      "--disk-sequence", std::to_string(diskSequence),
      "--file-system",   fileSystem == FileSystem::exfat ? "exfat" : "fat32",
      "--name",          name};
  if (usableBytes) {
    words.emplace_back("--usable-bytes");
    words.push_back(std::to_string(*usableBytes));
  }
  if (allowance == Allowance::claimedCapacity) words.emplace_back("--claimed-capacity");
  if (allowDiskImages) words.emplace_back("--allow-disk-images");
  return words;
}

std::optional<FormatRequest> FormatRequest::parse(std::span<const std::string_view> arguments) {
  FormatRequest request;
  std::map<std::string_view, std::string_view> values;
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    const std::string_view word = arguments[index];
    if (word == "--claimed-capacity") {
      request.allowance = Allowance::claimedCapacity;
    } else if (word == "--allow-disk-images") {
      request.allowDiskImages = true;
    } else if ((word == "--disk" || word == "--disk-sequence" || word == "--file-system" ||
                word == "--name" || word == "--usable-bytes") &&
               index + 1 < arguments.size() && !values.contains(word)) {
      values[word] = arguments[++index];
    } else {
      return std::nullopt;
    }
  }
  if (!values.contains("--disk") || !values.contains("--disk-sequence") ||
      !values.contains("--file-system") || !values.contains("--name")) {
    return std::nullopt;
  }
  request.disk = values["--disk"];
  if (!isKernelName(request.disk)) return std::nullopt;
  const auto sequence = parseNumber(values["--disk-sequence"]);
  if (!sequence) return std::nullopt;
  request.diskSequence = *sequence;
  if (values["--file-system"] == "exfat") {
    request.fileSystem = FileSystem::exfat;
  } else if (values["--file-system"] == "fat32") {
    request.fileSystem = FileSystem::fat32;
  } else {
    return std::nullopt;
  }
  request.name = values["--name"];
  if (request.name.size() > 255) return std::nullopt;
  if (values.contains("--usable-bytes")) {
    request.usableBytes = parseNumber(values["--usable-bytes"]);
    if (!request.usableBytes) return std::nullopt;
  }
  return request;
}

void FormatRequest::perform() const {
  SystemPaths paths;
  paths.allowDiskImages = allowDiskImages;
  const DiskIdentity identity = DeviceGuard::inspect(disk, allowance, paths);
  // Another card in the same slot has the same name but not the same number.
  if (diskSequence != vellum::diskSequence(identity)) throw DeviceGuard::changed(disk);
  DiskFormatter::format(identity, fileSystem, name, paths, usableBytes);
}

FormatHelperCommand FormatHelperCommand::systemDefault() {
  const std::string helper = findHelperProgram("vellum-format")
                                 .value_or(std::string(kInstalledHelperFolder) + "/vellum-format");
  return FormatHelperCommand{{findProgram("pkexec").value_or("/usr/bin/pkexec"), helper}};
}

void formatThroughHelper(const FormatHelperCommand& command, const FormatRequest& request) {
  const std::string path = "/dev/" + request.disk;
  for (const std::string& word : command.launcher) {
    if (word.starts_with('/') && ::access(word.c_str(), X_OK) != 0) {
      throw WriteError::refused(
          "Formatting " + path +
          " needs administrator rights, and the helper vellum-format that asks for them isn't "
          "installed. Install Vellum Check with cmake --install, or run it as root.");
    }
  }
  std::vector<std::string> argv = command.launcher;
  for (std::string& word : request.arguments())
    argv.push_back(std::move(word));
  // The helper's standard error holds the tools' own diagnostics, already
  // summed up in its sentence on standard output.
  const ProcessResult result = runProcess(argv);
  const ExitStatus& status = result.status;
  if (status.succeeded()) return;
  const std::string sentence = trimmedLine(result.standardOutput);
  if (status.exited && status.code == FormatHelperExit::needsQuickCheck) {
    throw WriteError::needsQuickCheck(request.disk);
  }
  // pkexec's own codes when the user dismissed the prompt or is not allowed.
  if (sentence.empty()) throw WriteError::authorizationDenied(path);
  throw WriteError::refused(sentence);
}

}  // namespace vellum
