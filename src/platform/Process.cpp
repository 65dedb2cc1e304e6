#include "platform/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "bytes/Precondition.h"

extern char** environ;

namespace vellum {
namespace {

std::string describe(const ProcessError::Case& errorCase) {
  const auto& c = std::get<ProcessError::CannotStart>(errorCase);
  return "Couldn't start " + c.program + ": " + errnoText(c.errnum);
}

bool isExecutableFile(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

// The current environment with the given variables added or replaced.
std::vector<std::string> mergedEnvironment(
    const std::vector<std::pair<std::string, std::string>>& overrides) {
  std::vector<std::string> result;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    const std::string_view key = text.substr(0, text.find('='));
    bool replaced = false;
    for (const auto& [name, value] : overrides)
      replaced = replaced || key == name;
    if (!replaced) result.emplace_back(text);
  }
  for (const auto& [name, value] : overrides)
    result.push_back(name + "=" + value);
  return result;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  result.reserve(strings.size() + 1);
  for (std::string& s : strings)
    result.push_back(s.data());
  result.push_back(nullptr);
  return result;
}

// Owns posix_spawn's attribute and file-action objects.
struct SpawnSetup {
  posix_spawn_file_actions_t actions{};
  posix_spawnattr_t attributes{};
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
};

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

Pipe makePipe(const std::string& program) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw ProcessError::cannotStart(program, errno);
  return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

// Sets up one standard stream of the child. Pipe ends meant for the child are
// kept in childEnds until the spawn is done; the parent's end goes to parentEnd.
void arrange(SpawnSetup& setup, const Stdio& stdio, int target, bool childReads,
             const std::string& program, std::vector<UniqueFd>& childEnds, UniqueFd& parentEnd) {
  switch (stdio.kind) {
    case Stdio::Kind::inherit:
      break;
    case Stdio::Kind::null:
      posix_spawn_file_actions_addopen(&setup.actions, target, "/dev/null",
                                       childReads ? O_RDONLY : O_WRONLY, 0);
      break;
    case Stdio::Kind::pipe: {
      Pipe p = makePipe(program);
      UniqueFd& child = childReads ? p.read : p.write;
      posix_spawn_file_actions_adddup2(&setup.actions, child.get(), target);
      parentEnd = std::move(childReads ? p.write : p.read);
      childEnds.push_back(std::move(child));
      break;
    }
    case Stdio::Kind::fd:
      posix_spawn_file_actions_adddup2(&setup.actions, stdio.fd, target);
      break;
  }
}

}  // namespace

ProcessError::ProcessError(Case errorCase) : ErrorOf(errorCase, describe(errorCase)) {}

std::optional<std::string> findProgram(const std::string& name) {
  if (name.empty()) return std::nullopt;
  if (name.find('/') != std::string::npos) return name;
  std::string searchPath;
  if (const char* path = std::getenv("PATH"); path != nullptr) searchPath = path;
  searchPath += ":/usr/sbin:/sbin";
  std::string_view rest(searchPath);
  while (true) {
    const std::size_t colon = rest.find(':');
    const std::string_view folder = rest.substr(0, colon);
    if (!folder.empty()) {
      std::string candidate(folder);
      candidate += '/';
      candidate += name;
      if (isExecutableFile(candidate)) return candidate;
    }
    if (colon == std::string_view::npos) break;
    rest.remove_prefix(colon + 1);
  }
  return std::nullopt;
}

ChildProcess ChildProcess::start(const std::vector<std::string>& argv,
                                 const SpawnOptions& options) {
  VL_PRECONDITION(!argv.empty());
  const std::string& program = argv.front();
  const std::optional<std::string> resolved = findProgram(program);
  if (!resolved) throw ProcessError::cannotStart(program, ENOENT);

  ChildProcess child;
  SpawnSetup setup;
  std::vector<UniqueFd> childEnds;
  arrange(setup, options.standardInput, STDIN_FILENO, true, program, childEnds, child.stdin_);
  arrange(setup, options.standardOutput, STDOUT_FILENO, false, program, childEnds, child.stdout_);
  arrange(setup, options.standardError, STDERR_FILENO, false, program, childEnds, child.stderr_);

  // The child starts with default signal handling and an empty mask, whatever
  // this process has set up (an ignored SIGPIPE would otherwise be inherited).
  sigset_t empty;
  sigemptyset(&empty);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (int sig : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCHLD})
    sigaddset(&defaults, sig);
  posix_spawnattr_setsigmask(&setup.attributes, &empty);
  posix_spawnattr_setsigdefault(&setup.attributes, &defaults);
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (options.ownProcessGroup) {
    posix_spawnattr_setpgroup(&setup.attributes, 0);
    flags |= POSIX_SPAWN_SETPGROUP;
  }
  posix_spawnattr_setflags(&setup.attributes, flags);

