#include "support/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

extern char** environ;

namespace vellum::testing {
namespace {

std::vector<char*> argvPointers(const std::vector<std::string>& argv) {
  std::vector<char*> pointers;
  for (const std::string& word : argv)
    pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

int exitCodeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

void drain(int fd, std::string& into) {
  char buffer[65536];
  const ssize_t n = ::read(fd, buffer, sizeof buffer);
  if (n > 0) into.append(buffer, static_cast<std::size_t>(n));
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input,
                         const std::vector<std::string>& extraEnvironment) {
  int outPipe[2], errPipe[2], inPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0 ||
      ::pipe2(inPipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  std::vector<std::string> environment;
  for (char** e = environ; *e != nullptr; ++e)
    environment.emplace_back(*e);
  for (const std::string& extra : extraEnvironment)
    environment.push_back(extra);
  std::vector<char*> envp = argvPointers(environment);
  pid_t pid = 0;
  const int spawned =
      posix_spawn(&pid, argv[0].c_str(), &actions, nullptr, argvPointers(argv).data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  ::close(inPipe[0]);
  if (spawned != 0) throw std::runtime_error("cannot start " + argv[0]);
  if (!input.empty()) {
    [[maybe_unused]] const ssize_t written = ::write(inPipe[1], input.data(), input.size());
  }
  ::close(inPipe[1]);
  ProcessResult result;
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  int open = 2;
  while (open > 0) {
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      std::string& into = i == 0 ? result.out : result.err;
      const std::size_t before = into.size();
      drain(fds[i].fd, into);
      if (into.size() == before) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitCode = exitCodeOf(status);
  return result;
}

ProcessResult runOnTerminal(const std::vector<std::string>& argv,
                            const std::function<void(const std::string&, int, int)>& onOutput) {
  int terminal = -1;
  const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid < 0) throw std::runtime_error("forkpty failed");
  if (pid == 0) {
    ::execv(argv[0].c_str(), argvPointers(argv).data());
    ::_exit(127);
  }
  ProcessResult result;
  for (;;) {
    pollfd fd{terminal, POLLIN, 0};
    if (::poll(&fd, 1, 50) > 0) {
      char buffer[4096];
      const ssize_t n = ::read(terminal, buffer, sizeof buffer);
      if (n <= 0) break;  // EIO once the child has closed the terminal
      result.out.append(buffer, static_cast<std::size_t>(n));
    }
    if (onOutput) onOutput(result.out, pid, terminal);
  }
  ::close(terminal);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitCode = exitCodeOf(status);
  return result;
}

}  // namespace vellum::testing
