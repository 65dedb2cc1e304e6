#pragma once

#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/Subprocess.h"
#include "support/TempDir.h"

// Running vellum-check from tests, and the files they compare before and after.

namespace vellum::testing {

constexpr std::uint64_t kMiB = 1 << 20;

// The state folder of the commands these tests run (undo journals), so that
// they never touch the real user's.
inline const TempDir& stateHome() {
  static const TempDir home;
  return home;
}
inline std::string stateHomeVariable() {
  return "XDG_STATE_HOME=" + stateHome().path().string();
}

// allowImages lets the guard accept loop devices over image files as disks.
inline ProcessResult cli(std::vector<std::string> arguments, bool allowImages = true,
                         std::vector<std::string> environment = {}) {
  arguments.insert(arguments.begin(), VELLUM_CHECK_BINARY);
  environment.push_back(stateHomeVariable());
  if (allowImages) environment.push_back("VL_ALLOW_DISK_IMAGES=1");
  return runProcess(arguments, {}, environment);
}

struct TerminalRun {
  ProcessResult result;
  bool acted = false;  // whether the cue appeared and the answer or Ctrl-C was sent
};

// Runs vellum-check on a terminal. Once `cue` is printed it types `answer`,
// or without one sends `stop` (Ctrl-C by default).
inline TerminalRun cliOnTerminal(std::vector<std::string> arguments, const std::string& cue,
                                 const std::optional<std::string>& answer = std::nullopt,
                                 int stop = SIGINT) {
  arguments.insert(arguments.begin(), {"/usr/bin/env", "VL_ALLOW_DISK_IMAGES=1",
                                       stateHomeVariable(), VELLUM_CHECK_BINARY});
  TerminalRun run;
  run.result = runOnTerminal(arguments, [&](const std::string& output, int pid, int terminal) {
    if (run.acted || output.find(cue) == std::string::npos) return;
    if (!answer) {
      run.acted = ::kill(pid, stop) == 0;
      return;
    }
    const std::string line = *answer + "\n";
    run.acted = write(terminal, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  });
  return run;
}

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Reproducible random bytes, so a disk's content can be compared afterwards.
inline std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937_64 random(seed);
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i + 8 <= size; i += 8) {
    const std::uint64_t word = random();
    std::memcpy(bytes.data() + i, &word, 8);
  }
  return bytes;
}

// One JSON document per non-empty line.
inline std::vector<nlohmann::json> jsonLines(const std::string& text) {
  std::vector<nlohmann::json> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) lines.push_back(nlohmann::json::parse(line));
  }
  return lines;
}

}  // namespace vellum::testing