  std::vector<std::string> args(argv);
  std::vector<char*> argPointers = pointers(args);
  std::vector<std::string> env = mergedEnvironment(options.environment);
  std::vector<char*> envPointers = pointers(env);

  pid_t pid = -1;
  const int rc = ::posix_spawn(&pid, resolved->c_str(), &setup.actions, &setup.attributes,
                               argPointers.data(), envPointers.data());
  if (rc != 0) throw ProcessError::cannotStart(program, rc);
  child.pid_ = pid;
  return child;
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      stdin_(std::move(other.stdin_)),
      stdout_(std::move(other.stdout_)),
      stderr_(std::move(other.stderr_)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    killAndReap();
    pid_ = std::exchange(other.pid_, -1);
    stdin_ = std::move(other.stdin_);
    stdout_ = std::move(other.stdout_);
    stderr_ = std::move(other.stderr_);
  }
  return *this;
}

ChildProcess::~ChildProcess() {
  killAndReap();
}

void ChildProcess::killAndReap() noexcept {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

ExitStatus ChildProcess::wait() {
  VL_PRECONDITION(pid_ > 0);
  // Our ends of its pipes are of no more use and closing the input lets a
  // child that still reads it finish.
  stdin_.reset();
  int status = 0;
  pid_t rc;
  do {
    rc = ::waitpid(pid_, &status, 0);
  } while (rc < 0 && errno == EINTR);
  pid_ = -1;
  if (rc < 0) return {false, 0};
  if (WIFEXITED(status)) return {true, WEXITSTATUS(status)};
  if (WIFSIGNALED(status)) return {false, WTERMSIG(status)};
  return {false, 0};
}

ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input,
                         const std::vector<std::pair<std::string, std::string>>& environment,
                         bool ownProcessGroup) {
  SpawnOptions options;
  options.ownProcessGroup = ownProcessGroup;
  options.standardInput = input.empty() ? Stdio::null() : Stdio::pipe();
  options.environment = environment;
  ChildProcess child = ChildProcess::start(argv, options);

  ProcessResult result;
  UniqueFd& in = child.standardInput();
  if (in) ::fcntl(in.get(), F_SETFL, O_NONBLOCK);
  std::size_t written = 0;

  // A child that exits without reading its input makes our write fail with
  // EPIPE; block SIGPIPE on this thread meanwhile so it cannot end us, and
  // drop a pending one afterwards.
  sigset_t pipeSignal;
  sigemptyset(&pipeSignal);
  sigaddset(&pipeSignal, SIGPIPE);
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &pipeSignal, &previous);
  bool sawPipeError = false;

  char buffer[16384];
  while (child.standardOutput() || child.standardError() || in) {
    pollfd fds[3];
    nfds_t count = 0;
    UniqueFd* owners[3];
    std::string* sinks[3];
    const auto add = [&](UniqueFd& fd, short events, std::string* sink) {
      if (!fd) return;
      fds[count] = {fd.get(), events, 0};
      owners[count] = &fd;
      sinks[count] = sink;
      ++count;
    };
    add(child.standardOutput(), POLLIN, &result.standardOutput);
    add(child.standardError(), POLLIN, &result.standardError);
    add(in, POLLOUT, nullptr);
    if (::poll(fds, count, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (nfds_t i = 0; i < count; ++i) {
      if (fds[i].revents == 0) continue;
      if (sinks[i] == nullptr) {
        const ssize_t n = ::write(fds[i].fd, input.data() + written, input.size() - written);
        if (n > 0) written += static_cast<std::size_t>(n);
        if (n < 0 && errno == EPIPE) sawPipeError = true;
        if ((n < 0 && errno != EINTR && errno != EAGAIN) || written == input.size()) {
          owners[i]->reset();
        }
        continue;
      }
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        owners[i]->reset();
      }
    }
  }
  if (sawPipeError) {
    const timespec zero{0, 0};
    sigtimedwait(&pipeSignal, nullptr, &zero);
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);

  result.status = child.wait();
  return result;
}

}  // namespace vellum
