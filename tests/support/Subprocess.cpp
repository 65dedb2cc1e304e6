#include "support/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <stdexcept>

#include "platform/Process.h"

namespace vellum::testing {
namespace {

int exitCodeOf(const ExitStatus& status) {
  return status.exited ? status.code : 128 + status.code;
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input,
                         const std::vector<std::string>& extraEnvironment) {
  std::vector<std::pair<std::string, std::string>> environment;
  for (const std::string& entry : extraEnvironment) {
    const std::size_t equals = entry.find('=');
    environment.emplace_back(entry.substr(0, equals), entry.substr(equals + 1));
  }
  vellum::ProcessResult result = vellum::runProcess(argv, input, environment);
  return {exitCodeOf(result.status), std::move(result.standardOutput),
          std::move(result.standardError)};
}

ProcessResult runOnTerminal(const std::vector<std::string>& argv,
                            const std::function<void(const std::string&, int, int)>& onOutput) {
  int master = -1;
  int slave = -1;
  if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
    throw std::runtime_error("openpty failed");
  }
  UniqueFd terminal(master);
  UniqueFd childSide(slave);
  ::fcntl(master, F_SETFD, FD_CLOEXEC);
  ::fcntl(slave, F_SETFD, FD_CLOEXEC);
  SpawnOptions options;
  options.standardInput = options.standardOutput = options.standardError = Stdio::from(slave);
  ChildProcess child = ChildProcess::start(argv, options);
  childSide.reset();  // reads fail with EIO once the child has closed its side
  ProcessResult result;
  for (;;) {
    pollfd fd{master, POLLIN, 0};
    if (::poll(&fd, 1, 50) > 0) {
      char buffer[4096];
      const ssize_t n = ::read(master, buffer, sizeof buffer);
      if (n <= 0) break;
      result.out.append(buffer, static_cast<std::size_t>(n));
    }
    if (onOutput) onOutput(result.out, child.pid(), master);
  }
  result.exitCode = exitCodeOf(child.wait());
  return result;
}

}  // namespace vellum::testing
