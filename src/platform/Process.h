#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bytes/Error.h"
#include "bytes/UniqueFd.h"

namespace vellum {

namespace process_error {
struct CannotStart {
  std::string program;
  int errnum;
  bool operator==(const CannotStart&) const = default;
};
}  // namespace process_error

// A child process that could not be started (missing program, no resources).
class ProcessError final : public ErrorOf<process_error::CannotStart> {
 public:
  using CannotStart = process_error::CannotStart;
  explicit ProcessError(Case errorCase);
  static ProcessError cannotStart(std::string program, int errnum) {
    return ProcessError(CannotStart{std::move(program), errnum});
  }
};

// Where one of a child's standard streams goes.
struct Stdio {
  enum class Kind { inherit, null, pipe, fd };
  Kind kind = Kind::null;
  int fd = -1;  // for Kind::fd: duplicated onto the stream in the child, not owned

  static Stdio inherit() { return {Kind::inherit, -1}; }
  static Stdio null() { return {Kind::null, -1}; }
  static Stdio pipe() { return {Kind::pipe, -1}; }
  static Stdio from(int fd) { return {Kind::fd, fd}; }
};

struct SpawnOptions {
  Stdio standardInput = Stdio::null();
  Stdio standardOutput = Stdio::pipe();
  Stdio standardError = Stdio::pipe();
  // Added to (or replacing in) the current environment, such as {"LC_ALL", "C"}.
  std::vector<std::pair<std::string, std::string>> environment;
  // Starts the child in a process group of its own, so a Ctrl-C at the
  // terminal reaches only this process, which decides when to stop (a format
  // must not die between the partition table and the file system).
  bool ownProcessGroup = false;
};

// How a child ended.
struct ExitStatus {
  bool exited = false;  // false: killed by a signal
  int code = 0;         // exit code, or the signal number
  bool succeeded() const noexcept { return exited && code == 0; }
  bool operator==(const ExitStatus&) const = default;
};

// Owns one running child started with posix_spawn from an argv vector (never
// through a shell). A child that was not waited for is killed and reaped when
// the object goes away, so no path leaves a zombie or a stray process.
class ChildProcess {
 public:
  // argv[0] is the program: an absolute path, or a name looked up in PATH and
  // then /usr/sbin and /sbin. Throws ProcessError when it cannot be started.
  static ChildProcess start(const std::vector<std::string>& argv, const SpawnOptions& options = {});

  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t pid() const noexcept { return pid_; }
  // The parent's ends of the pipes asked for (invalid otherwise). Take them to
  // read or write; closing the input pipe sends end-of-file.
  UniqueFd& standardInput() noexcept { return stdin_; }
  UniqueFd& standardOutput() noexcept { return stdout_; }
  UniqueFd& standardError() noexcept { return stderr_; }

  // Waits for the child (retrying after EINTR). Call at most once.
  ExitStatus wait();

 private:
  ChildProcess() = default;
  void killAndReap() noexcept;

  pid_t pid_ = -1;
  UniqueFd stdin_;
  UniqueFd stdout_;
  UniqueFd stderr_;
};

struct ProcessResult {
  ExitStatus status;
  std::string standardOutput;
  std::string standardError;
};

// Runs a program to its end, feeding input on its standard input and capturing
// both output streams (read together, so neither pipe can fill and stall it).
// Throws ProcessError when the program cannot be started.
ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input = {},
                         const std::vector<std::pair<std::string, std::string>>& environment = {},
                         bool ownProcessGroup = false);

// The absolute path of a program: argv-style name looked up in PATH, then in
// /usr/sbin and /sbin (tools such as sfdisk live there and PATH of an ordinary
// user may lack them). Absent when not found or not executable. A name with a
// slash is returned as it is.
std::optional<std::string> findProgram(const std::string& name);

}  // namespace vellum
